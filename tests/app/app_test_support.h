// Shared by the executables' tests: a scratch data library that is removed afterwards, and running a
// built program as a child process with an environment of the test's choosing.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "app/data_library.h"
#include "app/demo_store.h"

extern char** environ;

namespace tesselune::testing {

// A fresh folder standing in for the user's data home; the library lives where the program and the
// command look for it by default.
class ScratchHome {
 public:
  ScratchHome() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tesselune-app-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    root_ = pattern;
  }
  ~ScratchHome() {
    std::error_code ec;
    // A test may leave read-only folders behind; make them writable so that they can go.
    for (auto it = std::filesystem::recursive_directory_iterator(root_, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
      std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                   std::filesystem::perm_options::add, ec);
    }
    std::filesystem::remove_all(root_, ec);
  }
  ScratchHome(const ScratchHome&) = delete;
  ScratchHome& operator=(const ScratchHome&) = delete;

  const std::filesystem::path& root() const { return root_; }
  std::filesystem::path dataHome() const { return root_ / "data"; }
  DataLibrary library() const {
    return DataLibrary::forStoreFile(dataHome() / "Group Containers" / DataLibrary::kGroupIdentifier /
                                     DataLibrary::kFolderName / DataLibrary::kStoreFileName);
  }
  // HOME and XDG_DATA_HOME for a child process, so that it finds this library and nothing else.
  std::map<std::string, std::string> environment() const {
    return {{"HOME", root_.string()}, {"XDG_DATA_HOME", dataHome().string()}};
  }

 private:
  std::filesystem::path root_;
};

// A demo store small enough for a test: two chromatograms of which the second is marked, one
// search, one search group and two data collections, the last of each marked.
inline DemoOptions smallDemo() {
  DemoOptions options;
  options.chromatograms = 2;
  options.spectraPerChromatogram = 40;
  options.fragmentSpectraPerChromatogram = 5;
  options.searches = 2;
  options.peptidesPerSearch = 6;
  options.proteinsPerSearch = 3;
  options.searchGroups = 1;
  options.dataCollections = 2;
  options.filesPerDataFolder = 2;
  options.kilobytesPerFile = 1;
  return options;
}

struct ProcessResult {
  int exitCode = -1;  // -1 when the process did not exit normally
  std::string out;
  std::string err;
};

inline std::string readWholeFile(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The test's own environment with `overrides` applied (an empty value removes the variable), as
// "NAME=value" entries.
inline std::vector<std::string> childEnvironment(const std::map<std::string, std::string>& overrides) {
  std::map<std::string, std::string> variables;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry(*e);
    const auto equals = entry.find('=');
    if (equals != std::string::npos) variables[entry.substr(0, equals)] = entry.substr(equals + 1);
  }
  for (const auto& [name, value] : overrides) {
    if (value.empty()) {
      variables.erase(name);
    } else {
      variables[name] = value;
    }
  }
  std::vector<std::string> environmentText;
  for (const auto& [name, value] : variables) environmentText.push_back(name + "=" + value);
  return environmentText;
}

// The user that runs the parts of a test that must meet permissions: "nobody" when the tests run as
// root (for whom permissions stop nothing), else the test's own user.
struct NormalUser {
  uid_t uid = ::getuid();
  gid_t gid = ::getgid();
  bool switches() const { return uid != ::getuid(); }
};
inline NormalUser normalUser() {
  NormalUser user;
  if (::geteuid() != 0) return user;
  if (const passwd* nobody = ::getpwnam("nobody")) {
    user.uid = nobody->pw_uid;
    user.gid = nobody->pw_gid;
  }
  return user;
}
// Hands `root` and everything in it to the user.
inline void giveTo(const NormalUser& user, const std::filesystem::path& root) {
  if (!user.switches()) return;
  EXPECT_EQ(::lchown(root.c_str(), user.uid, user.gid), 0);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
    EXPECT_EQ(::lchown(entry.path().c_str(), user.uid, user.gid), 0) << entry.path();
}

// Runs `program` with `arguments`, the test's environment with `overrides` applied (an empty value
// removes the variable), standard output and error captured through files in `scratch`; as `user`
// when one is given.
inline ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments,
                                const std::map<std::string, std::string>& overrides,
                                const std::filesystem::path& scratch,
                                const std::optional<NormalUser>& user = std::nullopt) {
  std::vector<std::string> environmentText = childEnvironment(overrides);
  std::vector<char*> envp;
  for (auto& entry : environmentText) envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::vector<std::string> argumentText{program};
  argumentText.insert(argumentText.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& argument : argumentText) argv.push_back(argument.data());
  argv.push_back(nullptr);

  const auto outFile = scratch / "child.out";
  const auto errFile = scratch / "child.err";
  ProcessResult result;
  if (user && user->switches()) {
    // fork rather than spawn, to change the user between the two; only async-signal-safe calls
    // follow in the child.
    const pid_t child = ::fork();
    if (child == 0) {
      const int out = ::open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      const int err = ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      const int in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
      if (out < 0 || err < 0 || in < 0 || ::dup2(out, 1) < 0 || ::dup2(err, 2) < 0 || ::dup2(in, 0) < 0)
        ::_exit(126);
      if (::setgroups(0, nullptr) != 0 || ::setgid(user->gid) != 0 || ::setuid(user->uid) != 0) ::_exit(126);
      ::execve(program.c_str(), argv.data(), envp.data());
      ::_exit(127);
    }
    int status = 0;
    while (child > 0 && ::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (child > 0 && WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    result.out = readWholeFile(outFile);
    result.err = readWholeFile(errFile);
    return result;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    result.err = "cannot start " + program;
    return result;
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  result.out = readWholeFile(outFile);
  result.err = readWholeFile(errFile);
  return result;
}

}  // namespace tesselune::testing
