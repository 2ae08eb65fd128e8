// Value: the dynamic value of this code base, standing where Objective-C code holds an `id`.
//
// A Value is one of null, bool, integer, double, string (UTF-8), data, date, UUID, URL, array, set,
// dictionary with string keys, or a shared pointer to an Object. Values have value semantics: copying
// a Value copies its containers; objects inside are shared, not copied.
//
// Equality follows Foundation's isEqual: numbers compare by value across integer, double and bool
// (1 == 1.0 == true), containers compare element-wise, objects by Object::isEqual (identity unless a
// class says otherwise). The "mutable" flag of strings, data and containers records whether the value
// came from (or should be archived as) the mutable class; it never takes part in equality.
//
// Values are not thread-safe for concurrent mutation; const access from several threads is fine as
// long as the Objects inside are.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

#include "foundation/url.h"
#include "foundation/uuid.h"

namespace tesselune {

class Value;

// Base of every reference object a Value can hold: managed objects, archived value objects and so on.
// Subclasses are owned through std::shared_ptr.
class Object : public std::enable_shared_from_this<Object> {
 public:
  virtual ~Object() = default;

  // The class name as the archiver writes it ("Tesselune.MarkerFragment", "NSAttributedString").
  virtual std::string className() const = 0;
  // Identity by default, as NSObject's isEqual:.
  virtual bool isEqual(const Object& other) const { return this == &other; }
  virtual std::size_t hash() const { return std::hash<const void*>()(this); }
  virtual std::string description() const;
  // Key-value coding: the value for one key (no dots), null when the class has no such key.
  // Predicates and sort descriptors read objects through it.
  virtual Value valueForKey(std::string_view key) const;
};

using ObjectPtr = std::shared_ptr<Object>;

// Seconds since 2001-01-01 00:00:00 UTC, Foundation's reference date.
struct Date {
  double secondsSinceReferenceDate = 0;

  // The reference date as seconds since the Unix epoch.
  static constexpr double kUnixOffset = 978307200.0;
  static Date fromUnixTime(double seconds) { return Date{seconds - kUnixOffset}; }
  static Date now();
  double unixTime() const { return secondsSinceReferenceDate + kUnixOffset; }
  // ISO 8601 in UTC with milliseconds, "2001-01-01T00:00:00.000Z".
  std::string isoString() const;

  friend bool operator==(const Date&, const Date&) = default;
  friend auto operator<=>(const Date&, const Date&) = default;
};

using Bytes = std::vector<std::uint8_t>;
using Array = std::vector<Value>;
using Dictionary = std::map<std::string, Value, std::less<>>;

// An unordered collection without duplicates (by Value equality), kept in insertion order so that
// archives and descriptions are deterministic. Lookup is linear for small sets and hashed beyond.
class ValueSet {
 public:
  ValueSet() = default;
  ValueSet(std::initializer_list<Value> values);
  explicit ValueSet(const Array& values);

  // Returns false when an equal value was already there.
  bool insert(Value value);
  bool erase(const Value& value);
  bool contains(const Value& value) const;
  // Defined below Value, which must be complete first.
  std::size_t size() const;
  bool empty() const;
  const Array& values() const { return items_; }
  Array::const_iterator begin() const;
  Array::const_iterator end() const;

  friend bool operator==(const ValueSet& a, const ValueSet& b);

 private:
  std::ptrdiff_t find(const Value& value) const;
  void rebuildIndex();

