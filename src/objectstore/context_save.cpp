// ManagedObjectContext::save: delete rules in the graph, validation, permanent IDs, and the writes
// of each store in one exclusive transaction with optimistic locking and the merge policy.

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <unordered_set>

#include "objectstore/managed_object_context.h"
#include "objectstore/sqlite/row_codec.h"

namespace tesselune {

namespace {

std::vector<std::shared_ptr<ManagedObject>> members(const Value& value) {
  std::vector<std::shared_ptr<ManagedObject>> out;
  const Array* items = value.isSet() ? &value.asSet().values() : value.isArray() ? &value.asArray() : nullptr;
  if (items == nullptr) {
    if (auto object = value.asObjectOf<ManagedObject>()) out.push_back(std::move(object));
    return out;
  }
  for (const Value& item : *items) {
    if (auto object = item.asObjectOf<ManagedObject>()) out.push_back(std::move(object));
  }
  return out;
}

std::string uri(const ManagedObject& object) {
  return object.objectID().URIRepresentation().absoluteString();
}

// The column values of a row, bound by position.
struct Assignment {
  std::vector<std::string> columns;
  std::vector<Value> values;
  void add(std::string column, Value value) {
    columns.push_back(std::move(column));
    values.push_back(std::move(value));
  }
};

}  // namespace

class ContextSaver {
 public:
  explicit ContextSaver(ManagedObjectContext& context) : context_(context) {}

  Status save() {
    if (context_.coordinator_ == nullptr) {
      return fail(Error(std::string(kCocoaErrorDomain), kPersistentStoreOpenError,
                        "The context has no coordinator."));
    }
    if (auto s = propagateDeletes(); !s) return s;
    std::vector<std::shared_ptr<ManagedObject>> changed;
    for (const auto& [id, object] : context_.registered_) {
      if (object->hasChanges()) changed.push_back(object);
    }
    if (changed.empty()) return {};
    if (auto s = validate(changed); !s) return s;
    std::vector<std::shared_ptr<ManagedObject>> inserted;
    for (const auto& object : changed) {
      if (object->isInserted() && !object->isDeleted()) inserted.push_back(object);
    }
    if (auto s = obtainPermanentIDs(inserted); !s) return s;

    std::map<SqliteStore*, std::vector<std::shared_ptr<ManagedObject>>> byStore;
    for (const auto& object : changed) {
      if (object->isInserted() && object->isDeleted()) continue;  // never reached a store
      SqliteStore* store = context_.storeFor(object->objectID());
      if (store == nullptr) {
        return fail(Error(std::string(kCocoaErrorDomain), kPersistentStoreOpenError,
                          fmt::format("The object {} has no store to be saved to.", uri(*object))));
      }
      if (store->isReadOnly()) {
        return fail(Error(std::string(kCocoaErrorDomain), kFileWriteNoPermissionError,
                          fmt::format("The store “{}” is read-only.", store->path().filename().string())));
      }
      byStore[store].push_back(object);
    }
    for (const auto& object : changed) {
      if (!object->isDeleted()) object->willSave();
    }
    std::lock_guard storeLock(context_.coordinator_->mutex());
    for (auto& [store, objects] : byStore) {
      if (auto s = writeStore(*store, objects); !s) return s;
    }
    finish(changed);
    return {};
  }

  Status obtainPermanentIDs(const std::vector<std::shared_ptr<ManagedObject>>& objects) {
    // One key range per store and hierarchy, as the keys of a hierarchy share one counter.
    std::map<std::pair<SqliteStore*, const EntityDescription*>, std::vector<std::shared_ptr<ManagedObject>>>
        groups;
    for (const auto& object : objects) {
      if (!object->objectID().isTemporaryID()) continue;
      SqliteStore* store = context_.storeFor(object->objectID());
      if (store == nullptr) {
        return fail(Error(std::string(kCocoaErrorDomain), kPersistentStoreOpenError,
                          fmt::format("The object {} has no store to be saved to.", uri(*object))));
      }
      groups[{store, object->entity().rootEntity()}].push_back(object);
    }
    std::lock_guard storeLock(context_.coordinator_->mutex());
    for (auto& [key, group] : groups) {
      auto first = key.first->allocatePrimaryKeys(*key.second, static_cast<std::int64_t>(group.size()));
      if (!first) return fail(first.error());
      std::int64_t next = *first;
      for (const auto& object : group) {
        context_.rekey(object->objectID(),
                       ManagedObjectID::permanent(object->entity(), key.first->identifier(), next++));
      }
    }
    return {};
  }

