// The process-wide class-name registry, and the error of undecodable archives.

#include "foundation/coding.h"

#include <fmt/format.h>

#include <map>
#include <mutex>
#include <stdexcept>

namespace tesselune {

Error corruptArchiveError(std::string_view why) {
  return Error(std::string(kCocoaErrorDomain), kCoderReadCorruptError,
               fmt::format("The data couldn’t be read because it isn’t in the correct format. ({})", why));
}

const std::vector<std::string>& foundationClassChain(std::string_view className) {
  static const std::map<std::string, std::vector<std::string>, std::less<>> chains = {
      {"NSArray", {"NSArray", "NSObject"}},
      {"NSMutableArray", {"NSMutableArray", "NSArray", "NSObject"}},
      {"NSOrderedSet", {"NSOrderedSet", "NSObject"}},
      {"NSMutableOrderedSet", {"NSMutableOrderedSet", "NSOrderedSet", "NSObject"}},
      {"NSSet", {"NSSet", "NSObject"}},
      {"NSMutableSet", {"NSMutableSet", "NSSet", "NSObject"}},
      {"NSDictionary", {"NSDictionary", "NSObject"}},
      {"NSMutableDictionary", {"NSMutableDictionary", "NSDictionary", "NSObject"}},
      {"NSString", {"NSString", "NSObject"}},
      {"NSMutableString", {"NSMutableString", "NSString", "NSObject"}},
      {"NSData", {"NSData", "NSObject"}},
      {"NSMutableData", {"NSMutableData", "NSData", "NSObject"}},
      {"NSNumber", {"NSNumber", "NSValue", "NSObject"}},
      {"NSURL", {"NSURL", "NSObject"}},
      {"NSUUID", {"NSUUID", "NSObject"}},
      {"NSDate", {"NSDate", "NSObject"}},
      {"NSNull", {"NSNull", "NSObject"}},
      {"NSAttributedString", {"NSAttributedString", "NSObject"}},
      {"NSMutableAttributedString", {"NSMutableAttributedString", "NSAttributedString", "NSObject"}},
  };
  auto it = chains.find(className);
  if (it == chains.end())
    throw std::logic_error("not a Foundation class of archives: " + std::string(className));
  return it->second;
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

void ClassRegistry::setValueTransformer(std::string_view name,
                                        std::shared_ptr<const ValueTransformer> transformer) {
  std::unique_lock lock(mutex_);
  if (transformer) {
    transformers_.insert_or_assign(std::string(name), std::move(transformer));
  } else {
    transformers_.erase(std::string(name));
  }
}

std::shared_ptr<const ValueTransformer> ClassRegistry::valueTransformerNamed(std::string_view name) const {
  std::shared_lock lock(mutex_);
  auto it = transformers_.find(std::string(name));
  return it == transformers_.end() ? nullptr : it->second;
}

}  // namespace tesselune
