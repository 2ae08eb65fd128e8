// The model a store keeps of itself (Z_MODELCACHE): inflating it, walking its keyed archive and
// proving it against the store's own entity version hashes.
//
// The archive is an object graph with cycles (entity -> property -> entity, relationship <->
// inverse), so it is read as a plain property list and walked by UID, one object at a time, never
// recursively: references between entities and properties are read as names and resolved by the
// same linking step as the XML reader's.

#include <fmt/format.h>
#include <zlib.h>

#include <algorithm>
#include <climits>
#include <optional>

#include "foundation/property_list.h"
#include "objectstore/description/archived_model_flags.h"
#include "objectstore/description/model_builder.h"
#include "objectstore/sqlite/database.h"

namespace tesselune {

// The $objects table of a keyed archive, with the reads a model archive needs. Every read checks
// what it finds and fails with the builder's error rather than assume.
class ArchivedObjects {
 public:
  ArchivedObjects(const Array& objects, const ModelBuilder& builder) : objects_(objects), builder_(builder) {}

  static std::optional<std::uint64_t> uid(const Value& value) {
    if (!value.isDictionary() || value.count() != 1) return std::nullopt;
    const Value& index = value["CF$UID"];
    if (!index.isInteger() || index.asInteger() < 0) return std::nullopt;
    return static_cast<std::uint64_t>(index.asInteger());
  }

  // The object a reference names; nothing for nil (UID 0, or a key that is absent).
  Expected<const Value*> resolve(const Value& reference, std::string_view what) const {
    if (reference.isNull()) return nullptr;
    const auto index = uid(reference);
    if (!index) return fail(builder_.error(fmt::format("{} is not an object reference", what)));
    if (*index == 0) return nullptr;
    if (*index >= objects_.size()) {
      return fail(builder_.error(
          fmt::format("{} refers to object {} of an archive of {}", what, *index, objects_.size())));
    }
    return &objects_[*index];
  }

  std::string_view className(const Value& object) const {
    const auto index = uid(object["$class"]);
    if (!index || *index >= objects_.size()) return {};
    const Value& name = objects_[*index]["$classname"];
    return name.isString() ? std::string_view(name.asString()) : std::string_view();
  }

  // Whether the object's class is `name` or inherits from it, as its $classes chain says.
  bool isKindOf(const Value& object, std::string_view name) const {
    if (className(object) == name) return true;
    const auto index = uid(object["$class"]);
    if (!index || *index >= objects_.size()) return false;
    const Value& chain = objects_[*index]["$classes"];
    if (!chain.isArray()) return false;
    return std::any_of(chain.asArray().begin(), chain.asArray().end(),
                       [&](const Value& c) { return c.isString() && c.asString() == name; });
  }

  // An NSString (plain in the table) or NSMutableString (NS.string); nothing for nil.
  Expected<std::optional<std::string>> string(const Value& reference, std::string_view what) const {
    auto object = resolve(reference, what);
    if (!object) return fail(object.error());
    if (*object == nullptr) return std::nullopt;
    if ((*object)->isString()) return (*object)->asString();
    if (const Value& text = (**object)["NS.string"]; text.isString()) return text.asString();
    return fail(builder_.error(fmt::format("{} is not a string", what)));
  }

  Expected<std::string> requiredString(const Value& reference, std::string_view what) const {
    auto text = string(reference, what);
    if (!text) return fail(text.error());
    if (!*text || (*text)->empty()) return fail(builder_.error(fmt::format("{} is missing", what)));
    return std::move(**text);
  }

  // The items of an NSArray or NSSet (NS.objects); none for nil. Nil items are kept as null
  // pointers only when asked, for tables read side by side.
  Expected<std::vector<const Value*>> elements(const Value& reference, std::string_view what,
                                               bool keepNil = false) const {
    auto object = resolve(reference, what);
    if (!object) return fail(object.error());
    std::vector<const Value*> items;
    if (*object == nullptr) return items;
    const Value& list = (**object)["NS.objects"];
    if (!list.isArray()) return fail(builder_.error(fmt::format("{} is not an array or set", what)));
    items.reserve(list.count());
    for (const Value& item : list.asArray()) {
      auto element = resolve(item, what);
      if (!element) return fail(element.error());
      if (*element != nullptr || keepNil) items.push_back(*element);
    }
    return items;
  }

