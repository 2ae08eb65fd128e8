// KeyedArchiver: builds the archive's object table in the order NSKeyedArchiver does (an object's
// UID first, then what it encodes, then its class), then writes it through libplist.

#include "foundation/keyed_archiver.h"

#include <fmt/format.h>

#include <cstring>

#include "foundation/plist_tree.h"

namespace tesselune {

namespace {

// Deepest nesting of values and objects written; deeper trees fail rather than exhaust the stack.
constexpr std::size_t kMaxEncodingDepth = 512;

std::string escapedKey(std::string_view key) {
  return key.starts_with('$') ? "$" + std::string(key) : std::string(key);
}

const std::vector<std::string>& chainFor(std::string_view name) {
  static const std::map<std::string, std::vector<std::string>, std::less<>> chains = {
      {"NSArray", {"NSArray", "NSObject"}},
      {"NSMutableArray", {"NSMutableArray", "NSArray", "NSObject"}},
      {"NSSet", {"NSSet", "NSObject"}},
      {"NSMutableSet", {"NSMutableSet", "NSSet", "NSObject"}},
      {"NSDictionary", {"NSDictionary", "NSObject"}},
      {"NSMutableDictionary", {"NSMutableDictionary", "NSDictionary", "NSObject"}},
      {"NSMutableString", {"NSMutableString", "NSString", "NSObject"}},
      {"NSMutableData", {"NSMutableData", "NSData", "NSObject"}},
      {"NSURL", {"NSURL", "NSObject"}},
      {"NSUUID", {"NSUUID", "NSObject"}},
      {"NSDate", {"NSDate", "NSObject"}},
      {"NSNull", {"NSNull", "NSObject"}},
  };
  return chains.find(name)->second;
}

Error encodingError(std::string_view why) {
  return Error(std::string(kCocoaErrorDomain), kCoderInvalidValueError,
               fmt::format("The data couldn’t be written because it isn’t in the correct format. ({})", why));
}

}  // namespace

struct KeyedArchiver::Impl {
  struct Context {
    plist_t dict;
    std::size_t unkeyed = 0;
  };

  std::vector<plist::PlistPtr> objects;
  std::unordered_map<std::string, std::uint64_t> scalarUids;
  std::unordered_map<const Object*, std::uint64_t> objectUids;
  std::unordered_map<std::string, std::uint64_t> classUids;
  std::uint64_t nullObjectUid = 0;
  plist::PlistPtr top{plist_new_dict()};
  std::vector<Context> contexts;
  std::optional<Error> error;
  std::size_t depth = 0;
  bool finished = false;

  Impl() {
    objects.emplace_back(plist_new_string("$null"));
    contexts.push_back({top.get()});
  }

  void fail(Error e) {
    if (!error) error = std::move(e);
  }

  void set(std::string_view key, plist_t node) {
    plist_dict_set_item(contexts.back().dict, std::string(key).c_str(), node);
  }

  std::uint64_t append(plist_t node) {
    objects.emplace_back(node);
    return objects.size() - 1;
  }

  std::uint64_t reserve() { return append(nullptr); }

  std::uint64_t classUid(const std::vector<std::string>& chain) {
    auto [it, inserted] = classUids.try_emplace(chain.front(), 0);
    if (!inserted) return it->second;
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "$classname", plist_new_string(chain.front().c_str()));
    plist_t classes = plist_new_array();
    for (const std::string& name : chain) plist_array_append_item(classes, plist_new_string(name.c_str()));
    plist_dict_set_item(dict, "$classes", classes);
    it->second = append(dict);
    return it->second;
  }

  // A plain value, shared with any earlier one of the same kind and bits.
  std::uint64_t scalar(char kind, std::string_view bits, plist_t (*make)(std::string_view, const Value&),
                       const Value& value) {
    std::string key(1, kind);
    key.append(bits);
    auto [it, inserted] = scalarUids.try_emplace(std::move(key), 0);
    if (inserted) it->second = append(make(bits, value));
    return it->second;
  }

  // Encodes the contents of one object with a dictionary of its own, then adds its class.
  template <class Fill>
  std::uint64_t object(const std::vector<std::string>& chain, Fill fill, std::uint64_t uid = 0) {
    if (uid == 0) uid = reserve();
    plist_t dict = plist_new_dict();
    objects[uid].reset(dict);
    contexts.push_back({dict});
    fill();
    contexts.pop_back();
    plist_dict_set_item(dict, "$class", plist_new_uid(classUid(chain)));
    return uid;
  }

  std::uint64_t uidOfElement(const Value& value) {
    // Collections cannot hold nil; macOS stores NSNull's single instance instead.
    if (!value.isNull()) return encode(value);
    if (nullObjectUid == 0) nullObjectUid = object(chainFor("NSNull"), [] {});
    return nullObjectUid;
  }

