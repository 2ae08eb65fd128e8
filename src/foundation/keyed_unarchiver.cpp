// KeyedUnarchiver: decodes an archive's object table on demand, UID by UID, caching what it has
// decoded so that shared objects stay shared and cycles through objects resolve.

#include "foundation/keyed_unarchiver.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <unordered_map>

#include "foundation/attributed_string.h"
#include "foundation/plist_tree.h"

namespace tesselune {

namespace {

// Nesting of objects inside objects beyond which an archive is rejected (each level is a C++ call).
constexpr std::size_t kMaxDecodingDepth = 256;

using Chain = std::vector<std::string>;

enum class Kind {
  Array,
  MutableArray,
  OrderedSet,
  MutableOrderedSet,
  Set,
  MutableSet,
  Dictionary,
  MutableDictionary,
  String,
  MutableString,
  Data,
  MutableData,
  Url,
  Uuid,
  Date,
  Null,
};

// The Foundation classes decoded into Values, by archived name; their chains are foundationClassChain's.
const std::map<std::string, Kind, std::less<>>& builtins() {
  static const std::map<std::string, Kind, std::less<>> table = {
      {"NSArray", Kind::Array},
      {"NSMutableArray", Kind::MutableArray},
      {"NSOrderedSet", Kind::OrderedSet},
      {"NSMutableOrderedSet", Kind::MutableOrderedSet},
      {"NSSet", Kind::Set},
      {"NSMutableSet", Kind::MutableSet},
      {"NSDictionary", Kind::Dictionary},
      {"NSMutableDictionary", Kind::MutableDictionary},
      {"NSString", Kind::String},
      {"NSMutableString", Kind::MutableString},
      {"NSData", Kind::Data},
      {"NSMutableData", Kind::MutableData},
      {"NSURL", Kind::Url},
      {"NSUUID", Kind::Uuid},
      {"NSDate", Kind::Date},
      {"NSNull", Kind::Null},
  };
  return table;
}

}  // namespace

const ClassSet& foundationClasses() {
  static const ClassSet classes = [] {
    ClassSet set{"NSString", "NSNumber", "NSData", "NSAttributedString", "NSMutableAttributedString"};
    for (const auto& [name, builtin] : builtins()) set.insert(name);
    return set;
  }();
  return classes;
}

struct KeyedUnarchiver::Impl {
  struct Slot {
    enum State : std::uint8_t { kNew, kDecoding, kDone };
    State state = kNew;
    Value value;
    std::uint64_t weight = 1;  // Value nodes a copy of `value` makes
    std::shared_ptr<const Chain> chain;
    bool allowsBackReferences = false;
  };
  struct Context {
    plist_t dict;
    std::size_t unkeyed = 0;
  };

  plist::PlistPtr tree;
  std::vector<plist_t> objects;  // the "$objects" table, indexed by UID
  std::uint64_t count = 0;
  bool secure = true;
  std::unordered_map<std::string, CodingClass> ownClasses;
  std::vector<Slot> slots;
  std::vector<Context> contexts;
  std::vector<const ClassSet*> allowed;  // innermost last; empty when decoding is not restricted
  std::optional<Error> error;
  std::size_t depth = 0;
  std::vector<const Object*> decoding;  // instances inside their initWithCoder, innermost last
  std::uint64_t spent = 0;              // Value nodes materialised so far
  std::uint64_t budget = 0;             // bound on `spent`, proportional to the archive
  KeyedUnarchiver* owner = nullptr;

  void fail(Error e) {
    if (!error) error = std::move(e);
  }

  plist_t item(std::string_view key) const {
    return plist_dict_get_item(contexts.back().dict, std::string(key).c_str());
  }

  bool charge(std::uint64_t nodes) {
    spent += nodes;
    if (spent <= budget) return true;
    fail(corruptArchiveError("shared collections expand too far"));
    return false;
  }

  bool permitted(const Chain& chain) {
    if (!secure) return true;
    if (allowed.empty()) {
      fail(corruptArchiveError(fmt::format("decoding '{}' needs the allowed classes", chain.front())));
      return false;
    }
    for (const std::string& name : chain) {
      if (allowed.back()->contains(name)) return true;
    }
    fail(corruptArchiveError(fmt::format("value of unexpected class '{}'; allowed classes are '{}'",
                                         chain.front(), fmt::join(*allowed.back(), ", "))));
    return false;
  }

