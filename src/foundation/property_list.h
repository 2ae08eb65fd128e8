// Property lists: reading Apple's binary and XML formats into Values and writing them back.
//
// Reading checks a binary list's structure (trailer, offset table, references, nesting and how far
// shared references would expand) before libplist sees it, so that hostile input fails with an Error
// instead of exhausting memory or the stack. XML lists are checked for nesting depth. Errors are in
// the Cocoa domain with code 3840, as Foundation reports unreadable property lists.
//
// A UID (the archiver's object reference) reads as the dictionary { "CF$UID": n }, as in XML.
// All functions are pure and thread-safe.
#pragma once

#include <cstdint>
#include <span>

#include "foundation/error.h"
#include "foundation/value.h"

namespace tesselune {

enum class PropertyListFormat { Binary, Xml };

// Deepest nesting of arrays and dictionaries accepted on reading.
inline constexpr std::size_t kMaxPropertyListDepth = 512;

// Reads a binary ("bplist00") or XML property list; the format is told by the first bytes. The
// format found is stored in *format when given.
[[nodiscard]] Expected<Value> propertyListWithData(std::span<const std::uint8_t> data,
                                                   PropertyListFormat* format = nullptr);

// Writes a Value tree as a property list. Only property-list types are allowed: bool, integer,
// double, string (without NUL characters), data, date, array and dictionary; anything else (null,
// sets, URLs, UUIDs, objects) fails with code 3852. A dictionary { "CF$UID": n } is written as UID n.
[[nodiscard]] Expected<Bytes> dataWithPropertyList(const Value& value,
                                                   PropertyListFormat format = PropertyListFormat::Binary);

}  // namespace tesselune
