// The maintenance command as a user meets it: its command lines, exit statuses and messages, on
// stores in scratch libraries; one run of the built executable against the default library.
#include "app/store_command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>

#include "app/store_maintenance.h"
#include "app/terminal_progress_bar.h"
#include "app_test_support.h"
#include "deletion/deletion_report.h"

namespace tesselune {
namespace {

using testing::ScratchHome;

struct CommandResult {
  int exitCode;
  std::string out;
  std::string err;
};

class StoreCommandTest : public ::testing::Test {
 protected:
  // Runs the command on the scratch library's store (through --store unless told otherwise).
  CommandResult run(std::vector<std::string> arguments, bool withStore = true) {
    std::vector<std::string> all{"tesselune-store"};
    if (withStore) all.insert(all.end(), {"--store", home_.library().storeFile().string()});
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<const char*> argv;
    for (const auto& argument : all) argv.push_back(argument.c_str());
    std::ostringstream out;
    std::ostringstream err;
    const int code = runStoreCommand(static_cast<int>(argv.size()), argv.data(), CommandOutput{out, err});
    return {code, out.str(), err.str()};
  }

  CommandResult makeSmallDemo() {
    return run({"demo", "--chromatograms",    "2", "--spectra",
                "30",   "--fragment-spectra", "3", "--searches",
                "1",    "--peptides",         "4", "--proteins",
                "2",    "--search-groups",    "1", "--collections",
                "1",    "--mark-searches",    "0", "--mark-search-groups",
                "0",    "--mark-collections", "0", "--files",
                "1",    "--file-kb",          "1"});
  }

