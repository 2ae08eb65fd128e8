// The built store support program run as a process on scratch libraries, headless (no display, no
// session bus): it refuses arguments without touching the store and reports an unreadable store.
// Whole clean-ups are checked in store_support_session_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>

#include "app/demo_store.h"
#include "app/report_listing.h"
#include "app/store_maintenance.h"
#include "app/store_verification.h"
#include "app_test_support.h"

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

TEST_F(StoreSupportProgramTest, ArgumentsGetOneLineAndLeaveTheStoreAlone) {
  ASSERT_TRUE(buildDemoStore(home_.library(), testing::smallDemo(), nullptr));
  const auto run = runProgram({"--help"});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 1) << run.out;
  EXPECT_NE(run.out.find("takes no arguments"), std::string::npos);
  EXPECT_EQ(status().marked.size(), 4u);
  EXPECT_TRUE(readReports(home_.library().temporaryFolder()).empty());
}

TEST_F(StoreSupportProgramTest, AStoreThatCannotBeOpenedIsAlertedOnStandardErrorAndLeftAsItWas) {
  std::filesystem::create_directories(home_.library().folder());
  const std::string garbage(4096, 'x');
  { std::ofstream(home_.library().storeFile(), std::ios::binary) << garbage; }
  const auto run = runProgram();
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_NE(run.err.find("Failure when trying to delete a large object from the store."), std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find("Failure to add the Tesselune store."), std::string::npos) << run.err;
  EXPECT_EQ(testing::readWholeFile(home_.library().storeFile()), garbage);
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
