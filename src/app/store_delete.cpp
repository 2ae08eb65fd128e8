// Deleting matching objects of any store through the engine's batch delete.
#include "app/store_delete.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <deque>
#include <map>
#include <set>

#include "app/store_description.h"
#include "app/store_maintenance.h"
#include "objectstore/managed_object_id.h"
#include "objectstore/sqlite/batch_delete.h"
#include "objectstore/sqlite/fetch_compiler.h"

namespace tesselune {

namespace {

bool sameIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
  });
}

Expected<const EntityDescription*> entityFor(const ManagedObjectModel& model, std::string_view name) {
  if (const EntityDescription* exact = model.entityNamed(name)) return exact;
  std::vector<std::string> names;
  for (const auto& entity : model.entities()) {
    if (sameIgnoringCase(entity->name(), name)) return entity.get();
    names.push_back(entity->name());
  }
  return fail(maintenanceError(
      fmt::format("The store has no entity \"{}\"; its entities are: {}.", name, fmt::join(names, ", "))));
}

void collectHierarchy(const EntityDescription& entity, std::vector<const EntityDescription*>& out) {
  out.push_back(&entity);
  for (const EntityDescription* sub : entity.subentities()) collectHierarchy(*sub, out);
}

// What the delete rules of every entity reached do, following cascades; each entity once.
std::vector<std::string> ruleEffects(const EntityDescription& start) {
  std::vector<std::string> effects;
  std::set<const EntityDescription*> seen;
  std::deque<const EntityDescription*> pending;
  auto reach = [&](const EntityDescription& entity) {
    std::vector<const EntityDescription*> hierarchy;
    collectHierarchy(entity, hierarchy);
    for (const EntityDescription* member : hierarchy) {
      if (seen.insert(member).second) pending.push_back(member);
    }
  };
  reach(start);
  // Sub-entities inherit relationships: each is described once, under the entity declaring it.
  std::set<const RelationshipDescription*> described;
  while (!pending.empty()) {
    const EntityDescription* entity = pending.front();
    pending.pop_front();
    for (const auto& [name, relationship] : entity->relationshipsByName()) {
      const RelationshipDescription& r = *relationship;
      if (r.isTransient() || !described.insert(&r).second) continue;
      const EntityDescription* destination = r.destinationEntity();
      if (destination == nullptr) continue;
      const std::string where =
          fmt::format("{}.{}", r.entity() != nullptr ? r.entity()->name() : entity->name(), r.name());
      const RelationshipDescription* inverse = r.inverseRelationship();
      switch (r.deleteRule()) {
        case DeleteRule::Cascade:
          effects.push_back(
              fmt::format("{}: cascade, deletes the {} objects it names", where, destination->name()));
          reach(*destination);
          break;
        case DeleteRule::Nullify:
          if (inverse != nullptr) {
            effects.push_back(fmt::format("{}: nullify, {} {}.{}", where,
                                          inverse->isToMany() ? "removes them from" : "empties",
                                          destination->name(), inverse->name()));
          }
          break;
        case DeleteRule::Deny:
          effects.push_back(fmt::format("{}: deny, refuses the delete while it names objects", where));
          break;
        case DeleteRule::NoAction:
          if (inverse != nullptr) {
            effects.push_back(fmt::format("{}: no action, leaves {}.{} naming deleted objects", where,
                                          destination->name(), inverse->name()));
          }
          break;
      }
    }
  }
  return effects;
}

std::vector<std::pair<std::string, std::int64_t>> positive(
    const std::map<std::string, std::int64_t>& counts) {
  std::vector<std::pair<std::string, std::int64_t>> out;
  for (const auto& [name, count] : counts) {
    if (count > 0) out.emplace_back(name, count);
  }
  return out;
}

}  // namespace

