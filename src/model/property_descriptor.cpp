// PropertyDescriptor: exclusive keys and generators, and writing edited values back.

#include "model/property_descriptor.h"

#include <cstdlib>

#include "foundation/number_text.h"
#include "model/store_object.h"

namespace tesselune {

namespace {

// attributeValueClassName as the platform answers it: the model's custom class, else the class
// the attribute type stands for.
std::string valueClassNameOf(const AttributeDescription& attribute) {
  if (!attribute.attributeValueClassName().empty()) return attribute.attributeValueClassName();
  switch (attribute.attributeType()) {
    case AttributeType::Integer16:
    case AttributeType::Integer32:
    case AttributeType::Integer64:
    case AttributeType::Double:
    case AttributeType::Float:
    case AttributeType::Boolean:
      return "NSNumber";
    case AttributeType::Decimal:
      return "NSDecimalNumber";
    case AttributeType::String:
      return "NSString";
    case AttributeType::Date:
      return "NSDate";
    case AttributeType::BinaryData:
      return "NSData";
    case AttributeType::Uuid:
      return "NSUUID";
    case AttributeType::Uri:
      return "NSURL";
    default:
      return "";
  }
}

std::string_view skipBlanks(std::string_view text) {
  while (!text.empty() &&
         (text.front() == ' ' || text.front() == '\t' || text.front() == '\n' || text.front() == '\r'))
    text.remove_prefix(1);
  return text;
}

}  // namespace

bool objectBoolValue(const Value& value) {
  if (value.isNumber()) return value.boolValue();
  if (!value.isString()) return false;
  std::string_view text = skipBlanks(value.asString());
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) text.remove_prefix(1);
  while (!text.empty() && text.front() == '0') text.remove_prefix(1);
  if (text.empty()) return false;
  const char c = text.front();
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

double objectDoubleValue(const Value& value) {
  if (value.isNumber()) return value.doubleValue();
  if (!value.isString()) return 0;
  return leadingDoubleValue(skipBlanks(value.asString()));
}

PropertyDescriptor::PropertyDescriptor() {
  throw InternalInconsistencyException(
      "Error when instantiating a DataPropertiesView. The init function is not implemented.");
}

PropertyDescriptor::PropertyDescriptor(Value representedObject)
    : representedObject_(std::move(representedObject)) {}

void PropertyDescriptor::setAttributeKey(std::optional<std::string> key) {
  if (key && !key->empty()) relationshipKey_.reset();
  attributeKey_ = std::move(key);
}

void PropertyDescriptor::setRelationshipKey(std::optional<std::string> key) {
  if (key && !key->empty()) attributeKey_.reset();
  relationshipKey_ = std::move(key);
}

void PropertyDescriptor::setAttributeContentGenerator(ContentGenerator generator) {
  if (generator) relationshipContentGenerator_ = nullptr;
  attributeContentGenerator_ = std::move(generator);
}

void PropertyDescriptor::setRelationshipContentGenerator(ContentGenerator generator) {
  if (generator) attributeContentGenerator_ = nullptr;
  relationshipContentGenerator_ = std::move(generator);
}

Value PropertyDescriptor::attributeContent() const {
  return attributeContentGenerator_ ? attributeContentGenerator_() : Value();
}

Value PropertyDescriptor::relationshipContent() const {
  return relationshipContentGenerator_ ? relationshipContentGenerator_() : Value();
}

void PropertyDescriptor::setAttributeContent(const Value& value) {
  if (!editable()) return;
  auto object = representedObject_.asObjectOf<ManagedObject>();
  if (!object) return;
  const auto& attributes = object->entity().attributesByName();
  auto found = attributes.find(*attributeKey_);
  if (found == attributes.end()) return;
  const AttributeDescription& attribute = *found->second;
  const std::string valueClass = valueClassNameOf(attribute);
  if (valueClass == "NSString") {
    setValueThroughAccessors(*object, value, *attributeKey_);
  } else if (valueClass == "NSNumber" && attribute.attributeType() == AttributeType::Boolean) {
    setValueThroughAccessors(*object, Value(objectBoolValue(value)), *attributeKey_);
  } else if (valueClass == "NSNumber") {
    setValueThroughAccessors(*object, Value(objectDoubleValue(value)), *attributeKey_);
  }
}

}  // namespace tesselune
