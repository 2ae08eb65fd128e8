// The running program's names as the platform's process info and main bundle give them: the
// process name (from how the program was started) and the bundle identifier, which a program sets
// once at start since executables here have no bundle around them.
//
// Thread-safe: the identifier may be read from any thread; set it before other threads start.
#pragma once

#include <optional>
#include <string>

namespace tesselune {

// NSProcessInfo processName: the file name the program was started by.
std::string processName();

// NSBundle mainBundle bundleIdentifier: nothing unless the program set one.
std::optional<std::string> mainBundleIdentifier();
void setMainBundleIdentifier(std::optional<std::string> identifier);

}  // namespace tesselune
