// Fuzz target: any format string parses into a predicate or fails with an Error; a parsed predicate
// evaluates, and its printed form parses again.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "foundation/predicate.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tesselune;
  const std::string_view format(reinterpret_cast<const char*>(data), size);
  auto predicate = predicateWithFormat(format, {Value("k"), Value(1), Value()});
  if (!predicate) return 0;
  (void)predicate->evaluateWithObject(Value::dictionary({{"k", 1}, {"a", Value::dictionary({{"b", "x"}})}}));
  // Anything that parsed prints parseably; printing may add one level of parentheses ("a OR b AND c"
  // prints as "a OR (b AND c)"), which can cross the nesting limit.
  auto again = predicateWithFormat(predicate->predicateFormat());
  if (!again && again.error().localizedDescription().find("too deep") == std::string::npos) std::abort();
  return 0;
}
