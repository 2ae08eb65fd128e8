// Lightweight migration: the mapping Core Data infers between two versions of a model, and moving a
// store from the one to the other.
//
// The inferred mapping matches entities and properties by name. It covers added and removed
// entities, attributes and relationships, attributes that become optional, and attributes that
// become required when the new model gives a default; hierarchies may be split (their keys stay
// unique). A changed attribute type, a relationship that changes between to-one and to-many or
// changes its destination, and hierarchies merged from different roots cannot be inferred.
//
// Migrating never loses data. Objects of an entity the new model no longer has refuse the
// migration. The copy is built beside the store ("<store>.migrating") and must pass SQLite's
// integrity check; the old file then gets a second name ("<store>.backup") before the copy is
// renamed over it, and that backup goes only once the new file checks out again and opens as a
// store of the new model (otherwise it is put back). A crash leaves the old store, or the new one
// with the old one's backup beside it. The store must not be open elsewhere while it migrates.
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
// attribute without a default and objects without a value, objects of an entity the new model
// drops) or the copy does not check out, or with the file error; the original store's objects
// are then as they were.
[[nodiscard]] Status migrateStore(const std::filesystem::path& path,
                                  std::shared_ptr<const ManagedObjectModel> source,
                                  std::shared_ptr<const ManagedObjectModel> destination,
                                  std::chrono::milliseconds busyTimeout = std::chrono::seconds(10));

}  // namespace tesselune
