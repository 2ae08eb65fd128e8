// KeyedArchiver: builds the archive's object table in the order NSKeyedArchiver does (an object's
// UID first, then what it encodes, then its class), as a Value tree that the property-list writer
// turns into the binary (or XML) format.

#include "foundation/keyed_archiver.h"

#include <fmt/format.h>

#include <bit>
#include <cstring>
#include <deque>
#include <iterator>
#include <stdexcept>

#include "foundation/plist_tree.h"

namespace tesselune {

namespace {

// Deepest nesting of values and objects written; deeper trees fail rather than exhaust the stack.
constexpr std::size_t kMaxEncodingDepth = 512;

Error encodingError(std::string_view why) {
  return Error(std::string(kCocoaErrorDomain), kCoderInvalidValueError,
               fmt::format("The data couldn’t be written because it isn’t in the correct format. ({})", why));
}

}  // namespace

struct KeyedArchiver::Impl {
  struct Context {
    Dictionary* dict;
    std::size_t unkeyed = 0;
  };

  // "$objects". A deque, so that the dictionary of an object being filled stays where it is while
  // the objects it encodes are appended.
  std::deque<Value> objects;
  plist::ScalarIndex scalars;
  std::unordered_map<const Object*, std::uint64_t> objectUids;
  std::unordered_map<std::string, std::uint64_t> classUids;
  std::uint64_t nullObjectUid = 0;
  Dictionary top;
  std::vector<Context> contexts;
  std::optional<Error> error;
  std::size_t depth = 0;
  bool finished = false;
  KeyedArchiver* owner = nullptr;

  Impl() {
    objects.emplace_back("$null");
    contexts.push_back({&top});
  }

  static Value uid(std::uint64_t n) { return Value::dictionary({{"CF$UID", Value(n)}}); }

  void fail(Error e) {
    if (!error) error = std::move(e);
  }

  void set(std::string key, Value value) {
    contexts.back().dict->insert_or_assign(std::move(key), std::move(value));
  }

  std::uint64_t append(Value value) {
    objects.push_back(std::move(value));
    return objects.size() - 1;
  }

  std::uint64_t classUid(const std::vector<std::string>& chain) {
    auto [it, inserted] = classUids.try_emplace(chain.front(), 0);
    if (!inserted) return it->second;
    it->second = append(Value::dictionary(
        {{"$classname", Value(chain.front())}, {"$classes", Value(Array(chain.begin(), chain.end()))}}));
    return it->second;
  }

  // A plain value, shared with any earlier one of the same kind and bits.
  std::uint64_t scalar(plist::ScalarIndex::Kind kind, std::uint64_t bits, Value value) {
    if (std::uint64_t* found = scalars.find(kind, bits)) return *found;
    const std::uint64_t index = append(std::move(value));
    scalars.store(kind, bits, index);
    return index;
  }
  // Text and data: the index keeps a view of the copy in the table, which never changes.
  std::uint64_t scalar(plist::ScalarIndex::Kind kind, std::string_view bytes, const Value& value) {
    if (std::uint64_t* found = scalars.find(kind, bytes)) return *found;
    const std::uint64_t index = append(value);
    const Value& stored = objects[index];
    scalars.store(kind,
                  stored.isString() ? std::string_view(stored.asString())
                                    : std::string_view(reinterpret_cast<const char*>(stored.asData().data()),
                                                       stored.asData().size()),
                  index);
    return index;
  }

  // Encodes the contents of one object into a dictionary of its own, then adds its class.
  template <class Fill>
  std::uint64_t object(const std::vector<std::string>& chain, Fill fill, std::uint64_t index = 0) {
    if (index == 0) index = append(Value());
    objects[index] = Value(Dictionary());
    Dictionary* dict = &objects[index].asDictionary();
    contexts.push_back({dict});
    fill();
    contexts.pop_back();
    dict->insert_or_assign("$class", uid(classUid(chain)));
    return index;
  }

  std::uint64_t uidOfElement(const Value& value) {
    // Collections cannot hold nil; macOS stores NSNull's single instance instead.
    if (!value.isNull()) return encode(value);
    if (nullObjectUid == 0) nullObjectUid = object(foundationClassChain("NSNull"), [] {});
    return nullObjectUid;
  }

  Value uidArray(const Array& values) {
    Array uids;
    uids.reserve(values.size());
    for (const Value& v : values) uids.push_back(uid(uidOfElement(v)));
    return Value(std::move(uids));
  }

  std::uint64_t encode(const Value& value) {
    if (error) return 0;
    if (depth >= kMaxEncodingDepth) {
      fail(encodingError("values nested too deeply"));
      return 0;
    }
    ++depth;
    const std::uint64_t index = encodeUnguarded(value);
    --depth;
    return index;
  }

