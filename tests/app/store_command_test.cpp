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
#include "fixtures.h"
#include "store_files.h"

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
  for (const char* subcommand : {"status", "verify", "inspect"}) {
    const CommandResult result = run({subcommand});
    EXPECT_EQ(result.exitCode, kExitUnopened) << subcommand;
    EXPECT_NE(result.err.find("There is no store at"), std::string::npos) << result.err;
  }
  EXPECT_EQ(run({"mark", "chromatogram", "Chromatogram 1"}).exitCode, kExitUnopened);
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
  EXPECT_EQ(plain.exitCode, kExitUnopened);
  EXPECT_EQ(std::count(plain.err.begin(), plain.err.end(), '\n'), 1) << plain.err;
  EXPECT_NE(plain.err.find("isn’t in the correct format."), std::string::npos) << plain.err;
  EXPECT_EQ(plain.err.find("SQLite"), std::string::npos) << plain.err;
  EXPECT_EQ(plain.err.find(home_.library().storeFile().string()), std::string::npos) << plain.err;

  const CommandResult verbose = run({"--verbose", "status"});
  EXPECT_EQ(verbose.exitCode, kExitUnopened);
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

// Every way a store file can be unusable, for every command that opens one: one line on standard
// error, the status for a store that could not be opened (or, for a damaged model cache, work
// without a model), and the file's bytes as they were.
TEST(StoreCommandInput, BadStoreFilesGiveOneLineAStatusAndStayAsTheyWere) {
  namespace fs = std::filesystem;
  const fs::path folder = test::scratchFolder("bad-input");
  const std::string moody =
      testing::fileBytes(fs::path(TESSELUNE_FIXTURES_DIR) / "coredata/moody/stores/Moody.moody");
  ASSERT_GT(moody.size(), 80000u);
  std::string random(8192, '\0');
  std::uint32_t seed = 12345;
  for (char& c : random) {
    seed = seed * 1664525u + 1013904223u;
    c = static_cast<char>(seed >> 24);
  }
  struct Case {
    std::string name;
    std::string bytes;
    int inspectAndVerify;  // the status of inspect and verify
    std::string says;
  };
  const std::vector<Case> cases = {
      {"empty", "", kExitUnopened, "isn’t in the correct format"},
      {"random", random, kExitUnopened, "isn’t in the correct format"},
      {"header only", moody.substr(0, 100), kExitUnopened, "isn’t in the correct format"},
      {"truncated", moody.substr(0, moody.size() - 4096), kExitUnopened, "isn’t in the correct format"},
  };
  const std::vector<std::vector<std::string>> commands = {
      {"inspect"},
      {"verify"},
      {"status"},
      {"delete", "Mood", "--where", "TRUEPREDICATE"},
      {"delete", "Mood", "--where", "TRUEPREDICATE", "--dry-run"},
  };
  for (const Case& c : cases) {
    const fs::path store = folder / (c.name + ".sqlite");
    std::ofstream(store, std::ios::binary) << c.bytes;
    for (const auto& command : commands) {
      SCOPED_TRACE(c.name + " / " + ::testing::PrintToString(command));
      const testing::CommandResult result = testing::runCommand(store, command);
      EXPECT_EQ(result.exitCode, kExitUnopened);
      EXPECT_EQ(result.out, "");
      EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
      EXPECT_TRUE(result.err.starts_with("tesselune-store: ")) << result.err;
      EXPECT_NE(result.err.find(c.says), std::string::npos) << result.err;
      EXPECT_EQ(testing::fileBytes(store), c.bytes);
    }
  }

  // A folder given as the store names the store files in it.
  for (const auto& command : commands) {
    const testing::CommandResult result = testing::runCommand(folder, command);
    EXPECT_EQ(result.exitCode, kExitUnopened);
    EXPECT_EQ(result.err,
              "tesselune-store: " + folder.string() +
                  " is a folder, not a store file: give the store file itself with --store (the folder "
                  "holds header only.sqlite, truncated.sqlite).\n");
  }

  const testing::CommandResult create = testing::runCommand(folder, {"create"});
  EXPECT_EQ(create.exitCode, kExitFailure);
  EXPECT_TRUE(
      create.err.starts_with("tesselune-store: " + folder.string() + " is a folder, not a store file"))
      << create.err;

  // A damaged model cache leaves a store to be described without a model; delete wants one.
  const fs::path cached =
      test::copyFixtureStore("coredata/moody/stores/Moody.moody", test::scratchFolder("cache"));
  testing::Sql(cached).run("UPDATE Z_MODELCACHE SET Z_CONTENT = X'00112233445566778899'");
  const std::string before = testing::fileBytes(cached);
  for (const auto& command : commands) {
    SCOPED_TRACE(::testing::PrintToString(command));
    const testing::CommandResult result = testing::runCommand(cached, command);
    if (command.front() == "status") {
      EXPECT_EQ(result.exitCode, kExitUnopened) << "not a store of the Tesselune model";
    } else if (command.front() == "delete") {
      EXPECT_EQ(result.exitCode, kExitFailure);
      EXPECT_NE(result.err.find("are unknown: the model the store keeps of itself cannot be read ("),
                std::string::npos)
          << result.err;
    } else {
      EXPECT_EQ(result.exitCode, kExitOk) << result.err;
    }
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), result.exitCode == kExitOk ? 0 : 1);
    EXPECT_EQ(testing::fileBytes(cached), before);
  }
}

