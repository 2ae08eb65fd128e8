// ManagedObject: one object of a context's graph, as NSManagedObject: its ID and entity, its
// attribute values and relationships read and written by key with change notifications and
// observers, faulting (values are read from the store on first use), and the hooks that entity
// classes override. ManagedObjectClassRegistry maps an entity's class name to the factory that
// makes its objects.
//
// Objects belong to their context, which keeps them alive while they are registered and is the only
// one to use them: call them from the context's own thread or inside its performBlock(AndWait).
// Relationships hold the related objects themselves; the context breaks those links when it is
// reset or goes away, so graphs with inverses do not leak.
#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "foundation/value.h"
#include "objectstore/description/entity_description.h"
#include "objectstore/managed_object_id.h"

namespace tesselune {

class ManagedObjectContext;

class ManagedObject : public ObjectWithID {
 public:
  ManagedObject() = default;
  ~ManagedObject() override = default;
  ManagedObject(const ManagedObject&) = delete;
  ManagedObject& operator=(const ManagedObject&) = delete;

  ManagedObjectID objectID() const override { return id_; }
  const EntityDescription& entity() const { return *entity_; }
  // Nothing once the object was deleted and saved, or its context was reset or destroyed.
  ManagedObjectContext* managedObjectContext() const { return context_; }
  bool isFault() const { return fault_; }
  bool isInserted() const { return inserted_; }
  bool isUpdated() const { return !changed_.empty() && !inserted_ && !deleted_; }
  bool isDeleted() const { return deleted_; }
  bool hasChanges() const { return inserted_ || deleted_ || !changed_.empty(); }

  std::string className() const override { return entity_->managedObjectClassName(); }
  std::string description() const override;

  // Key-value coding. Attributes answer their Value (null when unset); to-one relationships the
  // related object (as an ObjectPtr) or null; to-many relationships a ValueSet of objects (an
  // Array for ordered ones). Reading fires the fault. An unknown key answers null from
  // valueForKey and is misuse (std::invalid_argument) in setValue.
  Value valueForKey(std::string_view key) const override;
  // Sets an attribute or relationship with will/did-change notifications, keeping inverses in
  // step and registering the undo with the context's undo manager.
  // Entity classes with hand-written setters override it and hand other keys on.
  virtual void setValue(Value value, std::string_view key);
  // The stored value without notifications, inverse upkeep or undo; fires the fault. Setting a
  // transient property this way (a cache) does not make the object changed.
  Value primitiveValueForKey(std::string_view key) const;
  void setPrimitiveValue(Value value, std::string_view key);

  // Typed access to relationships (nothing / empty when unset).
  std::shared_ptr<ManagedObject> objectForKey(std::string_view toOne) const;
  std::vector<std::shared_ptr<ManagedObject>> objectsForKey(std::string_view toMany) const;
  // mutableSetValueForKey: addObject: / removeObject: on a to-many relationship.
  void addObject(const std::shared_ptr<ManagedObject>& object, std::string_view toMany);
  void removeObject(const std::shared_ptr<ManagedObject>& object, std::string_view toMany);

  // The changed properties and their new values (relationships included).
  Dictionary changedValues() const;
  // The values last read from or written to the store.
  Value committedValueForKey(std::string_view key) const;

  // Observation: callbacks run after a key changes, or a key it depends on
  // (keyPathsForValuesAffectingValueForKey).
  using ObserverId = std::uint64_t;
  using Observer = std::function<void(ManagedObject& object, std::string_view key)>;
  ObserverId addObserver(std::string key, Observer observer);
  void removeObserver(ObserverId id);

  // Hooks for entity classes.
  virtual void awakeFromInsert() {}
  virtual void awakeFromFetch() {}
  virtual void willAccessValueForKey(std::string_view /*key*/) const {}
  virtual void didAccessValueForKey(std::string_view /*key*/) const {}
  virtual void willChangeValueForKey(std::string_view /*key*/) {}
  // Notifies the observers of the key and of every key that depends on it.
  virtual void didChangeValueForKey(std::string_view key);
  // The keys whose values make up this key's (a derived property's inputs).
  virtual std::set<std::string> keyPathsForValuesAffectingValueForKey(std::string_view /*key*/) const {
    return {};
  }
  virtual void prepareForDeletion() {}
  virtual void willSave() {}
  virtual void didSave() {}
  // The context dropped the object's values (reset, or refresh after its row went away).
  virtual void didTurnIntoFault() {}

 private:
  friend class ManagedObjectContext;
  friend class ContextSaver;

  // Reads the row when the object is a fault; throws nothing, a vanished row leaves it empty.
  void fireFault() const;
  // The property description for a key, or nullptr.
  const PropertyDescription* property(std::string_view key) const;
  // Loads a to-many relationship that has not been read yet.
  void loadToMany(const RelationshipDescription& relationship) const;
  // Inverse upkeep: make `other`'s inverse of `relationship` include or drop this object.
  void linkInverse(const RelationshipDescription& relationship, ManagedObject& other, bool add);
  void changeToMany(const std::shared_ptr<ManagedObject>& object, std::string_view toMany, bool add);
  void markChanged(std::string_view key);
  void notifyObservers(std::string_view key);
  // Drops values and links (for reset and destruction of the context).
  void detach();

  const EntityDescription* entity_ = nullptr;
  ManagedObjectID id_;
  ManagedObjectContext* context_ = nullptr;
  mutable bool fault_ = false;
  bool inserted_ = false;
  bool deleted_ = false;
  std::int64_t version_ = 0;  // Z_OPT of the row last read or written
  mutable std::map<std::string, Value, std::less<>> values_;
  mutable std::map<std::string, Value, std::less<>> committed_;
  std::set<std::string, std::less<>> changed_;
  std::map<ObserverId, std::pair<std::string, Observer>> observers_;
  ObserverId nextObserver_ = 1;
  int notifying_ = 0;
};

// Maps entity class names to the factories that make their objects; entities whose class is not
// registered get the default factory's objects (plain ManagedObject unless set otherwise).
// Filled at start-up, then read from any thread.
class ManagedObjectClassRegistry {
 public:
  using Factory = std::function<std::shared_ptr<ManagedObject>()>;

  void registerClass(std::string className, Factory factory) {
    factories_[std::move(className)] = std::move(factory);
  }
  void setDefaultFactory(Factory factory) { default_ = std::move(factory); }
  std::shared_ptr<ManagedObject> makeObject(const EntityDescription& entity) const;
  bool hasClass(std::string_view className) const { return factories_.contains(std::string(className)); }

  // What the classes' objects share beyond their context (the program's own state); carried here so
  // that whoever holds a coordinator can reach it. Opaque to this layer.
  void setUserInfo(std::any info) { userInfo_ = std::move(info); }
  const std::any& userInfo() const { return userInfo_; }

 private:
  std::unordered_map<std::string, Factory> factories_;
  Factory default_;
  std::any userInfo_;
};

}  // namespace tesselune
