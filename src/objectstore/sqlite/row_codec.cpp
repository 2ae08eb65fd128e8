// Column values to attribute values and back.

#include "objectstore/sqlite/row_codec.h"

#include <fmt/format.h>

#include "foundation/value_transformer.h"

namespace tesselune {

namespace {

constexpr std::int64_t kValidationValueError = 1550;  // NSManagedObjectValidationError

Error unreadable(const AttributeDescription& attribute, std::string_view why) {
  return Error(std::string(kCocoaErrorDomain), kFileReadCorruptFileError,
               fmt::format("The stored value of {}.{} cannot be read: {}.",
                           attribute.entity() ? attribute.entity()->name() : "?", attribute.name(), why));
}

Error unfit(const AttributeDescription& attribute, const Value& value) {
  return Error(std::string(kCocoaErrorDomain), kValidationValueError,
               fmt::format("The value {} does not fit the attribute {}.{}.", value.description(),
                           attribute.entity() ? attribute.entity()->name() : "?", attribute.name()));
}

std::shared_ptr<const ValueTransformer> transformerFor(const AttributeDescription& attribute) {
  return ValueTransformer::valueTransformerForName(attribute.valueTransformerName());
}

}  // namespace

Expected<Value> attributeValueFromColumn(const AttributeDescription& attribute, const Statement& statement,
                                         int column) {
  if (statement.isNull(column)) return Value();
  const Value stored = statement.value(column);
  switch (attribute.attributeType()) {
    case AttributeType::Integer16:
    case AttributeType::Integer32:
    case AttributeType::Integer64:
      if (!stored.isNumber()) return fail(unreadable(attribute, "not a number"));
      return Value(stored.integerValue());
    case AttributeType::Boolean:
      if (!stored.isNumber()) return fail(unreadable(attribute, "not a number"));
      return Value(stored.integerValue() != 0);
    case AttributeType::Double:
    case AttributeType::Float:
    case AttributeType::Decimal:
      if (!stored.isNumber()) return fail(unreadable(attribute, "not a number"));
      return Value(stored.doubleValue());
    case AttributeType::Date:
      if (!stored.isNumber()) return fail(unreadable(attribute, "not a time"));
      return Value(Date{stored.doubleValue()});
    case AttributeType::String:
      if (!stored.isString()) return Value(statement.text(column));
      return stored;
    case AttributeType::Uri: {
      auto url = Url::parse(statement.text(column));
      if (!url) return fail(unreadable(attribute, "not a URI"));
      return Value(*url);
    }
    case AttributeType::Uuid: {
      const Bytes bytes = statement.blob(column);
      auto uuid = Uuid::fromBytes(bytes.data(), bytes.size());
      if (!uuid) return fail(unreadable(attribute, "not 16 bytes"));
      return Value(*uuid);
    }
    case AttributeType::Transformable: {
      auto transformer = transformerFor(attribute);
      if (!transformer) {
        return fail(unreadable(attribute, fmt::format("no value transformer named \"{}\" is registered",
                                                      attribute.valueTransformerName())));
      }
      auto value = transformer->reverseTransformedValue(statement.blob(column));
      if (!value) return fail(unreadable(attribute, value.error().localizedDescription()));
      return value;
    }
    case AttributeType::BinaryData:
      return Value(statement.blob(column));
    default:
      return stored;
  }
}

Expected<Value> columnValueForAttribute(const AttributeDescription& attribute, const Value& value) {
  if (value.isNull()) return Value();
  switch (attribute.attributeType()) {
    case AttributeType::Integer16:
    case AttributeType::Integer32:
    case AttributeType::Integer64:
    case AttributeType::Boolean:
      if (!value.isNumber()) return fail(unfit(attribute, value));
      return Value(value.integerValue());
    case AttributeType::Double:
    case AttributeType::Float:
    case AttributeType::Decimal:
      if (!value.isNumber()) return fail(unfit(attribute, value));
      return Value(value.doubleValue());
    case AttributeType::Date:
      if (!value.isDate()) return fail(unfit(attribute, value));
      return value;
    case AttributeType::String:
      if (!value.isString()) return fail(unfit(attribute, value));
      return value;
    case AttributeType::Uri:
      if (!value.isUrl()) return fail(unfit(attribute, value));
      return Value(value.asUrl().absoluteString());
    case AttributeType::Uuid:
      if (!value.isUuid()) return fail(unfit(attribute, value));
      return value;
    case AttributeType::BinaryData:
      if (!value.isData()) return fail(unfit(attribute, value));
      return value;
    case AttributeType::Transformable: {
      auto transformer = transformerFor(attribute);
      if (!transformer) return fail(unfit(attribute, value));
      auto data = transformer->transformedValue(value);
      if (!data) return fail(data.error());
      return Value(std::move(*data));
    }
    default:
      return value;
  }
}

}  // namespace tesselune