  // The entries of an NSDictionary (NS.keys beside NS.objects) or of the NSKnownKeysDictionary1 that
  // models use for their entities (keys in its search mapping, values beside them, unused slots
  // holding an "empty token" string). Keys are strings; nil values are left out.
  Expected<std::vector<std::pair<std::string, const Value*>>> entries(const Value& reference,
                                                                      std::string_view what) const {
    auto object = resolve(reference, what);
    if (!object) return fail(object.error());
    std::vector<std::pair<std::string, const Value*>> result;
    if (*object == nullptr) return result;
    const Value& dictionary = **object;

    std::vector<const Value*> keys, values;
    std::optional<std::string> emptyToken;
    if (dictionary["NS.keys"].isArray()) {
      const Value& keyList = dictionary["NS.keys"];
      const Value& valueList = dictionary["NS.objects"];
      if (!valueList.isArray() || valueList.count() != keyList.count()) {
        return fail(builder_.error(fmt::format("{} does not have as many keys as values", what)));
      }
      for (std::size_t i = 0; i < keyList.count(); ++i) {
        auto key = resolve(keyList.at(i), what);
        if (!key) return fail(key.error());
        auto value = resolve(valueList.at(i), what);
        if (!value) return fail(value.error());
        keys.push_back(*key);
        values.push_back(*value);
      }
    } else if (dictionary["searchMapping"].isDictionary()) {
      auto mapping = resolve(dictionary["searchMapping"], what);
      if (!mapping) return fail(mapping.error());
      if (*mapping == nullptr) return fail(builder_.error(fmt::format("{} has no keys", what)));
      auto keyItems = elements((**mapping)["keys"], what, true);
      if (!keyItems) return fail(keyItems.error());
      auto valueItems = elements(dictionary["values"], what, true);
      if (!valueItems) return fail(valueItems.error());
      if (keyItems->size() != valueItems->size()) {
        return fail(builder_.error(fmt::format("{} does not have as many keys as values", what)));
      }
      keys = std::move(*keyItems);
      values = std::move(*valueItems);
      auto token = string(dictionary["emptyToken"], what);
      if (!token) return fail(token.error());
      emptyToken = std::move(*token);
    } else {
      return fail(builder_.error(fmt::format("{} is not a dictionary", what)));
    }

    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (values[i] == nullptr) continue;
      if (emptyToken && values[i]->isString() && values[i]->asString() == *emptyToken) continue;
      if (keys[i] == nullptr || !keys[i]->isString()) {
        return fail(builder_.error(fmt::format("{} has a key that is not a string", what)));
      }
      result.emplace_back(keys[i]->asString(), values[i]);
    }
    return result;
  }

  // A scalar coded inline under a key (encodeInteger:, encodeBool:); the fallback when absent.
  Expected<std::int64_t> integer(const Value& object, std::string_view key, std::int64_t fallback,
                                 std::string_view what) const {
    const Value& value = object[key];
    if (value.isNull()) return fallback;
    if (!value.isNumber())
      return fail(builder_.error(fmt::format("{} has a {} that is not a number", what, key)));
    return value.integerValue();
  }
  Expected<bool> boolean(const Value& object, std::string_view key, std::string_view what) const {
    auto value = integer(object, key, 0, what);
    if (!value) return fail(value.error());
    return *value != 0;
  }

  // A plain value: a number, string, date or data, whether stored plainly or as its object form.
  // Nothing for an object of any other class.
  std::optional<Value> scalar(const Value& object) const {
    if (!object.isDictionary()) return object;
    const std::string_view name = className(object);
    if (name == "NSMutableString" || name == "NSString") {
      if (object["NS.string"].isString()) return object["NS.string"];
    } else if (name == "NSDate") {
      if (object["NS.time"].isNumber()) return Value(Date{object["NS.time"].doubleValue()});
    } else if (name == "NSMutableData" || name == "NSData") {
      if (object["NS.data"].isData()) return object["NS.data"];
    }
    return std::nullopt;
  }

 private:
  const Array& objects_;
  const ModelBuilder& builder_;
};

