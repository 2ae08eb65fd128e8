// Running applications read from /proc, and from a process folder tree made by the test.

#include "platform/proc_workspace.h"

#include <gtest/gtest.h>
#include <unistd.h>

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

  void process(int pid, const std::string& comm, const std::string& exe, char state = 'S',
               const std::vector<std::string>& arguments = {}) {
    const fs::path folder = root_ / std::to_string(pid);
    fs::create_directories(folder);
    if (!comm.empty()) std::ofstream(folder / "comm") << comm << '\n';
    if (!exe.empty()) fs::create_symlink(exe, folder / "exe");
    std::ofstream(folder / "stat") << pid << " (" << comm << ") " << state << " 1 1 1\n";
    std::ofstream commandLine(folder / "cmdline", std::ios::binary);
    for (const std::string& argument : arguments) commandLine << argument << '\0';
  }

  fs::path root_;
};

// Each of the three names counts on its own: a link's name reaches the command name, a launcher's
// "exec -a" the first argument, a copy the executable.
TEST_F(FakeProcTest, AProcessAnswersToItsCommandExecutableOrFirstArgumentName) {
  process(3, "Tesselune", "/usr/bin/sleep", 'S', {"/home/u/bin/Tesselune", "600"});
  EXPECT_TRUE(ProcWorkspace(root_).isApplicationRunning("Tesselune"));
  fs::remove_all(root_ / "3");
  process(4, "ld-linux-x86-64", "/lib64/ld-linux-x86-64.so.2", 'S', {"/tmp/.mount_x/Tesselune", "--flag"});
  EXPECT_TRUE(ProcWorkspace(root_).isApplicationRunning("Tesselune"));
  fs::remove_all(root_ / "4");
  process(5, "bash", "/opt/Tesselune/Tesselune (deleted)", 'S', {"bash"});
  EXPECT_TRUE(ProcWorkspace(root_).isApplicationRunning("Tesselune"));
  fs::remove_all(root_ / "5");

  // Nothing but whole, exact names: not a path, not a prefix, not another case, not an argument
  // after the first.
  process(6, "tesselune", "/usr/bin/python3", 'S', {"python3", "/opt/Tesselune"});
  process(7, "Tesselune Helpe", "/opt/Tesselune Helper", 'S', {"Tesselune Helper"});
  process(8, "Ghost", "", 'Z', {"Tesselune"});  // a zombie
  ProcWorkspace workspace(root_);
  EXPECT_FALSE(workspace.isApplicationRunning("Tesselune"));
  EXPECT_TRUE(workspace.isApplicationRunning("Tesselune Helper"));
  EXPECT_FALSE(workspace.isApplicationRunning("/opt/Tesselune"));
  EXPECT_FALSE(workspace.isApplicationRunning(""));
}

TEST_F(FakeProcTest, WhatCannotCountIsSkipped) {
  process(7, "", "/opt/helper/Tesselune Helper (deleted)");  // replaced since it started
  process(30, "Ghost", "", 'Z');                             // a zombie
  process(31, "odd) Z (name", "");                           // parentheses in the name
  fs::create_directories(root_ / "40");                      // gone while the folder was read
  fs::create_directories(root_ / "self");
  std::ofstream(root_ / "version") << "not a process\n";

  ProcWorkspace workspace(root_);
  EXPECT_TRUE(workspace.isApplicationRunning("Tesselune Helper"));
  EXPECT_TRUE(workspace.isApplicationRunning("odd) Z (name"));
  EXPECT_FALSE(workspace.isApplicationRunning("Ghost"));
  EXPECT_FALSE(workspace.isApplicationRunning("40"));
  EXPECT_FALSE(ProcWorkspace(root_ / "missing").isApplicationRunning("Tesselune"));
}

}  // namespace
}  // namespace tesselune
