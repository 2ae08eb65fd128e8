// FetchRequest and SortDescriptor: what a context fetches, as NSFetchRequest and NSSortDescriptor
// describe it: an entity, an optional predicate, an order, a window (limit and offset) and the kind
// of result.
//
// Plain values, copied freely and safe to share between threads once built.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "foundation/predicate.h"

namespace tesselune {

struct SortDescriptor {
  // An attribute name, or a key path through to-one relationships ("run.name").
  std::string key;
  bool ascending = true;

  static SortDescriptor sortDescriptorWithKey(std::string key, bool ascending) {
    return SortDescriptor{std::move(key), ascending};
  }
};

// NSFetchRequestResultType, with the platform's values.
enum class FetchRequestResultType {
  ManagedObject = 0,
  ManagedObjectID = 1,
  Dictionary = 2,
  Count = 4,
};

struct FetchRequest {
  std::string entityName;
  std::optional<Predicate> predicate;
  std::vector<SortDescriptor> sortDescriptors;
  // 0: no limit.
  std::size_t fetchLimit = 0;
  std::size_t fetchOffset = 0;
  FetchRequestResultType resultType = FetchRequestResultType::ManagedObject;
  // Whether objects of sub-entities match too.
  bool includesSubentities = true;

  static FetchRequest fetchRequestWithEntityName(std::string name) {
    FetchRequest request;
    request.entityName = std::move(name);
    return request;
  }
};

}  // namespace tesselune