  std::uint64_t encodeUnguarded(const Value& value) {
    switch (value.type()) {
      case Value::Type::Null:
        return 0;
      case Value::Type::Bool:
        return scalar(plist::ScalarIndex::kBool, std::uint64_t{value.asBool()}, value);
      case Value::Type::Integer:
        return scalar(plist::ScalarIndex::kInteger, static_cast<std::uint64_t>(value.asInteger()), value);
      case Value::Type::Double:
        return scalar(plist::ScalarIndex::kReal, std::bit_cast<std::uint64_t>(value.asDouble()), value);
      case Value::Type::String: {
        const std::string& s = value.asString();
        if (!plist::isWritableString(s)) {
          fail(encodingError("a string is not UTF-8 or contains NUL"));
          return 0;
        }
        if (value.isMutable())
          return object(foundationClassChain("NSMutableString"), [&] { set("NS.string", Value(s)); });
        return scalar(plist::ScalarIndex::kString, std::string_view(s), value);
      }
      case Value::Type::Data: {
        const Bytes& d = value.asData();
        if (value.isMutable())
          return object(foundationClassChain("NSMutableData"), [&] { set("NS.data", Value(d)); });
        return scalar(plist::ScalarIndex::kData,
                      std::string_view(reinterpret_cast<const char*>(d.data()), d.size()), value);
      }
      case Value::Type::Date:
        return object(foundationClassChain("NSDate"),
                      [&] { set("NS.time", Value(value.asDate().secondsSinceReferenceDate)); });
      case Value::Type::Uuid:
        return object(foundationClassChain("NSUUID"), [&] {
          const auto& bytes = value.asUuid().bytes();
          set("NS.uuidbytes", Value(Bytes(bytes.begin(), bytes.end())));
        });
      case Value::Type::Url:
        return encodeUrl(value.asUrl());
      case Value::Type::Array:
        return object(foundationClassChain(value.isMutable() ? "NSMutableArray" : "NSArray"),
                      [&] { set("NS.objects", uidArray(value.asArray())); });
      case Value::Type::Set:
        return object(foundationClassChain(value.isMutable() ? "NSMutableSet" : "NSSet"),
                      [&] { set("NS.objects", uidArray(value.asSet().values())); });
      case Value::Type::Dictionary:
        return object(foundationClassChain(value.isMutable() ? "NSMutableDictionary" : "NSDictionary"), [&] {
          // All keys first, then all values, as NSDictionary's encodeWithCoder: does.
          Array keys;
          Array values;
          for (const auto& [k, v] : value.asDictionary()) {
            keys.emplace_back(k);
            values.push_back(v);
          }
          Value keyUids = uidArray(keys);
          Value valueUids = uidArray(values);
          set("NS.keys", std::move(keyUids));
          set("NS.objects", std::move(valueUids));
        });
      case Value::Type::Object:
        return encodeObject(value.asObject());
    }
    return 0;
  }

  std::uint64_t encodeUrl(const Url& url) {
    return object(foundationClassChain("NSURL"), [&] {
      const std::uint64_t base = url.baseUrl() ? encodeUrl(*url.baseUrl()) : 0;
      set("NS.base", uid(base));
      set("NS.relative", uid(encode(Value(url.relativeString()))));
    });
  }

  std::uint64_t encodeObject(const ObjectPtr& instance) {
    if (auto it = objectUids.find(instance.get()); it != objectUids.end()) return it->second;
    const auto* coding = dynamic_cast<const Coding*>(instance.get());
    if (coding == nullptr) {
      fail(encodingError(fmt::format("objects of class {} cannot be archived", instance->className())));
      return 0;
    }
    std::vector<std::string> chain = coding->classChain();
    if (chain.empty()) {
      if (auto cls = ClassRegistry::shared().classNamed(instance->className());
          cls && !cls->classes.empty()) {
        chain = cls->classes;
      } else {
        chain = {instance->className(), "NSObject"};
      }
    }
    // The UID is known before the contents are written, so references back to this object
    // (cycles) resolve to it.
    const std::uint64_t index = append(Value());
    objectUids.emplace(instance.get(), index);
    return object(
        chain, [&] { coding->encodeWithCoder(*owner); }, index);
  }
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
  impl_->set(plist::archiveKey(key), Impl::uid(uid));
}

void KeyedArchiver::encodeObject(const Value& value) {
  const std::string key = fmt::format("${}", impl_->contexts.back().unkeyed++);
  const std::uint64_t uid = impl_->encode(value);
  impl_->set(key, Impl::uid(uid));
}

void KeyedArchiver::encodeBool(bool value, std::string_view key) {
  impl_->set(plist::archiveKey(key), Value(value));
}

void KeyedArchiver::encodeInt64(std::int64_t value, std::string_view key) {
  impl_->set(plist::archiveKey(key), Value(value));
}

void KeyedArchiver::encodeDouble(double value, std::string_view key) {
  impl_->set(plist::archiveKey(key), Value(value));
}

void KeyedArchiver::encodeBytes(std::span<const std::uint8_t> bytes, std::string_view key) {
  impl_->set(plist::archiveKey(key), Value(Bytes(bytes.begin(), bytes.end())));
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
  Array objects(std::make_move_iterator(impl_->objects.begin()),
                std::make_move_iterator(impl_->objects.end()));
  Dictionary root;
  root.emplace("$archiver", Value("NSKeyedArchiver"));
  root.emplace("$version", Value(100000));
  root.emplace("$top", Value(std::move(impl_->top)));
  root.emplace("$objects", Value(std::move(objects)));
  return dataWithPropertyList(Value(std::move(root)), format);
}

}  // namespace tesselune