namespace {

std::optional<AttributeType> attributeTypeWithCode(std::int64_t code) {
  switch (code) {
    case 0:
    case 100:
    case 200:
    case 300:
    case 400:
    case 500:
    case 600:
    case 700:
    case 800:
    case 900:
    case 1000:
    case 1100:
    case 1200:
    case 1800:
    case 2000:
      return static_cast<AttributeType>(code);
    default:
      return std::nullopt;
  }
}

using namespace archived_model;

Expected<Dictionary> userInfo(const ArchivedObjects& objects, const Value& reference, std::string_view what) {
  auto entries = objects.entries(reference, what);
  if (!entries) return fail(entries.error());
  Dictionary info;
  for (const auto& [key, value] : *entries) {
    if (auto plain = objects.scalar(*value)) info.insert_or_assign(key, std::move(*plain));
  }
  return info;
}

// Lists of property names (uniqueness constraints, compound indexes): each an array of names or
// of property descriptions. A list of anything else is an error when `strict`, skipped otherwise.
Expected<std::vector<std::vector<std::string>>> nameLists(const ArchivedObjects& objects,
                                                          const Value& reference, std::string_view what,
                                                          bool strict, const ModelBuilder& builder) {
  std::vector<std::vector<std::string>> lists;
  auto outer = objects.elements(reference, what);
  if (!outer) return fail(outer.error());
  for (const Value* list : *outer) {
    if (!(*list)["NS.objects"].isArray()) {
      if (strict) return fail(builder.error(fmt::format("{} holds something other than lists", what)));
      continue;
    }
    std::vector<std::string> names;
    bool understood = true;
    for (const Value& item : (*list)["NS.objects"].asArray()) {
      auto element = objects.resolve(item, what);
      if (!element) return fail(element.error());
      if (*element == nullptr) {
        understood = false;
        break;
      }
      const Value& nameReference = (**element).isDictionary() && !(**element)["NSPropertyName"].isNull()
                                       ? (**element)["NSPropertyName"]
                                       : item;
      auto name = objects.string(nameReference, what);
      if (!name || !*name) {
        understood = false;
        break;
      }
      names.push_back(std::move(**name));
    }
    if (!understood) {
      if (strict) return fail(builder.error(fmt::format("{} names something that is not a property", what)));
      continue;
    }
    lists.push_back(std::move(names));
  }
  return lists;
}

}  // namespace

Expected<std::shared_ptr<const ManagedObjectModel>> ModelBuilder::buildFromArchive(const Value& archive) {
  const Value& table = archive["$objects"];
  if (!table.isArray()) return fail(error("it is not a keyed archive"));
  const ArchivedObjects objects(table.asArray(), *this);
  auto root = objects.resolve(archive["$top"]["root"], "the archive's root");
  if (!root) return fail(root.error());
  if (*root == nullptr || !objects.isKindOf(**root, "NSManagedObjectModel")) {
    const std::string_view found = *root == nullptr ? std::string_view("nothing") : objects.className(**root);
    return fail(error(fmt::format("the archive holds {}, not a model",
                                  found.empty() ? std::string_view("a plain value") : found)));
  }

  auto model = std::make_shared<ManagedObjectModel>();
  auto entities = objects.entries((**root)["NSEntities"], "the model's entities");
  if (!entities) return fail(entities.error());
  for (const auto& [key, object] : *entities) {
    if (!objects.isKindOf(*object, "NSEntityDescription")) {
      return fail(error(fmt::format("the model's entity \"{}\" is not an entity", key)));
    }
    auto entity = readArchivedEntity(objects, *object);
    if (!entity) return fail(entity.error());
    if (auto s = addEntity(*model, std::move(*entity)); !s) return fail(s.error());
  }

  auto identifiers = objects.elements((**root)["NSVersionIdentifiers"], "the model's version identifiers");
  if (!identifiers) return fail(identifiers.error());
  for (const Value* identifier : *identifiers) {
    if (auto text = objects.scalar(*identifier); text && text->isString()) {
      model->versionIdentifiers_.push_back(text->asString());
    }
  }
  std::sort(model->versionIdentifiers_.begin(), model->versionIdentifiers_.end());

  if (auto s = linkInheritance(*model); !s) return fail(s.error());
  if (auto s = dropInheritedCopies(*model); !s) return fail(s.error());
  if (auto s = linkProperties(*model); !s) return fail(s.error());
  return std::shared_ptr<const ManagedObjectModel>(std::move(model));
}

