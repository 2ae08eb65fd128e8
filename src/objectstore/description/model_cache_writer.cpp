// Writing the model a store keeps of itself (Z_MODELCACHE): the model as the keyed archive Core Data
// writes of it, compressed with raw DEFLATE.
//
// The archive's objects and keys follow what real stores carry: the model, its entities in a
// known-keys dictionary, each entity with its own properties (name → description) and sub-entities
// (name → entity), and properties that point back at their entity and, for relationships, at their
// destination and inverse. Those back references make the object graph cyclic, so the archived
// stand-ins below refer to each other through one Graph that owns them all, never directly: the
// archiver sees each object once and nothing is kept alive by a cycle.

#include <fmt/format.h>
#include <zlib.h>

#include <climits>
#include <map>
#include <memory>

#include "foundation/coding.h"
#include "foundation/keyed_archiver.h"
#include "objectstore/description/archived_model_flags.h"
#include "objectstore/description/entity_description.h"
#include "objectstore/description/managed_object_model.h"

namespace tesselune {

namespace {

using namespace archived_model;

class Graph;

// An archived stand-in: an object of a Core Data class that encodes one description.
class Archived : public Object, public Coding {
 public:
  Archived(const Graph& graph, std::vector<std::string> chain) : graph_(graph), chain_(std::move(chain)) {}
  std::string className() const override { return chain_.front(); }
  std::vector<std::string> classChain() const override { return chain_; }

 protected:
  const Graph& graph_;

 private:
  std::vector<std::string> chain_;
};

// Owns every stand-in of one archive and answers the one for a description.
class Graph {
 public:
  explicit Graph(const ManagedObjectModel& model);
  Value model() const { return model_; }
  Value entity(const EntityDescription* entity) const {
    return entity == nullptr ? Value() : objects_.at(entity);
  }
  Value property(const PropertyDescription* property) const {
    return property == nullptr ? Value() : objects_.at(property);
  }

 private:
  Value model_;
  std::map<const void*, Value> objects_;
};

Value strings(const std::vector<std::string>& names, bool isMutable) {
  Array array;
  for (const std::string& name : names) array.emplace_back(name);
  Value value(std::move(array));
  value.setMutable(isMutable);
  return value;
}

// Uniqueness constraints and compound indexes: an array of mutable arrays of property names.
Value nameLists(const std::vector<std::vector<std::string>>& lists) {
  Array array;
  for (const auto& names : lists) array.push_back(strings(names, true));
  return Value(std::move(array));
}

Value orNull(const std::string& text) {
  return text.empty() ? Value() : Value(text);
}

std::int64_t propertyFlags(const PropertyDescription& property, bool ordered) {
  return kPropertyFlagsBase | (property.isOptional() ? kOptionalFlag : 0) |
         (property.isReadOnly() ? kReadOnlyFlag : 0) | (property.isTransient() ? kTransientFlag : 0) |
         (ordered ? kOrderedFlag : 0);
}

// Keys every property description carries.
void encodeProperty(KeyedArchiver& coder, const Graph& graph, const PropertyDescription& property,
                    bool ordered) {
  coder.encodeObject(Value(property.name()), "NSPropertyName");
  coder.encodeObject(graph.entity(property.entity()), "NSEntity");
  coder.encodeObject(Value(property.name()), "NSRenamingIdentifier");
  coder.encodeInt64(propertyFlags(property, ordered), "_P");
  if (property.isOptional()) coder.encodeBool(true, "NSIsOptional");
  if (property.isReadOnly()) coder.encodeBool(true, "NSIsReadOnly");
  if (property.isTransient()) coder.encodeBool(true, "NSIsTransient");
  if (!property.versionHashModifier().empty())
    coder.encodeObject(Value(property.versionHashModifier()), "NSVersionHashModifier");
  if (!property.userInfo().empty()) coder.encodeObject(Value(property.userInfo()), "NSUserInfo");
}

class ArchivedAttribute : public Archived {
 public:
  ArchivedAttribute(const Graph& graph, const AttributeDescription& attribute)
      : Archived(graph, {"NSAttributeDescription", "NSPropertyDescription", "NSObject"}),
        attribute_(attribute) {}
  void encodeWithCoder(KeyedArchiver& coder) const override {
    encodeProperty(coder, graph_, attribute_, false);
    coder.encodeInt64(static_cast<std::int64_t>(attribute_.attributeType()), "NSAttributeType");
    coder.encodeObject(orNull(attribute_.attributeValueClassName()), "NSAttributeValueClassName");
    coder.encodeObject(attribute_.defaultValue(), "NSDefaultValue");
    coder.encodeObject(orNull(attribute_.valueTransformerName()), "NSValueTransformerName");
    coder.encodeInt64((attribute_.allowsExternalBinaryDataStorage() ? kExternalStorageFlag : 0) |
                          (attribute_.preservesValueInHistoryOnDeletion() ? kPreserveAfterDeletionFlag : 0),
                      "NSFlagsKey");
    if (attribute_.isIndexed()) coder.encodeBool(true, "NSIsIndexed");
  }
  Status initWithCoder(KeyedUnarchiver&) override { return fail(corruptArchiveError("write only")); }

