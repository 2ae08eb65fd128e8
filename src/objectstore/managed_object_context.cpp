// ManagedObjectContext: registration, faulting, fetching, inserting, deleting and batch deletes.
// Saving is in context_save.cpp.

#include "objectstore/managed_object_context.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <unordered_set>

#include "foundation/main_queue.h"
#include "objectstore/sqlite/fetch_compiler.h"
#include "objectstore/sqlite/row_codec.h"

namespace tesselune {

namespace {

thread_local ManagedObjectContext* tDecodingContext = nullptr;

// Marks the calling thread as reading rows for a context; nests.
class DecodingScope {
 public:
  explicit DecodingScope(ManagedObjectContext* context) : previous_(tDecodingContext) {
    tDecodingContext = context;
  }
  ~DecodingScope() { tDecodingContext = previous_; }
  DecodingScope(const DecodingScope&) = delete;
  DecodingScope& operator=(const DecodingScope&) = delete;

 private:
  ManagedObjectContext* previous_;
};

std::unordered_map<std::string, int> columnIndexes(const Statement& statement) {
  std::unordered_map<std::string, int> indexes;
  for (int i = 0; i < statement.columnCount(); ++i) indexes.emplace(statement.columnName(i), i);
  return indexes;
}

Error noStore(const ManagedObjectID& id) {
  return Error(std::string(kCocoaErrorDomain), kManagedObjectReferentialIntegrityError,
               fmt::format("The object {} is in no store of this context's coordinator.",
                           id.URIRepresentation().absoluteString()));
}

// Orders values as sort descriptors do in memory: nil first, numbers by value, strings by bytes,
// dates by time.
int compareValues(const Value& a, const Value& b) {
  if (a.isNull() || b.isNull()) return a.isNull() == b.isNull() ? 0 : (a.isNull() ? -1 : 1);
  if (a.isNumber() && b.isNumber()) {
    const double x = a.doubleValue();
    const double y = b.doubleValue();
    return x < y ? -1 : (x > y ? 1 : 0);
  }
  if (a.isString() && b.isString())
    return a.asString().compare(b.asString()) < 0 ? -1 : (a.asString() == b.asString() ? 0 : 1);
  if (a.isDate() && b.isDate()) {
    return a.asDate() < b.asDate() ? -1 : (a.asDate() == b.asDate() ? 0 : 1);
  }
  return 0;
}

Value valueForKeyPath(const Value& object, const std::string& path) {
  return Expression::keyPath(path).evaluate(object);
}

}  // namespace

ManagedObjectContext::ManagedObjectContext(ManagedObjectContextConcurrencyType type)
    : type_(type), lifetime_(std::make_shared<Lifetime>()) {
  lifetime_->context = this;
  if (type_ == ManagedObjectContextConcurrencyType::PrivateQueue) {
    queue_ = std::make_unique<OperationQueue>();
    queue_->setMaxConcurrentOperationCount(1);
    queue_->setName("ManagedObjectContext");
  }
}

ManagedObjectContext::~ManagedObjectContext() {
  {
    // No new leases; wait for those of other threads (this thread's own cannot be waited for).
    std::unique_lock lock(lifetime_->mutex);
    lifetime_->closing = true;
    const std::thread::id self = std::this_thread::get_id();
    lifetime_->released.wait(lock, [&] {
      return std::all_of(lifetime_->users.begin(), lifetime_->users.end(),
                         [&](std::thread::id user) { return user == self; });
    });
  }
  queue_.reset();  // runs or cancels the blocks still queued
  std::lock_guard lock(mutex_);
  for (auto& [id, object] : registered_) object->detach();
}

void ManagedObjectContext::performBlockAndWait(const std::function<void()>& block) {
  std::lock_guard lock(mutex_);
  block();
}

void ManagedObjectContext::performBlock(std::function<void()> block) {
  auto run = [this, block = std::move(block)] {
    std::lock_guard lock(mutex_);
    block();
  };
  if (queue_) {
    queue_->addOperationWithBlock(std::move(run));
  } else {
    mainQueue()->addOperationWithBlock(std::move(run));
  }
}

SqliteStore* ManagedObjectContext::storeFor(const ManagedObjectID& id) const {
  if (coordinator_ == nullptr) return nullptr;
  const auto stores = coordinator_->persistentStores();
  if (id.isTemporaryID()) {
    auto object = registered_.find(id);
    if (object != registered_.end()) {
      auto assigned = assigned_.find(object->second.get());
      if (assigned != assigned_.end()) return assigned->second;
    }
    return stores.empty() ? nullptr : stores.front();
  }
  for (SqliteStore* store : stores) {
    if (store->identifier() == id.storeIdentifier()) return store;
  }
  return nullptr;
}

std::shared_ptr<ManagedObject> ManagedObjectContext::registerObject(const EntityDescription& entity,
                                                                    const ManagedObjectID& id) {
  auto registry = coordinator_ ? coordinator_->managedObjectClassRegistry() : nullptr;
  std::shared_ptr<ManagedObject> object =
      registry ? registry->makeObject(entity) : std::make_shared<ManagedObject>();
  object->entity_ = &entity;
  object->id_ = id;
  object->context_ = this;
  object->fault_ = !id.isTemporaryID();
  registered_[id] = object;
  return object;
}

std::shared_ptr<ManagedObject> ManagedObjectContext::objectWithID(const ManagedObjectID& id) {
  std::lock_guard lock(mutex_);
  auto found = registered_.find(id);
  if (found != registered_.end()) return found->second;
  return registerObject(id.entity(), id);
}

ContextHandle ManagedObjectContext::handle() const {
  return lease(lifetime_);
}

ContextHandle ManagedObjectContext::lease(const std::shared_ptr<Lifetime>& lifetime) {
  if (!lifetime) return {};
  struct Lease {
    std::shared_ptr<Lifetime> lifetime;
    std::thread::id thread = std::this_thread::get_id();
    ~Lease() {
      if (!lifetime) return;
      std::lock_guard lock(lifetime->mutex);
      auto& users = lifetime->users;
      users.erase(std::find(users.begin(), users.end(), thread));
      lifetime->released.notify_all();
    }
  };
  std::lock_guard lock(lifetime->mutex);
  if (lifetime->closing) return {};
  auto lease = std::make_shared<Lease>();
  lease->lifetime = lifetime;
  lifetime->users.push_back(lease->thread);
  return ContextHandle(lifetime->context, std::move(lease));
}

ManagedObjectContext* ManagedObjectContext::decodingContext() {
  return tDecodingContext;
}

std::shared_ptr<ManagedObject> ManagedObjectContext::objectRegisteredForID(const ManagedObjectID& id) const {
  std::lock_guard lock(mutex_);
  auto found = registered_.find(id);
  return found == registered_.end() ? nullptr : found->second;
}

Expected<std::shared_ptr<ManagedObject>> ManagedObjectContext::existingObjectWithID(
    const ManagedObjectID& id) {
  std::lock_guard lock(mutex_);
  auto object = objectWithID(id);
  if (!object->fault_) {
    if (object->isInserted() || id.isTemporaryID() || !object->values_.empty()) return object;
  }
  object->fault_ = false;
  if (loadRow(*object)) return object;
  object->fault_ = true;
  if (!object->hasChanges()) registered_.erase(id);
  return fail(Error(
      std::string(kCocoaErrorDomain), kManagedObjectReferentialIntegrityError,
      fmt::format("The object {} does not exist in its store.", id.URIRepresentation().absoluteString())));
}

void ManagedObjectContext::fillFromRow(SqliteStore& store, ManagedObject& object, const Statement& statement,
                                       const std::unordered_map<std::string, int>& columns,
                                       std::map<std::string, Value, std::less<>>& values,
                                       std::map<std::string, Value, std::less<>>& committed,
                                       const std::set<std::string, std::less<>>& changed) {
  ManagedObjectContext& context = *this;
  const DecodingScope decoding(this);
  const StoreSchema& schema = store.schema();
  for (const auto& [name, property] : object.entity().propertiesByName()) {
    if (property->isTransient()) continue;
    const PropertyMapping* mapping = schema.mapping(*property);
    if (mapping == nullptr) continue;
    Value value;
    if (property->isAttribute()) {
      auto column = columns.find(mapping->column);
      if (column == columns.end()) continue;
      auto decoded = attributeValueFromColumn(static_cast<const AttributeDescription&>(*property), statement,
                                              column->second);
      // A value that cannot be read stays nil rather than failing the whole object.
      if (decoded) value = std::move(*decoded);
    } else if (mapping->kind == PropertyMapping::Kind::ToOne) {
      const auto& relationship = static_cast<const RelationshipDescription&>(*property);
      auto column = columns.find(mapping->column);
      if (column == columns.end() || statement.isNull(column->second)) {
        value = Value();
      } else {
        const EntityDescription* destination = relationship.destinationEntity();
        if (!mapping->entityColumn.empty()) {
          auto entityColumn = columns.find(mapping->entityColumn);
          if (entityColumn != columns.end() && !statement.isNull(entityColumn->second)) {
            destination = store.entityForNumber(statement.integer(entityColumn->second));
          }
        }
        if (destination != nullptr) {
          value = Value(ObjectPtr(context.objectWithID(ManagedObjectID::permanent(
              *destination, store.identifier(), statement.integer(column->second)))));
        }
      }
    } else {
      // To-many relationships are read on first use; a refresh drops the old reading.
      if (!changed.contains(name)) {
        values.erase(name);
        committed.erase(name);
      }
      continue;
    }
    committed.insert_or_assign(name, value);
    if (!changed.contains(name)) values.insert_or_assign(name, std::move(value));
  }
}

bool ManagedObjectContext::loadRow(ManagedObject& object) const {
  const ManagedObjectID id = object.objectID();
  SqliteStore* store = id.isTemporaryID() ? nullptr : storeFor(id);
  if (store == nullptr) return false;
  std::lock_guard storeLock(coordinator_->mutex());
  auto statement = store->database().prepare(
      fmt::format("SELECT * FROM {} WHERE Z_PK = ?", SqliteStore::tableName(object.entity())));
  if (!statement || !statement->bind(1, Value(id.primaryKey()))) return false;
  auto row = statement->step();
  if (!row || !*row) return false;
  const auto columns = columnIndexes(*statement);
  object.version_ = statement->integer(columns.at("Z_OPT"));
  const_cast<ManagedObjectContext&>(*this).fillFromRow(*store, object, *statement, columns, object.values_,
                                                       object.committed_, object.changed_);
  return true;
}

void ManagedObjectContext::loadToMany(ManagedObject& object,
                                      const RelationshipDescription& relationship) const {
  const Value empty = relationship.isOrdered() ? Value(Array{}) : Value(ValueSet{});
  object.values_[relationship.name()] = empty;
  object.committed_[relationship.name()] = empty;
  SqliteStore* store = storeFor(object.objectID());
  const PropertyMapping* mapping = store ? store->schema().mapping(relationship) : nullptr;
  const EntityDescription* destination = relationship.destinationEntity();
  if (mapping == nullptr || destination == nullptr) return;

  std::string sql;
  std::vector<Value> bindings{Value(object.objectID().primaryKey())};
  const std::string destinationTable = SqliteStore::tableName(*destination);
  switch (mapping->kind) {
    case PropertyMapping::Kind::ToManyThroughInverse:
      sql = fmt::format("SELECT Z_PK, Z_ENT FROM {} WHERE {} = ?", mapping->table, mapping->column);
      if (!mapping->entityColumn.empty()) {
        sql += fmt::format(" AND {} = ?", mapping->entityColumn);
        bindings.emplace_back(*store->entityNumber(object.entity()));
      }
      sql += mapping->orderColumn.empty() ? " ORDER BY Z_PK"
                                          : fmt::format(" ORDER BY {}, Z_PK", mapping->orderColumn);
      break;
    case PropertyMapping::Kind::ToManyWithoutInverse:
      sql = fmt::format("SELECT Z_PK, Z_ENT FROM {} WHERE {} = ? ORDER BY Z_PK", mapping->table,
                        mapping->column);
      break;
    case PropertyMapping::Kind::ManyToMany:
      sql = fmt::format(
          "SELECT d.Z_PK, d.Z_ENT FROM {} j JOIN {} d ON d.Z_PK = j.{} WHERE j.{} = ? ORDER BY d.Z_PK",
          mapping->table, destinationTable, mapping->otherColumn, mapping->column);
      break;
    default:
      return;
  }
  std::lock_guard storeLock(coordinator_->mutex());
  auto statement = store->database().prepare(sql);
  if (!statement) return;
  for (std::size_t i = 0; i < bindings.size(); ++i) {
    if (!statement->bind(static_cast<int>(i) + 1, bindings[i])) return;
  }
  Array members;
  for (;;) {
    auto row = statement->step();
    if (!row || !*row) break;
    const EntityDescription* entity = store->entityForNumber(statement->integer(1));
    if (entity == nullptr) continue;
    auto member = const_cast<ManagedObjectContext&>(*this).objectWithID(
        ManagedObjectID::permanent(*entity, store->identifier(), statement->integer(0)));
    // Unsaved deletions do not show.
    if (!member->isDeleted()) members.push_back(Value(ObjectPtr(member)));
  }
  const Value loaded = relationship.isOrdered() ? Value(std::move(members)) : Value(ValueSet(members));
  object.values_[relationship.name()] = loaded;
  object.committed_[relationship.name()] = loaded;
}

Expected<std::vector<std::shared_ptr<ManagedObject>>> ManagedObjectContext::objectsFromRows(
    SqliteStore& store, Statement& statement) {
  std::vector<std::shared_ptr<ManagedObject>> objects;
  std::unordered_map<std::string, int> columns;
  for (;;) {
    auto row = statement.step();
    if (!row) return fail(row.error());
    if (!*row) break;
    if (columns.empty()) columns = columnIndexes(statement);
    const EntityDescription* entity = store.entityForNumber(statement.integer(columns.at("Z_ENT")));
    if (entity == nullptr) continue;
    const ManagedObjectID id =
        ManagedObjectID::permanent(*entity, store.identifier(), statement.integer(columns.at("Z_PK")));
    auto object = objectWithID(id);
    if (object->fault_) {
      object->fault_ = false;
      object->version_ = statement.integer(columns.at("Z_OPT"));
      fillFromRow(store, *object, statement, columns, object->values_, object->committed_, object->changed_);
      object->awakeFromFetch();
    }
    objects.push_back(std::move(object));
  }
  return objects;
}

bool ManagedObjectContext::matchesInMemory(const ManagedObject& object, const FetchRequest& request) const {
  const EntityDescription* entity =
      object.entity_ ? coordinator_->managedObjectModel()->entityNamed(request.entityName) : nullptr;
  if (entity == nullptr) return false;
  if (request.includesSubentities ? !object.entity().isKindOfEntity(*entity) : &object.entity() != entity)
    return false;
  if (!request.predicate) return true;
  auto self = std::const_pointer_cast<ManagedObject>(
      std::static_pointer_cast<const ManagedObject>(object.shared_from_this()));
  return request.predicate->evaluateWithObject(Value(ObjectPtr(self)));
}

Expected<std::vector<std::shared_ptr<ManagedObject>>> ManagedObjectContext::fetchObjects(
    const FetchRequest& request) {
  FetchRequest objects = request;
  objects.resultType = FetchRequestResultType::ManagedObject;
  auto results = executeFetchRequest(objects);
  if (!results) return fail(results.error());
  std::vector<std::shared_ptr<ManagedObject>> typed;
  typed.reserve(results->size());
  for (const Value& value : *results) {
    if (auto object = value.asObjectOf<ManagedObject>()) typed.push_back(std::move(object));
  }
  return typed;
}

Expected<Array> ManagedObjectContext::executeFetchRequest(const FetchRequest& request) {
  std::lock_guard lock(mutex_);
  if (request.resultType == FetchRequestResultType::Count) {
    auto count = countForFetchRequest(request);
    if (!count) return fail(count.error());
    return Array{Value(*count)};
  }
  if (coordinator_ == nullptr) {
    return fail(
        Error(std::string(kCocoaErrorDomain), kPersistentStoreOpenError, "The context has no coordinator."));
  }
  const bool wantIDs = request.resultType == FetchRequestResultType::ManagedObjectID;
  std::vector<std::shared_ptr<ManagedObject>> found;
  Array ids;
  std::unordered_set<const ManagedObject*> seen;
  {
    std::lock_guard storeLock(coordinator_->mutex());
    for (SqliteStore* store : coordinator_->persistentStores()) {
      auto compiled =
          compileFetch(*store, request, wantIDs ? FetchSelection::ObjectIDs : FetchSelection::Rows);
      if (!compiled) return fail(compiled.error());
      // Pages of one request differ only in their bound values: the connection keeps the statement.
      auto cached = store->database().cached(compiled->sql);
      if (!cached) return fail(cached.error());
      Statement& statement = **cached;
      for (std::size_t i = 0; i < compiled->bindings.size(); ++i) {
        if (auto s = statement.bind(static_cast<int>(i) + 1, compiled->bindings[i]); !s)
          return fail(s.error());
      }
      if (wantIDs) {
        // A page of IDs is the common case: room for it at once, within reason.
        if (request.fetchLimit > 0 && ids.empty())
          ids.reserve(std::min<std::size_t>(request.fetchLimit, 4096));
        for (;;) {
          auto row = statement.step();
          if (!row) return fail(row.error());
          if (!*row) break;
          const EntityDescription* entity = store->entityForNumber(statement.integer(1));
          if (entity == nullptr) continue;
          const auto id = ManagedObjectID::permanent(*entity, store->identifier(), statement.integer(0));
          auto registered = registered_.find(id);
          if (registered != registered_.end() && registered->second->isDeleted()) continue;
          ids.push_back(valueWithObjectID(id));
        }
      } else {
        auto objects = objectsFromRows(*store, statement);
        if (!objects) return fail(objects.error());
        for (auto& object : *objects) {
          if (object->isDeleted()) continue;
          seen.insert(object.get());
          found.push_back(std::move(object));
        }
      }
    }
  }

  // Unsaved inserted objects that match join the results; with a window they are left to the
  // store's rows, since their place in it is unknown.
  std::vector<std::shared_ptr<ManagedObject>> pending;
  if (request.fetchOffset == 0) {
    for (const auto& [id, object] : registered_) {
      if (object->isInserted() && !object->isDeleted() && !seen.contains(object.get()) &&
          matchesInMemory(*object, request)) {
        pending.push_back(object);
      }
    }
  }
  if (wantIDs) {
    for (const auto& object : pending) ids.push_back(valueWithObjectID(object->objectID()));
    if (request.fetchLimit > 0 && ids.size() > request.fetchLimit) ids.resize(request.fetchLimit);
    return ids;
  }
  found.insert(found.end(), pending.begin(), pending.end());
  if (!pending.empty() && !request.sortDescriptors.empty()) {
    std::stable_sort(found.begin(), found.end(), [&](const auto& a, const auto& b) {
      for (const SortDescriptor& sort : request.sortDescriptors) {
        const int order = compareValues(valueForKeyPath(Value(ObjectPtr(a)), sort.key),
                                        valueForKeyPath(Value(ObjectPtr(b)), sort.key));
        if (order != 0) return sort.ascending ? order < 0 : order > 0;
      }
      return false;
    });
  }
  if (request.fetchLimit > 0 && found.size() > request.fetchLimit) found.resize(request.fetchLimit);
  Array results;
  results.reserve(found.size());
  for (auto& object : found) results.push_back(Value(ObjectPtr(std::move(object))));
  return results;
}

Expected<std::int64_t> ManagedObjectContext::countForFetchRequest(const FetchRequest& request) {
  std::lock_guard lock(mutex_);
  if (coordinator_ == nullptr) {
    return fail(
        Error(std::string(kCocoaErrorDomain), kPersistentStoreOpenError, "The context has no coordinator."));
  }
  std::int64_t count = 0;
  {
    std::lock_guard storeLock(coordinator_->mutex());
    for (SqliteStore* store : coordinator_->persistentStores()) {
      auto compiled = compileFetch(*store, request, FetchSelection::Count);
      if (!compiled) return fail(compiled.error());
      auto statement = store->database().prepare(compiled->sql);
      if (!statement) return fail(statement.error());
      for (std::size_t i = 0; i < compiled->bindings.size(); ++i) {
        if (auto s = statement->bind(static_cast<int>(i) + 1, compiled->bindings[i]); !s)
          return fail(s.error());
      }
      auto row = statement->step();
      if (!row) return fail(row.error());
      if (*row) count += statement->integer(0);
    }
  }
  if (request.fetchOffset == 0 && request.fetchLimit == 0) {
    for (const auto& [id, object] : registered_) {
      if (object->isInserted() && !object->isDeleted() && matchesInMemory(*object, request)) ++count;
      if (object->isDeleted() && !object->isInserted() && matchesInMemory(*object, request)) --count;
    }
  }
  return std::max<std::int64_t>(count, 0);
}

Expected<BatchDeleteResult> ManagedObjectContext::executeRequest(const BatchDeleteRequest& request) {
  std::lock_guard lock(mutex_);
  if (coordinator_ == nullptr) {
    return fail(
        Error(std::string(kCocoaErrorDomain), kPersistentStoreOpenError, "The context has no coordinator."));
  }
  std::lock_guard storeLock(coordinator_->mutex());
  const TransactionNames names{transactionAuthor_, name_};
  BatchDeleteResult total;
  total.status = true;
  auto add = [&](const BatchDeleteResult& part) {
    total.status = total.status && part.status;
    total.count += part.count;
    total.objectIDs.insert(total.objectIDs.end(), part.objectIDs.begin(), part.objectIDs.end());
  };
  if (request.fetchRequest) {
    const EntityDescription* entity =
        coordinator_->managedObjectModel()->entityNamed(request.fetchRequest->entityName);
    if (entity == nullptr) {
      return fail(
          Error(std::string(kCocoaErrorDomain), kPersistentStoreUnsupportedRequestTypeError,
                fmt::format("No entity named \"{}\" for a batch delete.", request.fetchRequest->entityName)));
    }
    for (SqliteStore* store : coordinator_->persistentStores()) {
      auto compiled = compileFetch(*store, *request.fetchRequest, FetchSelection::PrimaryKeys);
      if (!compiled) return fail(compiled.error());
      auto result = batchDeleteRows(*store, *entity, RowSelection{compiled->sql, compiled->bindings},
                                    request.resultType, nullptr, kBatchDeleteRowsPerChunk, names);
      if (!result) return fail(result.error());
      add(*result);
    }
    return total;
  }
  if (request.objectIDs.empty())
    throw std::invalid_argument("a batch delete needs a fetch request or object IDs");
  // Requests come a page of IDs at a time, mostly of one store: the stores are looked up once, and
  // the IDs are handed over as they are unless they have to be split between stores.
  const std::vector<SqliteStore*> stores = coordinator_->persistentStores();
  std::vector<std::size_t> storeOfID;
  storeOfID.reserve(request.objectIDs.size());
  std::size_t last = 0;
  bool oneStore = true;
  for (const ManagedObjectID& id : request.objectIDs) {
    if (id.isTemporaryID()) return fail(noStore(id));
    if (last >= stores.size() || stores[last]->identifier() != id.storeIdentifier()) {
      last = 0;
      while (last < stores.size() && stores[last]->identifier() != id.storeIdentifier()) ++last;
      if (last == stores.size()) return fail(noStore(id));
    }
    oneStore = oneStore && (storeOfID.empty() || storeOfID.front() == last);
    storeOfID.push_back(last);
  }
  if (oneStore) {
    return batchDeleteObjects(*stores[storeOfID.front()], request.objectIDs, request.resultType, nullptr,
                              kBatchDeleteRowsPerChunk, names);
  }
  for (std::size_t index = 0; index < stores.size(); ++index) {
    std::vector<ManagedObjectID> ids;
    for (std::size_t i = 0; i < request.objectIDs.size(); ++i) {
      if (storeOfID[i] == index) ids.push_back(request.objectIDs[i]);
    }
    if (ids.empty()) continue;
    auto result =
        batchDeleteObjects(*stores[index], ids, request.resultType, nullptr, kBatchDeleteRowsPerChunk, names);
    if (!result) return fail(result.error());
    add(*result);
  }
  return total;
}

std::shared_ptr<ManagedObject> ManagedObjectContext::insertNewObjectForEntityForName(
    std::string_view entityName) {
  std::lock_guard lock(mutex_);
  if (coordinator_ == nullptr) throw std::logic_error("the context has no coordinator");
  const EntityDescription* entity = coordinator_->managedObjectModel()->entityNamed(entityName);
  if (entity == nullptr) throw std::invalid_argument(fmt::format("no entity named \"{}\"", entityName));
  if (entity->isAbstract()) throw std::invalid_argument(fmt::format("{} is abstract", entityName));
  auto object = registerObject(*entity, ManagedObjectID::temporary(*entity));
  object->inserted_ = true;
  for (const auto& [name, attribute] : entity->attributesByName()) {
    if (!attribute->defaultValue().isNull()) object->values_[name] = attribute->defaultValue();
  }
  for (const auto& [name, relationship] : entity->relationshipsByName()) {
    if (relationship->isToMany())
      object->values_[name] = relationship->isOrdered() ? Value(Array{}) : Value(ValueSet{});
  }
  object->awakeFromInsert();
  return object;
}

void ManagedObjectContext::assignObject(const std::shared_ptr<ManagedObject>& object, SqliteStore& store) {
  std::lock_guard lock(mutex_);
  assigned_[object.get()] = &store;
}

void ManagedObjectContext::deleteObject(const std::shared_ptr<ManagedObject>& object) {
  std::lock_guard lock(mutex_);
  if (!object || object->context_ != this || object->deleted_) return;
  object->deleted_ = true;
  if (undoManager_) {
    std::weak_ptr<ManagedObject> weak = object;
    undoManager_->registerUndo([weak] {
      if (auto undone = weak.lock()) undone->deleted_ = false;
    });
  }
}

bool ManagedObjectContext::hasChanges() const {
  std::lock_guard lock(mutex_);
  return std::any_of(registered_.begin(), registered_.end(),
                     [](const auto& entry) { return entry.second->hasChanges(); });
}

void ManagedObjectContext::reset() {
  std::lock_guard lock(mutex_);
  for (auto& [id, object] : registered_) object->detach();
  registered_.clear();
  assigned_.clear();
  if (undoManager_) undoManager_->removeAllActions();
}

void ManagedObjectContext::refreshObject(const std::shared_ptr<ManagedObject>& object, bool mergeChanges) {
  std::lock_guard lock(mutex_);
  if (!object || object->context_ != this || object->isInserted()) return;
  if (!mergeChanges) {
    object->changed_.clear();
    object->deleted_ = false;
    object->values_.clear();
    object->committed_.clear();
    object->fault_ = true;
    object->didTurnIntoFault();
    return;
  }
  loadRow(*object);
}

void ManagedObjectContext::rekey(const ManagedObjectID& from, const ManagedObjectID& to) {
  auto found = registered_.find(from);
  if (found == registered_.end()) return;
  auto object = std::move(found->second);
  registered_.erase(found);
  object->id_ = to;
  registered_[to] = std::move(object);
}

std::vector<std::shared_ptr<ManagedObject>> ManagedObjectContext::insertedObjects() const {
  std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<ManagedObject>> objects;
  for (const auto& [id, object] : registered_) {
    if (object->isInserted() && !object->isDeleted()) objects.push_back(object);
  }
  return objects;
}

std::vector<std::shared_ptr<ManagedObject>> ManagedObjectContext::updatedObjects() const {
  std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<ManagedObject>> objects;
  for (const auto& [id, object] : registered_) {
    if (object->isUpdated()) objects.push_back(object);
  }
  return objects;
}

std::vector<std::shared_ptr<ManagedObject>> ManagedObjectContext::deletedObjects() const {
  std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<ManagedObject>> objects;
  for (const auto& [id, object] : registered_) {
    if (object->isDeleted() && !object->isInserted()) objects.push_back(object);
  }
  return objects;
}

}  // namespace tesselune
