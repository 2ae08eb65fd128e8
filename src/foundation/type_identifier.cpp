// Dynamic type identifiers: the "?0=6:…" text packed five bits to a letter.

#include "foundation/type_identifier.h"

#include <cstdint>

namespace tesselune {

namespace {

constexpr std::string_view kAlphabet = "abcdefghkmnpqrstuvwxyz0123456789";
constexpr std::string_view kPrefix = "dyn.a";

char asciiLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
}

}  // namespace

std::string dynamicTypeIdentifier(TypeTagClass tagClass, std::string_view tag) {
  std::string text = "?0=6:";
  text.push_back(static_cast<char>(tagClass));
  text.push_back('=');
  for (char c : tag) {
    if (c == ':') text.push_back('\\');
    text.push_back(c);
  }

  std::string identifier(kPrefix);
  std::uint32_t bits = 0;
  int count = 0;
  for (char c : text) {
    bits = (bits << 8) | static_cast<unsigned char>(c);
    count += 8;
    while (count >= 5) {
      count -= 5;
      identifier.push_back(kAlphabet[(bits >> count) & 0x1F]);
    }
  }
  if (count > 0) identifier.push_back(kAlphabet[(bits << (5 - count)) & 0x1F]);
  return identifier;
}

std::string dynamicUTIForPasteboardType(std::string_view pasteboardType) {
  return dynamicTypeIdentifier(TypeTagClass::PasteboardType, pasteboardType);
}

std::optional<std::string> decodeDynamicTypeIdentifier(std::string_view identifier) {
  if (identifier.size() <= kPrefix.size() || identifier.substr(0, kPrefix.size()) != kPrefix)
    return std::nullopt;
  std::string text;
  std::uint32_t bits = 0;
  int count = 0;
  for (char c : identifier.substr(kPrefix.size())) {
    const std::size_t value = kAlphabet.find(asciiLower(c));
    if (value == std::string_view::npos) return std::nullopt;
    bits = (bits << 5) | static_cast<std::uint32_t>(value);
    count += 5;
    if (count >= 8) {
      count -= 8;
      text.push_back(static_cast<char>((bits >> count) & 0xFF));
    }
  }
  // What is left is padding, which is zero in an identifier that was made by encoding.
  if ((bits & ((1u << count) - 1)) != 0 || !text.starts_with("?")) return std::nullopt;
  return text;
}

bool utiEqual(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (asciiLower(a[i]) != asciiLower(b[i])) return false;
  }
  return true;
}

}  // namespace tesselune
