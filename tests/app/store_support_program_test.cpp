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
#include "fixtures.h"

namespace tesselune {
namespace {

using testing::ScratchHome;

class StoreSupportProgramTest : public ::testing::Test {
 protected:
  testing::ProcessResult runProgram(std::vector<std::string> arguments = {}) {
    auto environment = home_.environment();
    // Headless and away from the user's session: no display, no Qt platform, no reachable bus.
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "XDG_RUNTIME_DIR"})
      environment[name] = "";
    environment["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + (home_.root() / "no-bus").string();
    return testing::runProcess(TESSELUNE_STORE_SUPPORT, arguments, environment, home_.root());
  }

  StoreStatus status() {
    auto opened = openMaintenanceStore(home_.library().storeFile(), true);
    EXPECT_TRUE(opened);
    auto found = storeStatus(*opened->store, home_.library());
    EXPECT_TRUE(found);
    return *found;
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

}  // namespace
}  // namespace tesselune