// A store whose pages are damaged where opening does not look still opens: verify calls it damaged
// (1), not unopened (3), and a dry run of a delete that meets the damage fails as the delete would.
TEST(StoreCommandInput, DamageInsideAnOpenedStoreIsDamageNotAFileThatCannotBeOpened) {
  namespace fs = std::filesystem;
  const fs::path store =
      test::copyFixtureStore("coredata/moody/stores/Moody.moody", test::scratchFolder("pages"));
  const std::string page = testing::Sql(store).value(
      "SELECT rootpage FROM sqlite_master WHERE name = 'ZMOOD_ZREMOTEIDENTIFIER_INDEX'");
  ASSERT_FALSE(page.empty());
  {
    std::fstream file(store, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp((std::stoll(page) - 1) * 4096 + 8);
    const std::string garbage(64, '\xff');
    file.write(garbage.data(), static_cast<std::streamsize>(garbage.size()));
  }
  const std::string before = testing::fileBytes(store);
  const testing::CommandResult verified = testing::runCommand(store, {"verify"});
  EXPECT_EQ(verified.exitCode, kExitFailure);
  EXPECT_TRUE(verified.out.starts_with("SQLite integrity: damaged\n")) << verified.out;
  EXPECT_NE(verified.out.find("\n  row 1 missing from index ZMOOD_ZREMOTEIDENTIFIER_INDEX\n"),
            std::string::npos)
      << verified.out;
  EXPECT_TRUE(verified.out.ends_with("The store is damaged.\n"));
  EXPECT_EQ(testing::runCommand(store, {"inspect"}).exitCode, kExitOk);
  const testing::CommandResult dry =
      testing::runCommand(store, {"--verbose", "delete", "Mood", "--where", "TRUEPREDICATE", "--dry-run"});
  EXPECT_EQ(dry.exitCode, kExitFailure);
  EXPECT_NE(dry.err.find("database disk image is malformed"), std::string::npos) << dry.err;
  EXPECT_NE(dry.err.find(store.string()), std::string::npos) << "told as of the store, not of its copy\n"
                                                             << dry.err;
  EXPECT_EQ(testing::fileBytes(store), before);
}

// The main application may hold the store's lock: after the wait, one line says so.
TEST(StoreCommandInput, ALockedStoreIsReportedAfterTheWait) {
  namespace fs = std::filesystem;
  const fs::path store =
      test::copyFixtureStore("coredata/moody/stores/Moody.moody", test::scratchFolder("locked"));
  testing::Sql holder(store);
  holder.run("PRAGMA journal_mode = DELETE");
  const std::string before = testing::fileBytes(store);
  holder.run("BEGIN EXCLUSIVE");
  const testing::CommandResult result = testing::runCommand(store, {"verify"});
  holder.run("ROLLBACK");
  EXPECT_EQ(result.exitCode, kExitUnopened);
  EXPECT_TRUE(result.err.starts_with("tesselune-store: The store at " + store.string() +
                                     " is locked by another program; try again when it is done. ("))
      << result.err;
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1);
  EXPECT_EQ(testing::fileBytes(store), before);
}

TEST(StoreCommandInput, ModelsThatDoNotFitAreNamedWithWhatDiffers) {
  namespace fs = std::filesystem;
  const fs::path store =
      test::copyFixtureStore("coredata/moody/stores/Moody.moody", test::scratchFolder("models"));
  const std::string bundle = std::string(TESSELUNE_FIXTURES_DIR) + "/coredata/moody/Moody.xcdatamodeld";
  const testing::CommandResult missing =
      testing::runCommand(store, {"--model", bundle + "/Nope.xcdatamodel", "verify"});
  EXPECT_EQ(missing.exitCode, kExitUnopened);
  EXPECT_EQ(missing.err,
            "tesselune-store: There is no model at " + bundle +
                "/Nope.xcdatamodel: --model takes a .xcdatamodeld folder, a .xcdatamodel folder or its "
                "contents file.\n");
  const testing::CommandResult other =
      testing::runCommand(store, {"--model", bundle + "/Moody 4.xcdatamodel", "inspect"});
  EXPECT_EQ(other.exitCode, kExitUnopened);
  EXPECT_EQ(other.err,
            "tesselune-store: The model " + bundle + "/Moody 4.xcdatamodel does not fit the store at " +
                store.string() +
                ": the version hashes of Continent, Country, Mood differ from the store's; only in the "
                "store: GeographicRegion.\n");

  // A bundle none of whose versions fits names the closest.
  testing::Sql(store).run("UPDATE Z_METADATA SET Z_PLIST = NULL");
  const testing::CommandResult none = testing::runCommand(store, {"--model", bundle, "inspect"});
  EXPECT_EQ(none.exitCode, kExitUnopened);
  EXPECT_TRUE(none.err.starts_with("tesselune-store: None of the 6 model versions in " + bundle +
                                   " fits the store at " + store.string() + ": the closest, "))
      << none.err;
}

TEST(StoreCommandInput, HelpTellsTheExitStatuses) {
  const char* argv[] = {"tesselune-store", "--help"};
  std::ostringstream out;
  std::ostringstream err;
  EXPECT_EQ(runStoreCommand(2, argv, CommandOutput{out, err}), kExitOk);
  EXPECT_NE(out.str().find("3 the store could not be opened"), std::string::npos) << out.str();
  EXPECT_NE(out.str().find("1 failed (verify: the store is damaged"), std::string::npos) << out.str();
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
