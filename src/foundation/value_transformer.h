// ValueTransformer: how a transformable attribute's value becomes the data a store keeps and back,
// as NSValueTransformer. Transformers are registered by name in the process-wide class registry;
// the default one (no name, "NSSecureUnarchiveFromData" or "NSKeyedUnarchiveFromData") writes keyed
// archives and reads them with the registered classes.
//
// Transformers are immutable and shared; they are called from any thread.
#pragma once

#include <memory>
#include <string_view>

#include "foundation/error.h"
#include "foundation/value.h"

namespace tesselune {

class ValueTransformer {
 public:
  virtual ~ValueTransformer() = default;

  // The stored form of a value (null stays null and never reaches a transformer).
  [[nodiscard]] virtual Expected<Bytes> transformedValue(const Value& value) const = 0;
  // The value back from its stored form.
  [[nodiscard]] virtual Expected<Value> reverseTransformedValue(const Bytes& data) const = 0;

  static void setValueTransformer(std::shared_ptr<const ValueTransformer> transformer, std::string_view name);
  // The transformer registered under the name, the default one for the default names, or nothing.
  static std::shared_ptr<const ValueTransformer> valueTransformerForName(std::string_view name);
};

}  // namespace tesselune