Expected<DeleteOutcome> deleteObjectsMatching(SqliteStore& store, std::string_view entityName,
                                              std::string_view predicateFormat, const DeleteOptions& options,
                                              Progress* progress) {
  auto entity = entityFor(store.model(), entityName);
  if (!entity) return fail(entity.error());
  if (store.isReadOnly() && !options.dryRun) {
    return fail(maintenanceError(fmt::format("The store at {} is open read-only.", store.path().string())));
  }
  auto predicate = predicateWithFormat(predicateFormat);
  if (!predicate) return fail(predicate.error());

  FetchRequest request = FetchRequest::fetchRequestWithEntityName((*entity)->name());
  request.predicate = *predicate;
  DeleteOutcome outcome;
  outcome.entity = (*entity)->name();
  outcome.predicate = std::string(predicateFormat);
  outcome.dryRun = options.dryRun;
  outcome.ruleEffects = ruleEffects(**entity);

  // The selection is read once here for the listing and once more by the delete itself, which
  // runs it inside its own transaction; the counts printed are those of the listing.
  auto listing = compileFetch(store, request, FetchSelection::ObjectIDs);
  if (!listing) return fail(listing.error());
  auto statement = store.database().prepare(listing->sql);
  if (!statement) return fail(statement.error());
  for (std::size_t i = 0; i < listing->bindings.size(); ++i) {
    if (auto b = statement->bind(static_cast<int>(i + 1), listing->bindings[i]); !b) return fail(b.error());
  }
  std::map<std::string, std::int64_t> selected;
  while (true) {
    auto row = statement->step();
    if (!row) return fail(row.error());
    if (!*row) break;
    const EntityDescription* actual = store.entityForNumber(statement->integer(1));
    if (actual == nullptr) continue;
    ++selected[actual->name()];
    ++outcome.selectedTotal;
    if (outcome.firstURIs.size() < options.listedURIs) {
      outcome.firstURIs.push_back(
          ManagedObjectID::permanent(*actual, store.identifier(), statement->integer(0))
              .URIRepresentation()
              .absoluteString());
    }
  }
  outcome.selected = positive(selected);
  if (options.dryRun || outcome.selectedTotal == 0) return outcome;

  auto before = rowsPerEntity(store);
  if (!before) return fail(before.error());
  auto keys = compileFetch(store, request, FetchSelection::PrimaryKeys);
  if (!keys) return fail(keys.error());
  auto deleted = batchDeleteRows(store, **entity, RowSelection{keys->sql, keys->bindings},
                                 BatchDeleteRequestResultType::ResultTypeCount, progress);
  if (!deleted) return fail(deleted.error());
  auto after = rowsPerEntity(store);
  if (!after) return fail(after.error());
  std::map<std::string, std::int64_t> removed;
  for (const auto& [name, count] : *before) {
    const auto left = after->find(name);
    removed[name] = count - (left == after->end() ? 0 : left->second);
  }
  outcome.removed = positive(removed);
  return outcome;
}

std::string formatDeleteOutcome(const DeleteOutcome& outcome) {
  std::string out = fmt::format("{} {} {} object(s) where {}", outcome.dryRun ? "Would delete" : "Selected",
                                outcome.selectedTotal, outcome.entity, outcome.predicate);
  std::vector<std::string> parts;
  for (const auto& [name, count] : outcome.selected) parts.push_back(fmt::format("{} {}", count, name));
  out += parts.empty() ? "\n" : fmt::format(" ({})\n", fmt::join(parts, ", "));
  for (const std::string& uri : outcome.firstURIs) out += fmt::format("  {}\n", uri);
  if (outcome.selectedTotal > static_cast<std::int64_t>(outcome.firstURIs.size())) {
    out += fmt::format("  … and {} more\n",
                       outcome.selectedTotal - static_cast<std::int64_t>(outcome.firstURIs.size()));
  }
  if (!outcome.ruleEffects.empty()) {
    out += "Delete rules:\n";
    for (const std::string& effect : outcome.ruleEffects) out += fmt::format("  {}\n", effect);
  }
  if (!outcome.dryRun) {
    if (outcome.removed.empty()) {
      out += "Nothing was deleted.\n";
    } else {
      out += "Deleted:\n";
      for (const auto& [name, count] : outcome.removed) out += fmt::format("  {} {}\n", count, name);
    }
  }
  return out;
}

}  // namespace tesselune