 private:
  // Cascades, denials and nullification, in the graph, before anything is written.
  Status propagateDeletes() {
    std::vector<std::shared_ptr<ManagedObject>> pending;
    for (const auto& [id, object] : context_.registered_) {
      if (object->isDeleted()) pending.push_back(object);
    }
    std::vector<std::shared_ptr<ManagedObject>> closure;
    while (!pending.empty()) {
      auto object = std::move(pending.back());
      pending.pop_back();
      if (!deleting_.insert(object.get()).second) continue;
      closure.push_back(object);
      for (const auto& [name, relationship] : object->entity().relationshipsByName()) {
        if (relationship->isTransient() || relationship->deleteRule() != DeleteRule::Cascade) continue;
        for (auto& destination : members(object->primitiveValueForKey(name)))
          pending.push_back(std::move(destination));
      }
    }
    for (const auto& object : closure) {
      for (const auto& [name, relationship] : object->entity().relationshipsByName()) {
        if (relationship->isTransient() || relationship->deleteRule() != DeleteRule::Deny) continue;
        for (const auto& destination : members(object->primitiveValueForKey(name))) {
          if (deleting_.contains(destination.get())) continue;
          deleting_.clear();
          return fail(
              Error(std::string(kCocoaErrorDomain), kValidationRelationshipDeniedDeleteError,
                    fmt::format("{} cannot be deleted: its relationship {} denies it while it holds {}.",
                                uri(*object), name, uri(*destination))));
        }
      }
    }
    for (const auto& object : closure) {
      if (!object->deleted_) {
        object->deleted_ = true;
      }
      object->prepareForDeletion();
    }
    for (const auto& object : closure) {
      for (const auto& [name, relationship] : object->entity().relationshipsByName()) {
        const RelationshipDescription* inverse = relationship->inverseRelationship();
        if (relationship->isTransient() || inverse == nullptr ||
            relationship->deleteRule() == DeleteRule::NoAction) {
          continue;
        }
        for (const auto& destination : members(object->primitiveValueForKey(name))) {
          if (deleting_.contains(destination.get())) continue;
          const Value current = destination->primitiveValueForKey(inverse->name());
          destination->willChangeValueForKey(inverse->name());
          if (inverse->isToMany()) {
            Value remaining = inverse->isOrdered() ? Value(Array{}) : Value(ValueSet{});
            for (const auto& member : members(current)) {
              if (member.get() == object.get()) continue;
              if (inverse->isOrdered()) {
                remaining.asArray().push_back(Value(ObjectPtr(member)));
              } else {
                remaining.asSet().insert(Value(ObjectPtr(member)));
              }
            }
            destination->values_[inverse->name()] = std::move(remaining);
          } else {
            destination->values_[inverse->name()] = Value();
          }
          destination->markChanged(inverse->name());
          destination->didChangeValueForKey(inverse->name());
        }
      }
    }
    return {};
  }

  Status validate(const std::vector<std::shared_ptr<ManagedObject>>& objects) {
    for (const auto& object : objects) {
      if (object->isDeleted()) continue;
      for (const auto& [name, property] : object->entity().propertiesByName()) {
        if (property->isOptional() || property->isTransient()) continue;
        if (property->isRelationship() && static_cast<const RelationshipDescription*>(property)->isToMany())
          continue;
        if (!object->primitiveValueForKey(name).isNull()) continue;
        return fail(Error(
            std::string(kCocoaErrorDomain), kValidationMissingMandatoryPropertyError,
            fmt::format("{} cannot be saved: the required property {} has no value.", uri(*object), name)));
      }
    }
    return {};
  }

  Status run(Database& db, const std::string& sql, const std::vector<Value>& values,
             std::int64_t* changes = nullptr) {
    auto statement = db.prepare(sql);
    if (!statement) return fail(statement.error());
    for (std::size_t i = 0; i < values.size(); ++i) {
      if (auto s = statement->bind(static_cast<int>(i) + 1, values[i]); !s) return s;
    }
    if (auto s = statement->run(); !s) return s;
    if (changes != nullptr) *changes = sqlite3_changes64(db.handle());
    return {};
  }

