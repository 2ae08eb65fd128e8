// The process-wide class-name registry, and the error of undecodable archives.

#include "foundation/coding.h"

#include <fmt/format.h>

#include <mutex>

namespace tesselune {

Error corruptArchiveError(std::string_view why) {
  return Error(std::string(kCocoaErrorDomain), kCoderReadCorruptError,
               fmt::format("The data couldn’t be read because it isn’t in the correct format. ({})", why));
}

ClassRegistry& ClassRegistry::shared() {
  static ClassRegistry registry;
  return registry;
}

void ClassRegistry::setClass(std::string_view className, CodingClass cls) {
  std::unique_lock lock(mutex_);
  classes_.insert_or_assign(std::string(className), std::move(cls));
}

void ClassRegistry::removeClass(std::string_view className) {
  std::unique_lock lock(mutex_);
  classes_.erase(std::string(className));
}

std::optional<CodingClass> ClassRegistry::classNamed(std::string_view className) const {
  std::shared_lock lock(mutex_);
  auto it = classes_.find(std::string(className));
  if (it == classes_.end()) return std::nullopt;
  return it->second;
}

}  // namespace tesselune
