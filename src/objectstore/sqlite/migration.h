// Lightweight migration: the mapping Core Data infers between two versions of a model, and moving a
// store from the one to the other.
//
// The inferred mapping matches entities and properties by name. It covers added and removed
// entities, attributes and relationships, attributes that become optional, and attributes that
// become required when the new model gives a default; hierarchies may be split (their keys stay
// unique). A changed attribute type, a relationship that changes between to-one and to-many or
// changes its destination, and hierarchies merged from different roots cannot be inferred.
//
// Migrating never changes the original file until the migrated copy is complete: the copy is built
// beside the store and then renamed over it, so a crash leaves either the old store or the new one.
// The store must not be open elsewhere while it migrates.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "foundation/error.h"
#include "objectstore/description/managed_object_model.h"

namespace tesselune {

class MappingModel {
 public:
  // inferredMappingModelForSourceModel:destinationModel:: fails with 134140 when the change is not
  // one the inference covers; the text names the entity and property.
  [[nodiscard]] static Expected<MappingModel> inferredMappingModelForSourceModel(
      const ManagedObjectModel& source, const ManagedObjectModel& destination);

  // The source entity whose objects become the destination entity's; nothing for a new entity.
  const EntityDescription* sourceEntity(const EntityDescription& destination) const;
  // The source property that fills a destination property; nothing for a new property.
  const PropertyDescription* sourceProperty(const PropertyDescription& destination) const;

 private:
  std::map<const EntityDescription*, const EntityDescription*> entities_;
  std::map<const PropertyDescription*, const PropertyDescription*> properties_;
};

// Moves the store at `path`, made with `source`, to `destination` through the inferred mapping.
// The store keeps its UUID, its objects' keys and its metadata's other keys. Fails with 134140
// when no mapping can be inferred, 134110 when the data does not fit the new model (a required
// attribute without a default and objects without a value), or with the file error; the original
// store is then as it was.
[[nodiscard]] Status migrateStore(const std::filesystem::path& path,
                                  std::shared_ptr<const ManagedObjectModel> source,
                                  std::shared_ptr<const ManagedObjectModel> destination,
                                  std::chrono::milliseconds busyTimeout = std::chrono::seconds(10));

}  // namespace tesselune