  Array items_;
  std::unordered_multimap<std::size_t, std::size_t> index_;  // hash -> position, once the set grows
};

class Value {
 public:
  enum class Type {
    Null,
    Bool,
    Integer,
    Double,
    String,
    Data,
    Date,
    Uuid,
    Url,
    Array,
    Set,
    Dictionary,
    Object
  };

  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool b) : v_(b) {}
  Value(int i) : v_(static_cast<std::int64_t>(i)) {}
  Value(long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(long long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(unsigned i) : v_(static_cast<std::int64_t>(i)) {}
  Value(unsigned long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(unsigned long long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(double d) : v_(d) {}
  Value(const char* s) : v_(std::string(s)) {}
  Value(std::string s) : v_(std::move(s)) {}
  Value(std::string_view s) : v_(std::string(s)) {}
  Value(Bytes d) : v_(std::move(d)) {}
  Value(tesselune::Date d) : v_(d) {}
  Value(tesselune::Uuid u) : v_(u) {}
  Value(tesselune::Url u) : v_(std::move(u)) {}
  Value(tesselune::Array a) : v_(std::move(a)) {}
  Value(ValueSet s) : v_(std::move(s)) {}
  Value(tesselune::Dictionary d) : v_(std::move(d)) {}
  Value(ObjectPtr o);
  template <class T>
  requires std::is_base_of_v<tesselune::Object, T> Value(std::shared_ptr<T> o)
      : Value(ObjectPtr(std::move(o))) {}

  static Value array(std::initializer_list<Value> values) { return Value(tesselune::Array(values)); }
  static Value set(std::initializer_list<Value> values) { return Value(ValueSet(values)); }
  static Value dictionary(std::initializer_list<std::pair<const std::string, Value>> entries) {
    return Value(tesselune::Dictionary(entries));
  }
  static Value data(std::string_view bytes) { return Value(Bytes(bytes.begin(), bytes.end())); }

  Type type() const { return static_cast<Type>(v_.index()); }
  bool isNull() const { return type() == Type::Null; }
  bool isBool() const { return type() == Type::Bool; }
  bool isInteger() const { return type() == Type::Integer; }
  bool isDouble() const { return type() == Type::Double; }
  bool isNumber() const { return isBool() || isInteger() || isDouble(); }
  bool isString() const { return type() == Type::String; }
  bool isData() const { return type() == Type::Data; }
  bool isDate() const { return type() == Type::Date; }
  bool isUuid() const { return type() == Type::Uuid; }
  bool isUrl() const { return type() == Type::Url; }
  bool isArray() const { return type() == Type::Array; }
  bool isSet() const { return type() == Type::Set; }
  bool isDictionary() const { return type() == Type::Dictionary; }
  bool isObject() const { return type() == Type::Object; }

  // Checked access: calling the wrong one is a programming error and throws std::bad_variant_access.
  bool asBool() const { return std::get<bool>(v_); }
  std::int64_t asInteger() const { return std::get<std::int64_t>(v_); }
  double asDouble() const { return std::get<double>(v_); }
  const std::string& asString() const { return std::get<std::string>(v_); }
  const Bytes& asData() const { return std::get<Bytes>(v_); }
  const tesselune::Date& asDate() const { return std::get<tesselune::Date>(v_); }
  const tesselune::Uuid& asUuid() const { return std::get<tesselune::Uuid>(v_); }
  const tesselune::Url& asUrl() const { return std::get<tesselune::Url>(v_); }
  const tesselune::Array& asArray() const { return std::get<tesselune::Array>(v_); }
  tesselune::Array& asArray() { return std::get<tesselune::Array>(v_); }
  const ValueSet& asSet() const { return std::get<ValueSet>(v_); }
  ValueSet& asSet() { return std::get<ValueSet>(v_); }
  const tesselune::Dictionary& asDictionary() const { return std::get<tesselune::Dictionary>(v_); }
  tesselune::Dictionary& asDictionary() { return std::get<tesselune::Dictionary>(v_); }
  const ObjectPtr& asObject() const { return std::get<ObjectPtr>(v_); }
  template <class T>
  std::shared_ptr<T> asObjectOf() const {
    return isObject() ? std::dynamic_pointer_cast<T>(asObject()) : nullptr;
  }

  // Numeric conversions as NSNumber's boolValue, longLongValue and doubleValue: any number converts;
  // anything else gives the fallback.
  bool boolValue(bool fallback = false) const;
  std::int64_t integerValue(std::int64_t fallback = 0) const;
  double doubleValue(double fallback = 0) const;

  // Lookups that answer null instead of throwing: an absent key, an index out of range or a
  // receiver of another type.
  const Value& operator[](std::string_view key) const;
  const Value& at(std::size_t index) const;
  // Elements of an array or set, keys count for a dictionary, 0 otherwise.
  std::size_t count() const;

  // Whether the value came from, or archives as, the mutable class (NSMutableString,
  // NSMutableArray, ...). Ignored by equality and hashing.
  bool isMutable() const { return mutable_; }
  Value& setMutable(bool m = true) {
    mutable_ = m;
    return *this;
  }

  std::size_t hash() const;
  // A readable, deterministic rendering for logs, test failures and `status` output. Strings are
  // quoted, data as <hex>, containers with their elements.
  std::string description() const;

  friend bool operator==(const Value& a, const Value& b);

 private:
  std::variant<std::monostate, bool, std::int64_t, double, std::string, Bytes, tesselune::Date,
               tesselune::Uuid, tesselune::Url, tesselune::Array, ValueSet, tesselune::Dictionary, ObjectPtr>
      v_;
  bool mutable_ = false;
};

inline std::size_t ValueSet::size() const {
  return items_.size();
}
inline bool ValueSet::empty() const {
  return items_.empty();
}
inline Array::const_iterator ValueSet::begin() const {
  return items_.begin();
}
inline Array::const_iterator ValueSet::end() const {
  return items_.end();
}

// The shared null returned by failed lookups.
const Value& nullValue();

// Writes description(), so that logs and test failures show values readably.
std::ostream& operator<<(std::ostream& out, const Value& value);

}  // namespace tesselune

template <>
struct std::hash<tesselune::Value> {
  std::size_t operator()(const tesselune::Value& v) const { return v.hash(); }
};