  // The columns of the object's own row for the given keys (all keys for an insert).
  Expected<Assignment> rowValues(SqliteStore& store, const ManagedObject& object,
                                 const std::set<std::string, std::less<>>* keys) {
    Assignment row;
    for (const auto& [name, property] : object.entity().propertiesByName()) {
      if (property->isTransient() || (keys != nullptr && !keys->contains(name))) continue;
      const PropertyMapping* mapping = store.schema().mapping(*property);
      if (mapping == nullptr) continue;
      const Value value = object.primitiveValueForKey(name);
      if (property->isAttribute()) {
        auto column = columnValueForAttribute(static_cast<const AttributeDescription&>(*property), value);
        if (!column) return fail(column.error());
        row.add(mapping->column, std::move(*column));
      } else if (mapping->kind == PropertyMapping::Kind::ToOne) {
        const auto& relationship = static_cast<const RelationshipDescription&>(*property);
        auto destination = value.asObjectOf<ManagedObject>();
        if (destination && (destination->isDeleted() || destination->objectID().isTemporaryID()))
          destination = nullptr;
        row.add(mapping->column, destination ? Value(destination->objectID().primaryKey()) : Value());
        if (!mapping->entityColumn.empty()) {
          row.add(mapping->entityColumn,
                  destination ? Value(*store.entityNumber(destination->entity())) : Value());
        }
        if (!mapping->orderColumn.empty()) {
          Value order;
          if (destination && relationship.inverseRelationship() != nullptr) {
            const auto siblings =
                members(destination->primitiveValueForKey(relationship.inverseRelationshipName()));
            auto at = std::find_if(siblings.begin(), siblings.end(),
                                   [&](const auto& s) { return s.get() == &object; });
            if (at != siblings.end())
              order = Value(static_cast<std::int64_t>((at - siblings.begin() + 1) * 1024));
          }
          row.add(mapping->orderColumn, std::move(order));
        }
      }
    }
    return row;
  }

  // Links kept outside the object's row: join tables and hidden keys in destination rows.
  Status writeLinks(SqliteStore& store, const ManagedObject& object, bool inserted) {
    Database& db = store.database();
    const Value self(object.objectID().primaryKey());
    for (const auto& [name, relationship] : object.entity().relationshipsByName()) {
      if (relationship->isTransient() || !relationship->isToMany()) continue;
      if (!inserted && !object.changed_.contains(name)) continue;
      const PropertyMapping* mapping = store.schema().mapping(*relationship);
      if (mapping == nullptr) continue;
      const auto now = members(object.primitiveValueForKey(name));
      std::vector<std::shared_ptr<ManagedObject>> before;
      if (!inserted) {
        auto committed = object.committed_.find(name);
        if (committed != object.committed_.end()) before = members(committed->second);
      }
      auto has = [](const auto& list, const ManagedObject* o) {
        return std::any_of(list.begin(), list.end(), [&](const auto& m) { return m.get() == o; });
      };
      for (const auto& gone : before) {
        if (has(now, gone.get()) || gone->objectID().isTemporaryID()) continue;
        const Value other(gone->objectID().primaryKey());
        if (mapping->kind == PropertyMapping::Kind::ManyToMany) {
          if (auto s = run(db,
                           fmt::format("DELETE FROM {} WHERE {} = ? AND {} = ?", mapping->table,
                                       mapping->column, mapping->otherColumn),
                           {self, other});
              !s)
            return s;
        } else if (mapping->kind == PropertyMapping::Kind::ToManyWithoutInverse) {
          if (auto s = run(db,
                           fmt::format("UPDATE {} SET {} = NULL WHERE Z_PK = ? AND {} = ?", mapping->table,
                                       mapping->column, mapping->column),
                           {other, self});
              !s)
            return s;
        }
      }
      std::int64_t position = 0;
      for (const auto& member : now) {
        ++position;
        if (member->isDeleted() || member->objectID().isTemporaryID()) continue;
        const Value other(member->objectID().primaryKey());
        if (mapping->kind == PropertyMapping::Kind::ManyToMany && !has(before, member.get())) {
          if (auto s = run(db,
                           fmt::format("INSERT OR IGNORE INTO {} ({}, {}) VALUES (?, ?)", mapping->table,
                                       mapping->column, mapping->otherColumn),
                           {self, other});
              !s)
            return s;
        } else if (mapping->kind == PropertyMapping::Kind::ToManyWithoutInverse &&
                   !has(before, member.get())) {
          if (auto s =
                  run(db, fmt::format("UPDATE {} SET {} = ? WHERE Z_PK = ?", mapping->table, mapping->column),
                      {self, other});
              !s)
            return s;
        } else if (mapping->kind == PropertyMapping::Kind::ToManyThroughInverse &&
                   !mapping->orderColumn.empty()) {
          if (auto s = run(
                  db,
                  fmt::format("UPDATE {} SET {} = ? WHERE Z_PK = ?", mapping->table, mapping->orderColumn),
                  {Value(position * 1024), other});
              !s)
            return s;
        }
      }
    }
    return {};
  }

