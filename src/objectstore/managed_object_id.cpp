// ManagedObjectID: URIs of stored and unsaved objects.

#include "objectstore/managed_object_id.h"

#include <fmt/format.h>

#include <atomic>

namespace tesselune {

ManagedObjectID ManagedObjectID::permanent(const EntityDescription& entity, const Uuid& store,
                                           std::int64_t primaryKey) {
  ManagedObjectID id;
  id.entity_ = &entity;
  id.store_ = store;
  id.primaryKey_ = primaryKey;
  return id;
}

ManagedObjectID ManagedObjectID::temporary(const EntityDescription& entity) {
  static const std::string process = Uuid::random().string();
  static std::atomic<std::uint64_t> counter{0};
  ManagedObjectID id;
  id.entity_ = &entity;
  id.temporary_ = true;
  id.temporaryName_ = fmt::format("t{}{}", process, ++counter);
  return id;
}

Url ManagedObjectID::URIRepresentation() const {
  const std::string entity = percentEscape(entity_->name(), "");
  if (temporary_) return *Url::parse(fmt::format("x-coredata:///{}/{}", entity, temporaryName_));
  return *Url::parse(fmt::format("x-coredata://{}/{}/p{}", store_.string(), entity, primaryKey_));
}

std::size_t ManagedObjectID::hash() const {
  const std::size_t h = std::hash<const void*>()(entity_);
  if (temporary_) return h ^ std::hash<std::string>()(temporaryName_);
  return h ^ (std::hash<std::int64_t>()(primaryKey_) * 31) ^ std::hash<Uuid>()(store_);
}

bool ManagedObjectIDObject::isEqual(const Object& other) const {
  const auto* id = dynamic_cast<const ManagedObjectIDObject*>(&other);
  return id != nullptr && id->id_ == id_;
}

std::string ManagedObjectIDObject::description() const {
  return id_.URIRepresentation().absoluteString();
}

Value valueWithObjectID(const ManagedObjectID& id) {
  return Value(std::make_shared<ManagedObjectIDObject>(id));
}

std::optional<ManagedObjectID> objectIDOfValue(const Value& value) {
  if (auto object = value.asObjectOf<ObjectWithID>()) return object->objectID();
  return std::nullopt;
}

}  // namespace tesselune
