// The system log through syslog(3).

#include "platform/syslog_log.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <string>

namespace tesselune {

bool shouldEchoTo(int descriptor) {
  return ::isatty(descriptor) == 1;
}

SyslogLog::SyslogLog(int echoDescriptor)
    : echoDescriptor_(echoDescriptor), echo_(shouldEchoTo(echoDescriptor)) {
  // The identifier must outlive the connection; a constant does.
  ::openlog(kSyslogIdentifier, LOG_PID, LOG_USER);
}

SyslogLog::~SyslogLog() {
  ::closelog();
}

void SyslogLog::log(std::string_view message) {
  const int length = static_cast<int>(std::min<std::size_t>(message.size(), std::numeric_limits<int>::max()));
  ::syslog(LOG_NOTICE, "%.*s", length, message.data());
  if (!echo_) return;
  std::string line(message);
  line += '\n';
  // One write per message keeps lines from several threads apart.
  std::string_view rest = line;
  while (!rest.empty()) {
    const ssize_t written = ::write(echoDescriptor_, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace tesselune
