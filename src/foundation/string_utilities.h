// String utilities with NSString's counting: lengths and positions in UTF-16 code units. Case
// mapping and character boundaries come from ICU.
//
// Texts are UTF-8 std::strings. Where NSString would cut a character outside the basic plane in
// two (a lone surrogate half), UTF-8 cannot carry the half, so U+FFFD takes its place; bytes that are
// not UTF-8 read as U+FFFD too. All functions are pure and thread-safe.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tesselune {

// The code point at `pos`, moving `pos` past it; nothing (and one byte on) for a malformed
// sequence: a stray or missing continuation byte, an overlong form, a surrogate, beyond U+10FFFF.
std::optional<char32_t> decodeUtf8(std::string_view text, std::size_t& pos);
bool isValidUtf8(std::string_view text);

// Conversions between UTF-8 and UTF-16 code units: malformed UTF-8 and lone surrogate halves become
// U+FFFD.
std::u16string utf8ToUtf16(std::string_view text);
std::string utf16ToUtf8(std::u16string_view units);

// The length in UTF-16 code units (NSString's length).
std::size_t utf16Length(std::string_view text);

// shortVersionWithLength:: the text itself when shorter than `length` units; otherwise (also at
// exactly `length`) the first floor((length - 1) / 2) units, "…" and the last units, `length` units
// in all. A length of 0 is a caller error (Foundation raises a range exception): throws
// std::out_of_range.
std::string shortVersionWithLength(std::string_view text, std::size_t length);

// capitalizedFirstLetter: the first character (grapheme cluster: a letter outside the basic plane
// or with its combining marks) upper-cased by Unicode's full case mapping and the rest unchanged;
// a text of one character or none is capitalised as a whole (capitalizedString: title case).
std::string capitalizedFirstLetter(std::string_view text);

// reversedString: the UTF-16 units in reverse order. A character outside the basic plane comes out
// as its two halves swapped, which UTF-8 shows as two U+FFFD.
std::string reversedString(std::string_view text);

}  // namespace tesselune
