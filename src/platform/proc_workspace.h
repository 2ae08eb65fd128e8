// ProcWorkspace: the running applications of this user, read from /proc.
//
// A process answers to two names: its command name (/proc/<pid>/comm, which the kernel cuts to 15
// bytes) and the file name of its executable (/proc/<pid>/exe). Only the user's own processes
// count, as a desktop's list of running applications shows only the user's; zombies do not count.
// Processes come and go while the folder is read: one that vanishes half-way is skipped.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/platform_seams.h"

namespace tesselune {

class ProcWorkspace : public Workspace {
 public:
  // `procRoot` is where the process folders are (tests point it at a folder of their own).
  explicit ProcWorkspace(std::filesystem::path procRoot = "/proc");

  // One name per process, by ascending process ID: the executable's file name where it can be
  // read, else the command name. Thread-safe.
  std::vector<std::string> runningApplicationNames() override;
  // Whether a process's command name or executable file name equals `localizedName`. Thread-safe.
  bool isApplicationRunning(std::string_view localizedName) override;

 private:
  struct Process {
    int pid = 0;
    std::string commandName;     // empty when unreadable
    std::string executableName;  // empty when unreadable (another user's, a kernel thread)
  };
  std::vector<Process> processes() const;

  std::filesystem::path procRoot_;
};

}  // namespace tesselune