  Value decodeKey(std::string_view key) {
    if (error) return {};
    plist_t node = item(plist::archiveKey(key));
    if (node == nullptr) return {};
    auto uid = plist::uidValue(node);
    if (!uid) {
      fail(corruptArchiveError(fmt::format("the value for key '{}' is not an object reference", key)));
      return {};
    }
    return decodeUid(*uid);
  }

  Value decodeUid(std::uint64_t uid) {
    if (error || uid == 0) return {};
    if (uid >= count) {
      fail(corruptArchiveError(fmt::format("reference {} is beyond the {} archived objects", uid, count)));
      return {};
    }
    Slot& slot = slots[uid];
    if (slot.state == Slot::kDone) {
      if (!permitted(*slot.chain) || !charge(slot.weight)) return {};
      return slot.value;
    }
    if (slot.state == Slot::kDecoding) {
      // Only an object of a class that keeps such references weak can be referred to while it is
      // being decoded; a Value cannot contain itself, and a strong cycle would never be freed.
      if (!slot.value.isObject()) {
        fail(corruptArchiveError("a collection contains itself"));
        return {};
      }
      if (!slot.allowsBackReferences) {
        fail(corruptArchiveError(
            fmt::format("an object of class {} refers back to itself", slot.chain->front())));
        return {};
      }
      if (!permitted(*slot.chain) || !charge(1)) return {};
      return slot.value;
    }
    if (depth >= kMaxDecodingDepth) {
      fail(corruptArchiveError("objects nested too deeply"));
      return {};
    }
    ++depth;
    decodeNew(uid);
    --depth;
    if (error) return {};
    return slots[uid].value;
  }

  void finish(std::uint64_t uid, Value value, std::uint64_t weight, std::shared_ptr<const Chain> chain) {
    Slot& slot = slots[uid];
    slot.value = std::move(value);
    slot.weight = weight;
    slot.chain = std::move(chain);
    slot.state = Slot::kDone;
  }

  void decodeNew(std::uint64_t uid) {
    static const auto stringChain = std::make_shared<const Chain>(foundationClassChain("NSString"));
    static const auto numberChain = std::make_shared<const Chain>(foundationClassChain("NSNumber"));
    static const auto dataChain = std::make_shared<const Chain>(foundationClassChain("NSData"));
    plist_t node = objects[uid];
    switch (node ? plist_get_node_type(node) : PLIST_NONE) {
      case PLIST_STRING:
        if (!permitted(*stringChain) || !charge(1)) return;
        return finish(uid, Value(std::string(*plist::stringValue(node))), 1, stringChain);
      case PLIST_UINT:
        if (!permitted(*numberChain) || !charge(1)) return;
        return finish(uid, Value(static_cast<std::int64_t>(*plist::unsignedValue(node))), 1, numberChain);
      case PLIST_REAL: {
        if (!permitted(*numberChain) || !charge(1)) return;
        double d = 0;
        plist_get_real_val(node, &d);
        return finish(uid, Value(d), 1, numberChain);
      }
      case PLIST_BOOLEAN: {
        if (!permitted(*numberChain) || !charge(1)) return;
        std::uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return finish(uid, Value(b != 0), 1, numberChain);
      }
      case PLIST_DATA: {
        if (!permitted(*dataChain) || !charge(1)) return;
        std::uint64_t length = 0;
        const char* p = plist_get_data_ptr(node, &length);
        return finish(uid, p ? Value(Bytes(p, p + length)) : Value(Bytes()), 1, dataChain);
      }
      case PLIST_DICT:
        if (!plist::uidValue(node)) return decodeInstance(uid, node);
        [[fallthrough]];
      default:
        return fail(corruptArchiveError(fmt::format("archived object {} is of no archivable type", uid)));
    }
  }

