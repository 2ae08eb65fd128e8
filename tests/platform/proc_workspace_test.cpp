// Running applications read from /proc, and from a process folder tree made by the test.

#include "platform/proc_workspace.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

namespace tesselune {
namespace {

namespace fs = std::filesystem;

TEST(ProcWorkspaceTest, FindsThisProcessByCommandAndExecutableName) {
  std::ifstream commFile("/proc/self/comm");
  std::string comm;
  std::getline(commFile, comm);
  ASSERT_FALSE(comm.empty());
  const std::string executable = fs::read_symlink("/proc/self/exe").filename().string();

  ProcWorkspace workspace;
  // The kernel cuts the command name to 15 bytes; "proc_workspace_test" is longer, so only the
  // executable's file name gives its whole name.
  EXPECT_EQ(comm, executable.substr(0, 15));
  EXPECT_TRUE(workspace.isApplicationRunning(comm));
  EXPECT_TRUE(workspace.isApplicationRunning(executable));
  const std::vector<std::string> names = workspace.runningApplicationNames();
  EXPECT_NE(std::find(names.begin(), names.end(), executable), names.end());

  EXPECT_FALSE(workspace.isApplicationRunning("no-such-application-here"));
  EXPECT_FALSE(workspace.isApplicationRunning(""));
}

class FakeProcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() / ("tesselune-proc-" + std::to_string(::getpid()));
    fs::remove_all(root_);
    fs::create_directories(root_);
  }
  void TearDown() override { fs::remove_all(root_); }

  void process(int pid, const std::string& comm, const std::string& exe, char state = 'S') {
    const fs::path folder = root_ / std::to_string(pid);
    fs::create_directories(folder);
    if (!comm.empty()) std::ofstream(folder / "comm") << comm << '\n';
    if (!exe.empty()) fs::create_symlink(exe, folder / "exe");
    std::ofstream(folder / "stat") << pid << " (" << comm << ") " << state << " 1 1 1\n";
  }

  fs::path root_;
};

TEST_F(FakeProcTest, NamesComeInProcessOrderAndSkipWhatCannotCount) {
  process(12, "Tesselune", "/opt/Tesselune/bin/Tesselune");
  process(7, "", "/opt/helper/Tesselune Helper (deleted)");  // replaced since it started
  process(30, "Ghost", "", 'Z');                             // a zombie
  process(31, "odd) Z (name", "");                           // parentheses in the name
  fs::create_directories(root_ / "40");                      // gone while the folder was read
  fs::create_directories(root_ / "self");
  std::ofstream(root_ / "version") << "not a process\n";

  ProcWorkspace workspace(root_);
  EXPECT_EQ(workspace.runningApplicationNames(),
            (std::vector<std::string>{"Tesselune Helper", "Tesselune", "odd) Z (name"}));
  EXPECT_TRUE(workspace.isApplicationRunning("Tesselune"));
  EXPECT_TRUE(workspace.isApplicationRunning("Tesselune Helper"));
  EXPECT_FALSE(workspace.isApplicationRunning("Ghost"));
  EXPECT_FALSE(workspace.isApplicationRunning("Tesselun"));

  EXPECT_TRUE(ProcWorkspace(root_ / "missing").runningApplicationNames().empty());
}

}  // namespace
}  // namespace tesselune