Expected<std::unique_ptr<EntityDescription>> ModelBuilder::readArchivedEntity(const ArchivedObjects& objects,
                                                                              const Value& object) {
  auto entity = std::make_unique<EntityDescription>();
  auto name = objects.requiredString(object["NSEntityName"], "an entity's name");
  if (!name) return fail(name.error());
  entity->name_ = std::move(*name);
  const std::string where = entityWhere(entity->name_);

  auto className = objects.string(object["NSClassNameForEntity"], where + " class name");
  if (!className) return fail(className.error());
  entity->className_ = className->value_or(entity->name_);
  auto abstract = objects.boolean(object, "NSIsAbstract", where);
  if (!abstract) return fail(abstract.error());
  entity->abstract_ = *abstract;

  auto parent = objects.resolve(object["NSSuperentity"], where + " parent");
  if (!parent) return fail(parent.error());
  if (*parent != nullptr) {
    auto parentName = objects.requiredString((**parent)["NSEntityName"], where + " parent's name");
    if (!parentName) return fail(parentName.error());
    entity->superentityName_ = std::move(*parentName);
  }
  auto modifier = objects.string(object["NSVersionHashModifier"], where + " version hash modifier");
  if (!modifier) return fail(modifier.error());
  entity->versionHashModifier_ = modifier->value_or("");
  auto info = userInfo(objects, object["NSUserInfo"], where + " user info");
  if (!info) return fail(info.error());
  entity->userInfo_ = std::move(*info);
  auto constraints =
      nameLists(objects, object["NSUniqueTuples"], where + " uniqueness constraints", true, *this);
  if (!constraints) return fail(constraints.error());
  entity->uniquenessConstraints_ = std::move(*constraints);
  auto indexes = nameLists(objects, object["NSCompoundIndexes"], where + " compound indexes", false, *this);
  if (!indexes) return fail(indexes.error());
  entity->compoundIndexes_ = std::move(*indexes);

  auto properties = objects.entries(object["NSProperties"], where + " properties");
  if (!properties) return fail(properties.error());
  auto& listed = listedNames_[entity.get()];
  for (const auto& [key, propertyObject] : *properties) {
    if (objects.className(*propertyObject) == "_NSPropertyDescriptionProxy") {
      listed.insert(key);
      proxyNames_[entity.get()].insert(key);
      continue;
    }
    // Fetched properties are neither stored nor hashed; the descriptions have no place for them.
    if (objects.isKindOf(*propertyObject, "NSFetchedPropertyDescription")) continue;
    auto property = readArchivedProperty(objects, *propertyObject, entity->name_);
    if (!property) return fail(property.error());
    if (!listed.insert((*property)->name_).second) {
      return fail(error(fmt::format("{} lists \"{}\" twice", where, (*property)->name_)));
    }
    (*property)->entity_ = entity.get();
    entity->ownProperties_.push_back(std::move(*property));
  }
  // Xcode's order: attributes, then relationships, each by name.
  std::sort(entity->ownProperties_.begin(), entity->ownProperties_.end(), [](const auto& a, const auto& b) {
    return std::pair(a->isRelationship(), std::string_view(a->name_)) <
           std::pair(b->isRelationship(), std::string_view(b->name_));
  });
  return entity;
}

