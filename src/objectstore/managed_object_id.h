// ManagedObjectID: the identity of a stored object, as NSManagedObjectID: its entity, and either
// its store and primary key (permanent) or a process-unique temporary name (for objects not saved
// yet). Its URI is what the main application and reports exchange.
//
// A plain value; safe to copy between threads. The entity pointer is borrowed from the model, which
// must outlive the ID.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "foundation/url.h"
#include "foundation/uuid.h"
#include "foundation/value.h"
#include "objectstore/description/entity_description.h"

namespace tesselune {

class ManagedObjectID {
 public:
  static ManagedObjectID permanent(const EntityDescription& entity, const Uuid& store,
                                   std::int64_t primaryKey);
  // A new temporary ID, unique in the process: "t" followed by a UUID made once per process and a
  // counter.
  static ManagedObjectID temporary(const EntityDescription& entity);

  const EntityDescription& entity() const { return *entity_; }
  bool isTemporaryID() const { return temporary_; }
  // For permanent IDs.
  const Uuid& storeIdentifier() const { return store_; }
  std::int64_t primaryKey() const { return primaryKey_; }

  // x-coredata://<store UUID>/<Entity>/p<key>, or x-coredata:///<Entity>/t<name> when temporary.
  Url URIRepresentation() const;

  friend bool operator==(const ManagedObjectID& a, const ManagedObjectID& b) {
    return a.entity_ == b.entity_ && a.temporary_ == b.temporary_ && a.store_ == b.store_ &&
           a.primaryKey_ == b.primaryKey_ && a.temporaryName_ == b.temporaryName_;
  }
  std::size_t hash() const;

 private:
  const EntityDescription* entity_ = nullptr;
  bool temporary_ = false;
  Uuid store_;
  std::int64_t primaryKey_ = 0;
  std::string temporaryName_;
};

// An object that stands for one stored object inside Values: an object ID (NSManagedObjectID is an
// object) or a managed object. Predicates compare to-one relationships and SELF with either.
class ObjectWithID : public Object {
 public:
  virtual ManagedObjectID objectID() const = 0;
};

// An object ID as a Value, as fetches of IDs answer them and predicates take them as arguments.
class ManagedObjectIDObject final : public ObjectWithID {
 public:
  explicit ManagedObjectIDObject(ManagedObjectID id) : id_(std::move(id)) {}
  ManagedObjectID objectID() const override { return id_; }
  std::string className() const override { return "NSManagedObjectID"; }
  bool isEqual(const Object& other) const override;
  std::size_t hash() const override { return id_.hash(); }
  std::string description() const override;

 private:
  ManagedObjectID id_;
};

Value valueWithObjectID(const ManagedObjectID& id);
// The ID a Value stands for: an object ID or a managed object; nothing for anything else.
std::optional<ManagedObjectID> objectIDOfValue(const Value& value);

}  // namespace tesselune

template <>
struct std::hash<tesselune::ManagedObjectID> {
  std::size_t operator()(const tesselune::ManagedObjectID& id) const { return id.hash(); }
};