  plist_t uidArray(const Array& values) {
    std::vector<std::uint64_t> uids;
    uids.reserve(values.size());
    for (const Value& v : values) uids.push_back(uidOfElement(v));
    plist_t array = plist_new_array();
    for (std::uint64_t uid : uids) plist_array_append_item(array, plist_new_uid(uid));
    return array;
  }

  std::uint64_t encode(const Value& value) {
    if (error) return 0;
    if (depth >= kMaxEncodingDepth) {
      fail(encodingError("values nested too deeply"));
      return 0;
    }
    ++depth;
    const std::uint64_t uid = encodeUnguarded(value);
    --depth;
    return uid;
  }

  std::uint64_t encodeUnguarded(const Value& value) {
    switch (value.type()) {
      case Value::Type::Null:
        return 0;
      case Value::Type::Bool:
        return scalar(
            'b', value.asBool() ? "1" : "0",
            [](std::string_view, const Value& v) { return plist_new_bool(v.asBool()); }, value);
      case Value::Type::Integer: {
        const std::int64_t i = value.asInteger();
        return scalar(
            'i', std::string_view(reinterpret_cast<const char*>(&i), sizeof i),
            [](std::string_view, const Value& v) {
              return plist_new_uint(static_cast<std::uint64_t>(v.asInteger()));
            },
            value);
      }
      case Value::Type::Double: {
        const double d = value.asDouble();
        return scalar(
            'd', std::string_view(reinterpret_cast<const char*>(&d), sizeof d),
            [](std::string_view, const Value& v) { return plist_new_real(v.asDouble()); }, value);
      }
      case Value::Type::String: {
        const std::string& s = value.asString();
        if (!plist::isWritableString(s)) {
          fail(encodingError("a string is not UTF-8 or contains NUL"));
          return 0;
        }
        if (value.isMutable()) {
          return object(chainFor("NSMutableString"), [&] { set("NS.string", plist_new_string(s.c_str())); });
        }
        return scalar(
            's', s,
            [](std::string_view bits, const Value&) { return plist_new_string(std::string(bits).c_str()); },
            value);
      }
      case Value::Type::Data: {
        const Bytes& d = value.asData();
        auto make = [&] { return plist_new_data(reinterpret_cast<const char*>(d.data()), d.size()); };
        if (value.isMutable()) return object(chainFor("NSMutableData"), [&] { set("NS.data", make()); });
        return scalar(
            'x', std::string_view(reinterpret_cast<const char*>(d.data()), d.size()),
            [](std::string_view bits, const Value&) { return plist_new_data(bits.data(), bits.size()); },
            value);
      }
      case Value::Type::Date:
        return object(chainFor("NSDate"),
                      [&] { set("NS.time", plist_new_real(value.asDate().secondsSinceReferenceDate)); });
      case Value::Type::Uuid:
        return object(chainFor("NSUUID"), [&] {
          const auto& bytes = value.asUuid().bytes();
          set("NS.uuidbytes", plist_new_data(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
        });
      case Value::Type::Url:
        return encodeUrl(value.asUrl());
      case Value::Type::Array:
        return object(chainFor(value.isMutable() ? "NSMutableArray" : "NSArray"),
                      [&] { set("NS.objects", uidArray(value.asArray())); });
      case Value::Type::Set:
        return object(chainFor(value.isMutable() ? "NSMutableSet" : "NSSet"),
                      [&] { set("NS.objects", uidArray(value.asSet().values())); });
      case Value::Type::Dictionary:
        return object(chainFor(value.isMutable() ? "NSMutableDictionary" : "NSDictionary"), [&] {
          // All keys first, then all values, as NSDictionary's encodeWithCoder: does.
          Array keys;
          Array values;
          for (const auto& [k, v] : value.asDictionary()) {
            keys.emplace_back(k);
            values.push_back(v);
          }
          plist_t keyArray = uidArray(keys);
          plist_t valueArray = uidArray(values);
          set("NS.keys", keyArray);
          set("NS.objects", valueArray);
        });
      case Value::Type::Object:
        return encodeObject(value.asObject());
    }
    return 0;
  }

  std::uint64_t encodeUrl(const Url& url) {
    return object(chainFor("NSURL"), [&] {
      const std::uint64_t base = url.baseUrl() ? encodeUrl(*url.baseUrl()) : 0;
      set("NS.base", plist_new_uid(base));
      set("NS.relative", plist_new_uid(encode(Value(url.relativeString()))));
    });
  }

  std::uint64_t encodeObject(const ObjectPtr& object_) {
    if (auto it = objectUids.find(object_.get()); it != objectUids.end()) return it->second;
    const auto* coding = dynamic_cast<const Coding*>(object_.get());
    if (coding == nullptr) {
      fail(encodingError(fmt::format("objects of class {} cannot be archived", object_->className())));
      return 0;
    }
    std::vector<std::string> chain = coding->classChain();
    if (chain.empty()) {
      if (auto cls = ClassRegistry::shared().classNamed(object_->className()); cls && !cls->classes.empty()) {
        chain = cls->classes;
      } else {
        chain = {object_->className(), "NSObject"};
      }
    }
    // The UID is known before the contents are written, so references back to this object
    // (cycles) resolve to it.
    const std::uint64_t uid = reserve();
    objectUids.emplace(object_.get(), uid);
    return object(
        chain, [&] { coding->encodeWithCoder(*owner); }, uid);
  }

  KeyedArchiver* owner = nullptr;
};

KeyedArchiver::KeyedArchiver(bool requiresSecureCoding)
    : impl_(std::make_unique<Impl>()), requiresSecureCoding_(requiresSecureCoding) {
  impl_->owner = this;
}

KeyedArchiver::~KeyedArchiver() = default;

Expected<Bytes> KeyedArchiver::archivedDataWithRootObject(const Value& root, bool requiringSecureCoding,
                                                          PropertyListFormat format) {
  KeyedArchiver archiver(requiringSecureCoding);
  archiver.encodeObject(root, "root");
  return archiver.encodedData(format);
}

void KeyedArchiver::encodeObject(const Value& value, std::string_view key) {
  const std::uint64_t uid = impl_->encode(value);
  impl_->set(escapedKey(key), plist_new_uid(uid));
}

void KeyedArchiver::encodeObject(const Value& value) {
  const std::string key = fmt::format("${}", impl_->contexts.back().unkeyed++);
  const std::uint64_t uid = impl_->encode(value);
  impl_->set(key, plist_new_uid(uid));
}

void KeyedArchiver::encodeBool(bool value, std::string_view key) {
  impl_->set(escapedKey(key), plist_new_bool(value));
}

void KeyedArchiver::encodeInt64(std::int64_t value, std::string_view key) {
  impl_->set(escapedKey(key), plist_new_uint(static_cast<std::uint64_t>(value)));
}

void KeyedArchiver::encodeDouble(double value, std::string_view key) {
  impl_->set(escapedKey(key), plist_new_real(value));
}

void KeyedArchiver::encodeBytes(std::span<const std::uint8_t> bytes, std::string_view key) {
  impl_->set(escapedKey(key), plist_new_data(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

void KeyedArchiver::encodeEncodable(const Uuid& value, std::string_view key) {
  encodeObject(Value(value.string()), key);
}

namespace {

Value encodableUrl(const Url& url) {
  Dictionary container{{"relative", Value(url.relativeString())}};
  if (url.baseUrl()) container.emplace("base", encodableUrl(*url.baseUrl()));
  return std::move(Value(std::move(container)).setMutable());
}

}  // namespace

void KeyedArchiver::encodeEncodable(const Url& value, std::string_view key) {
  encodeObject(encodableUrl(value), key);
}

void KeyedArchiver::encodeEncodable(const std::vector<std::string>& value, std::string_view key) {
  Array items(value.begin(), value.end());
  encodeObject(std::move(Value(std::move(items)).setMutable()), key);
}

void KeyedArchiver::encodeEncodable(const std::vector<std::vector<double>>& value, std::string_view key) {
  Array rows;
  rows.reserve(value.size());
  for (const auto& row : value) rows.push_back(std::move(Value(Array(row.begin(), row.end())).setMutable()));
  encodeObject(std::move(Value(std::move(rows)).setMutable()), key);
}

void KeyedArchiver::failWithError(Error error) {
  impl_->fail(std::move(error));
}

Expected<Bytes> KeyedArchiver::encodedData(PropertyListFormat format) {
  if (impl_->finished) throw std::logic_error("KeyedArchiver::encodedData called twice");
  impl_->finished = true;
  if (impl_->error) return fail(*impl_->error);
  plist::PlistPtr root(plist_new_dict());
  plist_dict_set_item(root.get(), "$archiver", plist_new_string("NSKeyedArchiver"));
  plist_dict_set_item(root.get(), "$version", plist_new_uint(100000));
  plist_dict_set_item(root.get(), "$top", impl_->top.release());
  plist_t objects = plist_new_array();
  for (auto& node : impl_->objects) plist_array_append_item(objects, node.release());
  plist_dict_set_item(root.get(), "$objects", objects);
  return plist::serialize(root.get(), format);
}

}  // namespace tesselune
