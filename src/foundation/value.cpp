// Value: equality, hashing, numeric conversion and debug descriptions of the dynamic value type.
#include "foundation/value.h"

#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <ctime>
#include <ostream>

namespace tesselune {

std::string Object::description() const {
  return fmt::format("<{}: {}>", className(), static_cast<const void*>(this));
}

Value Object::valueForKey(std::string_view) const {
  return {};
}

Date Date::now() {
  using namespace std::chrono;
  double unix = duration<double>(system_clock::now().time_since_epoch()).count();
  return fromUnixTime(unix);
}

std::string Date::isoString() const {
  double unix = unixTime();
  double whole = std::floor(unix);
  auto millis = static_cast<int>(std::lround((unix - whole) * 1000.0));
  if (millis == 1000) {
    whole += 1;
    millis = 0;
  }
  std::time_t seconds = static_cast<std::time_t>(whole);
  std::tm tm{};
  gmtime_r(&seconds, &tm);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", tm.tm_year + 1900, tm.tm_mon + 1,
                     tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, millis);
}

// ---- ValueSet ----

namespace {
// Below this size a linear scan beats maintaining the hash index.
constexpr std::size_t kLinearSetLimit = 16;
}  // namespace

ValueSet::ValueSet(std::initializer_list<Value> values) {
  for (const Value& v : values) insert(v);
}

ValueSet::ValueSet(const Array& values) {
  for (const Value& v : values) insert(v);
}

std::ptrdiff_t ValueSet::find(const Value& value) const {
  if (items_.size() <= kLinearSetLimit) {
    for (std::size_t i = 0; i < items_.size(); ++i) {
      if (items_[i] == value) return static_cast<std::ptrdiff_t>(i);
    }
    return -1;
  }
  auto [first, last] = index_.equal_range(value.hash());
  for (auto it = first; it != last; ++it) {
    if (items_[it->second] == value) return static_cast<std::ptrdiff_t>(it->second);
  }
  return -1;
}

void ValueSet::rebuildIndex() {
  index_.clear();
  if (items_.size() <= kLinearSetLimit) return;
  index_.reserve(items_.size());
  for (std::size_t i = 0; i < items_.size(); ++i) index_.emplace(items_[i].hash(), i);
}

bool ValueSet::insert(Value value) {
  if (find(value) >= 0) return false;
  items_.push_back(std::move(value));
  if (items_.size() == kLinearSetLimit + 1) {
    rebuildIndex();
  } else if (items_.size() > kLinearSetLimit) {
    index_.emplace(items_.back().hash(), items_.size() - 1);
  }
  return true;
}

bool ValueSet::erase(const Value& value) {
  std::ptrdiff_t position = find(value);
  if (position < 0) return false;
  items_.erase(items_.begin() + position);
  rebuildIndex();
  return true;
}

bool ValueSet::contains(const Value& value) const {
  return find(value) >= 0;
}

bool operator==(const ValueSet& a, const ValueSet& b) {
  if (a.size() != b.size()) return false;
  for (const Value& v : a.items_) {
    if (!b.contains(v)) return false;
  }
  return true;
}

// ---- Value ----

Value::Value(ObjectPtr o) {
  if (o) v_ = std::move(o);
}

const Value& nullValue() {
  static const Value kNull;
  return kNull;
}

bool Value::boolValue(bool fallback) const {
  switch (type()) {
    case Type::Bool:
      return asBool();
    case Type::Integer:
      return asInteger() != 0;
    case Type::Double:
      return asDouble() != 0.0;
    default:
      return fallback;
  }
}

std::int64_t Value::integerValue(std::int64_t fallback) const {
  switch (type()) {
    case Type::Bool:
      return asBool() ? 1 : 0;
    case Type::Integer:
      return asInteger();
    case Type::Double: {
      double d = asDouble();
      if (std::isnan(d)) return 0;
      if (d >= 9.2233720368547758e18) return INT64_MAX;
      if (d <= -9.2233720368547758e18) return INT64_MIN;
      return static_cast<std::int64_t>(d);
    }
    default:
      return fallback;
  }
}

double Value::doubleValue(double fallback) const {
  switch (type()) {
    case Type::Bool:
      return asBool() ? 1.0 : 0.0;
    case Type::Integer:
      return static_cast<double>(asInteger());
    case Type::Double:
      return asDouble();
    default:
      return fallback;
  }
}

const Value& Value::operator[](std::string_view key) const {
  if (!isDictionary()) return nullValue();
  const auto& d = asDictionary();
  auto it = d.find(key);
  return it == d.end() ? nullValue() : it->second;
}

const Value& Value::at(std::size_t index) const {
  if (isArray()) return index < asArray().size() ? asArray()[index] : nullValue();
  if (isSet()) return index < asSet().size() ? asSet().values()[index] : nullValue();
  return nullValue();
}

std::size_t Value::count() const {
  switch (type()) {
    case Type::Array:
      return asArray().size();
    case Type::Set:
      return asSet().size();
    case Type::Dictionary:
      return asDictionary().size();
    default:
      return 0;
  }
}

