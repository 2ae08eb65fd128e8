// Fuzz target: the property-list reader must turn any input into a Value or an Error, and whatever
// it reads must write and read back.

#include <cstdint>
#include <cstdlib>
#include <span>

#include "foundation/property_list.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tesselune;
  auto value = propertyListWithData(std::span(data, size));
  if (!value) return 0;
  for (auto format : {PropertyListFormat::Binary, PropertyListFormat::Xml}) {
    auto written = dataWithPropertyList(*value, format);
    // Strings with NUL characters and dates beyond the writer's range are refused; anything the
    // writer accepts must read back.
    if (written && !propertyListWithData(*written)) std::abort();
  }
  return 0;
}
