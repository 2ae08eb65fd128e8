// ManagedObject: faulting, key-value access with inverse upkeep, observers; the class registry.

#include "objectstore/managed_object.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <unordered_set>

#include "objectstore/managed_object_context.h"

namespace tesselune {

namespace {

std::shared_ptr<ManagedObject> asManagedObject(const Value& value) {
  return value.asObjectOf<ManagedObject>();
}

// The objects of a to-many value (a set, or an array for ordered relationships).
std::vector<std::shared_ptr<ManagedObject>> membersOf(const Value& value) {
  std::vector<std::shared_ptr<ManagedObject>> members;
  const Array* items = value.isSet() ? &value.asSet().values() : value.isArray() ? &value.asArray() : nullptr;
  if (items == nullptr) return members;
  for (const Value& item : *items) {
    if (auto object = asManagedObject(item)) members.push_back(std::move(object));
  }
  return members;
}

// Adds or removes one member in place: copying the collection for every change would make
// filling a relationship of n objects cost n^2. A value of the wrong kind becomes the right one.
void changeMember(Value& value, const std::shared_ptr<ManagedObject>& object, bool add, bool ordered) {
  if (ordered) {
    if (!value.isArray()) value = Value(Array{});
    Array& items = value.asArray();
    // An object added again moves to the end; the common case, a new member, costs one scan.
    std::erase_if(
        items, [&](const Value& item) { return item.isObject() && item.asObject().get() == object.get(); });
    if (add) items.push_back(Value(ObjectPtr(object)));
    return;
  }
  if (!value.isSet()) value = Value(ValueSet{});
  if (add) {
    value.asSet().insert(Value(ObjectPtr(object)));
  } else {
    value.asSet().erase(Value(ObjectPtr(object)));
  }
}

}  // namespace

std::string ManagedObject::description() const {
  return fmt::format("<{}: {}> ({})", className(), entity_ ? entity_->name() : "?",
                     id_.URIRepresentation().absoluteString());
}

const PropertyDescription* ManagedObject::property(std::string_view key) const {
  if (entity_ == nullptr) return nullptr;
  auto found = entity_->propertiesByName().find(key);
  return found == entity_->propertiesByName().end() ? nullptr : found->second;
}

void ManagedObject::fireFault() const {
  if (!fault_) return;
  fault_ = false;
  if (context_ != nullptr) context_->loadRow(const_cast<ManagedObject&>(*this));
}

void ManagedObject::loadToMany(const RelationshipDescription& relationship) const {
  if (values_.contains(relationship.name())) return;
  if (context_ == nullptr || id_.isTemporaryID()) {
    const Value empty = relationship.isOrdered() ? Value(Array{}) : Value(ValueSet{});
    values_[relationship.name()] = empty;
    committed_[relationship.name()] = empty;
    return;
  }
  context_->loadToMany(const_cast<ManagedObject&>(*this), relationship);
}

Value ManagedObject::primitiveValueForKey(std::string_view key) const {
  const PropertyDescription* p = property(key);
  if (p == nullptr) return Value();
  fireFault();
  if (p->isRelationship() && static_cast<const RelationshipDescription*>(p)->isToMany()) {
    loadToMany(static_cast<const RelationshipDescription&>(*p));
  }
  auto found = values_.find(key);
  return found == values_.end() ? Value() : found->second;
}

Value ManagedObject::valueForKey(std::string_view key) const {
  willAccessValueForKey(key);
  Value value = primitiveValueForKey(key);
  didAccessValueForKey(key);
  return value;
}

void ManagedObject::setPrimitiveValue(Value value, std::string_view key) {
  const PropertyDescription* p = property(key);
  if (p == nullptr) {
    throw std::invalid_argument(
        fmt::format("{} has no property \"{}\"", entity_ ? entity_->name() : "?", key));
  }
  fireFault();
  values_.insert_or_assign(std::string(key), std::move(value));
  if (!p->isTransient()) markChanged(key);
}

void ManagedObject::markChanged(std::string_view key) {
  changed_.insert(std::string(key));
}

void ManagedObject::setValue(Value value, std::string_view key) {
  const PropertyDescription* p = property(key);
  if (p == nullptr) {
    throw std::invalid_argument(
        fmt::format("{} has no property \"{}\"", entity_ ? entity_->name() : "?", key));
  }
  const Value old = primitiveValueForKey(key);
  willChangeValueForKey(key);
  if (p->isRelationship()) {
    const auto& relationship = static_cast<const RelationshipDescription&>(*p);
    if (relationship.isToMany()) {
      // Normalise to the relationship's collection kind, each object once.
      Value members = relationship.isOrdered() ? Value(Array{}) : Value(ValueSet{});
      std::vector<std::shared_ptr<ManagedObject>> after;
      std::unordered_set<const ManagedObject*> inAfter;
      for (auto& object : membersOf(value)) {
        if (!inAfter.insert(object.get()).second) continue;
        if (relationship.isOrdered()) {
          members.asArray().push_back(Value(ObjectPtr(object)));
        } else {
          members.asSet().insert(Value(ObjectPtr(object)));
        }
        after.push_back(std::move(object));
      }
      const auto before = membersOf(old);
      std::unordered_set<const ManagedObject*> inBefore;
      for (const auto& object : before) inBefore.insert(object.get());
      values_.insert_or_assign(std::string(key), std::move(members));
      markChanged(key);
      for (const auto& object : before) {
        if (!inAfter.contains(object.get())) linkInverse(relationship, *object, false);
      }
      for (const auto& object : after) {
        if (!inBefore.contains(object.get())) linkInverse(relationship, *object, true);
      }
    } else {
      auto before = asManagedObject(old);
      auto after = asManagedObject(value);
      values_.insert_or_assign(std::string(key), after ? Value(ObjectPtr(after)) : Value());
      markChanged(key);
      if (before != after) {
        if (before) linkInverse(relationship, *before, false);
        if (after) linkInverse(relationship, *after, true);
      }
    }
  } else {
    values_.insert_or_assign(std::string(key), std::move(value));
    markChanged(key);
  }
  if (context_ != nullptr && context_->undoManager()) {
    auto self = std::static_pointer_cast<ManagedObject>(shared_from_this());
    std::weak_ptr<ManagedObject> weak = self;
    context_->undoManager()->registerUndo([weak, old, name = std::string(key)] {
      if (auto object = weak.lock()) object->setValue(old, name);
    });
  }
  didChangeValueForKey(key);
}

void ManagedObject::linkInverse(const RelationshipDescription& relationship, ManagedObject& other, bool add) {
  const RelationshipDescription* inverse = relationship.inverseRelationship();
  if (inverse == nullptr) return;
  auto self = std::static_pointer_cast<ManagedObject>(shared_from_this());
  other.willChangeValueForKey(inverse->name());
  if (inverse->isToMany()) {
    other.primitiveValueForKey(inverse->name());  // loads the collection once
    changeMember(other.values_[inverse->name()], self, add, inverse->isOrdered());
  } else {
    auto previous = asManagedObject(other.primitiveValueForKey(inverse->name()));
    if (add) {
      // The other object leaves its previous partner on this side.
      if (previous && previous.get() != this) {
        previous->willChangeValueForKey(relationship.name());
        previous->primitiveValueForKey(relationship.name());
        Value& theirs = previous->values_[relationship.name()];
        if (relationship.isToMany()) {
          changeMember(theirs, std::static_pointer_cast<ManagedObject>(other.shared_from_this()), false,
                       relationship.isOrdered());
        } else {
          theirs = Value();
        }
        previous->markChanged(relationship.name());
        previous->didChangeValueForKey(relationship.name());
      }
      other.values_.insert_or_assign(inverse->name(), Value(ObjectPtr(self)));
    } else if (previous.get() == this) {
      other.values_.insert_or_assign(inverse->name(), Value());
    }
  }
  other.markChanged(inverse->name());
  other.didChangeValueForKey(inverse->name());
}

std::shared_ptr<ManagedObject> ManagedObject::objectForKey(std::string_view toOne) const {
  return asManagedObject(valueForKey(toOne));
}

std::vector<std::shared_ptr<ManagedObject>> ManagedObject::objectsForKey(std::string_view toMany) const {
  return membersOf(valueForKey(toMany));
}

void ManagedObject::addObject(const std::shared_ptr<ManagedObject>& object, std::string_view toMany) {
  changeToMany(object, toMany, true);
}

void ManagedObject::removeObject(const std::shared_ptr<ManagedObject>& object, std::string_view toMany) {
  changeToMany(object, toMany, false);
}

// One member in or out, with the inverse kept and one change notification: what setValue does for a
// whole collection, at the cost of one member.
void ManagedObject::changeToMany(const std::shared_ptr<ManagedObject>& object, std::string_view toMany,
                                 bool add) {
  const auto* p = property(toMany);
  if (p == nullptr || !p->isRelationship() || !static_cast<const RelationshipDescription*>(p)->isToMany()) {
    throw std::invalid_argument(
        fmt::format("\"{}\" is not a to-many relationship of {}", toMany, entity_->name()));
  }
  if (!object) return;
  const auto& relationship = static_cast<const RelationshipDescription&>(*p);
  const Value current = primitiveValueForKey(toMany);
  const bool member =
      current.isSet()
          ? current.asSet().contains(Value(ObjectPtr(object)))
          : std::ranges::any_of(membersOf(current), [&](const auto& m) { return m.get() == object.get(); });
  if (member == add && !(add && relationship.isOrdered())) return;
  willChangeValueForKey(toMany);
  changeMember(values_[std::string(toMany)], object, add, relationship.isOrdered());
  markChanged(toMany);
  if (member != add) linkInverse(relationship, *object, add);
  if (context_ != nullptr && context_->undoManager()) {
    std::weak_ptr<ManagedObject> weakSelf = std::static_pointer_cast<ManagedObject>(shared_from_this());
    std::weak_ptr<ManagedObject> weakObject = object;
    context_->undoManager()->registerUndo([weakSelf, weakObject, add, name = std::string(toMany)] {
      auto self = weakSelf.lock();
      auto other = weakObject.lock();
      if (self && other) self->changeToMany(other, name, !add);
    });
  }
  didChangeValueForKey(toMany);
}

Dictionary ManagedObject::changedValues() const {
  Dictionary changes;
  for (const std::string& key : changed_) {
    auto found = values_.find(key);
    changes.insert_or_assign(key, found == values_.end() ? Value() : found->second);
  }
  return changes;
}

Value ManagedObject::committedValueForKey(std::string_view key) const {
  fireFault();
  auto found = committed_.find(key);
  return found == committed_.end() ? Value() : found->second;
}

ManagedObject::ObserverId ManagedObject::addObserver(std::string key, Observer observer) {
  const ObserverId id = nextObserver_++;
  observers_.emplace(id, std::make_pair(std::move(key), std::move(observer)));
  return id;
}

void ManagedObject::removeObserver(ObserverId id) {
  observers_.erase(id);
}

void ManagedObject::didChangeValueForKey(std::string_view key) {
  notifyObservers(key);
}

void ManagedObject::notifyObservers(std::string_view key) {
  if (observers_.empty()) return;
  // Observers may add or remove observers; work on a copy.
  const auto observers = observers_;
  for (const auto& [id, entry] : observers) {
    const auto& [observed, callback] = entry;
    if (observed == key || keyPathsForValuesAffectingValueForKey(observed).contains(std::string(key))) {
      callback(*this, observed);
    }
  }
}

void ManagedObject::detach() {
  context_ = nullptr;
  values_.clear();
  committed_.clear();
  changed_.clear();
  fault_ = false;
  inserted_ = false;
  didTurnIntoFault();
}

std::shared_ptr<ManagedObject> ManagedObjectClassRegistry::makeObject(const EntityDescription& entity) const {
  auto found = factories_.find(entity.managedObjectClassName());
  if (found != factories_.end()) return found->second();
  if (default_) return default_();
  return std::make_shared<ManagedObject>();
}

}  // namespace tesselune
