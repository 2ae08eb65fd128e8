// CorrelatedPrecursor: its keyed archive, and its encoder container in JSON and property-list form.

#include "model/correlated_precursor.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdlib>

#include "foundation/keyed_archiver.h"
#include "foundation/keyed_unarchiver.h"
#include "foundation/number_text.h"
#include "foundation/property_list.h"
#include "foundation/string_utilities.h"
#include "model/application_object.h"

namespace tesselune {

namespace {

constexpr std::string_view kId = "id";
constexpr std::string_view kPrecursorMZ = "precursorMZ";
constexpr std::string_view kCurveDistance = "curveDistance";
constexpr std::string_view kFragmentsIntensity = "fragmentsIntensity";
constexpr std::string_view kPrecursorIntensity = "precursorIntensity";
constexpr std::string_view kSelectionPrecursorURI = "selectionPrecursorURI";
constexpr std::string_view kPrecursorListURI = "precursorListURI";
constexpr std::string_view kCorrelatedFragmentIDs = "correlatedFragmentIDs";

// The texts a decoding error bridged to the platform's error shows.
Error keyNotFound(std::string_view key) {
  return Error(std::string(kCocoaErrorDomain), kCoderValueNotFoundError,
               fmt::format("The data couldn’t be read because it is missing. (No value associated with key "
                           "CodingKeys(stringValue: \"{}\", intValue: nil) (\"{}\").)",
                           key, key));
}

Error typeMismatch(std::string_view key, std::string_view expected) {
  return Error(std::string(kCocoaErrorDomain), kCoderReadCorruptError,
               fmt::format("The data couldn’t be read because it isn’t in the correct format. (Expected to "
                           "decode {} for key \"{}\".)",
                           expected, key));
}

Error corruptContainer(std::string_view why) {
  return Error(std::string(kCocoaErrorDomain), kCoderReadCorruptError,
               fmt::format("The data couldn’t be read because it isn’t in the correct format. ({})", why));
}

Error invalidValue(std::string_view why) {
  return Error(std::string(kCocoaErrorDomain), kCoderInvalidValueError,
               fmt::format("The data couldn’t be written because it isn’t in the correct format. ({})", why));
}

Error retrievalError(std::string_view message) {
  return Error(std::string(kTesseluneErrorDomain), kStoreRetrievalErrorCode, std::string(message));
}

// ---- A small JSON codec: the container format of JSONEncoder / JSONDecoder for the value trees
// built below (objects, arrays, strings, numbers). Depth is bounded; numbers are doubles.

constexpr int kMaxJsonDepth = 64;

void writeJsonString(std::string& out, std::string_view text) {
  out += '"';
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '/':
        out += "\\/";
        break;  // JSONEncoder escapes slashes unless told otherwise
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      default:
        if (c < 0x20) {
          out += fmt::format("\\u{:04x}", c);
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

Status writeJson(std::string& out, const Value& value) {
  switch (value.type()) {
    case Value::Type::Bool:
      out += value.asBool() ? "true" : "false";
      return {};
    case Value::Type::Integer:
      out += fmt::format("{}", value.asInteger());
      return {};
    case Value::Type::Double:
      if (!std::isfinite(value.asDouble())) return fail(invalidValue("a real number that is not finite"));
      out += fmt::format("{}", value.asDouble());
      return {};
    case Value::Type::String:
      writeJsonString(out, value.asString());
      return {};
    case Value::Type::Array: {
      out += '[';
      bool first = true;
      for (const Value& item : value.asArray()) {
        if (!first) out += ',';
        first = false;
        if (auto status = writeJson(out, item); !status) return status;
      }
      out += ']';
      return {};
    }
    case Value::Type::Dictionary:
    default:
      break;
  }
  if (!value.isDictionary()) return fail(invalidValue("a value JSON cannot hold"));
  out += '{';
  bool first = true;
  for (const auto& [key, item] : value.asDictionary()) {
    if (!first) out += ',';
    first = false;
    writeJsonString(out, key);
    out += ':';
    if (auto status = writeJson(out, item); !status) return status;
  }
  out += '}';
  return {};
}

class JsonReader {
 public:
  explicit JsonReader(std::string_view text) : text_(text) {}

  Expected<Value> document() {
    auto value = parse(0);
    if (!value) return value;
    skipSpace();
    if (pos_ != text_.size()) return fail(corruptContainer("Garbage at end of the JSON text."));
    return value;
  }

 private:
  void skipSpace() {
    while (pos_ < text_.size() &&
           (text_[pos_] == ' ' || text_[pos_] == '\t' || text_[pos_] == '\n' || text_[pos_] == '\r'))
      ++pos_;
  }
  bool consume(std::string_view word) {
    if (text_.substr(pos_, word.size()) != word) return false;
    pos_ += word.size();
    return true;
  }
  std::unexpected<Error> bad() const {
    return fail(corruptContainer(fmt::format("The given data was not valid JSON (at offset {}).", pos_)));
  }

  Expected<Value> parse(int depth) {
    if (depth > kMaxJsonDepth) return fail(corruptContainer("JSON nested too deeply."));
    skipSpace();
    if (pos_ >= text_.size()) return bad();
    const char c = text_[pos_];
    if (c == '{') return object(depth);
    if (c == '[') return array(depth);
    if (c == '"') return string();
    if (consume("true")) return Value(true);
    if (consume("false")) return Value(false);
    if (consume("null")) return Value();
    return number();
  }

  Expected<Value> object(int depth) {
    ++pos_;
    Dictionary dictionary;
    skipSpace();
    if (consume("}")) return Value(std::move(dictionary));
    while (true) {
      skipSpace();
      if (pos_ >= text_.size() || text_[pos_] != '"') return bad();
      auto key = string();
      if (!key) return key;
      skipSpace();
      if (!consume(":")) return bad();
      auto item = parse(depth + 1);
      if (!item) return item;
      dictionary.insert_or_assign(key->asString(), std::move(*item));
      skipSpace();
      if (consume("}")) return Value(std::move(dictionary));
      if (!consume(",")) return bad();
    }
  }

  Expected<Value> array(int depth) {
    ++pos_;
    Array items;
    skipSpace();
    if (consume("]")) return Value(std::move(items));
    while (true) {
      auto item = parse(depth + 1);
      if (!item) return item;
      items.push_back(std::move(*item));
      skipSpace();
      if (consume("]")) return Value(std::move(items));
      if (!consume(",")) return bad();
    }
  }

  std::optional<unsigned> hex4() {
    if (pos_ + 4 > text_.size()) return std::nullopt;
    unsigned value = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = text_[pos_++];
      value <<= 4;
      if (c >= '0' && c <= '9')
        value |= static_cast<unsigned>(c - '0');
      else if (c >= 'a' && c <= 'f')
        value |= static_cast<unsigned>(c - 'a' + 10);
      else if (c >= 'A' && c <= 'F')
        value |= static_cast<unsigned>(c - 'A' + 10);
      else
        return std::nullopt;
    }
    return value;
  }

  Expected<Value> string() {
    ++pos_;
    std::u16string units;
    std::string out;
    while (pos_ < text_.size() && text_[pos_] != '"') {
      const unsigned char c = static_cast<unsigned char>(text_[pos_]);
      if (c < 0x20) return bad();
      if (c != '\\') {
        out += static_cast<char>(c);
        ++pos_;
        continue;
      }
      if (++pos_ >= text_.size()) return bad();
      const char escape = text_[pos_++];
      switch (escape) {
        case '"':
          out += '"';
          break;
        case '\\':
          out += '\\';
          break;
        case '/':
          out += '/';
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          auto unit = hex4();
          if (!unit) return bad();
          std::u16string pair(1, static_cast<char16_t>(*unit));
          if (*unit >= 0xD800 && *unit < 0xDC00 && consume("\\u")) {
            auto low = hex4();
            if (!low) return bad();
            pair += static_cast<char16_t>(*low);
          }
          out += utf16ToUtf8(pair);
          break;
        }
        default:
          return bad();
      }
    }
    if (!consume("\"")) return bad();
    if (!isValidUtf8(out)) return bad();
    return Value(std::move(out));
  }

  Expected<Value> number() {
    const std::size_t start = pos_;
    while (pos_ < text_.size() &&
           std::string_view("+-0123456789.eE").find(text_[pos_]) != std::string_view::npos)
      ++pos_;
    if (start == pos_) return bad();
    const auto d = parseDouble(text_.substr(start, pos_ - start));
    if (!d) return bad();
    return Value(*d);
  }

  std::string_view text_;
  std::size_t pos_ = 0;
};

// ---- The container's value tree: how each format holds UUIDs and URLs.

Value urlInContainer(const Url& url, ContainerFormat format) {
  if (format == ContainerFormat::Json) return Value(url.absoluteString());  // JSONEncoder's own rule
  Dictionary keyed{{"relative", Value(url.relativeString())}};
  if (const Url* base = url.baseUrl()) keyed.emplace("base", urlInContainer(*base, format));
  return Value(std::move(keyed));
}

std::optional<Url> urlFromContainer(const Value& value, int depth = 0) {
  if (value.isString()) return Url::parse(value.asString());
  if (!value.isDictionary() || depth > 8 || !value["relative"].isString()) return std::nullopt;
  const Value& base = value["base"];
  if (base.isNull()) return Url::parse(value["relative"].asString());
  auto baseUrl = urlFromContainer(base, depth + 1);
  if (!baseUrl) return std::nullopt;
  return Url::parse(value["relative"].asString(), *baseUrl);
}

}  // namespace

const std::vector<std::string_view>& CorrelatedPrecursor::codingKeys() {
  static const std::vector<std::string_view> keys = {kId,
                                                     kPrecursorMZ,
                                                     kCurveDistance,
                                                     kFragmentsIntensity,
                                                     kPrecursorIntensity,
                                                     kSelectionPrecursorURI,
                                                     kPrecursorListURI,
                                                     kCorrelatedFragmentIDs};
  return keys;
}

CorrelatedPrecursor::CorrelatedPrecursor(Uuid id, double precursorMZ, double curveDistance,
                                         ManagedObjectID precursorSelectionID,
                                         std::shared_ptr<StoreEnvironment> application)
    : application_(std::move(application)),
      id_(id),
      precursorMZ_(precursorMZ),
      curveDistance_(curveDistance),
      precursorSelectionID_(std::move(precursorSelectionID)) {}

CorrelatedPrecursor::CorrelatedPrecursor(Blank, std::shared_ptr<StoreEnvironment> application)
    : application_(std::move(application)) {}

CodingClass CorrelatedPrecursor::codingClass(std::shared_ptr<StoreEnvironment> application) {
  return CodingClass{{std::string(kCorrelatedPrecursorClassName), "NSObject"}, [application] {
                       return ObjectPtr(std::shared_ptr<CorrelatedPrecursor>(
                           new CorrelatedPrecursor(Blank{}, decodingEnvironment(application))));
                     }};
}

std::vector<std::string> CorrelatedPrecursor::classChain() const {
  return {std::string(kCorrelatedPrecursorClassName), "NSObject"};
}

Value CorrelatedPrecursor::valueForKey(std::string_view key) const {
  if (key == kId) return Value(id_);
  if (key == kPrecursorMZ) return Value(precursorMZ_);
  if (key == kCurveDistance) return Value(curveDistance_);
  if (key == kFragmentsIntensity) return Value(fragmentsIntensity_);
  if (key == kPrecursorIntensity) return Value(precursorIntensity_);
  if (key == "requiresIntensitiesUpdate") return Value(requiresIntensitiesUpdate_);
  return Object::valueForKey(key);
}

void CorrelatedPrecursor::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeObject(Value(id_), kId);
  coder.encodeDouble(precursorMZ_, kPrecursorMZ);
  coder.encodeDouble(curveDistance_, kCurveDistance);
  coder.encodeDouble(fragmentsIntensity_, kFragmentsIntensity);
  coder.encodeDouble(precursorIntensity_, kPrecursorIntensity);
  // An empty selection ID has no URI, as the platform's plainly made ID has none.
  coder.encodeObject(
      isEmptyObjectID(precursorSelectionID_) ? Value() : Value(precursorSelectionID_.URIRepresentation()),
      kSelectionPrecursorURI);
  if (precursorListID_) coder.encodeObject(Value(precursorListID_->URIRepresentation()), kPrecursorListURI);
  ValueSet fragments;
  for (const Uuid& fragment : correlatedFragmentIDs_) fragments.insert(Value(fragment));
  coder.encodeObject(Value(std::move(fragments)), kCorrelatedFragmentIDs);
}

