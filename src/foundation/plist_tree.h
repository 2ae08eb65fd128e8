// Access to libplist trees for the codecs inside this library (property lists, keyed archives).
// Not for use outside foundation: other layers go through property_list.h and the keyed archive API.
//
// A PlistPtr owns a whole tree; plain plist_t values are borrowed nodes inside one.
#pragma once

#include <plist/plist.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "foundation/error.h"
#include "foundation/property_list.h"
#include "foundation/value.h"

namespace tesselune::plist {

struct Deleter {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, Deleter>;

// Checks and parses a property list. Fails with a 3840 Error on anything malformed, too deep
// (kMaxPropertyListDepth) or expanding beyond a bound proportional to the input.
[[nodiscard]] Expected<PlistPtr> parse(std::span<const std::uint8_t> data,
                                       PropertyListFormat* format = nullptr);

// Serialises a tree; fails when libplist cannot (it reports nothing, only an empty result).
[[nodiscard]] Expected<Bytes> serialize(plist_t root, PropertyListFormat format);

// Typed readers that answer nothing for a node of another type (or a null node).
std::optional<std::string_view> stringValue(plist_t node);
std::optional<std::uint64_t> unsignedValue(plist_t node);
// A UID node, or the XML form { "CF$UID": n }.
std::optional<std::uint64_t> uidValue(plist_t node);
bool isType(plist_t node, plist_type type);
// The items of an array node in order (none for another type). libplist finds the n-th item of a
// parsed array by walking from the first, so callers index this instead.
std::vector<plist_t> arrayItems(plist_t array);

// Whether libplist can write the text: valid UTF-8 without NUL characters. libplist writes other
// text as broken UTF-16 that no reader accepts.
bool isWritableString(std::string_view text);

// The scalars already placed in an object table, so that equal ones are written once. Text and
// data are held as views: the caller keeps what they point at alive and unchanged meanwhile.
class ScalarIndex {
 public:
  enum Kind { kBool, kInteger, kReal, kDate, kUid, kString, kData, kKinds };

  // The table index for the scalar, or nothing when it is new; then `store` records `index` for it.
  std::uint64_t* find(Kind kind, std::uint64_t bits) {
    auto it = numbers_[kind].find(bits);
    return it == numbers_[kind].end() ? nullptr : &it->second;
  }
  std::uint64_t* find(Kind kind, std::string_view bytes) {
    auto it = texts_[kind == kData].find(bytes);
    return it == texts_[kind == kData].end() ? nullptr : &it->second;
  }
  void store(Kind kind, std::uint64_t bits, std::uint64_t index) { numbers_[kind].emplace(bits, index); }
  void store(Kind kind, std::string_view bytes, std::uint64_t index) {
    texts_[kind == kData].emplace(bytes, index);
  }

 private:
  std::unordered_map<std::uint64_t, std::uint64_t> numbers_[kKinds];
  std::unordered_map<std::string_view, std::uint64_t> texts_[2];
};

// A key of a keyed archive as stored: a key of the caller's that starts with "$" gets a second "$",
// so that it cannot be taken for one of the archive's own ("$class").
inline std::string archiveKey(std::string_view key) {
  std::string stored;
  if (key.starts_with('$')) stored.push_back('$');
  stored.append(key);
  return stored;
}

// The Errors for unreadable input and for values that cannot be written.
Error corruptError(std::string_view why);
Error writeError(std::string_view why);

// Pieces of the binary format shared by its writers: the bytes an unsigned value needs (1, 2, 4 or
// 8), big-endian numbers of a given width, and an object's marker byte with its count (inline below
// 15, else as a following integer).
inline std::size_t widthOf(std::uint64_t v) {
  if (v <= 0xFF) return 1;
  if (v <= 0xFFFF) return 2;
  if (v <= 0xFFFFFFFF) return 4;
  return 8;
}
inline void appendBigEndian(Bytes& out, std::uint64_t v, std::size_t width) {
  for (std::size_t i = width; i-- > 0;) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
void appendMarker(Bytes& out, std::uint8_t high, std::uint64_t count);
// A string object: ASCII as bytes, anything else as UTF-16 (the text must be writable).
void appendString(Bytes& out, std::string_view text);
// The 32-byte trailer after the offset table.
void appendTrailer(Bytes& out, std::size_t offsetSize, std::size_t refSize, std::uint64_t count,
                   std::uint64_t top, std::uint64_t tableOffset);

// Writes a Value tree as a binary property list ("bplist00") the way Foundation does: strings,
// numbers, data, dates and UIDs shared by value, doubles as eight-byte reals, strings as ASCII or
// UTF-16. Linear in the size of the tree (libplist's own writer is not, on large archives).
[[nodiscard]] Expected<Bytes> writeBinary(const Value& root);

}  // namespace tesselune::plist
