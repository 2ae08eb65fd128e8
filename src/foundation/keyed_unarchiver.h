// KeyedUnarchiver: reads keyed archives written by macOS's NSKeyedArchiver (binary or XML) and by
// our KeyedArchiver, into Values and objects of registered classes.
//
// Foundation's collection classes become Values (NSArray and NSOrderedSet an Array, NSSet a
// ValueSet, NSDictionary a Dictionary with string keys, NSNull null, NSURL a Url, NSUUID a Uuid,
// NSDate a Date, mutable variants flagged mutable); NSAttributedString an AttributedString object.
// Other classes come from this unarchiver's own mapping, then the process-wide ClassRegistry; an
// unknown name falls back along the archived "$classes" chain.
//
// Every malformed or hostile archive yields an Error (Cocoa domain, 4864 for corrupt archives, 4865
// for a missing root): wrong archiver or version, missing keys, dangling UIDs, a collection that
// contains itself (a Value cannot), wrong types, nesting beyond a depth limit, or shared
// collections that would expand far beyond the archive's size.
//
// One unarchiver reads one archive, on one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/coding.h"
#include "foundation/error.h"
#include "foundation/value.h"

namespace tesselune {

using ClassSet = std::set<std::string, std::less<>>;

// The Foundation classes the unarchiver decodes itself, for callers that accept any of them.
const ClassSet& foundationClasses();

class KeyedUnarchiver {
 public:
  // Reads the archive's property list and checks its header; decoding happens on demand.
  [[nodiscard]] static Expected<std::unique_ptr<KeyedUnarchiver>> create(std::span<const std::uint8_t> data,
                                                                         bool requiresSecureCoding = true);
  ~KeyedUnarchiver();
  KeyedUnarchiver(const KeyedUnarchiver&) = delete;
  KeyedUnarchiver& operator=(const KeyedUnarchiver&) = delete;

  // unarchivedObjectOfClasses:fromData:error:: the root object, which with everything inside it
  // must be of the allowed classes.
  [[nodiscard]] static Expected<Value> unarchivedObjectOfClasses(const ClassSet& classes,
                                                                 std::span<const std::uint8_t> data);
  // unarchiveTopLevelObjectWithData:error:: the root object without class checks.
  [[nodiscard]] static Expected<Value> unarchiveTopLevelObjectWithData(std::span<const std::uint8_t> data);

  // setClass:forClassName: on the class: for every unarchiver of the process.
  static void setClassForClassName(CodingClass cls, std::string_view className);
  // setClass:forClassName: on this unarchiver; takes precedence over the process-wide mapping.
  void setClass(CodingClass cls, std::string_view className);

  bool requiresSecureCoding() const;

  // Keyed decoding from the object being read (the archive's "$top" outside initWithCoder).
  bool containsValueForKey(std::string_view key) const;
  // Under secure coding the classes allowed by the enclosing decode apply.
  Value decodeObjectForKey(std::string_view key);
  Value decodeObjectOfClasses(const ClassSet& classes, std::string_view key);
  // The next unkeyed object ("$0", "$1", ...).
  Value decodeObject();
  // Scalars: a missing key gives 0 / false / empty; a value of the wrong type records an error.
  bool decodeBoolForKey(std::string_view key);
  std::int32_t decodeInt32ForKey(std::string_view key);
  std::int64_t decodeInt64ForKey(std::string_view key);
  float decodeFloatForKey(std::string_view key) { return static_cast<float>(decodeDoubleForKey(key)); }
  double decodeDoubleForKey(std::string_view key);
  Bytes decodeBytesForKey(std::string_view key);

  // The counterparts of KeyedArchiver::encodeEncodable. Nothing when the key is absent; nothing and
  // a recorded error when the value has the wrong shape. A URL may also be a plain string or an
  // NSURL, a UUID an NSUUID.
  std::optional<Uuid> decodeDecodableUuid(std::string_view key);
  std::optional<Url> decodeDecodableUrl(std::string_view key);
  std::optional<std::vector<std::string>> decodeDecodableStrings(std::string_view key);
  std::optional<std::vector<std::vector<double>>> decodeDecodableDoubleArrays(std::string_view key);

  // Whether `object` is an instance whose initWithCoder has not returned yet: a decode inside it
  // that hands it out again is a back reference (a cycle), which the receiver must hold weakly.
  bool isBeingDecoded(const Object* object) const;

  // Records a failure (the first one counts); further decodes then return null / zero.
  void failWithError(Error error);
  const std::optional<Error>& error() const;

 private:
  struct Impl;
  explicit KeyedUnarchiver(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace tesselune
