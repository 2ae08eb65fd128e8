// ManagedObjectModel: reading Xcode's model XML into descriptions, and the lookups on them.

#include "objectstore/description/managed_object_model.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <pugixml.hpp>
#include <set>
#include <sstream>

#include "foundation/number_text.h"
#include "foundation/property_list.h"
#include "objectstore/description/model_builder.h"

namespace tesselune {

namespace {

bool yes(pugi::xml_node node, const char* attribute) {
  return std::string_view(node.attribute(attribute).as_string()) == "YES";
}

Dictionary xmlUserInfo(pugi::xml_node node) {
  Dictionary info;
  for (pugi::xml_node entry : node.child("userInfo").children("entry")) {
    info.insert_or_assign(entry.attribute("key").as_string(), Value(entry.attribute("value").as_string()));
  }
  return info;
}

std::optional<AttributeType> attributeType(std::string_view name) {
  static const std::map<std::string_view, AttributeType> types = {
      {"Undefined", AttributeType::Undefined},
      {"Integer 16", AttributeType::Integer16},
      {"Integer 32", AttributeType::Integer32},
      {"Integer 64", AttributeType::Integer64},
      {"Decimal", AttributeType::Decimal},
      {"Double", AttributeType::Double},
      {"Float", AttributeType::Float},
      {"String", AttributeType::String},
      {"Boolean", AttributeType::Boolean},
      {"Date", AttributeType::Date},
      {"Binary", AttributeType::BinaryData},
      {"UUID", AttributeType::Uuid},
      {"URI", AttributeType::Uri},
      {"Transformable", AttributeType::Transformable},
      {"ObjectID", AttributeType::ObjectId},
  };
  auto it = types.find(name);
  if (it == types.end()) return std::nullopt;
  return it->second;
}

}  // namespace

Expected<std::shared_ptr<const ManagedObjectModel>> ModelBuilder::buildFromXml(std::string_view xml) {
  pugi::xml_document document;
  const pugi::xml_parse_result parsed = document.load_buffer(xml.data(), xml.size());
  if (!parsed) {
    return fail(
        error(fmt::format("the XML is malformed at byte {}: {}", parsed.offset, parsed.description())));
  }
  const pugi::xml_node root = document.child("model");
  if (!root) return fail(error("there is no <model> element"));

  auto model = std::make_shared<ManagedObjectModel>();
  if (const char* identifier = root.attribute("userDefinedModelVersionIdentifier").as_string(nullptr)) {
    model->versionIdentifiers_.emplace_back(identifier);
  }
  for (pugi::xml_node node : root.children("entity")) {
    auto entity = readXmlEntity(node);
    if (!entity) return fail(entity.error());
    if (auto s = addEntity(*model, std::move(*entity)); !s) return fail(s.error());
  }
  if (auto s = link(*model); !s) return fail(s.error());
  return std::shared_ptr<const ManagedObjectModel>(std::move(model));
}

// The default value of an attribute, converted to its type.
Expected<Value> ModelBuilder::xmlDefaultValue(pugi::xml_node node, AttributeType type,
                                              std::string_view where) const {
  if (type == AttributeType::Date) {
    const pugi::xml_attribute interval = node.attribute("defaultDateTimeInterval");
    return interval ? Value(Date{interval.as_double()}) : Value();
  }
  const pugi::xml_attribute attribute = node.attribute("defaultValueString");
  if (!attribute) return Value();
  const std::string_view text = attribute.as_string();
  auto bad = [&] {
    return fail(error(fmt::format("{} has the default \"{}\", not of its type", where, text)));
  };
  switch (type) {
    case AttributeType::Integer16:
    case AttributeType::Integer32:
    case AttributeType::Integer64: {
      std::int64_t v = 0;
      auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
      if (ec != std::errc() || end != text.data() + text.size()) return bad();
      return Value(v);
    }
    case AttributeType::Decimal:
    case AttributeType::Double:
    case AttributeType::Float: {
      auto d = parseDouble(text);
      if (!d) return bad();
      return Value(*d);
    }
    case AttributeType::Boolean:
      if (text == "YES" || text == "1") return Value(true);
      if (text == "NO" || text == "0") return Value(false);
      return bad();
    case AttributeType::String:
      return Value(std::string(text));
    default:
      return Value();
  }
}

Expected<std::unique_ptr<EntityDescription>> ModelBuilder::readXmlEntity(pugi::xml_node node) {
  auto entity = std::make_unique<EntityDescription>();
  entity->name_ = node.attribute("name").as_string();
  if (entity->name_.empty()) return fail(error("an <entity> has no name"));
  const std::string where = entityWhere(entity->name_);
  entity->className_ = node.attribute("representedClassName").as_string(entity->name_.c_str());
  entity->abstract_ = yes(node, "isAbstract");
  entity->superentityName_ = node.attribute("parentEntity").as_string();
  entity->versionHashModifier_ = node.attribute("versionHashModifier").as_string();
  entity->userInfo_ = xmlUserInfo(node);
  for (pugi::xml_node constraint : node.child("uniquenessConstraints").children("uniquenessConstraint")) {
    std::vector<std::string> names;
    for (pugi::xml_node part : constraint.children("constraint"))
      names.emplace_back(part.attribute("value").as_string());
    entity->uniquenessConstraints_.push_back(std::move(names));
  }
  for (pugi::xml_node index : node.child("compoundIndexes").children("compoundIndex")) {
    std::vector<std::string> names;
    for (pugi::xml_node part : index.children("index"))
      names.emplace_back(part.attribute("value").as_string());
    entity->compoundIndexes_.push_back(std::move(names));
  }

  std::set<std::string, std::less<>> seen;
  for (pugi::xml_node child : node.children()) {
    const std::string_view tag = child.name();
    if (tag != "attribute" && tag != "relationship") continue;
    const std::string name = child.attribute("name").as_string();
    if (name.empty()) return fail(error(fmt::format("{} has an <{}> without a name", where, tag)));
    if (!seen.insert(name).second) return fail(error(fmt::format("{} declares \"{}\" twice", where, name)));
    const std::string place = propertyWhere(entity->name_, tag == "relationship", name);

    std::unique_ptr<PropertyDescription> property;
    if (tag == "attribute") {
      auto attribute = std::make_unique<AttributeDescription>();
      const std::string_view typeName = child.attribute("attributeType").as_string();
      auto type = attributeType(typeName);
      if (!type) return fail(error(fmt::format("{} has the unknown type \"{}\"", place, typeName)));
      attribute->type_ = *type;
      auto defaultValue = xmlDefaultValue(child, *type, place);
      if (!defaultValue) return fail(defaultValue.error());
      attribute->defaultValue_ = std::move(*defaultValue);
      attribute->valueClassName_ = child.attribute("customClassName")
                                       .as_string(child.attribute("attributeValueClassName").as_string());
      attribute->transformerName_ = child.attribute("valueTransformerName").as_string();
      attribute->externalStorage_ = yes(child, "allowsExternalBinaryDataStorage");
      attribute->preserveAfterDeletion_ = yes(child, "preserveAfterDeletion");
      attribute->indexed_ = yes(child, "indexed");
      property = std::move(attribute);
    } else {
      auto relationship = std::make_unique<RelationshipDescription>();
      relationship->destinationName_ = child.attribute("destinationEntity").as_string();
      if (relationship->destinationName_.empty()) {
        return fail(error(fmt::format("{} has no destination entity", place)));
      }
      relationship->inverseName_ = child.attribute("inverseName").as_string();
      relationship->toMany_ = yes(child, "toMany");
      relationship->ordered_ = yes(child, "ordered");
      relationship->minCount_ = child.attribute("minCount").as_llong(0);
      relationship->maxCount_ = child.attribute("maxCount").as_llong(relationship->toMany_ ? 0 : 1);
      const std::string_view rule = child.attribute("deletionRule").as_string("Nullify");
      if (rule == "Nullify") {
        relationship->deleteRule_ = DeleteRule::Nullify;
      } else if (rule == "Cascade") {
        relationship->deleteRule_ = DeleteRule::Cascade;
      } else if (rule == "Deny") {
        relationship->deleteRule_ = DeleteRule::Deny;
      } else if (rule == "No Action") {
        relationship->deleteRule_ = DeleteRule::NoAction;
      } else {
        return fail(error(fmt::format("{} has the unknown deletion rule \"{}\"", place, rule)));
      }
      property = std::move(relationship);
    }
    property->name_ = name;
    property->entity_ = entity.get();
    property->optional_ = yes(child, "optional");
    property->transient_ = yes(child, "transient");
    property->versionHashModifier_ = child.attribute("versionHashModifier").as_string();
    property->userInfo_ = xmlUserInfo(child);
    entity->ownProperties_.push_back(std::move(property));
  }
  return entity;
}

const EntityDescription* EntityDescription::rootEntity() const {
  const EntityDescription* e = this;
  while (e->superentity_ != nullptr) e = e->superentity_;
  return e;
}

bool EntityDescription::isKindOfEntity(const EntityDescription& other) const {
  for (const EntityDescription* e = this; e != nullptr; e = e->superentity_) {
    if (e == &other) return true;
  }
  return false;
}

const EntityDescription* ManagedObjectModel::entityNamed(std::string_view name) const {
  auto it = entitiesByName_.find(name);
  return it == entitiesByName_.end() ? nullptr : it->second;
}

Expected<std::shared_ptr<const ManagedObjectModel>> ManagedObjectModel::modelWithXml(
    std::string_view xml, const std::string& source) {
  return ModelBuilder(source, ModelBuilder::Origin::Xml).buildFromXml(xml);
}

namespace {

Error fileError(const std::filesystem::path& path, std::string_view what) {
  return Error(std::string(kCocoaErrorDomain), kFileReadNoSuchFileError,
               fmt::format("The model \"{}\" cannot be read: {}.", path.string(), what));
}

Expected<std::string> readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return fail(fileError(path, "the file cannot be opened"));
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

Expected<std::shared_ptr<const ManagedObjectModel>> ManagedObjectModel::modelWithContentsOfFile(
    const std::filesystem::path& path) {
  std::error_code ec;
  std::filesystem::path file = path;
  if (path.extension() == ".xcdatamodeld") {
    // The current version is named in .xccurrentversion; a bundle with one version needs none.
    const std::filesystem::path current = path / ".xccurrentversion";
    std::string version;
    if (std::filesystem::exists(current, ec)) {
      auto text = readFile(current);
      if (!text) return fail(text.error());
      auto plist =
          propertyListWithData(std::span(reinterpret_cast<const std::uint8_t*>(text->data()), text->size()));
      if (!plist || !(*plist)["_XCCurrentVersionName"].isString()) {
        return fail(fileError(current, "it names no current version"));
      }
      version = (*plist)["_XCCurrentVersionName"].asString();
    } else {
      for (const auto& entry : std::filesystem::directory_iterator(path, ec)) {
        if (entry.path().extension() == ".xcdatamodel") {
          if (!version.empty()) return fail(fileError(path, "several versions and no .xccurrentversion"));
          version = entry.path().filename().string();
        }
      }
      if (version.empty()) return fail(fileError(path, "it holds no model version"));
    }
    file = path / version;
  }
  if (std::filesystem::is_directory(file, ec)) file /= "contents";
  auto xml = readFile(file);
  if (!xml) return fail(xml.error());
  return modelWithXml(*xml, file.string());
}

Expected<std::map<std::string, std::shared_ptr<const ManagedObjectModel>>>
ManagedObjectModel::modelVersionsInBundle(const std::filesystem::path& bundle) {
  std::error_code ec;
  std::map<std::string, std::shared_ptr<const ManagedObjectModel>> versions;
  for (const auto& entry : std::filesystem::directory_iterator(bundle, ec)) {
    if (entry.path().extension() != ".xcdatamodel") continue;
    auto model = modelWithContentsOfFile(entry.path());
    if (!model) return fail(model.error());
    versions.emplace(entry.path().stem().string(), std::move(*model));
  }
  if (ec) return fail(fileError(bundle, ec.message()));
  if (versions.empty()) return fail(fileError(bundle, "it holds no model version"));
  return versions;
}

}  // namespace tesselune