  // An object dictionary: resolve its class, then decode it as a Foundation class or through the
  // class's initWithCoder.
  void decodeInstance(std::uint64_t uid, plist_t dict) {
    auto classUid = plist::uidValue(plist_dict_get_item(dict, "$class"));
    if (!classUid || *classUid == 0 || *classUid >= count) {
      return fail(corruptArchiveError(fmt::format("archived object {} has no class", uid)));
    }
    plist_t classNode = objects[*classUid];
    auto className = plist::stringValue(plist_dict_get_item(classNode, "$classname"));
    if (!plist::isType(classNode, PLIST_DICT) || !className) {
      return fail(corruptArchiveError(fmt::format("archived object {} has a malformed class", uid)));
    }
    std::vector<std::string> names{std::string(*className)};
    if (plist_t classes = plist_dict_get_item(classNode, "$classes"); plist::isType(classes, PLIST_ARRAY)) {
      for (plist_t item : plist::arrayItems(classes)) {
        if (auto name = plist::stringValue(item)) names.emplace_back(*name);
      }
    }
    for (const std::string& name : names) {
      if (auto cls = lookup(name)) return decodeCoded(uid, dict, *cls);
      if (auto it = builtins().find(name); it != builtins().end()) {
        auto chain = std::make_shared<const Chain>(foundationClassChain(name));
        if (!permitted(*chain)) return;
        slots[uid].state = Slot::kDecoding;
        return decodeBuiltin(uid, dict, it->second, std::move(chain));
      }
    }
    fail(corruptArchiveError(fmt::format("cannot decode object of class ({})", names.front())));
  }

  std::optional<CodingClass> lookup(const std::string& name) const {
    if (auto it = ownClasses.find(name); it != ownClasses.end()) return it->second;
    if (auto cls = ClassRegistry::shared().classNamed(name)) return cls;
    if (name == "NSAttributedString" || name == "NSMutableAttributedString") {
      const bool isMutable = name == "NSMutableAttributedString";
      return CodingClass{foundationClassChain(name), [isMutable] {
                           return std::make_shared<AttributedString>(
                               std::string(), std::vector<AttributedString::Run>(), isMutable);
                         }};
    }
    return std::nullopt;
  }

  void decodeCoded(std::uint64_t uid, plist_t dict, const CodingClass& cls) {
    auto chain = std::make_shared<const Chain>(cls.classes.empty() ? Chain{"NSObject"} : cls.classes);
    if (!permitted(*chain) || !charge(1)) return;
    ObjectPtr object = cls.make ? cls.make() : nullptr;
    auto* coding = dynamic_cast<Coding*>(object.get());
    if (coding == nullptr)
      return fail(corruptArchiveError(fmt::format("class {} cannot be decoded", chain->front())));
    Slot& slot = slots[uid];
    slot.state = Slot::kDecoding;
    slot.value = Value(object);
    slot.chain = chain;
    slot.allowsBackReferences = cls.allowsBackReferences;
    contexts.push_back({dict});
    decoding.push_back(object.get());
    Status status = coding->initWithCoder(*owner);
    decoding.pop_back();
    contexts.pop_back();
    if (!status) return fail(status.error());
    if (!error) finish(uid, Value(object), 1, std::move(chain));
  }

  // The UIDs of an array-valued key ("NS.objects", "NS.keys").
  std::optional<std::vector<std::uint64_t>> uidList(plist_t dict, const char* key) {
    plist_t array = plist_dict_get_item(dict, key);
    if (!plist::isType(array, PLIST_ARRAY)) {
      fail(corruptArchiveError(fmt::format("'{}' is missing or not an array", key)));
      return std::nullopt;
    }
    std::vector<std::uint64_t> uids;
    const std::vector<plist_t> items = plist::arrayItems(array);
    uids.reserve(items.size());
    for (plist_t item : items) {
      auto uid = plist::uidValue(item);
      if (!uid) {
        fail(corruptArchiveError(fmt::format("'{}' holds something other than object references", key)));
        return std::nullopt;
      }
      uids.push_back(*uid);
    }
    return uids;
  }

  // Decodes the elements; `weight` receives the nodes they add.
  std::optional<Array> elements(const std::vector<std::uint64_t>& uids, std::uint64_t& weight) {
    Array items;
    items.reserve(uids.size());
    for (std::uint64_t uid : uids) {
      items.push_back(decodeUid(uid));
      if (error) return std::nullopt;
      weight += uid != 0 && uid < count ? slots[uid].weight : 1;
    }
    return items;
  }

