// EntityDescription: one entity of a model, as NSEntityDescription describes it: name, class name,
// abstractness, its place in the inheritance tree, and its properties, own and inherited.
//
// Owned by its ManagedObjectModel; immutable once the model is loaded; safe to read from any thread
// while the model lives. Pointers to other entities and properties are borrowed from the same model.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "foundation/value.h"
#include "objectstore/description/property_description.h"

namespace tesselune {

class EntityDescription {
 public:
  const std::string& name() const { return name_; }
  // The class that represents the entity's objects; the entity's name when the model gives none.
  const std::string& managedObjectClassName() const { return className_; }
  bool isAbstract() const { return abstract_; }
  const EntityDescription* superentity() const { return superentity_; }
  // Direct sub-entities, sorted by name.
  const std::vector<const EntityDescription*>& subentities() const { return subentities_; }
  const EntityDescription* rootEntity() const;
  // Whether this entity is `other` or descends from it.
  bool isKindOfEntity(const EntityDescription& other) const;

  // Every property, inherited ones included, by name.
  const std::map<std::string, const PropertyDescription*, std::less<>>& propertiesByName() const {
    return propertiesByName_;
  }
  const std::map<std::string, const AttributeDescription*, std::less<>>& attributesByName() const {
    return attributesByName_;
  }
  const std::map<std::string, const RelationshipDescription*, std::less<>>& relationshipsByName() const {
    return relationshipsByName_;
  }
  // Only the properties this entity declares, in the model's order.
  const std::vector<std::unique_ptr<PropertyDescription>>& ownProperties() const { return ownProperties_; }

  const Dictionary& userInfo() const { return userInfo_; }
  const std::string& versionHashModifier() const { return versionHashModifier_; }
  // Uniqueness constraints declared on this entity: each a list of property names.
  const std::vector<std::vector<std::string>>& uniquenessConstraints() const {
    return uniquenessConstraints_;
  }
  // Compound indexes declared on this entity: each a list of property names.
  const std::vector<std::vector<std::string>>& compoundIndexes() const { return compoundIndexes_; }

 private:
  friend class ModelBuilder;
  std::string name_;
  std::string className_;
  bool abstract_ = false;
  std::string superentityName_;
  const EntityDescription* superentity_ = nullptr;
  std::vector<const EntityDescription*> subentities_;
  std::vector<std::unique_ptr<PropertyDescription>> ownProperties_;
  std::map<std::string, const PropertyDescription*, std::less<>> propertiesByName_;
  std::map<std::string, const AttributeDescription*, std::less<>> attributesByName_;
  std::map<std::string, const RelationshipDescription*, std::less<>> relationshipsByName_;
  Dictionary userInfo_;
  std::string versionHashModifier_;
  std::vector<std::vector<std::string>> uniquenessConstraints_;
  std::vector<std::vector<std::string>> compoundIndexes_;
};

}  // namespace tesselune
