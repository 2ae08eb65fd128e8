// StoreCatalog: what a store says of its own entities without any model, read from Z_PRIMARYKEY:
// each entity's number, name, parent and key counter, the hierarchies they form and the tables that
// hold them. Enough to count objects, check key counters and find rows filed under an entity that
// does not belong in their table, in any store, whether a model for it is at hand or not.
//
// A plain value; reading it takes one query and changes nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "foundation/error.h"
#include "objectstore/sqlite/database.h"

namespace tesselune {

struct CatalogEntity {
  std::int64_t number = 0;  // Z_ENT
  std::string name;
  std::int64_t superNumber = 0;            // the parent's Z_ENT, 0 for a root
  std::optional<std::int64_t> keyCounter;  // Z_MAX; nothing when NULL
};

class StoreCatalog {
 public:
  // Numbers from here up belong to the framework's own tables (persistent history), not to a model.
  static constexpr std::int64_t kFirstInternalNumber = 16000;

  // Reads Z_PRIMARYKEY. Fails when the table is missing or cannot be read. A parent that is not
  // in the table, or a loop of parents, makes an entity a root of its own rather than a failure.
  [[nodiscard]] static Expected<StoreCatalog> read(Database& database);

  // The model's entities (internal ones left out), by number.
  const std::vector<CatalogEntity>& entities() const { return entities_; }
  const CatalogEntity* entity(std::int64_t number) const;
  const CatalogEntity* entityNamed(std::string_view name) const;
  const CatalogEntity& root(const CatalogEntity& entity) const;
  std::vector<const CatalogEntity*> roots() const;
  // The entity and everything below it, the entity first, then by number.
  std::vector<const CatalogEntity*> hierarchy(const CatalogEntity& entity) const;
  // "Z" and the root's name in upper case, as for any Core Data store.
  std::string tableOf(const CatalogEntity& entity) const;

 private:
  std::vector<CatalogEntity> entities_;
};

}  // namespace tesselune
