// The built store support program run as a process on scratch libraries, headless (no display, no
// session bus): it deletes what the demo store marks and leaves one report, does nothing on a
// second run, refuses arguments without touching the store, and reports an unreadable store.
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

TEST_F(StoreSupportProgramTest, MarkedObjectsGoWithTheirDataFolderAndOneReportIsLeft) {
  ASSERT_TRUE(buildDemoStore(home_.library(), testing::smallDemo(), nullptr));
  const StoreStatus before = status();
  ASSERT_EQ(before.marked.size(), 4u);

  const auto run = runProgram();
  EXPECT_EQ(run.exitCode, 0) << run.err;
  // A clean run shows no alert at all.
  EXPECT_EQ(run.err.find("Alert"), std::string::npos) << run.err;

  const StoreStatus after = status();
  EXPECT_TRUE(after.marked.empty());
  for (const auto& entry : after.counts) {
    if (entry.entity == "Chromatogram" || entry.entity == "DatabaseSearchResult" ||
        entry.entity == "DataCollection") {
      EXPECT_EQ(entry.count, 1) << entry.entity;
    }
  }
  EXPECT_FALSE(std::filesystem::exists(home_.library().folder() / "Chromatogram 2.data"));
  EXPECT_TRUE(std::filesystem::exists(home_.library().folder() / "Chromatogram 1.data"));
  {
    auto opened = openMaintenanceStore(home_.library().storeFile(), true);
    ASSERT_TRUE(opened);
    auto verified = verifyStore(*opened->store);
    ASSERT_TRUE(verified);
    EXPECT_TRUE(verified->ok()) << formatVerification(*verified);
  }

  const auto reports = readReports(home_.library().temporaryFolder());
  ASSERT_EQ(reports.size(), 1u);
  ASSERT_TRUE(reports[0].report);
  EXPECT_TRUE(reports[0].report->chromatogramDeleted);
  std::vector<std::string> uris;
  for (const Url& uri : reports[0].report->uris) uris.push_back(uri.absoluteString());
  for (const auto& object : before.marked) {
    EXPECT_NE(std::find(uris.begin(), uris.end(), object.uri), uris.end()) << object.uri;
  }

  // Nothing is left to do: no second report.
  const auto again = runProgram();
  EXPECT_EQ(again.exitCode, 0);
  EXPECT_EQ(readReports(home_.library().temporaryFolder()).size(), 1u);
}

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

}  // namespace
}  // namespace tesselune
