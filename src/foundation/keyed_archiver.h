// KeyedArchiver: writes Values and Coding objects as keyed archives that macOS's NSKeyedUnarchiver
// reads, with the same object table, "$classes" chains and UID references that NSKeyedArchiver writes.
//
// Strings, numbers and immutable data are written as plain values and shared between equal values
// of the same kind (macOS shares by identity; readers accept either). Objects are shared by
// identity, so cycles through objects archive fine. Null stands for nil under a key and for NSNull
// inside collections.
//
// One archiver writes one archive, on one thread. Errors (an object that cannot be archived, a
// failure reported by a class's encodeWithCoder) are collected and returned by encodedData.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "foundation/coding.h"
#include "foundation/error.h"
#include "foundation/property_list.h"
#include "foundation/value.h"

namespace tesselune {

class KeyedArchiver {
 public:
  explicit KeyedArchiver(bool requiresSecureCoding = true);
  ~KeyedArchiver();
  KeyedArchiver(const KeyedArchiver&) = delete;
  KeyedArchiver& operator=(const KeyedArchiver&) = delete;

  // archivedDataWithRootObject:requiringSecureCoding:error:, the root under the key "root".
  [[nodiscard]] static Expected<Bytes> archivedDataWithRootObject(
      const Value& root, bool requiringSecureCoding = true,
      PropertyListFormat format = PropertyListFormat::Binary);

  bool requiresSecureCoding() const { return requiresSecureCoding_; }

  // Keyed encoding into the object being written (the top level outside encodeWithCoder). A key
  // starting with "$" is written with a second "$", as macOS does.
  void encodeObject(const Value& value, std::string_view key);
  // Unkeyed encoding, under the next of "$0", "$1", ...
  void encodeObject(const Value& value);
  void encodeBool(bool value, std::string_view key);
  void encodeInt32(std::int32_t value, std::string_view key) { encodeInt64(value, key); }
  void encodeInt64(std::int64_t value, std::string_view key);
  void encodeFloat(float value, std::string_view key) { encodeDouble(value, key); }
  void encodeDouble(double value, std::string_view key);
  void encodeBytes(std::span<const std::uint8_t> bytes, std::string_view key);

  // The equivalents of encodeEncodable(_:forKey:) for the types this program archives that way:
  // the value becomes a property-list tree first (UUID: its string; URL: { "relative", "base" };
  // arrays: NSMutableArray), which is then archived as an ordinary object.
  void encodeEncodable(const Uuid& value, std::string_view key);
  void encodeEncodable(const Url& value, std::string_view key);
  void encodeEncodable(const std::vector<std::string>& value, std::string_view key);
  void encodeEncodable(const std::vector<std::vector<double>>& value, std::string_view key);

  // Records a failure; the first one is what encodedData returns.
  void failWithError(Error error);

  // Finishes the archive (finishEncoding + encodedData). Call once.
  [[nodiscard]] Expected<Bytes> encodedData(PropertyListFormat format = PropertyListFormat::Binary);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
  bool requiresSecureCoding_;
};

}  // namespace tesselune