  // The row as it is in the store now: its version, or nothing when it is gone.
  Expected<std::optional<std::int64_t>> storedVersion(SqliteStore& store, const ManagedObject& object) {
    auto statement = store.database().prepare(
        fmt::format("SELECT Z_OPT FROM {} WHERE Z_PK = ?", SqliteStore::tableName(object.entity())));
    if (!statement) return fail(statement.error());
    if (auto s = statement->bind(1, Value(object.objectID().primaryKey())); !s) return fail(s.error());
    auto row = statement->step();
    if (!row) return fail(row.error());
    if (!*row) return std::optional<std::int64_t>();
    return std::optional<std::int64_t>(statement->integer(0));
  }

  Status writeDeleted(SqliteStore& store, ManagedObject& object) {
    Database& db = store.database();
    const std::string table = SqliteStore::tableName(object.entity());
    const Value key(object.objectID().primaryKey());
    // The values kept in history have to be read before the row goes.
    std::vector<Value> tombstones;
    if (const HistoryWriter* history = store.history()) {
      auto kept = history->tombstones(db, object.entity(), object.objectID().primaryKey());
      if (!kept) return fail(kept.error());
      tombstones = std::move(*kept);
    }
    std::int64_t changes = 0;
    if (auto s = run(db, fmt::format("DELETE FROM {} WHERE Z_PK = ? AND Z_OPT = ?", table),
                     {key, Value(object.version_)}, &changes);
        !s)
      return s;
    if (changes == 0) {
      auto version = storedVersion(store, object);
      if (!version) return fail(version.error());
      if (*version) {
        if (context_.mergePolicy_ == MergePolicyType::Error) {
          conflicts_.push_back(&object);
        } else if (auto s = run(db, fmt::format("DELETE FROM {} WHERE Z_PK = ?", table), {key}, &changes);
                   !s) {
          return s;
        }
      }
    }
    if (changes > 0) {
      recordChange(store, object, HistoryChange::Type::Delete, {}, std::move(tombstones));
    }
    // Links that live outside the row.
    for (const auto& [name, relationship] : object.entity().relationshipsByName()) {
      const PropertyMapping* mapping = store.schema().mapping(*relationship);
      if (mapping == nullptr) continue;
      if (mapping->kind == PropertyMapping::Kind::ManyToMany) {
        if (auto s =
                run(db, fmt::format("DELETE FROM {} WHERE {} = ?", mapping->table, mapping->column), {key});
            !s)
          return s;
      } else if (mapping->kind == PropertyMapping::Kind::ToManyWithoutInverse &&
                 relationship->deleteRule() != DeleteRule::NoAction) {
        if (auto s = run(db,
                         fmt::format("UPDATE {} SET {} = NULL WHERE {} = ?", mapping->table, mapping->column,
                                     mapping->column),
                         {key});
            !s)
          return s;
      }
    }
    return {};
  }

  Status writeInserted(SqliteStore& store, ManagedObject& object) {
    auto row = rowValues(store, object, nullptr);
    if (!row) return fail(row.error());
    std::vector<std::string> columns{"Z_PK", "Z_ENT", "Z_OPT"};
    std::vector<Value> values{Value(object.objectID().primaryKey()),
                              Value(*store.entityNumber(object.entity())), Value(std::int64_t{1})};
    columns.insert(columns.end(), row->columns.begin(), row->columns.end());
    values.insert(values.end(), row->values.begin(), row->values.end());
    std::string marks;
    for (std::size_t i = 0; i < columns.size(); ++i) marks += i ? ", ?" : "?";
    if (auto s = run(store.database(),
                     fmt::format("INSERT INTO {} ({}) VALUES ({})", SqliteStore::tableName(object.entity()),
                                 fmt::join(columns, ", "), marks),
                     values);
        !s)
      return s;
    newVersions_[&object] = 1;
    recordChange(store, object, HistoryChange::Type::Insert, {}, {});
    return writeLinks(store, object, true);
  }