Expected<std::unique_ptr<PropertyDescription>> ModelBuilder::readArchivedProperty(
    const ArchivedObjects& objects, const Value& object, const std::string& entity) {
  auto name = objects.requiredString(object["NSPropertyName"],
                                     fmt::format("a property's name in {}", entityWhere(entity)));
  if (!name) return fail(name.error());
  const std::string_view className = objects.className(object);
  const bool isRelationship = objects.isKindOf(object, "NSRelationshipDescription");
  const bool isAttribute = !isRelationship && (objects.isKindOf(object, "NSAttributeDescription") ||
                                               className.find("Attribute") != std::string_view::npos);
  if (!isAttribute && !isRelationship) {
    return fail(error(fmt::format("{} has the property \"{}\" of the unknown class \"{}\"",
                                  entityWhere(entity), *name, className)));
  }
  const std::string where = propertyWhere(entity, isRelationship, *name);

  bool optional = false, readOnly = false, transient = false, ordered = false;
  if (object["_P"].isNumber()) {
    const std::int64_t flags = object["_P"].integerValue();
    optional = flags & kOptionalFlag;
    readOnly = flags & kReadOnlyFlag;
    transient = flags & kTransientFlag;
    ordered = flags & kOrderedFlag;
  } else {
    for (auto [key, flag] : {std::pair{"NSIsOptional", &optional}, std::pair{"NSIsReadOnly", &readOnly},
                             std::pair{"NSIsTransient", &transient}, std::pair{"NSIsOrdered", &ordered}}) {
      auto value = objects.boolean(object, key, where);
      if (!value) return fail(value.error());
      *flag = *value;
    }
  }

  std::unique_ptr<PropertyDescription> property;
  if (isAttribute) {
    auto attribute = std::make_unique<AttributeDescription>();
    auto code = objects.integer(object, "NSAttributeType", 0, where);
    if (!code) return fail(code.error());
    const auto type = attributeTypeWithCode(*code);
    if (!type) return fail(error(fmt::format("{} has the unknown type {}", where, *code)));
    attribute->type_ = *type;
    auto defaultValue = archivedDefaultValue(objects, object["NSDefaultValue"], *type, where);
    if (!defaultValue) return fail(defaultValue.error());
    attribute->defaultValue_ = std::move(*defaultValue);
    auto valueClass = objects.string(object["NSAttributeValueClassName"], where + " value class");
    if (!valueClass) return fail(valueClass.error());
    attribute->valueClassName_ = valueClass->value_or("");
    auto transformer = objects.string(object["NSValueTransformerName"], where + " transformer");
    if (!transformer) return fail(transformer.error());
    attribute->transformerName_ = transformer->value_or("");
    auto flags = objects.integer(object, "NSFlagsKey", 0, where);
    if (!flags) return fail(flags.error());
    attribute->externalStorage_ = *flags & kExternalStorageFlag;
    attribute->preserveAfterDeletion_ = *flags & kPreserveAfterDeletionFlag;
    auto indexed = objects.boolean(object, "NSIsIndexed", where);
    if (!indexed) return fail(indexed.error());
    attribute->indexed_ = *indexed;
    property = std::move(attribute);
  } else {
    auto relationship = std::make_unique<RelationshipDescription>();
    // The names stand beside the references in newer archives; older ones have only the references.
    auto destination = objects.string(object["_NSDestinationEntityName"], where + " destination");
    if (!destination) return fail(destination.error());
    if (!*destination) {
      auto target = objects.resolve(object["NSDestinationEntity"], where + " destination");
      if (!target) return fail(target.error());
      if (*target == nullptr) return fail(error(fmt::format("{} has no destination entity", where)));
      destination = objects.string((**target)["NSEntityName"], where + " destination's name");
      if (!destination) return fail(destination.error());
    }
    if (!*destination || (*destination)->empty()) {
      return fail(error(fmt::format("{} has no destination entity", where)));
    }
    relationship->destinationName_ = std::move(**destination);
    auto inverse = objects.string(object["_NSInverseRelationshipName"], where + " inverse");
    if (!inverse) return fail(inverse.error());
    if (!*inverse) {
      auto target = objects.resolve(object["NSInverseRelationship"], where + " inverse");
      if (!target) return fail(target.error());
      if (*target != nullptr) {
        inverse = objects.string((**target)["NSPropertyName"], where + " inverse's name");
        if (!inverse) return fail(inverse.error());
      }
    }
    relationship->inverseName_ = inverse->value_or("");

    auto rule = objects.integer(object, "NSDeleteRule", 0, where);
    if (!rule) return fail(rule.error());
    if (*rule < 0 || *rule > static_cast<std::int64_t>(DeleteRule::Deny)) {
      return fail(error(fmt::format("{} has the unknown deletion rule {}", where, *rule)));
    }
    relationship->deleteRule_ = static_cast<DeleteRule>(*rule);
    auto minCount = objects.integer(object, "NSMinCount", 0, where);
    if (!minCount) return fail(minCount.error());
    auto maxCount = objects.integer(object, "NSMaxCount", 0, where);
    if (!maxCount) return fail(maxCount.error());
    if (*minCount < 0 || *maxCount < 0 || *minCount > UINT32_MAX || *maxCount > UINT32_MAX) {
      return fail(error(fmt::format("{} has the counts {} to {}", where, *minCount, *maxCount)));
    }
    relationship->minCount_ = *minCount;
    relationship->maxCount_ = *maxCount;
    relationship->toMany_ = *maxCount != 1;
    relationship->ordered_ = ordered;
    property = std::move(relationship);
  }

  property->name_ = std::move(*name);
  property->optional_ = optional;
  property->readOnly_ = readOnly;
  property->transient_ = transient;
  auto modifier = objects.string(object["NSVersionHashModifier"], where + " version hash modifier");
  if (!modifier) return fail(modifier.error());
  property->versionHashModifier_ = modifier->value_or("");
  auto info = userInfo(objects, object["NSUserInfo"], where + " user info");
  if (!info) return fail(info.error());
  property->userInfo_ = std::move(*info);
  return property;
}