  ScratchHome home_;
};

TEST_F(StoreCommandTest, WrongCommandLinesAreUsageErrors) {
  for (const std::vector<std::string>& line : std::vector<std::vector<std::string>>{
           {},
           {"frobnicate"},
           {"status", "--bogus"},
           {"demo", "--spectra", "-5"},
           {"demo", "--spectra", "many"},
           {"demo", "--chromatograms", "1", "--mark-chromatograms", "2"},
           {"mark"},
           {"mark", "chromatogram"},
           {"mark", "chromatogram", "Chromatogram 1", "--uri", "x-coredata://x/Chromatogram/p1"},
       }) {
    const CommandResult result = run(line);
    EXPECT_EQ(result.exitCode, kExitUsage) << ::testing::PrintToString(line) << result.err;
    EXPECT_FALSE(result.err.empty()) << ::testing::PrintToString(line);
  }
  // Nothing was made by any of them.
  EXPECT_FALSE(std::filesystem::exists(home_.library().storeFile()));
}

TEST_F(StoreCommandTest, EverySubcommandHasHelp) {
  for (const char* subcommand : {"create", "demo", "mark", "status", "report", "verify"}) {
    const CommandResult result = run({subcommand, "--help"});
    EXPECT_EQ(result.exitCode, kExitOk) << subcommand;
    EXPECT_NE(result.out.find(std::string("tesselune-store ") + subcommand), std::string::npos) << result.out;
  }
  const CommandResult top = run({"--help"}, false);
  EXPECT_EQ(top.exitCode, kExitOk);
  EXPECT_NE(top.out.find("verify"), std::string::npos);
}

TEST_F(StoreCommandTest, CommandsOnAMissingStoreFailWithAHint) {
  for (const char* subcommand : {"status", "verify"}) {
    const CommandResult result = run({subcommand});
    EXPECT_EQ(result.exitCode, kExitFailure) << subcommand;
    EXPECT_NE(result.err.find("There is no store at"), std::string::npos) << result.err;
  }
  EXPECT_EQ(run({"mark", "chromatogram", "Chromatogram 1"}).exitCode, kExitFailure);
  // Reports need no store: the folder is simply empty.
  const CommandResult report = run({"report"});
  EXPECT_EQ(report.exitCode, kExitOk);
  EXPECT_EQ(report.out, "No deletion reports.\n");
}

// A file that is no store: one clear line, and SQLite's own account only when asked for.
TEST_F(StoreCommandTest, AFileThatIsNoStoreFailsInOneLineWithDetailOnlyWhenVerbose) {
  std::filesystem::create_directories(home_.library().folder());
  std::ofstream(home_.library().storeFile(), std::ios::binary) << std::string(4096, 'x');
  const CommandResult plain = run({"status"});
  EXPECT_EQ(plain.exitCode, kExitFailure);
  EXPECT_EQ(std::count(plain.err.begin(), plain.err.end(), '\n'), 1) << plain.err;
  EXPECT_NE(plain.err.find("isn’t in the correct format."), std::string::npos) << plain.err;
  EXPECT_EQ(plain.err.find("SQLite"), std::string::npos) << plain.err;
  EXPECT_EQ(plain.err.find(home_.library().storeFile().string()), std::string::npos) << plain.err;

  const CommandResult verbose = run({"--verbose", "status"});
  EXPECT_EQ(verbose.exitCode, kExitFailure);
  EXPECT_TRUE(verbose.err.starts_with(plain.err)) << verbose.err;
  EXPECT_NE(verbose.err.find("SQLite 26: file is not a database"), std::string::npos) << verbose.err;
  EXPECT_NE(verbose.err.find(home_.library().storeFile().string()), std::string::npos) << verbose.err;
}

TEST_F(StoreCommandTest, CreateThenCreateAgainFails) {
  EXPECT_EQ(run({"create"}).exitCode, kExitOk);
  const CommandResult again = run({"create"});
  EXPECT_EQ(again.exitCode, kExitFailure);
  EXPECT_NE(again.err.find("already exists"), std::string::npos);
  const CommandResult status = run({"status"});
  EXPECT_EQ(status.exitCode, kExitOk);
  EXPECT_NE(status.out.find("Marked for deletion: none"), std::string::npos);
}

TEST_F(StoreCommandTest, MarkByNameAndByURIShowsInStatus) {
  ASSERT_EQ(makeSmallDemo().exitCode, kExitOk);
  const CommandResult before = run({"status"});
  ASSERT_EQ(before.exitCode, kExitOk);
  EXPECT_NE(before.out.find("Marked for deletion: 1\n  Chromatogram \"Chromatogram 2\""), std::string::npos)
      << before.out;

  const CommandResult byName = run({"mark", "search", "Search 1"});
  EXPECT_EQ(byName.exitCode, kExitOk) << byName.err;
  EXPECT_NE(byName.out.find("Marked DatabaseSearchResult \"Search 1\" x-coredata://"), std::string::npos);

  // The URI as status prints it, for the first chromatogram.
  const std::string line = "Chromatogram \"Chromatogram 2\" ";
  const auto at = before.out.find(line);
  ASSERT_NE(at, std::string::npos);
  std::string uri = before.out.substr(at + line.size(), before.out.find('\n', at) - at - line.size());
  uri.replace(uri.rfind("/p2"), 3, "/p1");
  const CommandResult byURI = run({"mark", "--uri", uri});
  EXPECT_EQ(byURI.exitCode, kExitOk) << byURI.err;
  EXPECT_NE(byURI.out.find("Marked Chromatogram \"Chromatogram 1\" " + uri), std::string::npos) << byURI.out;

  const CommandResult after = run({"status"});
  EXPECT_NE(after.out.find("Marked for deletion: 3\n"), std::string::npos) << after.out;
  const auto row = after.out.find("\n  Chromatogram ");
  ASSERT_NE(row, std::string::npos);
  EXPECT_TRUE(after.out.substr(row, after.out.find('\n', row + 1) - row).ends_with(" 2  (2 marked)"))
      << after.out;

  const CommandResult unknownEntity = run({"mark", "spectrum", "Spectrum 1"});
  EXPECT_EQ(unknownEntity.exitCode, kExitUsage);
  EXPECT_NE(unknownEntity.err.find("Chromatogram, DataCollection, DatabaseSearchJoin, DatabaseSearchResult"),
            std::string::npos)
      << unknownEntity.err;
  EXPECT_EQ(run({"mark", "collection", "No such collection"}).exitCode, kExitFailure);
}

TEST_F(StoreCommandTest, VerifyFailsOnADamagedStore) {
  ASSERT_EQ(makeSmallDemo().exitCode, kExitOk);
  EXPECT_EQ(run({"verify"}).exitCode, kExitOk);
  {
    auto opened = openMaintenanceStore(home_.library().storeFile(), false);
    ASSERT_TRUE(opened);
    ASSERT_TRUE(opened->store->database().execute("DELETE FROM ZCHROMATOGRAM WHERE Z_PK = 2"));
  }
  const CommandResult damaged = run({"verify"});
  EXPECT_EQ(damaged.exitCode, kExitFailure);
  EXPECT_NE(damaged.out.find("References to missing rows:"), std::string::npos) << damaged.out;
}

TEST_F(StoreCommandTest, ReportPrintsJsonOfTheLibrarysReports) {
  ASSERT_EQ(makeSmallDemo().exitCode, kExitOk);
  std::string uri;
  {
    auto opened = openMaintenanceStore(home_.library().storeFile(), true);
    ASSERT_TRUE(opened);
    const auto id = ManagedObjectID::permanent(*opened->model->entityNamed("Chromatogram"),
                                               opened->store->identifier(), 2);
    uri = id.URIRepresentation().absoluteString();
    ASSERT_TRUE(writeDeletionReport(home_.library().temporaryFolder(), {id}, true));
  }
  const CommandResult json = run({"report", "--json"});
  EXPECT_EQ(json.exitCode, kExitOk);
  EXPECT_EQ(json.out, "{\"reports\": [\n  {\"file\": \"" +
                          (home_.library().temporaryFolder() / "storeSupport.info").string() +
                          "\", \"chromatogramDeleted\": true, \"uris\": [\"" + uri + "\"]}\n]}\n");
  EXPECT_NE(run({"status"}).out.find("Deletion reports: 1\n"), std::string::npos);
}

// The executable finds the shared library under XDG_DATA_HOME when no --store is given.
TEST_F(StoreCommandTest, TheExecutableWorksOnTheDefaultLibrary) {
  const auto environment = home_.environment();
  const auto made = testing::runProcess(TESSELUNE_STORE_COMMAND, {"create"}, environment, home_.root());
  EXPECT_EQ(made.exitCode, 0) << made.err;
  EXPECT_TRUE(std::filesystem::is_regular_file(home_.library().storeFile()));
  const auto status = testing::runProcess(TESSELUNE_STORE_COMMAND, {"status"}, environment, home_.root());
  EXPECT_EQ(status.exitCode, 0) << status.err;
  EXPECT_NE(status.out.find("Store: " + home_.library().storeFile().string()), std::string::npos)
      << status.out;
  const auto wrong =
      testing::runProcess(TESSELUNE_STORE_COMMAND, {"status", "extra"}, environment, home_.root());
  EXPECT_EQ(wrong.exitCode, 2);
}

TEST(TerminalProgressBar, TheLineShowsTheFractionDoneAndTheText) {
  EXPECT_EQ(TerminalProgressBar::render(0, 10, "Start", 10), "[          ]   0%  Start");
  EXPECT_EQ(TerminalProgressBar::render(5, 10, "Half", 10), "[#####     ]  50%  Half");
  EXPECT_EQ(TerminalProgressBar::render(10, 10, "", 10), "[##########] 100%");
  // Past the end and below zero stay within the bar.
  EXPECT_EQ(TerminalProgressBar::render(15, 10, "", 4), "[####] 100%");
  EXPECT_EQ(TerminalProgressBar::render(-3, 10, "", 4), "[    ]   0%");
  // Without a maximum the count is shown; a value that is no number counts as none.
  EXPECT_EQ(TerminalProgressBar::render(7, -1, "Rows", 5), "[ ... ]    7  Rows");
  EXPECT_EQ(TerminalProgressBar::render(std::nan(""), 0, "", 3), "[...]    0");
  EXPECT_EQ(TerminalProgressBar::render(std::numeric_limits<double>::infinity(), 10, "", 2), "[  ]   0%");
}

}  // namespace
}  // namespace tesselune