 private:
  const AttributeDescription& attribute_;
};

class ArchivedRelationship : public Archived {
 public:
  ArchivedRelationship(const Graph& graph, const RelationshipDescription& relationship)
      : Archived(graph, {"NSRelationshipDescription", "NSPropertyDescription", "NSObject"}),
        relationship_(relationship) {}
  void encodeWithCoder(KeyedArchiver& coder) const override {
    encodeProperty(coder, graph_, relationship_, relationship_.isOrdered());
    coder.encodeObject(graph_.entity(relationship_.destinationEntity()), "NSDestinationEntity");
    coder.encodeObject(Value(relationship_.destinationEntityName()), "_NSDestinationEntityName");
    coder.encodeObject(graph_.property(relationship_.inverseRelationship()), "NSInverseRelationship");
    coder.encodeObject(orNull(relationship_.inverseRelationshipName()), "_NSInverseRelationshipName");
    coder.encodeInt64(static_cast<std::int64_t>(relationship_.deleteRule()), "NSDeleteRule");
    coder.encodeInt64(relationship_.minCount(), "NSMinCount");
    coder.encodeInt64(relationship_.maxCount(), "NSMaxCount");
    if (relationship_.isOrdered()) coder.encodeBool(true, "NSIsOrdered");
  }
  Status initWithCoder(KeyedUnarchiver&) override { return fail(corruptArchiveError("write only")); }

 private:
  const RelationshipDescription& relationship_;
};

class ArchivedEntity : public Archived {
 public:
  ArchivedEntity(const Graph& graph, const EntityDescription& entity)
      : Archived(graph, {"NSEntityDescription", "NSObject"}), entity_(entity) {}
  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeObject(Value(entity_.name()), "NSEntityName");
    coder.encodeObject(Value(entity_.managedObjectClassName()), "NSClassNameForEntity");
    coder.encodeObject(Value(entity_.name()), "NSRenamingIdentifier");
    coder.encodeObject(graph_.model(), "NSManagedObjectModel");
    coder.encodeObject(graph_.entity(entity_.superentity()), "NSSuperentity");
    Dictionary subentities;
    for (const EntityDescription* sub : entity_.subentities())
      subentities.emplace(sub->name(), graph_.entity(sub));
    coder.encodeObject(Value(std::move(subentities)).setMutable(), "NSSubentities");
    Dictionary properties;
    for (const auto& property : entity_.ownProperties())
      properties.emplace(property->name(), graph_.property(property.get()));
    coder.encodeObject(Value(std::move(properties)).setMutable(), "NSProperties");
    coder.encodeObject(Value(entity_.userInfo()), "NSUserInfo");
    coder.encodeObject(orNull(entity_.versionHashModifier()), "NSVersionHashModifier");
    if (entity_.isAbstract()) coder.encodeBool(true, "NSIsAbstract");
    if (!entity_.uniquenessConstraints().empty())
      coder.encodeObject(nameLists(entity_.uniquenessConstraints()), "NSUniqueTuples");
    if (!entity_.compoundIndexes().empty())
      coder.encodeObject(nameLists(entity_.compoundIndexes()), "NSCompoundIndexes");
  }
  Status initWithCoder(KeyedUnarchiver&) override { return fail(corruptArchiveError("write only")); }

 private:
  const EntityDescription& entity_;
};

// NSKnownKeysMappingStrategy1: the keys of a known-keys dictionary.
class ArchivedKeyMapping : public Archived {
 public:
  ArchivedKeyMapping(const Graph& graph, std::vector<std::string> keys)
      : Archived(graph, {"NSKnownKeysMappingStrategy1", "NSKnownKeysMappingStrategy", "NSObject"}),
        keys_(std::move(keys)) {}
  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeObject(strings(keys_, false), "keys");
    coder.encodeInt64(static_cast<std::int64_t>(keys_.size()), "length");
    coder.encodeInt64(1, "version");
  }
  Status initWithCoder(KeyedUnarchiver&) override { return fail(corruptArchiveError("write only")); }

