// Locale-independent number reading over std::from_chars.

#include "foundation/number_text.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

namespace tesselune {

std::optional<double> parseDouble(std::string_view text) {
  double value = 0;
  const char* const last = text.data() + text.size();
  auto [end, ec] = std::from_chars(text.data(), last, value, std::chars_format::general);
  if (ec != std::errc() || end != last || text.empty()) return std::nullopt;
  // from_chars also takes "inf" and "nan", which no number written as text here means.
  if (!std::isfinite(value)) return std::nullopt;
  return value;
}

double leadingDoubleValue(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' || text[i] == '\r' ||
                             text[i] == '\f' || text[i] == '\v'))
    ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  const std::string_view rest = text.substr(i);
  // Only digits, a point and an exponent: no "inf", "nan" or hexadecimal, as doubleValue.
  if (rest.empty() || !((rest[0] >= '0' && rest[0] <= '9') || rest[0] == '.')) return 0;
  double value = 0;
  auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), value, std::chars_format::general);
  if (ec == std::errc::result_out_of_range) {
    // Overflow or underflow: tell them apart by the exponent's sign.
    const std::string_view number(rest.data(), static_cast<std::size_t>(end - rest.data()));
    const auto exponent = number.find_first_of("eE");
    const bool tiny =
        exponent != std::string_view::npos && exponent + 1 < number.size() && number[exponent + 1] == '-';
    value = tiny ? 0.0 : std::numeric_limits<double>::infinity();
  } else if (ec != std::errc()) {
    return 0;
  }
  return negative ? -value : value;
}

}  // namespace tesselune