Expected<Value> ModelBuilder::archivedDefaultValue(const ArchivedObjects& objects, const Value& reference,
                                                   AttributeType type, const std::string& where) const {
  auto object = objects.resolve(reference, where + " default value");
  if (!object) return fail(object.error());
  if (*object == nullptr) return Value();
  // Defaults of classes without a plain form (decimal numbers, UUIDs, transformed values) are
  // left out rather than guessed.
  auto value = objects.scalar(**object);
  if (!value) return Value();
  auto bad = [&] {
    return fail(error(fmt::format("{} has the default {}, not of its type", where, value->description())));
  };
  switch (type) {
    case AttributeType::Integer16:
    case AttributeType::Integer32:
    case AttributeType::Integer64:
      if (!value->isNumber()) return bad();
      return Value(value->integerValue());
    case AttributeType::Decimal:
    case AttributeType::Double:
    case AttributeType::Float:
      if (!value->isNumber()) return bad();
      return Value(value->doubleValue());
    case AttributeType::Boolean:
      if (!value->isNumber()) return bad();
      return Value(value->boolValue());
    case AttributeType::String:
      if (!value->isString()) return bad();
      return *value;
    case AttributeType::Date:
      if (value->isNumber()) return Value(Date{value->doubleValue()});
      if (!value->isDate()) return bad();
      return *value;
    case AttributeType::BinaryData:
      if (!value->isData()) return bad();
      return *value;
    default:
      return *value;
  }
}

Status ModelBuilder::dropInheritedCopies(ManagedObjectModel& model) {
  for (auto& entity : model.entities_) {
    std::set<std::string, std::less<>> inherited;
    for (const EntityDescription* e = entity->superentity_; e != nullptr; e = e->superentity_) {
      if (auto it = listedNames_.find(e); it != listedNames_.end())
        inherited.insert(it->second.begin(), it->second.end());
    }
    if (auto proxies = proxyNames_.find(entity.get()); proxies != proxyNames_.end()) {
      for (const std::string& name : proxies->second) {
        if (!inherited.contains(name)) {
          return fail(error(fmt::format("{} inherits \"{}\", which no parent entity has",
                                        entityWhere(entity->name_), name)));
        }
      }
    }
    std::erase_if(entity->ownProperties_,
                  [&](const auto& property) { return inherited.contains(property->name_); });
  }
  return {};
}

namespace {

// Inflates raw DEFLATE (no zlib header), refusing output beyond `limit` so that a small hostile
// input cannot claim unbounded memory.
Expected<Bytes> inflateRaw(std::span<const std::uint8_t> content, std::size_t limit,
                           const ModelBuilder& builder) {
  if (content.size() > UINT_MAX) return fail(builder.error("the compressed model is too large"));
  z_stream stream{};
  if (inflateInit2(&stream, -15) != Z_OK) return fail(builder.error("zlib cannot start inflating"));
  struct End {
    z_stream* stream;
    ~End() { inflateEnd(stream); }
  } end{&stream};
  stream.next_in = const_cast<Bytef*>(content.data());
  stream.avail_in = static_cast<uInt>(content.size());

  Bytes out;
  constexpr std::size_t kFirstChunk = 64 * 1024;
  for (;;) {
    if (out.size() >= limit) {
      return fail(builder.error(fmt::format("it inflates to more than {} MiB", limit >> 20)));
    }
    const std::size_t used = out.size();
    out.resize(std::min(limit, used + std::max(used, kFirstChunk)));
    stream.next_out = out.data() + used;
    stream.avail_out = static_cast<uInt>(out.size() - used);
    const int rc = inflate(&stream, Z_NO_FLUSH);
    out.resize(out.size() - stream.avail_out);
    if (rc == Z_STREAM_END) return out;
    if (rc == Z_OK) continue;
    if (rc == Z_BUF_ERROR) return fail(builder.error("the compressed model ends early"));
    return fail(
        builder.error(fmt::format("it is not DEFLATE data ({})", stream.msg ? stream.msg : "zlib error")));
  }
}

Error storeError(std::int64_t code, const std::filesystem::path& store, std::string_view what) {
  return Error(std::string(kCocoaErrorDomain), code,
               fmt::format("The store \"{}\" cannot give its own model: {}.", store.string(), what));
}

// The single value in the first row of `sql`; nothing when the table is empty or the value NULL.
Expected<std::optional<Bytes>> readBlob(Database& database, std::string_view sql) {
  auto statement = database.prepare(sql);
  if (!statement) return fail(statement.error());
  auto row = statement->step();
  if (!row) return fail(row.error());
  if (!*row || statement->isNull(0)) return std::nullopt;
  return statement->blob(0);
}

}  // namespace

