// Reading numbers from text without the user's locale: the decimal separator is always '.'.
//
// The C library's strtod follows LC_NUMERIC, which a Qt application sets from the user's settings,
// so under a decimal-comma locale it reads "2.5" as 2. Everything that reads numbers from text
// (archived containers, predicates, descriptors, model files) goes through std::from_chars, here or
// directly. Pure and thread-safe.
#pragma once

#include <optional>
#include <string_view>

namespace tesselune {

// The whole of `text` as a decimal or exponent number with an optional leading '-' (JSON's and
// the model files' forms); nothing when anything else is there or the value is beyond a double.
std::optional<double> parseDouble(std::string_view text);

// NSString's doubleValue: leading blanks skipped, an optional sign, then the longest number that
// follows; 0 when none does. Beyond a double's range the result is ±infinity (or ±0 for tiny
// values), as strtod gives.
double leadingDoubleValue(std::string_view text);

}  // namespace tesselune
