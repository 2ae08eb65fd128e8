// The process name from the C library's record of argv[0], and the program's bundle identifier.

#include "foundation/process_info.h"

#include <errno.h>

#include <mutex>

namespace tesselune {

namespace {

std::mutex& identifierMutex() {
  static std::mutex mutex;
  return mutex;
}

std::optional<std::string>& identifierSlot() {
  static std::optional<std::string> identifier;
  return identifier;
}

}  // namespace

std::string processName() {
  // glibc keeps the last path component of argv[0]; /proc/self/comm would cut it at 15 bytes.
  const char* name = program_invocation_short_name;
  return name != nullptr ? std::string(name) : std::string();
}

std::optional<std::string> mainBundleIdentifier() {
  std::lock_guard lock(identifierMutex());
  return identifierSlot();
}

void setMainBundleIdentifier(std::optional<std::string> identifier) {
  std::lock_guard lock(identifierMutex());
  identifierSlot() = std::move(identifier);
}

}  // namespace tesselune
