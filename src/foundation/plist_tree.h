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
#include <string_view>

#include "foundation/error.h"
#include "foundation/property_list.h"

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

// Whether libplist can write the text: valid UTF-8 without NUL characters. libplist writes other
// text as broken UTF-16 that no reader accepts.
bool isWritableString(std::string_view text);

// The Error for unreadable input.
Error corruptError(std::string_view why);

}  // namespace tesselune::plist