  Status writeUpdated(SqliteStore& store, ManagedObject& object) {
    // Changes of transient properties live in memory only.
    const bool stored =
        std::any_of(object.changed_.begin(), object.changed_.end(), [&](const std::string& key) {
          auto found = object.entity().propertiesByName().find(key);
          return found != object.entity().propertiesByName().end() && !found->second->isTransient();
        });
    if (!stored) return {};
    Database& db = store.database();
    const std::string table = SqliteStore::tableName(object.entity());
    auto update = [&](std::int64_t expected, bool checkVersion) -> Expected<bool> {
      auto row = rowValues(store, object, &object.changed_);
      if (!row) return fail(row.error());
      std::string sets;
      for (const std::string& column : row->columns) sets += column + " = ?, ";
      std::vector<Value> values = row->values;
      values.emplace_back(expected + 1);
      values.emplace_back(object.objectID().primaryKey());
      std::string sql = fmt::format("UPDATE {} SET {}Z_OPT = ? WHERE Z_PK = ?", table, sets);
      if (checkVersion) {
        sql += " AND Z_OPT = ?";
        values.emplace_back(expected);
      }
      std::int64_t changes = 0;
      if (auto s = run(db, sql, values, &changes); !s) return fail(s.error());
      if (changes > 0) newVersions_[&object] = expected + 1;
      return changes > 0;
    };
    auto written = update(object.version_, true);
    if (!written) return fail(written.error());
    bool wrote = *written;
    if (!*written) {
      auto version = storedVersion(store, object);
      if (!version) return fail(version.error());
      if (!*version || context_.mergePolicy_ == MergePolicyType::Error) {
        conflicts_.push_back(&object);
        return {};
      }
      if (auto s = mergeConflict(store, object); !s) return s;
      if (!object.changed_.empty()) {
        written = update(**version, false);
        if (!written) return fail(written.error());
        wrote = *written;
      }
      newVersions_[&object] = object.changed_.empty() ? **version : **version + 1;
    }
    if (wrote) {
      if (const HistoryWriter* history = store.history()) {
        Bytes columns = history->changedColumns(object.entity(), object.changed_);
        if (!columns.empty())
          recordChange(store, object, HistoryChange::Type::Update, std::move(columns), {});
      }
    }
    return writeLinks(store, object, false);
  }

  // Resolves a row changed elsewhere under the context's merge policy.
  Status mergeConflict(SqliteStore& store, ManagedObject& object) {
    auto statement = store.database().prepare(
        fmt::format("SELECT * FROM {} WHERE Z_PK = ?", SqliteStore::tableName(object.entity())));
    if (!statement) return fail(statement.error());
    if (auto s = statement->bind(1, Value(object.objectID().primaryKey())); !s) return s;
    auto row = statement->step();
    if (!row) return fail(row.error());
    std::map<std::string, Value, std::less<>> stored;
    std::map<std::string, Value, std::less<>> storedCommitted;
    std::set<std::string, std::less<>> none;
    std::unordered_map<std::string, int> columns;
    for (int i = 0; i < statement->columnCount(); ++i) columns.emplace(statement->columnName(i), i);
    // Read what the store holds now into scratch maps, then decide per property.
    ManagedObject& target = object;
    std::map<std::string, Value, std::less<>> oldCommitted = target.committed_;
    readRow(store, target, *statement, columns, stored, storedCommitted, none);
    switch (context_.mergePolicy_) {
      case MergePolicyType::MergeByPropertyObjectTrump:
      case MergePolicyType::Overwrite:
        for (const auto& [key, value] : stored) {
          if (!target.changed_.contains(key)) target.values_[key] = value;
        }
        break;
      case MergePolicyType::MergeByPropertyStoreTrump:
        for (const auto& [key, value] : stored) {
          const bool changedThere = oldCommitted.contains(key) && !(oldCommitted.at(key) == value);
          if (!target.changed_.contains(key) || changedThere) {
            target.values_[key] = value;
            target.changed_.erase(key);
          }
        }
        break;
      case MergePolicyType::Rollback:
        for (const auto& [key, value] : stored) target.values_[key] = value;
        target.changed_.clear();
        break;
      case MergePolicyType::Error:
        break;
    }
    for (const auto& [key, value] : storedCommitted) target.committed_[key] = value;
    return {};
  }

