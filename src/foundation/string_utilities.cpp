// String utilities over UTF-16 units: texts are decoded to units, cut or reordered as NSString
// would, and encoded back to UTF-8.

#include "foundation/string_utilities.h"

#include <unicode/ubrk.h>
#include <unicode/ustring.h>

#include <cstdint>
#include <stdexcept>
#include <type_traits>
#include <vector>

namespace tesselune {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

}  // namespace

std::optional<char32_t> decodeUtf8(std::string_view text, std::size_t& pos) {
  const auto c = static_cast<unsigned char>(text[pos]);
  std::size_t n = 0;
  char32_t cp = c;
  if (c >= 0xF0 && c <= 0xF4) {
    n = 3;
    cp = c & 0x07;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 2;
    cp = c & 0x0F;
  } else if (c >= 0xC2 && c <= 0xDF) {
    n = 1;
    cp = c & 0x1F;
  } else if (c >= 0x80) {
    ++pos;
    return std::nullopt;
  }
  bool ok = pos + n < text.size() || n == 0;
  for (std::size_t k = 1; ok && k <= n; ++k) {
    const auto next = static_cast<unsigned char>(text[pos + k]);
    ok = (next & 0xC0) == 0x80;
    cp = (cp << 6) | (next & 0x3F);
  }
  // Overlong forms, surrogates and values beyond Unicode are malformed too.
  static constexpr char32_t kMinimum[] = {0, 0x80, 0x800, 0x10000};
  if (!ok || cp < kMinimum[n] || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) {
    ++pos;
    return std::nullopt;
  }
  pos += n + 1;
  return cp;
}

bool isValidUtf8(std::string_view text) {
  for (std::size_t pos = 0; pos < text.size();) {
    if (!decodeUtf8(text, pos)) return false;
  }
  return true;
}

std::u16string utf8ToUtf16(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  for (std::size_t pos = 0; pos < text.size();) {
    char32_t cp = decodeUtf8(text, pos).value_or(kReplacement);
    if (cp >= 0x10000) {
      cp -= 0x10000;
      units.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      units.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      units.push_back(static_cast<char16_t>(cp));
    }
  }
  return units;
}

namespace {

void appendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

std::string utf16ToUtf8(std::u16string_view units) {
  std::string out;
  out.reserve(units.size());
  for (std::size_t i = 0; i < units.size(); ++i) {
    const char16_t u = units[i];
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < units.size() && units[i + 1] >= 0xDC00 &&
        units[i + 1] <= 0xDFFF) {
      appendUtf8(out, 0x10000 + ((char32_t{u} - 0xD800) << 10) + (char32_t{units[i + 1]} - 0xDC00));
      ++i;
    } else if (u >= 0xD800 && u <= 0xDFFF) {
      appendUtf8(out, kReplacement);
    } else {
      appendUtf8(out, u);
    }
  }
  return out;
}

namespace {

// ICU's UChar is char16_t in C++ builds.
static_assert(std::is_same_v<UChar, char16_t>);

// Full case mapping of `units` with the root locale (as uppercaseString and capitalizedString
// without a locale): `title` maps each word's first letter to title case and the rest to lower case.
std::u16string mapCase(std::u16string_view units, bool title) {
  std::u16string out(units.size() * 3 + 4, u'\0');
  for (int attempt = 0; attempt < 2; ++attempt) {
    UErrorCode status = U_ZERO_ERROR;
    const int32_t length = title ? u_strToTitle(out.data(), static_cast<int32_t>(out.size()), units.data(),
                                                static_cast<int32_t>(units.size()), nullptr, "", &status)
                                 : u_strToUpper(out.data(), static_cast<int32_t>(out.size()), units.data(),
                                                static_cast<int32_t>(units.size()), "", &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) {
      out.assign(static_cast<std::size_t>(length), u'\0');
      continue;
    }
    if (U_FAILURE(status)) return std::u16string(units);
    out.resize(static_cast<std::size_t>(length));
    return out;
  }
  return std::u16string(units);
}

// The length in units of the first user-perceived character (extended grapheme cluster), so that
// a letter outside the basic plane or one followed by combining marks is taken whole.
std::size_t firstGraphemeLength(std::u16string_view units) {
  if (units.empty()) return 0;
  UErrorCode status = U_ZERO_ERROR;
  UBreakIterator* breaks =
      ubrk_open(UBRK_CHARACTER, "", units.data(), static_cast<int32_t>(units.size()), &status);
  if (U_FAILURE(status)) return 1;
  const int32_t end = ubrk_following(breaks, 0);
  ubrk_close(breaks);
  return end == UBRK_DONE ? units.size() : static_cast<std::size_t>(end);
}

}  // namespace

std::size_t utf16Length(std::string_view text) {
  return utf8ToUtf16(text).size();
}

std::string shortVersionWithLength(std::string_view text, std::size_t length) {
  if (length == 0) throw std::out_of_range("shortVersionWithLength: the length must be at least 1");
  const std::u16string units = utf8ToUtf16(text);
  if (units.size() < length) return std::string(text);
  const auto head = static_cast<std::size_t>(static_cast<double>(std::uint64_t{length - 1}) * 0.5);
  const std::size_t tail = length - 1 - head;
  std::u16string shortened = units.substr(0, head);
  shortened.push_back(u'\u2026');
  shortened.append(units, units.size() - tail, tail);
  return utf16ToUtf8(shortened);
}

std::string capitalizedFirstLetter(std::string_view text) {
  const std::u16string units = utf8ToUtf16(text);
  const std::size_t first = firstGraphemeLength(units);
  if (units.size() > first) {
    std::u16string out = mapCase(std::u16string_view(units).substr(0, first), false);
    out.append(units, first);
    return utf16ToUtf8(out);
  }
  // A single character is capitalised as a whole: its title case ("ß" gives "Ss", "ǆ" "ǅ").
  return utf16ToUtf8(mapCase(units, true));
}

std::string reversedString(std::string_view text) {
  const std::u16string units = utf8ToUtf16(text);
  return utf16ToUtf8(std::u16string(units.rbegin(), units.rend()));
}

}  // namespace tesselune