Status CorrelatedPrecursor::initWithCoder(KeyedUnarchiver& coder) {
  context_ = WeakContext();
  fragmentsIntensity_ = 0;
  precursorIntensity_ = 0;
  precursorListID_.reset();
  correlatedFragmentIDs_.clear();
  requiresIntensitiesUpdate_ = false;
  const PersistentStoreCoordinator* coordinator = decodingPersistentStoreCoordinator(application_);

  const Value id = coder.decodeObjectForKey(kId);
  if (!id.isUuid()) return fail(corruptArchiveError("a correlated precursor without an id"));
  id_ = id.asUuid();
  precursorMZ_ = coder.decodeDoubleForKey(kPrecursorMZ);
  curveDistance_ = coder.decodeDoubleForKey(kCurveDistance);
  fragmentsIntensity_ = coder.decodeDoubleForKey(kFragmentsIntensity);
  precursorIntensity_ = coder.decodeDoubleForKey(kPrecursorIntensity);

  const Value selection = coder.decodeObjectForKey(kSelectionPrecursorURI);
  std::optional<ManagedObjectID> selectionID;
  if (selection.isUrl()) selectionID = objectIDForURI(coordinator, selection.asUrl());
  precursorSelectionID_ = selectionID ? *selectionID : ManagedObjectID{};

  const Value list = coder.decodeObjectForKey(kPrecursorListURI);
  if (list.isUrl()) precursorListID_ = objectIDForURI(coordinator, list.asUrl());

  const Value fragments = coder.decodeObjectForKey(kCorrelatedFragmentIDs);
  if (fragments.isSet()) {
    std::set<Uuid> ids;
    bool allUuids = true;
    for (const Value& fragment : fragments.asSet()) {
      if (!fragment.isUuid()) {
        allUuids = false;
        break;
      }
      ids.insert(fragment.asUuid());
    }
    if (allUuids) correlatedFragmentIDs_ = std::move(ids);
  }
  if (const auto& error = coder.error()) return fail(*error);
  return {};
}