  // Strings and data of the mutable classes sit inline or behind a reference.
  std::optional<Value> inlineOrReferenced(plist_t dict, const char* key, plist_type type) {
    plist_t node = plist_dict_get_item(dict, key);
    if (plist::isType(node, type)) {
      if (type == PLIST_STRING) return Value(std::string(*plist::stringValue(node)));
      std::uint64_t length = 0;
      const char* p = plist_get_data_ptr(node, &length);
      return p ? Value(Bytes(p, p + length)) : Value(Bytes());
    }
    if (auto uid = plist::uidValue(node)) {
      allowed.push_back(&foundationClasses());
      Value v = decodeUid(*uid);
      allowed.pop_back();
      if ((type == PLIST_STRING && v.isString()) || (type == PLIST_DATA && v.isData())) return v;
    }
    if (!error) fail(corruptArchiveError(fmt::format("'{}' is missing or of the wrong type", key)));
    return std::nullopt;
  }

  void decodeBuiltin(std::uint64_t uid, plist_t dict, Kind kind, std::shared_ptr<const Chain> chain) {
    if (!charge(1)) return;
    std::uint64_t weight = 1;
    Value result;
    switch (kind) {
      case Kind::Array:
      case Kind::MutableArray:
      case Kind::Set:
      case Kind::MutableSet:
      case Kind::OrderedSet:
      case Kind::MutableOrderedSet: {
        std::optional<std::vector<std::uint64_t>> uids;
        if ((kind == Kind::OrderedSet || kind == Kind::MutableOrderedSet) &&
            plist_dict_get_item(dict, "NS.objects") == nullptr) {
          uids = orderedSetUids(dict);
        } else {
          uids = uidList(dict, "NS.objects");
        }
        if (!uids) return;
        auto items = elements(*uids, weight);
        if (!items) return;
        if (kind == Kind::Set || kind == Kind::MutableSet) {
          result = Value(ValueSet(*items));
        } else {
          result = Value(std::move(*items));
        }
        result.setMutable(kind == Kind::MutableArray || kind == Kind::MutableSet ||
                          kind == Kind::MutableOrderedSet);
        break;
      }
      case Kind::Dictionary:
      case Kind::MutableDictionary: {
        auto keyUids = uidList(dict, "NS.keys");
        if (!keyUids) return;
        auto valueUids = uidList(dict, "NS.objects");
        if (!valueUids) return;
        if (keyUids->size() != valueUids->size())
          return fail(corruptArchiveError("dictionary keys and values differ in number"));
        auto keys = elements(*keyUids, weight);
        if (!keys) return;
        auto values = elements(*valueUids, weight);
        if (!values) return;
        Dictionary entries;
        for (std::size_t i = 0; i < keys->size(); ++i) {
          if (!(*keys)[i].isString()) return fail(corruptArchiveError("a dictionary key is not a string"));
          entries.insert_or_assign((*keys)[i].asString(), std::move((*values)[i]));
        }
        result = Value(std::move(entries));
        result.setMutable(kind == Kind::MutableDictionary);
        break;
      }
      case Kind::String:
      case Kind::MutableString: {
        auto s = inlineOrReferenced(dict, "NS.string", PLIST_STRING);
        if (!s) return;
        result = std::move(s->setMutable(kind == Kind::MutableString));
        break;
      }
      case Kind::Data:
      case Kind::MutableData: {
        auto d = inlineOrReferenced(dict, "NS.data", PLIST_DATA);
        if (!d) return;
        result = std::move(d->setMutable(kind == Kind::MutableData));
        break;
      }
      case Kind::Url: {
        allowed.push_back(&foundationClasses());
        auto baseUid = plist::uidValue(plist_dict_get_item(dict, "NS.base"));
        Value base = baseUid ? decodeUid(*baseUid) : Value();
        Value relative = decodeUid(plist::uidValue(plist_dict_get_item(dict, "NS.relative")).value_or(0));
        allowed.pop_back();
        if (error) return;
        if (!relative.isString() || !(base.isNull() || base.isUrl()))
          return fail(corruptArchiveError("malformed NSURL"));
        auto url =
            base.isUrl() ? Url::parse(relative.asString(), base.asUrl()) : Url::parse(relative.asString());
        if (!url)
          return fail(corruptArchiveError(fmt::format("'{}' is not a valid URL", relative.asString())));
        result = Value(std::move(*url));
        break;
      }
      case Kind::Uuid: {
        plist_t node = plist_dict_get_item(dict, "NS.uuidbytes");
        std::uint64_t length = 0;
        const char* p = plist::isType(node, PLIST_DATA) ? plist_get_data_ptr(node, &length) : nullptr;
        auto uuid = p ? Uuid::fromBytes(reinterpret_cast<const std::uint8_t*>(p), length) : std::nullopt;
        if (!uuid) return fail(corruptArchiveError("malformed NSUUID"));
        result = Value(*uuid);
        break;
      }
      case Kind::Date: {
        plist_t node = plist_dict_get_item(dict, "NS.time");
        double t = 0;
        if (plist::isType(node, PLIST_REAL)) {
          plist_get_real_val(node, &t);
        } else if (auto i = plist::unsignedValue(node)) {
          t = static_cast<double>(static_cast<std::int64_t>(*i));
        } else {
          return fail(corruptArchiveError("malformed NSDate"));
        }
        result = Value(Date{t});
        break;
      }
      case Kind::Null:
        break;
    }
    finish(uid, std::move(result), weight, std::move(chain));
  }

