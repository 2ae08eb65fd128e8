// ModelBuilder: the one place that writes into model descriptions. Internal to description/.
//
// Two readers fill in entities and their own properties, Xcode's model XML (managed_object_model.cpp)
// and the keyed archive a store caches of its model (model_cache.cpp); both then share the linking
// step here, which resolves names into pointers: parents, sub-entities, inherited properties,
// destinations and inverses. A builder builds one model, on one thread.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "foundation/error.h"
#include "objectstore/description/managed_object_model.h"

namespace pugi {
class xml_node;
}

namespace tesselune {

class ArchivedObjects;

class ModelBuilder {
 public:
  // Where a model comes from decides how its faults are worded and which error code they carry.
  enum class Origin { Xml, Cache };

  // `source` names the model file, or the store whose cached model is read, in every error.
  ModelBuilder(std::string source, Origin origin) : source_(std::move(source)), origin_(origin) {}

  // Xcode's model XML (a "contents" file). Fails with a 259 Error saying where the XML is wrong.
  [[nodiscard]] Expected<std::shared_ptr<const ManagedObjectModel>> buildFromXml(std::string_view xml);
  // The keyed archive of an NSManagedObjectModel, already read as a property list. Fails with a
  // 4864 Error on anything that is not a well-formed model archive.
  [[nodiscard]] Expected<std::shared_ptr<const ManagedObjectModel>> buildFromArchive(const Value& archive);

  // The Error for a model that cannot be read, with the builder's source and code.
  Error error(std::string_view what) const;

 private:
  std::string entityWhere(std::string_view entity) const;
  std::string propertyWhere(std::string_view entity, bool relationship, std::string_view property) const;

  // Adds an entity, refusing a second one of the same name. Entities are sorted by link().
  Status addEntity(ManagedObjectModel& model, std::unique_ptr<EntityDescription> entity);
  // Parents and sub-entities, refusing unknown parents and inheritance cycles.
  Status linkInheritance(ManagedObjectModel& model);
  // Properties by name (inherited ones share the ancestor's description), destinations, inverses.
  Status linkProperties(ManagedObjectModel& model);
  Status link(ManagedObjectModel& model);

  // XML.
  Expected<std::unique_ptr<EntityDescription>> readXmlEntity(pugi::xml_node node);
  Expected<Value> xmlDefaultValue(pugi::xml_node node, AttributeType type, std::string_view where) const;

  // Archive.
  Expected<std::unique_ptr<EntityDescription>> readArchivedEntity(const ArchivedObjects& objects,
                                                                  const Value& object);
  Expected<std::unique_ptr<PropertyDescription>> readArchivedProperty(const ArchivedObjects& objects,
                                                                      const Value& object,
                                                                      const std::string& entity);
  Expected<Value> archivedDefaultValue(const ArchivedObjects& objects, const Value& reference,
                                       AttributeType type, const std::string& where) const;
  // Archives list inherited properties again in each sub-entity (as copies or as proxies); the
  // descriptions keep them only with the ancestor that declares them.
  Status dropInheritedCopies(ManagedObjectModel& model);

  std::string source_;
  Origin origin_;
  // Cache only: every property name an entity's archive lists, and those listed as proxies.
  std::map<const EntityDescription*, std::set<std::string, std::less<>>> listedNames_;
  std::map<const EntityDescription*, std::set<std::string, std::less<>>> proxyNames_;
};

}  // namespace tesselune