  void readRow(SqliteStore& store, ManagedObject& object, const Statement& statement,
               const std::unordered_map<std::string, int>& columns,
               std::map<std::string, Value, std::less<>>& values,
               std::map<std::string, Value, std::less<>>& committed,
               const std::set<std::string, std::less<>>& changed) {
    context_.fillFromRow(store, object, statement, columns, values, committed, changed);
  }

  // Notes a change for the store's history; nothing for a store that keeps none.
  void recordChange(SqliteStore& store, const ManagedObject& object, HistoryChange::Type type, Bytes columns,
                    std::vector<Value> tombstones) {
    if (store.history() == nullptr) return;
    history_.push_back(HistoryChange{type, *store.entityNumber(object.entity()),
                                     object.objectID().primaryKey(), std::move(columns),
                                     std::move(tombstones)});
  }

  Status writeStore(SqliteStore& store, const std::vector<std::shared_ptr<ManagedObject>>& objects) {
    Database& db = store.database();
    history_.clear();
    if (auto s = db.execute("BEGIN EXCLUSIVE"); !s) return s;
    auto body = [&]() -> Status {
      for (const auto& object : objects) {
        if (object->isDeleted()) {
          if (auto s = writeDeleted(store, *object); !s) return s;
        }
      }
      for (const auto& object : objects) {
        if (object->isInserted() && !object->isDeleted()) {
          if (auto s = writeInserted(store, *object); !s) return s;
        }
      }
      for (const auto& object : objects) {
        if (!object->isInserted() && !object->isDeleted()) {
          if (auto s = writeUpdated(store, *object); !s) return s;
        }
      }
      if (!conflicts_.empty()) {
        std::vector<std::string> uris;
        for (const ManagedObject* object : conflicts_) uris.push_back(uri(*object));
        return fail(Error(std::string(kCocoaErrorDomain), kManagedObjectMergeError,
                          fmt::format("Could not merge changes: {} changed in the store since it was read.",
                                      fmt::join(uris, ", "))));
      }
      if (const HistoryWriter* history = store.history()) {
        const TransactionNames names{context_.transactionAuthor_, context_.name_};
        if (auto s = history->recordTransaction(db, names, history_); !s) return s;
      }
      return db.execute("COMMIT");
    };
    Status status = body();
    if (!status) {
      (void)db.execute("ROLLBACK");
      conflicts_.clear();
      newVersions_.clear();
    }
    return status;
  }

  void finish(const std::vector<std::shared_ptr<ManagedObject>>& objects) {
    for (const auto& object : objects) {
      if (object->isDeleted()) {
        context_.registered_.erase(object->objectID());
        context_.assigned_.erase(object.get());
        object->detach();
        object->deleted_ = true;
        continue;
      }
      auto version = newVersions_.find(object.get());
      if (version != newVersions_.end()) object->version_ = version->second;
      for (const std::string& key : object->changed_) object->committed_[key] = object->values_[key];
      object->changed_.clear();
      object->inserted_ = false;
      context_.assigned_.erase(object.get());
      object->didSave();
    }
  }

  ManagedObjectContext& context_;
  std::unordered_set<const ManagedObject*> deleting_;
  std::vector<const ManagedObject*> conflicts_;
  std::map<const ManagedObject*, std::int64_t> newVersions_;
  // The changes of the store being written, for its persistent history.
  std::vector<HistoryChange> history_;
  std::map<std::pair<Database*, std::string>, Statement> statements_;
};

Status ManagedObjectContext::save() {
  std::lock_guard lock(mutex_);
  return ContextSaver(*this).save();
}

Status ManagedObjectContext::obtainPermanentIDsForObjects(
    const std::vector<std::shared_ptr<ManagedObject>>& objects) {
  std::lock_guard lock(mutex_);
  if (coordinator_ == nullptr) {
    return fail(
        Error(std::string(kCocoaErrorDomain), kPersistentStoreOpenError, "The context has no coordinator."));
  }
  return ContextSaver(*this).obtainPermanentIDs(objects);
}

}  // namespace tesselune
