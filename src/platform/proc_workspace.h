// ProcWorkspace: the running applications of this user, read from /proc.
//
// A desktop session starts programs through links, wrappers and launchers, so a process answers to
// three names: its command name (/proc/<pid>/comm, which the kernel cuts to 15 bytes and takes from
// the path that was executed, a link's own name included), the file name of its executable
// (/proc/<pid>/exe, links resolved) and the file name of its first argument (what a launcher or a
// wrapper's "exec -a" names it). Only the user's own processes count, as a desktop's list of
// running applications shows only the user's; zombies do not count. Processes come and go while
// the folder is read: one that vanishes half-way is skipped.
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

  // Whether one of the user's processes answers to `localizedName` by any of its three names.
  // Thread-safe.
  bool isApplicationRunning(std::string_view localizedName) override;

 private:
  struct Process {
    int pid = 0;
    std::string commandName;     // empty when unreadable
    std::string executableName;  // empty when unreadable (another user's, a kernel thread)
    std::string argumentName;    // the first argument's file name; empty when there is none
    bool answersTo(std::string_view name) const {
      return !name.empty() && (commandName == name || executableName == name || argumentName == name);
    }
  };
  std::vector<Process> processes() const;

  std::filesystem::path procRoot_;
};

}  // namespace tesselune