 private:
  std::vector<std::string> keys_;
};

// The model's entities by name: NSKnownKeysDictionary1, values in the order of its mapping's keys.
class ArchivedEntities : public Archived {
 public:
  ArchivedEntities(const Graph& graph, const ManagedObjectModel& model)
      : Archived(graph, {"NSKnownKeysDictionary1", "NSKnownKeysDictionary", "NSMutableDictionary",
                         "NSDictionary", "NSObject"}),
        model_(model) {}
  void encodeWithCoder(KeyedArchiver& coder) const override {
    std::vector<std::string> keys;
    Array values;
    for (const auto& entity : model_.entities()) {  // sorted by name
      keys.push_back(entity->name());
      values.push_back(graph_.entity(entity.get()));
    }
    coder.encodeObject(Value(std::move(values)), "values");
    coder.encodeObject(Value(std::make_shared<ArchivedKeyMapping>(graph_, std::move(keys))), "searchMapping");
    coder.encodeObject(Value("__empty_slot_token_4c24_98dc_ac1e_b773__"), "emptyToken");
    coder.encodeInt64(1, "version");
  }
  Status initWithCoder(KeyedUnarchiver&) override { return fail(corruptArchiveError("write only")); }

 private:
  const ManagedObjectModel& model_;
};

class ArchivedModel : public Archived {
 public:
  ArchivedModel(const Graph& graph, const ManagedObjectModel& model)
      : Archived(graph, {"NSManagedObjectModel", "NSObject"}), model_(model) {}
  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeObject(Value(std::make_shared<ArchivedEntities>(graph_, model_)), "NSEntities");
    coder.encodeObject(Value(), "NSFetchRequestTemplates");
    Array identifiers;
    for (const std::string& identifier : model_.versionIdentifiers()) identifiers.emplace_back(identifier);
    if (identifiers.empty()) identifiers.emplace_back("");
    coder.encodeObject(Value(ValueSet(identifiers)), "NSVersionIdentifiers");
  }
  Status initWithCoder(KeyedUnarchiver&) override { return fail(corruptArchiveError("write only")); }

 private:
  const ManagedObjectModel& model_;
};

Graph::Graph(const ManagedObjectModel& model) {
  model_ = Value(std::make_shared<ArchivedModel>(*this, model));
  for (const auto& entity : model.entities()) {
    objects_.emplace(entity.get(), Value(std::make_shared<ArchivedEntity>(*this, *entity)));
    for (const auto& property : entity->ownProperties()) {
      if (property->isAttribute()) {
        objects_.emplace(property.get(), Value(std::make_shared<ArchivedAttribute>(
                                             *this, static_cast<const AttributeDescription&>(*property))));
      } else {
        objects_.emplace(property.get(), Value(std::make_shared<ArchivedRelationship>(
                                             *this, static_cast<const RelationshipDescription&>(*property))));
      }
    }
  }
}

Expected<Bytes> deflateRaw(const Bytes& data) {
  if (data.size() > UINT_MAX)
    return fail(Error(std::string(kCocoaErrorDomain), kPropertyListWriteInvalidError,
                      "The model is too large to cache."));
  z_stream stream{};
  if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) != Z_OK)
    return fail(
        Error(std::string(kCocoaErrorDomain), kPropertyListWriteInvalidError, "zlib cannot deflate."));
  Bytes out(deflateBound(&stream, static_cast<uLong>(data.size())));
  stream.next_in = const_cast<Bytef*>(data.data());
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  const int rc = deflate(&stream, Z_FINISH);
  out.resize(out.size() - stream.avail_out);
  deflateEnd(&stream);
  if (rc != Z_STREAM_END)
    return fail(
        Error(std::string(kCocoaErrorDomain), kPropertyListWriteInvalidError, "zlib cannot deflate."));
  return out;
}

}  // namespace

Expected<Bytes> ManagedObjectModel::cachedContent() const {
  const Graph graph(*this);
  KeyedArchiver archiver(/*requiresSecureCoding=*/false);
  archiver.encodeObject(graph.model(), "root");
  auto archive = archiver.encodedData();
  if (!archive) return fail(archive.error());
  return deflateRaw(*archive);
}

}  // namespace tesselune
