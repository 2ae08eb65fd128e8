// Reading a store's entities from Z_PRIMARYKEY.
#include "app/store_catalog.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

namespace tesselune {

namespace {

Error catalogError(const Database& database, std::string_view why) {
  return Error(std::string(kCocoaErrorDomain), kFileReadCorruptFileError,
               fmt::format("The file “{}” couldn’t be opened because it isn’t a store: {}.",
                           database.path().filename().string(), why));
}

}  // namespace

Expected<StoreCatalog> StoreCatalog::read(Database& database) {
  auto exists = database.tableExists("Z_PRIMARYKEY");
  if (!exists) return fail(exists.error());
  if (!*exists) return fail(catalogError(database, "it has no table Z_PRIMARYKEY"));
  auto statement = database.prepare("SELECT Z_ENT, Z_NAME, Z_SUPER, Z_MAX FROM Z_PRIMARYKEY ORDER BY Z_ENT");
  if (!statement) return fail(statement.error());
  StoreCatalog catalog;
  while (true) {
    auto row = statement->step();
    if (!row) return fail(row.error());
    if (!*row) break;
    if (statement->isNull(0) || statement->isNull(1)) continue;
    CatalogEntity entity;
    entity.number = statement->integer(0);
    if (entity.number >= kFirstInternalNumber) continue;
    entity.name = statement->text(1);
    entity.superNumber = statement->isNull(2) ? 0 : statement->integer(2);
    if (!statement->isNull(3)) entity.keyCounter = statement->integer(3);
    catalog.entities_.push_back(std::move(entity));
  }
  return catalog;
}

const CatalogEntity* StoreCatalog::entity(std::int64_t number) const {
  auto it = std::lower_bound(entities_.begin(), entities_.end(), number,
                             [](const CatalogEntity& e, std::int64_t n) { return e.number < n; });
  return it != entities_.end() && it->number == number ? &*it : nullptr;
}

const CatalogEntity* StoreCatalog::entityNamed(std::string_view name) const {
  for (const CatalogEntity& e : entities_) {
    if (e.name == name) return &e;
  }
  return nullptr;
}

const CatalogEntity& StoreCatalog::root(const CatalogEntity& start) const {
  const CatalogEntity* current = &start;
  // A damaged table may name a missing parent or loop; no chain is longer than the table.
  for (std::size_t steps = 0; steps <= entities_.size(); ++steps) {
    if (current->superNumber == 0) return *current;
    const CatalogEntity* parent = entity(current->superNumber);
    if (parent == nullptr) return *current;
    current = parent;
  }
  return start;
}

std::vector<const CatalogEntity*> StoreCatalog::roots() const {
  std::vector<const CatalogEntity*> out;
  for (const CatalogEntity& e : entities_) {
    if (&root(e) == &e) out.push_back(&e);
  }
  return out;
}

std::vector<const CatalogEntity*> StoreCatalog::hierarchy(const CatalogEntity& top) const {
  std::vector<const CatalogEntity*> out{&top};
  for (const CatalogEntity& e : entities_) {
    if (&e == &top) continue;
    const CatalogEntity* current = &e;
    for (std::size_t steps = 0; steps <= entities_.size() && current->superNumber != 0; ++steps) {
      current = entity(current->superNumber);
      if (current == nullptr) break;
      if (current == &top) {
        out.push_back(&e);
        break;
      }
    }
  }
  return out;
}

std::string StoreCatalog::tableOf(const CatalogEntity& entity) const {
  std::string name = "Z";
  for (char c : root(entity).name)
    name.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
  return name;
}

}  // namespace tesselune
