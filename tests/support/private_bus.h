// A dbus-daemon of a test's own: its own configuration and socket under a scratch folder, so that
// tests post and listen on a session bus without touching the user's. Stopped by the destructor.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace tesselune::test {

// Starts `arguments` (found on PATH) with the given file actions; -1 when it cannot be started.
inline pid_t spawnProcess(std::vector<std::string> arguments, const posix_spawn_file_actions_t* actions) {
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (::posix_spawnp(&pid, argv[0], actions, nullptr, argv.data(), environ) != 0) return -1;
  return pid;
}

class PrivateBus {
 public:
  // Starts the daemon and waits until it listens; address() is empty when it could not start.
  explicit PrivateBus(const std::filesystem::path& folder) {
    std::filesystem::create_directories(folder);
    const std::filesystem::path config = folder / "session.conf";
    std::ofstream(config)
        << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>session</type><listen>unix:path="
        << (folder / "bus").string()
        << "</listen><auth>EXTERNAL</auth>"
           "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
           "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // The reading end goes first: it may be descriptor 3 itself.
    posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 3);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_ = spawnProcess({"dbus-daemon", "--config-file=" + config.string(), "--nofork", "--print-address=3"},
                        &actions);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeEnds[1]);
    // The daemon prints its address once it listens.
    char c = 0;
    while (::read(pipeEnds[0], &c, 1) == 1 && c != '\n') address_.push_back(c);
    ::close(pipeEnds[0]);
  }
  ~PrivateBus() { stop(); }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  void stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  const std::string& address() const { return address_; }

 private:
  pid_t pid_ = -1;
  std::string address_;
};

}  // namespace tesselune::test
