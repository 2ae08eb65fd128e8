// Descriptions of an entity's properties: attributes and relationships, as NSAttributeDescription
// and NSRelationshipDescription describe them.
//
// Descriptions belong to their entity, which belongs to its model; they are immutable once the model
// is loaded and may be read from any thread for as long as the model lives. The pointers between
// them (entity, destination, inverse) are borrowed from the same model.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/value.h"

namespace tesselune {

class EntityDescription;

// Attribute types with the codes that stores and archived models use.
enum class AttributeType : std::int32_t {
  Undefined = 0,
  Integer16 = 100,
  Integer32 = 200,
  Integer64 = 300,
  Decimal = 400,
  Double = 500,
  Float = 600,
  String = 700,
  Boolean = 800,
  Date = 900,
  BinaryData = 1000,
  Uuid = 1100,
  Uri = 1200,
  Transformable = 1800,
  ObjectId = 2000,
};

enum class DeleteRule : std::int32_t { NoAction = 0, Nullify = 1, Cascade = 2, Deny = 3 };

class PropertyDescription {
 public:
  virtual ~PropertyDescription() = default;

  const std::string& name() const { return name_; }
  // The entity that declares the property (for an inherited one: the ancestor).
  const EntityDescription* entity() const { return entity_; }
  bool isOptional() const { return optional_; }
  bool isTransient() const { return transient_; }
  bool isReadOnly() const { return readOnly_; }
  const std::string& versionHashModifier() const { return versionHashModifier_; }
  const Dictionary& userInfo() const { return userInfo_; }

  virtual bool isAttribute() const { return false; }
  virtual bool isRelationship() const { return false; }

 protected:
  friend class ModelBuilder;
  std::string name_;
  const EntityDescription* entity_ = nullptr;
  bool optional_ = false;
  bool transient_ = false;
  bool readOnly_ = false;
  std::string versionHashModifier_;
  Dictionary userInfo_;
};

class AttributeDescription : public PropertyDescription {
 public:
  bool isAttribute() const override { return true; }

  AttributeType attributeType() const { return type_; }
  // The default for new objects (null when the model gives none), already of the attribute's type.
  const Value& defaultValue() const { return defaultValue_; }
  const std::string& attributeValueClassName() const { return valueClassName_; }
  const std::string& valueTransformerName() const { return transformerName_; }
  bool allowsExternalBinaryDataStorage() const { return externalStorage_; }
  bool preservesValueInHistoryOnDeletion() const { return preserveAfterDeletion_; }
  bool isIndexed() const { return indexed_; }

 private:
  friend class ModelBuilder;
  AttributeType type_ = AttributeType::Undefined;
  Value defaultValue_;
  std::string valueClassName_;
  std::string transformerName_;
  bool externalStorage_ = false;
  bool preserveAfterDeletion_ = false;
  bool indexed_ = false;
};

class RelationshipDescription : public PropertyDescription {
 public:
  bool isRelationship() const override { return true; }

  const std::string& destinationEntityName() const { return destinationName_; }
  const EntityDescription* destinationEntity() const { return destination_; }
  const std::string& inverseRelationshipName() const { return inverseName_; }
  // Nothing for a relationship without inverse.
  const RelationshipDescription* inverseRelationship() const { return inverse_; }
  bool isToMany() const { return toMany_; }
  bool isOrdered() const { return ordered_; }
  std::int64_t minCount() const { return minCount_; }
  // 0 for a to-many without a maximum, 1 for a to-one.
  std::int64_t maxCount() const { return maxCount_; }
  DeleteRule deleteRule() const { return deleteRule_; }

 private:
  friend class ModelBuilder;
  std::string destinationName_;
  const EntityDescription* destination_ = nullptr;
  std::string inverseName_;
  const RelationshipDescription* inverse_ = nullptr;
  bool toMany_ = false;
  bool ordered_ = false;
  std::int64_t minCount_ = 0;
  std::int64_t maxCount_ = 1;
  DeleteRule deleteRule_ = DeleteRule::Nullify;
};

}  // namespace tesselune
