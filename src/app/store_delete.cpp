// Deleting matching objects of any store through the engine's batch delete.
#include "app/store_delete.h"

#include <fmt/format.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <utility>

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

// The entities whose rows a delete of `start` may take: its hierarchy and, through cascades, every
// hierarchy reached.
std::set<const EntityDescription*> reachedEntities(const EntityDescription& start) {
  std::set<const EntityDescription*> reached;
  std::deque<const EntityDescription*> pending;
  auto reach = [&](const EntityDescription& entity) {
    std::vector<const EntityDescription*> hierarchy;
    collectHierarchy(entity, hierarchy);
    for (const EntityDescription* member : hierarchy) {
      if (reached.insert(member).second) pending.push_back(member);
    }
  };
  reach(start);
  while (!pending.empty()) {
    const EntityDescription* entity = pending.front();
    pending.pop_front();
    for (const auto& [name, relationship] : entity->relationshipsByName()) {
      if (relationship->isTransient() || relationship->deleteRule() != DeleteRule::Cascade) continue;
      if (const EntityDescription* destination = relationship->destinationEntity()) reach(*destination);
    }
  }
  return reached;
}

// A copy of a store for a dry run, in the temporary folder; the copy and its journal files go with
// it. Made with SQLite's backup from the open connection, so that a WAL store's latest writes and
// nothing half-written come along, and the store itself is only read.
class ScratchCopy {
 public:
  [[nodiscard]] static Expected<ScratchCopy> of(Database& source) {
    std::error_code ec;
    const std::filesystem::path folder = std::filesystem::temp_directory_path(ec);
    std::string pattern = (folder / "tesselune-store-dry-run-XXXXXX").string();
    const int descriptor = ::mkstemp(pattern.data());
    if (descriptor < 0) {
      return fail(maintenanceError(
          fmt::format("A scratch copy of the store for the dry run cannot be made in {}: {}.",
                      folder.string(), std::strerror(errno))));
    }
    ::close(descriptor);
    ScratchCopy copy(pattern);
    sqlite3* destination = nullptr;
    int code = sqlite3_open_v2(pattern.c_str(), &destination, SQLITE_OPEN_READWRITE, nullptr);
    if (code == SQLITE_OK) {
      sqlite3_backup* backup = sqlite3_backup_init(destination, "main", source.handle(), "main");
      if (backup == nullptr) {
        code = sqlite3_errcode(destination);
      } else {
        code = sqlite3_backup_step(backup, -1);
        const int finished = sqlite3_backup_finish(backup);
        if (code == SQLITE_DONE) code = finished;
      }
    }
    const std::string message = destination != nullptr ? sqlite3_errmsg(destination) : sqlite3_errstr(code);
    sqlite3_close(destination);
    if (code != SQLITE_OK) {
      return fail(maintenanceError(fmt::format(
          "A scratch copy of the store for the dry run cannot be made at {}: {}.", pattern, message)));
    }
    return copy;
  }

  ScratchCopy(ScratchCopy&& other) noexcept : path_(std::exchange(other.path_, {})) {}
  ScratchCopy& operator=(ScratchCopy&&) = delete;
  ~ScratchCopy() {
    if (path_.empty()) return;
    std::error_code ec;
    for (const char* suffix : {"", "-wal", "-shm", "-journal"})
      std::filesystem::remove(path_.string() + suffix, ec);
  }

  const std::filesystem::path& path() const { return path_; }

 private:
  explicit ScratchCopy(std::filesystem::path path) : path_(std::move(path)) {}
  std::filesystem::path path_;
};

std::string referenceKey(const DanglingReference& d) {
  return fmt::format("{}.{}.{}", d.table, d.column, d.missingEntity);
}

// Deletes the selected objects from `store` and tells what went, cascades included, and which keys
// were left naming what went.
Status deleteAndCount(SqliteStore& store, const EntityDescription& entity, const FetchRequest& request,
                      Progress* progress, DeleteOutcome& outcome) {
  const std::set<const EntityDescription*> reached = reachedEntities(entity);
  auto danglingBefore = findDanglingReferences(store, &reached);
  if (!danglingBefore) return fail(danglingBefore.error());
  auto before = rowsPerEntity(store);
  if (!before) return fail(before.error());
  auto keys = compileFetch(store, request, FetchSelection::PrimaryKeys);
  if (!keys) return fail(keys.error());
  auto deleted = batchDeleteRows(store, entity, RowSelection{keys->sql, keys->bindings},
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

  auto danglingAfter = findDanglingReferences(store, &reached);
  if (!danglingAfter) return fail(danglingAfter.error());
  std::map<std::string, std::int64_t> earlier;
  for (const DanglingReference& d : *danglingBefore) earlier[referenceKey(d)] = d.count;
  for (DanglingReference& d : *danglingAfter) {
    d.count -= earlier[referenceKey(d)];
    if (d.count > 0) outcome.keysLeft.push_back(std::move(d));
  }
  return {};
}

// An error met on a scratch copy, told as the store itself would have told it.
Error asIfOnTheStore(const Error& error, const std::filesystem::path& copy,
                     const std::filesystem::path& store) {
  auto retold = [&](std::string text) {
    for (const auto& [from, to] : {std::pair{copy.string(), store.string()},
                                   std::pair{copy.filename().string(), store.filename().string()}}) {
      for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
      }
    }
    return text;
  };
  return Error(error.domain(), error.code(), retold(error.localizedDescription()),
               retold(error.debugDetail()));
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
  *statement = Statement();
  outcome.selected = positive(selected);
  if (outcome.selectedTotal == 0) return outcome;

  if (!options.dryRun) {
    if (auto done = deleteAndCount(store, **entity, request, progress, outcome); !done)
      return fail(done.error());
    return outcome;
  }
  auto copy = ScratchCopy::of(store.database());
  if (!copy) return fail(copy.error());
  // The copy is opened with the store's own model, which outlives it.
  const std::shared_ptr<const ManagedObjectModel> model(std::shared_ptr<void>(), &store.model());
  auto scratch = SqliteStore::open(copy->path(), model, SqliteStore::Options{});
  if (!scratch) return fail(asIfOnTheStore(scratch.error(), copy->path(), store.path()));
  // Nothing of the copy needs to survive a crash.
  (void)(*scratch)->database().execute("PRAGMA synchronous = OFF");
  if (auto done = deleteAndCount(**scratch, **entity, request, progress, outcome); !done) {
    return fail(asIfOnTheStore(done.error(), copy->path(), store.path()));
  }
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
  if (outcome.removed.empty()) {
    out += outcome.dryRun ? "Nothing would be deleted.\n" : "Nothing was deleted.\n";
  } else {
    out += outcome.dryRun ? "Would delete, cascades included:\n" : "Deleted:\n";
    for (const auto& [name, count] : outcome.removed) out += fmt::format("  {} {}\n", count, name);
  }
  if (!outcome.keysLeft.empty()) {
    out += outcome.dryRun ? "Keys it would leave naming deleted objects:\n"
                          : "Keys left naming deleted objects:\n";
    for (const DanglingReference& d : outcome.keysLeft) {
      out += fmt::format("  {}.{} ({}.{}): {} row(s) naming a deleted {}, {}\n", d.entity, d.relationship,
                         d.table, d.column, d.count, d.missingEntity,
                         d.withoutInverse ? "a relationship without an inverse (Core Data leaves these too; "
                                            "verify lists them apart from damage)"
                                          : "a delete rule of no action (verify reports these as damage)");
    }
  }
  return out;
}

}  // namespace tesselune
