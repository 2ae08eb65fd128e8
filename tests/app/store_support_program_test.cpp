// The built store support program run as a process on scratch libraries, headless (no display, no
// session bus): its arguments, and what the user sees when the store or its folder cannot be had.
// Whole clean-ups are checked in store_support_session_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>

#include "app/demo_store.h"
#include "app/report_listing.h"
#include "app/store_maintenance.h"
#include "app/store_verification.h"
#include "app_test_support.h"
#include "fixtures.h"

namespace tesselune {
namespace {

using testing::ScratchHome;

class StoreSupportProgramTest : public ::testing::Test {
 protected:
  testing::ProcessResult runProgram(std::vector<std::string> arguments = {},
                                    const std::optional<testing::NormalUser>& user = std::nullopt) {
    auto environment = home_.environment();
    // Headless and away from the user's session: no display, no Qt platform, no reachable bus.
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "XDG_RUNTIME_DIR"})
      environment[name] = "";
    environment["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + (home_.root() / "no-bus").string();
    return testing::runProcess(TESSELUNE_STORE_SUPPORT, arguments, environment, home_.root(), user);
  }

  StoreStatus status() {
    auto opened = openMaintenanceStore(home_.library().storeFile(), true);
    EXPECT_TRUE(opened);
    auto found = storeStatus(*opened->store, home_.library());
    EXPECT_TRUE(found);
    return *found;
  }

  static std::size_t countOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
  }

  ScratchHome home_;
};

// A desktop may start the program with arguments of its own: they change nothing. Only "--help" and
// "--version" are answered, with one short text, and the store is not opened for them.
TEST_F(StoreSupportProgramTest, HelpAndVersionAnswerWithoutOpeningTheStoreOtherArgumentsAreIgnored) {
  ASSERT_TRUE(buildDemoStore(home_.library(), testing::smallDemo(), nullptr));
  const std::string storeBytes = testing::readWholeFile(home_.library().storeFile());

  const auto help = runProgram({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_TRUE(help.out.starts_with("Usage: tesselune-store-support\n")) << help.out;
  EXPECT_NE(help.out.find("--version"), std::string::npos) << help.out;
  const auto version = runProgram({"--ignored", "--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.out, "tesselune-store-support " + std::string(TESSELUNE_VERSION) +
                             "\nWrites Core Data SQLite stores as persistence framework version 637.\n");
  EXPECT_TRUE(help.err.empty() && version.err.empty()) << help.err << version.err;
  EXPECT_EQ(testing::readWholeFile(home_.library().storeFile()), storeBytes);
  EXPECT_TRUE(readReports(home_.library().temporaryFolder()).empty());

  const auto run = runProgram({"-psn_0_4711", "--session=desktop", home_.root().string() + "/Some File.raw"});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(status().marked.empty());
  EXPECT_EQ(readReports(home_.library().temporaryFolder()).size(), 1u);
}

// The alert says what the platform would say of the file; the statement, SQLite's words and the
// path are for the log.
TEST_F(StoreSupportProgramTest, AStoreThatCannotBeOpenedIsAlertedInThePlatformsWordsAndLeftAsItWas) {
  std::filesystem::create_directories(home_.library().folder());
  const std::string garbage(4096, 'x');
  { std::ofstream(home_.library().storeFile(), std::ios::binary) << garbage; }
  const auto run = runProgram();
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(
      run.err,
      "Alert (critical): Failure when trying to delete a large object from the store.\n"
      "    Failure to add the Tesselune store.\n"
      "    Reason: The file “TesseluneStore.tesselune” couldn’t be opened because it isn’t in the correct "
      "format.\n");
  EXPECT_EQ(testing::readWholeFile(home_.library().storeFile()), garbage);
}

// A store another program wrote with its own model, at our store's place: not migrated into ours
// (which would drop all its objects) but refused the way an unreadable store is, and left as it was.
TEST_F(StoreSupportProgramTest, AStoreOfAnotherModelIsRefusedAndLeftAsItWas) {
  std::filesystem::create_directories(home_.library().folder());
  const auto copied = test::copyFixtureStore("coredata/moody/stores/Moody 2.moody", home_.root());
  std::filesystem::copy_file(copied, home_.library().storeFile());
  const std::string before = testing::readWholeFile(home_.library().storeFile());
  const auto run = runProgram();
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_NE(run.err.find("Failure to add the Tesselune store."), std::string::npos) << run.err;
  EXPECT_EQ(testing::readWholeFile(home_.library().storeFile()), before);
  for (const char* leftover : {".migrating", ".backup"})
    EXPECT_FALSE(std::filesystem::exists(home_.library().storeFile().string() + leftover)) << leftover;
}

// The data folder cannot be made, whatever stands in the way: one alert saying where to make it,
// and the program ends there, without a pass, without a second alert and without a store.
TEST_F(StoreSupportProgramTest, ADataFolderThatCannotBeMadeGetsOneAlertAndEndsTheRun) {
  namespace fs = std::filesystem;
  const fs::path containers = home_.dataHome() / "Group Containers";
  const std::string location =
      Url::fileUrl((containers / "KV3N8Q2ZR5.TesseluneGroup").string(), true).absoluteString();
  auto expectOneFatalAlert = [&](const testing::ProcessResult& run) {
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(countOf(run.err, "Alert ("), 1u) << run.err;
    EXPECT_TRUE(
        run.err.starts_with("Alert (critical): Fatal Error when trying to create the folder to store "
                            "the application data.\n"))
        << run.err;
    EXPECT_NE(run.err.find("Try to create a folder named \"Tesselune Data Library\" at the location \"" +
                           location + "\" manually."),
              std::string::npos)
        << run.err;
    EXPECT_FALSE(fs::exists(home_.library().storeFile()));
  };

  fs::create_directories(home_.dataHome());
  std::ofstream(containers) << "a file where the folder belongs";
  expectOneFatalAlert(runProgram());

  // A folder the user may not write in: permissions stop nobody who runs as root, so the program
  // runs as a normal user then.
  fs::remove(containers);
  fs::create_directories(containers);
  const testing::NormalUser user = testing::normalUser();
  testing::giveTo(user, home_.root());
  fs::permissions(containers, fs::perms::owner_read | fs::perms::owner_exec | fs::perms::group_read |
                                  fs::perms::group_exec | fs::perms::others_read | fs::perms::others_exec);
  expectOneFatalAlert(runProgram({}, user));
}

}  // namespace
}  // namespace tesselune