Expected<Bytes> CorrelatedPrecursor::encodeToContainer(ContainerFormat format) const {
  if (isEmptyObjectID(precursorSelectionID_))
    return fail(invalidValue("The precursor selection has no URI."));
  Dictionary keyed;
  keyed.emplace(kId, Value(id_.string()));
  keyed.emplace(kPrecursorMZ, Value(precursorMZ_));
  keyed.emplace(kCurveDistance, Value(curveDistance_));
  keyed.emplace(kFragmentsIntensity, Value(fragmentsIntensity_));
  keyed.emplace(kPrecursorIntensity, Value(precursorIntensity_));
  keyed.emplace(kSelectionPrecursorURI, urlInContainer(precursorSelectionID_.URIRepresentation(), format));
  if (precursorListID_)
    keyed.emplace(kPrecursorListURI, urlInContainer(precursorListID_->URIRepresentation(), format));
  Array fragments;
  for (const Uuid& fragment : correlatedFragmentIDs_) fragments.emplace_back(fragment.string());
  keyed.emplace(kCorrelatedFragmentIDs, Value(std::move(fragments)));

  if (format == ContainerFormat::PropertyList) return dataWithPropertyList(Value(std::move(keyed)));
  std::string json;
  if (auto status = writeJson(json, Value(std::move(keyed))); !status) return fail(status.error());
  return Bytes(json.begin(), json.end());
}

