// SyslogLog: the system log through syslog(3) at the notice level, the default level of the
// program's status lines, echoed to standard error when a person watches it on a terminal.
#pragma once

#include <string_view>

#include "foundation/platform_seams.h"

namespace tesselune {

inline constexpr char kSyslogIdentifier[] = "tesselune-store-support";

class SyslogLog : public SystemLog {
 public:
  // Opens the process's syslog connection under kSyslogIdentifier (openlog is process-wide: make
  // one SyslogLog per program). `echoDescriptor` receives the echo when it is a terminal; it is
  // not owned.
  explicit SyslogLog(int echoDescriptor = 2);
  ~SyslogLog() override;
  SyslogLog(const SyslogLog&) = delete;
  SyslogLog& operator=(const SyslogLog&) = delete;

  // Thread-safe. A log that cannot be reached loses the message silently, as syslog(3) does.
  void log(std::string_view message) override;

  bool echoes() const { return echo_; }

 private:
  int echoDescriptor_;
  bool echo_;
};

// Whether messages are echoed to the descriptor: only to a terminal, so that a redirected or
// piped standard error is left to the caller's own output.
bool shouldEchoTo(int descriptor);

}  // namespace tesselune
