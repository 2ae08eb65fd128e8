// String utilities over UTF-16 units: texts are decoded to units, cut or reordered as NSString
// would, and encoded back to UTF-8.

#include "foundation/string_utilities.h"

#include <cstdint>
#include <stdexcept>
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

// Simple upper-case mapping of one unit, as far as Foundation's uppercaseString maps letters to a
// single letter: ASCII, Latin-1, Latin Extended-A, Greek and Cyrillic.
char16_t upperUnit(char16_t u) {
  if (u >= u'a' && u <= u'z') return static_cast<char16_t>(u - 32);
  if ((u >= 0xE0 && u <= 0xFE && u != 0xF7)) return static_cast<char16_t>(u - 32);
  if (u == 0xFF) return 0x178;
  if (u >= 0x100 && u <= 0x17F && u != 0x130 && u != 0x131 && u != 0x138 && u != 0x149 && u != 0x17F) {
    // Latin Extended-A pairs upper/lower, with the run 0x139-0x148 and 0x179-0x17E shifted by one.
    const bool shifted = (u >= 0x139 && u <= 0x148) || (u >= 0x179 && u <= 0x17E);
    const bool lower = shifted ? (u % 2 == 0) : (u % 2 == 1);
    return lower ? static_cast<char16_t>(u - 1) : u;
  }
  if (u >= 0x3B1 && u <= 0x3C9 && u != 0x3C2) return static_cast<char16_t>(u - 32);
  if (u == 0x3C2) return 0x3A3;
  if (u >= 0x430 && u <= 0x44F) return static_cast<char16_t>(u - 32);
  if (u >= 0x450 && u <= 0x45F) return static_cast<char16_t>(u - 80);
  return u;
}

// uppercaseString of a short text: unit by unit, with "ß" becoming "SS" as Foundation does.
std::u16string upper(std::u16string_view units) {
  std::u16string out;
  for (char16_t u : units) {
    if (u == 0xDF) {
      out += u"SS";
    } else {
      out.push_back(upperUnit(u));
    }
  }
  return out;
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
  if (units.size() > 1) {
    std::u16string out = upper(std::u16string_view(units).substr(0, 1));
    out.append(units, 1);
    return utf16ToUtf8(out);
  }
  // capitalizedString of a single unit is its title case: the upper case, except for "ß" ("Ss").
  if (units.size() == 1 && units.front() == 0xDF) return "Ss";
  return utf16ToUtf8(upper(units));
}

std::string reversedString(std::string_view text) {
  const std::u16string units = utf8ToUtf16(text);
  return utf16ToUtf8(std::u16string(units.rbegin(), units.rend()));
}

}  // namespace tesselune