namespace {

bool numbersEqual(const Value& a, const Value& b) {
  // Integers compare exactly among themselves; a double takes part only when it is integral or
  // the other side is a double too, so 2^53 + 1 is not equal to 2^53.
  if (!a.isDouble() && !b.isDouble()) return a.integerValue() == b.integerValue();
  if (a.isDouble() && b.isDouble()) return a.asDouble() == b.asDouble();
  const Value& d = a.isDouble() ? a : b;
  const Value& i = a.isDouble() ? b : a;
  double x = d.asDouble();
  if (std::trunc(x) != x || x < -9.2233720368547758e18 || x >= 9.2233720368547758e18) return false;
  return static_cast<std::int64_t>(x) == i.integerValue();
}

std::size_t combine(std::size_t seed, std::size_t h) {
  return seed ^ (h + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
}

std::string quoted(std::string_view s) {
  std::string out = "\"";
  for (char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        out.push_back(c);
    }
  }
  return out + "\"";
}

}  // namespace

bool operator==(const Value& a, const Value& b) {
  if (a.isNumber() && b.isNumber()) return numbersEqual(a, b);
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case Value::Type::Null:
      return true;
    case Value::Type::Object: {
      const ObjectPtr& x = a.asObject();
      const ObjectPtr& y = b.asObject();
      return x == y || x->isEqual(*y);
    }
    default:
      return a.v_ == b.v_;
  }
}

std::size_t Value::hash() const {
  switch (type()) {
    case Type::Null:
      return 0x6e756c6cULL;
    case Type::Bool:
    case Type::Integer:
    case Type::Double: {
      // Equal numbers must hash alike across kinds: integral doubles hash as integers.
      double d = doubleValue();
      if (isDouble() && (std::trunc(d) != d || std::abs(d) >= 9.2233720368547758e18))
        return std::hash<double>()(d);
      return std::hash<std::int64_t>()(integerValue());
    }
    case Type::String:
      return std::hash<std::string>()(asString());
    case Type::Data:
      return std::hash<std::string_view>()(
          std::string_view(reinterpret_cast<const char*>(asData().data()), asData().size()));
    case Type::Date:
      return std::hash<double>()(asDate().secondsSinceReferenceDate);
    case Type::Uuid:
      return std::hash<tesselune::Uuid>()(asUuid());
    case Type::Url:
      return std::hash<tesselune::Url>()(asUrl());
    case Type::Array: {
      std::size_t h = asArray().size();
      for (const Value& v : asArray()) h = combine(h, v.hash());
      return h;
    }
    case Type::Set: {
      // Order-independent, as equal sets may hold their elements in different orders.
      std::size_t h = asSet().size();
      for (const Value& v : asSet()) h += v.hash() * 0x9e3779b97f4a7c15ULL;
      return h;
    }
    case Type::Dictionary: {
      std::size_t h = asDictionary().size();
      for (const auto& [k, v] : asDictionary())
        h = combine(combine(h, std::hash<std::string>()(k)), v.hash());
      return h;
    }
    case Type::Object:
      return asObject()->hash();
  }
  return 0;
}

std::string Value::description() const {
  switch (type()) {
    case Type::Null:
      return "nil";
    case Type::Bool:
      return asBool() ? "true" : "false";
    case Type::Integer:
      return std::to_string(asInteger());
    case Type::Double:
      return fmt::format("{}", asDouble());
    case Type::String:
      return quoted(asString());
    case Type::Data: {
      std::string out = "<";
      for (std::size_t i = 0; i < asData().size(); ++i) {
        if (i > 0 && i % 4 == 0) out += ' ';
        out += fmt::format("{:02x}", asData()[i]);
      }
      return out + ">";
    }
    case Type::Date:
      return asDate().isoString();
    case Type::Uuid:
      return asUuid().string();
    case Type::Url: {
      const Url& u = asUrl();
      if (u.baseUrl() == nullptr) return u.relativeString();
      return fmt::format("{} -- {}", u.relativeString(), Value(*u.baseUrl()).description());
    }
    case Type::Array:
    case Type::Set: {
      const Array& items = isArray() ? asArray() : asSet().values();
      std::string out = isArray() ? "[" : "{(";
      for (std::size_t i = 0; i < items.size(); ++i) {
        if (i > 0) out += ", ";
        out += items[i].description();
      }
      return out + (isArray() ? "]" : ")}");
    }
    case Type::Dictionary: {
      std::string out = "{";
      bool first = true;
      for (const auto& [k, v] : asDictionary()) {
        if (!first) out += ", ";
        first = false;
        out += quoted(k) + ": " + v.description();
      }
      return out + "}";
    }
    case Type::Object:
      return asObject()->description();
  }
  return {};
}

std::ostream& operator<<(std::ostream& out, const Value& value) {
  return out << value.description();
}

}  // namespace tesselune
