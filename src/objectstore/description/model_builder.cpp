// ModelBuilder: the linking step both model readers share, and the wording of their errors.

#include "objectstore/description/model_builder.h"

#include <fmt/format.h>

#include <algorithm>

namespace tesselune {

Error ModelBuilder::error(std::string_view what) const {
  if (origin_ == Origin::Xml) {
    return Error(std::string(kCocoaErrorDomain), kFileReadCorruptFileError,
                 fmt::format("The model \"{}\" cannot be read: {}.", source_, what));
  }
  return Error(std::string(kCocoaErrorDomain), kCoderReadCorruptError,
               fmt::format("The model cached in the store \"{}\" cannot be read: {}.", source_, what));
}

std::string ModelBuilder::entityWhere(std::string_view entity) const {
  if (origin_ == Origin::Xml) return fmt::format("<entity name=\"{}\">", entity);
  return fmt::format("entity \"{}\"", entity);
}

std::string ModelBuilder::propertyWhere(std::string_view entity, bool relationship,
                                        std::string_view property) const {
  const char* tag = relationship ? "relationship" : "attribute";
  if (origin_ == Origin::Xml)
    return fmt::format("<entity name=\"{}\"> <{} name=\"{}\">", entity, tag, property);
  return fmt::format("entity \"{}\" {} \"{}\"", entity, tag, property);
}

Status ModelBuilder::addEntity(ManagedObjectModel& model, std::unique_ptr<EntityDescription> entity) {
  if (model.entitiesByName_.contains(entity->name_)) {
    return fail(error(fmt::format("{} appears twice", entityWhere(entity->name_))));
  }
  model.entitiesByName_.emplace(entity->name_, entity.get());
  model.entities_.push_back(std::move(entity));
  return {};
}

Status ModelBuilder::linkInheritance(ManagedObjectModel& model) {
  std::sort(model.entities_.begin(), model.entities_.end(),
            [](const auto& a, const auto& b) { return a->name_ < b->name_; });
  for (auto& entity : model.entities_) {
    if (entity->superentityName_.empty()) continue;
    auto it = model.entitiesByName_.find(entity->superentityName_);
    if (it == model.entitiesByName_.end()) {
      return fail(error(fmt::format("{} has the unknown parent \"{}\"", entityWhere(entity->name_),
                                    entity->superentityName_)));
    }
    entity->superentity_ = it->second;
    const_cast<EntityDescription*>(it->second)->subentities_.push_back(entity.get());
  }
  for (auto& entity : model.entities_) {
    std::size_t depth = 0;
    for (const EntityDescription* e = entity.get(); e != nullptr; e = e->superentity_) {
      if (++depth > model.entities_.size()) {
        return fail(error(fmt::format("{} inherits from itself", entityWhere(entity->name_))));
      }
    }
  }
  for (auto& entity : model.entities_) {
    std::sort(entity->subentities_.begin(), entity->subentities_.end(),
              [](const auto* a, const auto* b) { return a->name_ < b->name_; });
  }
  return {};
}

Status ModelBuilder::linkProperties(ManagedObjectModel& model) {
  // Ancestors first, so that an entity's own declaration wins.
  for (auto& entity : model.entities_) {
    std::vector<const EntityDescription*> lineage;
    for (const EntityDescription* e = entity.get(); e != nullptr; e = e->superentity_) lineage.push_back(e);
    for (auto e = lineage.rbegin(); e != lineage.rend(); ++e) {
      for (const auto& property : (*e)->ownProperties_) {
        entity->propertiesByName_.insert_or_assign(property->name_, property.get());
        if (property->isAttribute()) {
          entity->attributesByName_.insert_or_assign(
              property->name_, static_cast<const AttributeDescription*>(property.get()));
        } else {
          entity->relationshipsByName_.insert_or_assign(
              property->name_, static_cast<const RelationshipDescription*>(property.get()));
        }
      }
    }
  }
  for (auto& entity : model.entities_) {
    for (auto& property : entity->ownProperties_) {
      if (!property->isRelationship()) continue;
      auto* relationship = static_cast<RelationshipDescription*>(property.get());
      const std::string where = propertyWhere(entity->name_, true, relationship->name_);
      auto destination = model.entitiesByName_.find(relationship->destinationName_);
      if (destination == model.entitiesByName_.end()) {
        return fail(error(
            fmt::format("{} points to the unknown entity \"{}\"", where, relationship->destinationName_)));
      }
      relationship->destination_ = destination->second;
      if (relationship->inverseName_.empty()) continue;
      const auto& candidates = destination->second->relationshipsByName_;
      auto inverse = candidates.find(relationship->inverseName_);
      if (inverse == candidates.end()) {
        return fail(error(fmt::format("{} names the inverse \"{}\", which \"{}\" does not have", where,
                                      relationship->inverseName_, relationship->destinationName_)));
      }
      relationship->inverse_ = inverse->second;
    }
  }
  return {};
}

Status ModelBuilder::link(ManagedObjectModel& model) {
  if (auto s = linkInheritance(model); !s) return s;
  return linkProperties(model);
}

}  // namespace tesselune
