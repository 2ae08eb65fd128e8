// StoreObject: the base class of every entity class of the store, and the class of any entity that
// has none of its own. It knows the environment its registry gave it (the application delegate and
// the data folder), routes key-value access by name through the hand-written accessors of its
// subclasses, and is where the deletion protocol of the store's objects lives.
//
// Like every managed object it belongs to its context and is used on that context's thread.
#pragma once

#include <memory>
#include <string_view>

#include "model/store_environment.h"
#include "objectstore/managed_object.h"
#include "objectstore/managed_object_context.h"

namespace tesselune {

class StoreObject : public ManagedObject {
 public:
  // The environment of the registry that made the object; nullptr when it was made elsewhere.
  const std::shared_ptr<StoreEnvironment>& environment() const { return environment_; }
  void setEnvironment(std::shared_ptr<StoreEnvironment> environment) {
    environment_ = std::move(environment);
  }

  // setValue:forKey: as the platform resolves it: a class's hand-written setter for the key when
  // it has one, the managed-object machinery otherwise. Subclasses with setters override this and
  // hand every other key on. (ManagedObject::setValue itself never reaches a subclass's setter.)
  virtual void setValueForKey(Value value, std::string_view key) { setValue(std::move(value), key); }

  // The object's context, or the application delegate's when the object has none; nullptr when
  // neither exists.
  ManagedObjectContext* contextWithFallback() const;

 protected:
  // Where a derived accessor's caching must write although the read was const: objects always
  // live in their context's registry as non-const heap objects, so this is sound.
  StoreObject& mutableSelf() const { return const_cast<StoreObject&>(*this); }

 private:
  std::shared_ptr<StoreEnvironment> environment_;
};

// The environment of any managed object: its own when it is a StoreObject, else nullptr.
std::shared_ptr<StoreEnvironment> storeEnvironmentOf(const ManagedObject& object);
// setValue:forKey: on any managed object, through the class's setters when it is a StoreObject.
void setValueThroughAccessors(ManagedObject& object, Value value, std::string_view key);

}  // namespace tesselune
