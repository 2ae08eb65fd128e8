// PropertyDescriptor: one line of the property list an inspector shows for a store object: a
// label, where the displayed text comes from, and for an editable attribute how an edited text is
// written back. A descriptor stands for an attribute or for a relationship, never both: setting
// one side clears the other.
//
// Toolkit-free; the generators are called on the thread that reads the content (the main thread
// in the program), every time, without caching. The represented object is held strongly: owners
// that are themselves represented must drop their descriptors when they go (PrecursorListGroup
// does, when it turns into a fault).
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "foundation/value.h"

namespace tesselune {

// Misuse of a class that the platform reports as NSInternalInconsistencyException.
class InternalInconsistencyException : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

class PropertyDescriptor final : public Object {
 public:
  using ContentGenerator = std::function<Value()>;

  // Not available: throws InternalInconsistencyException.
  PropertyDescriptor();
  // initWithRepresentedObject: the label "Property Name", no keys, no generators.
  explicit PropertyDescriptor(Value representedObject);

  std::string className() const override { return "PropertyDescriptor"; }

  const std::string& propertyName() const { return propertyName_; }
  void setPropertyName(std::string name) { propertyName_ = std::move(name); }
  const Value& representedObject() const { return representedObject_; }
  void setRepresentedObject(Value object) { representedObject_ = std::move(object); }

  // A non-empty key clears the relationship key; an empty key or nothing clears nothing.
  const std::optional<std::string>& attributeKey() const { return attributeKey_; }
  void setAttributeKey(std::optional<std::string> key);
  const std::optional<std::string>& relationshipKey() const { return relationshipKey_; }
  void setRelationshipKey(std::optional<std::string> key);
  const std::optional<std::string>& relationshipName() const { return relationshipName_; }
  void setRelationshipName(std::optional<std::string> name) { relationshipName_ = std::move(name); }

  // A generator clears the other side's; an empty one clears nothing.
  const ContentGenerator& attributeContentGenerator() const { return attributeContentGenerator_; }
  void setAttributeContentGenerator(ContentGenerator generator);
  const ContentGenerator& relationshipContentGenerator() const { return relationshipContentGenerator_; }
  void setRelationshipContentGenerator(ContentGenerator generator);

  // The generator's answer; null without a generator.
  Value attributeContent() const;
  Value relationshipContent() const;
  // Writes an edited value into the represented managed object's attribute `attributeKey`: a
  // string attribute takes the value as it is, a Boolean one its boolValue, any other number
  // attribute its doubleValue (the store converts it to the attribute's type). Anything else (no
  // key, no managed object, an unknown attribute, another value class) is silently ignored.
  void setAttributeContent(const Value& value);

  bool editable() const { return attributeKey_ && !attributeKey_->empty(); }

 private:
  std::string propertyName_ = "Property Name";
  Value representedObject_;
  std::optional<std::string> attributeKey_;
  ContentGenerator attributeContentGenerator_;
  std::optional<std::string> relationshipKey_;
  ContentGenerator relationshipContentGenerator_;
  std::optional<std::string> relationshipName_;
};

// NSString's boolValue and doubleValue over a Value: numbers as NSNumber answers them, strings as
// NSString does ("YES", "true", "1" are true; "2.5" is 2.5; leading blanks skipped), else false / 0.
bool objectBoolValue(const Value& value);
double objectDoubleValue(const Value& value);

}  // namespace tesselune