Expected<std::shared_ptr<CorrelatedPrecursor>> CorrelatedPrecursor::decodeFromContainer(
    std::span<const std::uint8_t> data, ContainerFormat format,
    std::shared_ptr<StoreEnvironment> application) {
  Expected<Value> tree =
      format == ContainerFormat::Json
          ? JsonReader(std::string_view(reinterpret_cast<const char*>(data.data()), data.size())).document()
          : propertyListWithData(data);
  if (!tree) return fail(tree.error());
  if (!tree->isDictionary()) return fail(corruptContainer("Expected to decode a keyed container."));

  auto required = [&](std::string_view key) -> Expected<Value> {
    const Value& value = (*tree)[key];
    if (value.isNull()) return fail(keyNotFound(key));
    return value;
  };
  auto real = [&](std::string_view key) -> Expected<double> {
    auto value = required(key);
    if (!value) return fail(value.error());
    if (!value->isDouble() && !value->isInteger()) return fail(typeMismatch(key, "Double"));
    return value->doubleValue();
  };
  auto url = [&](std::string_view key) -> Expected<Url> {
    auto value = required(key);
    if (!value) return fail(value.error());
    auto parsed = urlFromContainer(*value);
    if (!parsed) return fail(typeMismatch(key, "URL"));
    return *parsed;
  };

  auto precursor = std::shared_ptr<CorrelatedPrecursor>(new CorrelatedPrecursor(Blank{}, application));
  auto id = required(kId);
  if (!id) return fail(id.error());
  if (!id->isString()) return fail(typeMismatch(kId, "UUID"));
  auto uuid = Uuid::parse(id->asString());
  if (!uuid) return fail(corruptContainer("Attempted to decode UUID from invalid UUID string."));
  precursor->id_ = *uuid;

  double* doubles[] = {&precursor->precursorMZ_, &precursor->curveDistance_, &precursor->fragmentsIntensity_,
                       &precursor->precursorIntensity_};
  const std::string_view doubleKeys[] = {kPrecursorMZ, kCurveDistance, kFragmentsIntensity,
                                         kPrecursorIntensity};
  for (std::size_t i = 0; i < 4; ++i) {
    auto value = real(doubleKeys[i]);
    if (!value) return fail(value.error());
    *doubles[i] = *value;
  }

  auto selection = url(kSelectionPrecursorURI);
  if (!selection) return fail(selection.error());
  const PersistentStoreCoordinator* coordinator = delegatePersistentStoreCoordinator(application);
  if (coordinator == nullptr)
    return fail(retrievalError("Error when trying to retrieve the store coordinator of the application."));
  auto selectionID = objectIDForURI(coordinator, *selection);
  if (!selectionID)
    return fail(retrievalError("Error when trying to retrieve the precursor selection from the store."));
  precursor->precursorSelectionID_ = *selectionID;

  auto list = url(kPrecursorListURI);
  if (!list) return fail(list.error());
  auto listID = objectIDForURI(coordinator, *list);
  if (!listID)
    return fail(retrievalError("Error when trying to retrieve the precursor list from the store."));
  precursor->precursorListID_ = *listID;

  auto fragments = required(kCorrelatedFragmentIDs);
  if (!fragments) return fail(fragments.error());
  if (!fragments->isArray()) return fail(typeMismatch(kCorrelatedFragmentIDs, "Set<UUID>"));
  for (const Value& fragment : fragments->asArray()) {
    auto fragmentID = fragment.isString() ? Uuid::parse(fragment.asString()) : std::nullopt;
    if (!fragmentID) return fail(typeMismatch(kCorrelatedFragmentIDs, "UUID"));
    precursor->correlatedFragmentIDs_.insert(*fragmentID);
  }

  precursor->requiresIntensitiesUpdate_ =
      precursor->precursorIntensity_ == 0.0 && precursor->fragmentsIntensity_ == 0.0;
  return precursor;
}

}  // namespace tesselune