  // Older ordered sets list their members under "NS.object.0", "NS.object.1", ...
  std::optional<std::vector<std::uint64_t>> orderedSetUids(plist_t dict) {
    std::vector<std::uint64_t> uids;
    for (std::uint32_t i = 0, n = plist_dict_get_size(dict); i < n; ++i) {
      plist_t node = plist_dict_get_item(dict, fmt::format("NS.object.{}", i).c_str());
      if (node == nullptr) break;
      auto uid = plist::uidValue(node);
      if (!uid) {
        fail(corruptArchiveError("an ordered set member is not an object reference"));
        return std::nullopt;
      }
      uids.push_back(*uid);
    }
    return uids;
  }

  // The scalar under a key: nothing when absent, a recorded error when not one of `types`.
  plist_t scalar(std::string_view key, std::initializer_list<plist_type> types) {
    if (error) return nullptr;
    plist_t node = item(plist::archiveKey(key));
    if (node == nullptr) return nullptr;
    for (plist_type t : types) {
      if (plist_get_node_type(node) == t) return node;
    }
    fail(corruptArchiveError(fmt::format("the value for key '{}' has the wrong type", key)));
    return nullptr;
  }
};

KeyedUnarchiver::KeyedUnarchiver(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {
  impl_->owner = this;
}

KeyedUnarchiver::~KeyedUnarchiver() = default;

Expected<std::unique_ptr<KeyedUnarchiver>> KeyedUnarchiver::create(std::span<const std::uint8_t> data,
                                                                   bool requiresSecureCoding) {
  auto tree = plist::parse(data);
  if (!tree)
    return fail(
        Error(std::string(kCocoaErrorDomain), kCoderReadCorruptError, tree.error().localizedDescription()));
  plist_t root = tree->get();
  if (!plist::isType(root, PLIST_DICT)) return fail(corruptArchiveError("the archive is not a dictionary"));
  auto archiver = plist::stringValue(plist_dict_get_item(root, "$archiver"));
  if (!archiver) return fail(corruptArchiveError("the archive names no archiver"));
  if (*archiver != "NSKeyedArchiver")
    return fail(corruptArchiveError(fmt::format("unknown archiver '{}'", *archiver)));
  auto version = plist::unsignedValue(plist_dict_get_item(root, "$version"));
  if (!version) return fail(corruptArchiveError("the archive has no version"));
  if (*version != 100000)
    return fail(corruptArchiveError(fmt::format("unsupported archive version {}", *version)));
  plist_t top = plist_dict_get_item(root, "$top");
  if (!plist::isType(top, PLIST_DICT))
    return fail(corruptArchiveError("the archive has no top-level objects"));
  plist_t objects = plist_dict_get_item(root, "$objects");
  if (!plist::isType(objects, PLIST_ARRAY) || plist_array_get_size(objects) == 0)
    return fail(corruptArchiveError("the archive has no object table"));

  auto impl = std::make_unique<Impl>();
  impl->objects = plist::arrayItems(objects);
  impl->count = impl->objects.size();
  impl->slots.resize(impl->count);
  impl->secure = requiresSecureCoding;
  impl->budget = 8 * impl->count + (std::uint64_t{1} << 20);
  impl->contexts.push_back({top});
  impl->tree = std::move(*tree);
  return std::unique_ptr<KeyedUnarchiver>(new KeyedUnarchiver(std::move(impl)));
}

Expected<Value> KeyedUnarchiver::unarchivedObjectOfClasses(const ClassSet& classes,
                                                           std::span<const std::uint8_t> data) {
  auto unarchiver = create(data, true);
  if (!unarchiver) return fail(unarchiver.error());
  if (!(*unarchiver)->containsValueForKey("root")) {
    return fail(Error(std::string(kCocoaErrorDomain), kCoderValueNotFoundError,
                      "The data couldn’t be read because it is missing. (no root object)"));
  }
  Value root = (*unarchiver)->decodeObjectOfClasses(classes, "root");
  if ((*unarchiver)->error()) return fail(*(*unarchiver)->error());
  return root;
}

Expected<Value> KeyedUnarchiver::unarchiveTopLevelObjectWithData(std::span<const std::uint8_t> data) {
  auto unarchiver = create(data, false);
  if (!unarchiver) return fail(unarchiver.error());
  if (!(*unarchiver)->containsValueForKey("root")) {
    return fail(Error(std::string(kCocoaErrorDomain), kCoderValueNotFoundError,
                      "The data couldn’t be read because it is missing. (no root object)"));
  }
  Value root = (*unarchiver)->decodeObjectForKey("root");
  if ((*unarchiver)->error()) return fail(*(*unarchiver)->error());
  return root;
}

void KeyedUnarchiver::setClassForClassName(CodingClass cls, std::string_view className) {
  ClassRegistry::shared().setClass(className, std::move(cls));
}

void KeyedUnarchiver::setClass(CodingClass cls, std::string_view className) {
  impl_->ownClasses.insert_or_assign(std::string(className), std::move(cls));
}

bool KeyedUnarchiver::requiresSecureCoding() const {
  return impl_->secure;
}

bool KeyedUnarchiver::containsValueForKey(std::string_view key) const {
  return impl_->item(plist::archiveKey(key)) != nullptr;
}

Value KeyedUnarchiver::decodeObjectForKey(std::string_view key) {
  return impl_->decodeKey(key);
}

Value KeyedUnarchiver::decodeObjectOfClasses(const ClassSet& classes, std::string_view key) {
  impl_->allowed.push_back(&classes);
  Value v = impl_->decodeKey(key);
  impl_->allowed.pop_back();
  return v;
}

Value KeyedUnarchiver::decodeObject() {
  const std::string key = fmt::format("${}", impl_->contexts.back().unkeyed++);
  if (impl_->error) return {};
  plist_t node = impl_->item(key);
  if (node == nullptr) return {};
  auto uid = plist::uidValue(node);
  if (!uid) {
    impl_->fail(corruptArchiveError(fmt::format("the value for key '{}' is not an object reference", key)));
    return {};
  }
  return impl_->decodeUid(*uid);
}

bool KeyedUnarchiver::decodeBoolForKey(std::string_view key) {
  plist_t node = impl_->scalar(key, {PLIST_BOOLEAN, PLIST_UINT});
  if (node == nullptr) return false;
  if (auto i = plist::unsignedValue(node)) return *i != 0;
  std::uint8_t b = 0;
  plist_get_bool_val(node, &b);
  return b != 0;
}

std::int64_t KeyedUnarchiver::decodeInt64ForKey(std::string_view key) {
  plist_t node = impl_->scalar(key, {PLIST_UINT, PLIST_BOOLEAN, PLIST_REAL});
  if (node == nullptr) return 0;
  if (auto i = plist::unsignedValue(node)) return static_cast<std::int64_t>(*i);
  if (plist::isType(node, PLIST_BOOLEAN)) return decodeBoolForKey(key) ? 1 : 0;
  double d = 0;
  plist_get_real_val(node, &d);
  if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) {
    failWithError(
        corruptArchiveError(fmt::format("the value for key '{}' is too large for a 64-bit integer", key)));
    return 0;
  }
  return static_cast<std::int64_t>(d);
}

std::int32_t KeyedUnarchiver::decodeInt32ForKey(std::string_view key) {
  const std::int64_t v = decodeInt64ForKey(key);
  if (v < std::numeric_limits<std::int32_t>::min() || v > std::numeric_limits<std::int32_t>::max()) {
    failWithError(
        corruptArchiveError(fmt::format("the value for key '{}' is too large for a 32-bit integer", key)));
    return 0;
  }
  return static_cast<std::int32_t>(v);
}

double KeyedUnarchiver::decodeDoubleForKey(std::string_view key) {
  plist_t node = impl_->scalar(key, {PLIST_REAL, PLIST_UINT, PLIST_BOOLEAN});
  if (node == nullptr) return 0;
  if (auto i = plist::unsignedValue(node)) return static_cast<double>(static_cast<std::int64_t>(*i));
  if (plist::isType(node, PLIST_BOOLEAN)) return decodeBoolForKey(key) ? 1 : 0;
  double d = 0;
  plist_get_real_val(node, &d);
  return d;
}

Bytes KeyedUnarchiver::decodeBytesForKey(std::string_view key) {
  plist_t node = impl_->scalar(key, {PLIST_DATA});
  if (node == nullptr) return {};
  std::uint64_t length = 0;
  const char* p = plist_get_data_ptr(node, &length);
  return p ? Bytes(p, p + length) : Bytes();
}

std::optional<Uuid> KeyedUnarchiver::decodeDecodableUuid(std::string_view key) {
  static const ClassSet classes{"NSString", "NSUUID"};
  Value v = decodeObjectOfClasses(classes, key);
  if (v.isUuid()) return v.asUuid();
  if (v.isString()) {
    if (auto uuid = Uuid::parse(v.asString())) return uuid;
  }
  if (!v.isNull())
    failWithError(corruptArchiveError(fmt::format("the value for key '{}' is not a UUID", key)));
  return std::nullopt;
}

namespace {

std::optional<Url> urlFromContainer(const Value& v, int depth) {
  if (v.isUrl()) return v.asUrl();
  if (v.isString()) return Url::parse(v.asString());
  if (!v.isDictionary() || depth > 16 || !v["relative"].isString()) return std::nullopt;
  if (v["base"].isNull()) return Url::parse(v["relative"].asString());
  auto base = urlFromContainer(v["base"], depth + 1);
  if (!base) return std::nullopt;
  return Url::parse(v["relative"].asString(), *base);
}

}  // namespace

std::optional<Url> KeyedUnarchiver::decodeDecodableUrl(std::string_view key) {
  static const ClassSet classes{"NSDictionary", "NSString", "NSURL"};
  Value v = decodeObjectOfClasses(classes, key);
  if (v.isNull()) return std::nullopt;
  auto url = urlFromContainer(v, 0);
  if (!url) failWithError(corruptArchiveError(fmt::format("the value for key '{}' is not a URL", key)));
  return url;
}

std::optional<std::vector<std::string>> KeyedUnarchiver::decodeDecodableStrings(std::string_view key) {
  static const ClassSet classes{"NSArray", "NSString"};
  Value v = decodeObjectOfClasses(classes, key);
  if (v.isNull()) return std::nullopt;
  std::vector<std::string> strings;
  if (v.isArray()) {
    for (const Value& item : v.asArray()) {
      if (!item.isString()) break;
      strings.push_back(item.asString());
    }
    if (strings.size() == v.asArray().size()) return strings;
  }
  failWithError(corruptArchiveError(fmt::format("the value for key '{}' is not an array of strings", key)));
  return std::nullopt;
}

std::optional<std::vector<std::vector<double>>> KeyedUnarchiver::decodeDecodableDoubleArrays(
    std::string_view key) {
  static const ClassSet classes{"NSArray", "NSNumber"};
  Value v = decodeObjectOfClasses(classes, key);
  if (v.isNull()) return std::nullopt;
  std::vector<std::vector<double>> rows;
  bool ok = v.isArray();
  for (std::size_t i = 0; ok && i < v.count(); ++i) {
    const Value& row = v.at(i);
    ok = row.isArray();
    std::vector<double> numbers;
    for (std::size_t k = 0; ok && k < row.count(); ++k) {
      ok = row.at(k).isNumber() && !row.at(k).isBool();
      numbers.push_back(row.at(k).doubleValue());
    }
    rows.push_back(std::move(numbers));
  }
  if (ok) return rows;
  failWithError(
      corruptArchiveError(fmt::format("the value for key '{}' is not an array of arrays of numbers", key)));
  return std::nullopt;
}

void KeyedUnarchiver::failWithError(Error error) {
  impl_->fail(std::move(error));
}

bool KeyedUnarchiver::isBeingDecoded(const Object* object) const {
  return std::find(impl_->decoding.begin(), impl_->decoding.end(), object) != impl_->decoding.end();
}

const std::optional<Error>& KeyedUnarchiver::error() const {
  return impl_->error;
}

}  // namespace tesselune