Expected<std::shared_ptr<const ManagedObjectModel>> ManagedObjectModel::modelFromCachedContent(
    std::span<const std::uint8_t> content, const std::string& source) {
  ModelBuilder builder(source, ModelBuilder::Origin::Cache);
  auto archive = inflateRaw(content, kMaxCachedModelSize, builder);
  if (!archive) return fail(archive.error());
  auto plist = propertyListWithData(*archive);
  if (!plist) {
    return fail(Error(std::string(kCocoaErrorDomain), kPropertyListReadCorruptError,
                      fmt::format("The model cached in the store \"{}\" is not a property list: {}", source,
                                  plist.error().localizedDescription())));
  }
  return builder.buildFromArchive(*plist);
}

Expected<std::shared_ptr<const ManagedObjectModel>> ManagedObjectModel::modelFromStore(
    const std::filesystem::path& store) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(store, ec)) {
    return fail(storeError(kFileReadNoSuchFileError, store, "there is no such file"));
  }
  auto database = Database::open(store, Database::Mode::ReadOnly);
  if (!database) return fail(database.error());

  for (std::string_view table : {"Z_MODELCACHE", "Z_METADATA"}) {
    auto exists = (*database)->tableExists(table);
    if (!exists) return fail(exists.error());
    if (!*exists)
      return fail(storeError(kCoderValueNotFoundError, store, fmt::format("it has no {} table", table)));
  }
  auto content = readBlob(**database, "SELECT Z_CONTENT FROM Z_MODELCACHE");
  if (!content) return fail(content.error());
  if (!*content) return fail(storeError(kCoderValueNotFoundError, store, "its Z_MODELCACHE table is empty"));
  auto plist = readBlob(**database, "SELECT Z_PLIST FROM Z_METADATA");
  if (!plist) return fail(plist.error());
  if (!*plist) return fail(storeError(kCoderValueNotFoundError, store, "it has no metadata"));
  auto metadata = propertyListWithData(**plist);
  if (!metadata || !metadata->isDictionary()) {
    return fail(storeError(kPropertyListReadCorruptError, store, "its metadata is not a dictionary"));
  }

  auto model = modelFromCachedContent(**content, store.string());
  if (!model) return fail(model.error());
  if (!(*model)->isCompatibleWithStoreMetadata(metadata->asDictionary())) {
    std::string differing;
    const Value& recorded = (*metadata)["NSStoreModelVersionHashes"];
    const auto computed = (*model)->entityVersionHashes();
    for (const auto& [name, hash] : computed) {
      const Value& theirs = recorded[name];
      if (theirs.isData() &&
          std::equal(theirs.asData().begin(), theirs.asData().end(), hash.begin(), hash.end())) {
        continue;
      }
      differing += differing.empty() ? "" : ", ";
      differing += name;
    }
    if (recorded.isDictionary()) {
      for (const auto& [name, value] : recorded.asDictionary()) {
        if (!computed.contains(name)) differing += (differing.empty() ? "" : ", ") + name;
      }
    }
    return fail(storeError(kPersistentStoreIncompatibleVersionHashError, store,
                           fmt::format("the cached model's version hashes are not the store's (entities: {})",
                                       differing.empty() ? "none recorded" : differing)));
  }
  return model;
}

}  // namespace tesselune
