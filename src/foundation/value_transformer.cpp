// ValueTransformer: the registry lookups and the default keyed-archive transformer.

#include "foundation/value_transformer.h"

#include "foundation/coding.h"
#include "foundation/keyed_archiver.h"
#include "foundation/keyed_unarchiver.h"

namespace tesselune {

namespace {

class KeyedArchiveTransformer final : public ValueTransformer {
 public:
  Expected<Bytes> transformedValue(const Value& value) const override {
    return KeyedArchiver::archivedDataWithRootObject(value, false);
  }
  Expected<Value> reverseTransformedValue(const Bytes& data) const override {
    return KeyedUnarchiver::unarchiveTopLevelObjectWithData(data);
  }
};

}  // namespace

void ValueTransformer::setValueTransformer(std::shared_ptr<const ValueTransformer> transformer,
                                           std::string_view name) {
  ClassRegistry::shared().setValueTransformer(name, std::move(transformer));
}

std::shared_ptr<const ValueTransformer> ValueTransformer::valueTransformerForName(std::string_view name) {
  if (auto registered = ClassRegistry::shared().valueTransformerNamed(name)) return registered;
  if (name.empty() || name == "NSSecureUnarchiveFromData" || name == "NSKeyedUnarchiveFromData") {
    static const auto defaultTransformer = std::make_shared<const KeyedArchiveTransformer>();
    return defaultTransformer;
  }
  return nullptr;
}

}  // namespace tesselune
