// Entity version hashes: SHA-256 digests over what decides whether a store fits a model, computed
// the way the platform computes them, so that our stores open there and theirs open here.
//
// A property's name, flags and version hash modifier are digested first; an attribute digests that
// with its type code and two storage flags; a relationship its destination, inverse, counts and ordering. An
// entity digests its name, abstractness, its parent's digest, the digests of all its properties
// (inherited ones too, by name), its modifier and its uniqueness constraints. Integers are
// little-endian; optional parts are simply absent.

#include <algorithm>

#include "objectstore/description/managed_object_model.h"

namespace tesselune {

namespace {

template <class T>
void appendLittleEndian(Sha256& sha, T value) {
  std::uint8_t bytes[sizeof(T)];
  for (std::size_t i = 0; i < sizeof(T); ++i) bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
  sha.update(bytes);
}

// The digest of what every property has; attributes and relationships digest it with their own parts.
Sha256::Digest commonHash(const PropertyDescription& property) {
  Sha256 sha;
  sha.update(property.name());
  std::uint16_t flags = 0;
  if (property.isOptional()) flags |= 1;
  if (property.isTransient()) flags |= 2;
  if (property.isReadOnly()) flags |= 4;
  appendLittleEndian(sha, flags);
  if (!property.versionHashModifier().empty()) sha.update(property.versionHashModifier());
  return sha.finish();
}

Sha256::Digest propertyHash(const PropertyDescription& property) {
  Sha256 sha;
  sha.update(commonHash(property));
  if (property.isAttribute()) {
    const auto& attribute = static_cast<const AttributeDescription&>(property);
    appendLittleEndian(sha, static_cast<std::uint32_t>(attribute.attributeType()));
    const std::uint8_t one = 1;
    if (attribute.allowsExternalBinaryDataStorage()) sha.update(std::span(&one, 1));
    if (attribute.preservesValueInHistoryOnDeletion()) sha.update(std::span(&one, 1));
  } else {
    const auto& relationship = static_cast<const RelationshipDescription&>(property);
    sha.update(relationship.destinationEntityName());
    // A relationship that is its own inverse leaves the inverse out.
    const bool selfInverse = relationship.inverseRelationship() == &relationship;
    if (!selfInverse) sha.update(relationship.inverseRelationshipName());
    appendLittleEndian(sha, static_cast<std::uint32_t>(relationship.maxCount()));
    appendLittleEndian(sha, static_cast<std::uint32_t>(relationship.minCount()));
    if (relationship.isOrdered()) appendLittleEndian(sha, std::uint16_t{1});
  }
  return sha.finish();
}

Sha256::Digest entityHash(const EntityDescription& entity,
                          std::map<const EntityDescription*, Sha256::Digest>& done) {
  if (auto it = done.find(&entity); it != done.end()) return it->second;
  Sha256 sha;
  sha.update(entity.name());
  const std::uint8_t abstract = entity.isAbstract() ? 1 : 0;
  sha.update(std::span(&abstract, 1));
  if (entity.superentity() != nullptr) sha.update(entityHash(*entity.superentity(), done));
  // propertiesByName is sorted by name and holds the inherited properties too.
  for (const auto& [name, property] : entity.propertiesByName()) {
    if (property->isTransient()) continue;
    sha.update(propertyHash(*property));
  }
  if (!entity.versionHashModifier().empty()) sha.update(entity.versionHashModifier());
  std::vector<std::string> constraints;
  for (const auto& names : entity.uniquenessConstraints()) {
    std::string joined;
    for (const std::string& name : names) {
      if (!joined.empty()) joined += '.';
      joined += name;
    }
    constraints.push_back(std::move(joined));
  }
  std::sort(constraints.begin(), constraints.end());
  for (const std::string& constraint : constraints) sha.update(constraint);
  return done.emplace(&entity, sha.finish()).first->second;
}

}  // namespace

std::map<std::string, Sha256::Digest, std::less<>> ManagedObjectModel::entityVersionHashes() const {
  std::map<const EntityDescription*, Sha256::Digest> done;
  std::map<std::string, Sha256::Digest, std::less<>> hashes;
  for (const auto& entity : entities_) hashes.emplace(entity->name(), entityHash(*entity, done));
  return hashes;
}

bool ManagedObjectModel::isCompatibleWithStoreMetadata(const Dictionary& metadata) const {
  auto recorded = metadata.find("NSStoreModelVersionHashes");
  if (recorded == metadata.end() || !recorded->second.isDictionary()) return false;
  const auto computed = entityVersionHashes();
  if (recorded->second.count() != computed.size()) return false;
  return std::all_of(computed.begin(), computed.end(), [&](const auto& entry) {
    const Value& hash = recorded->second[entry.first];
    return hash.isData() &&
           std::equal(hash.asData().begin(), hash.asData().end(), entry.second.begin(), entry.second.end());
  });
}

}  // namespace tesselune
