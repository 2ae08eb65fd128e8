// The binary property-list writer: flattens a Value tree into Apple's "bplist00" object table in one
// pass, sharing equal scalars, then writes objects, offset table and trailer; and the encodings of
// markers, strings and the trailer that the URL-array archive writes with too.

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "foundation/plist_tree.h"
#include "foundation/string_utilities.h"

namespace tesselune::plist {

namespace {

class BinaryWriter {
 public:
  Expected<Bytes> write(const Value& root) {
    auto top = add(root, 0);
    if (!top) return fail(top.error());
    const std::uint64_t count = objects_.size();
    refSize_ = widthOf(count);

    Bytes out{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<std::uint64_t> offsets;
    offsets.reserve(count);
    for (const Object& object : objects_) {
      offsets.push_back(out.size());
      serialize(object, out);
    }
    const std::uint64_t tableOffset = out.size();
    const std::size_t offsetSize = widthOf(tableOffset);
    for (std::uint64_t offset : offsets) appendBigEndian(out, offset, offsetSize);
    appendTrailer(out, offsetSize, refSize_, count, *top, tableOffset);
    return out;
  }

 private:
  enum class Kind { Bool, Integer, Real, Date, Data, String, Uid, Array, Dictionary };
  struct Object {
    explicit Object(Kind k, const Value* v = nullptr, const std::string* k2 = nullptr, std::uint64_t u = 0)
        : kind(k), value(v), key(k2), uid(u) {}
    Kind kind;
    const Value* value = nullptr;      // scalars and containers
    const std::string* key = nullptr;  // dictionary keys (strings)
    std::uint64_t uid = 0;
    std::vector<std::uint64_t> refs;  // arrays: items; dictionaries: keys, then values
  };

  std::uint64_t push(Object object) {
    objects_.push_back(std::move(object));
    return objects_.size() - 1;
  }

  // A scalar, shared with an equal one written before.
  template <class Key>
  std::uint64_t unique(ScalarIndex::Kind kind, Key key, Object object) {
    if (std::uint64_t* found = index_.find(kind, key)) return *found;
    const std::uint64_t index = push(std::move(object));
    index_.store(kind, key, index);
    return index;
  }

  Expected<std::uint64_t> addString(const std::string& s, const Value* value) {
    if (!isWritableString(s)) return fail(writeError("a string is not UTF-8 or contains NUL"));
    return unique(ScalarIndex::kString, std::string_view(s),
                  Object{Kind::String, value, value ? nullptr : &s});
  }

  Expected<std::uint64_t> add(const Value& v, std::size_t depth) {
    if (depth > kMaxPropertyListDepth) return fail(writeError("nesting too deep"));
    switch (v.type()) {
      case Value::Type::Bool:
        return unique(ScalarIndex::kBool, std::uint64_t{v.asBool()}, Object{Kind::Bool, &v});
      case Value::Type::Integer: {
        const std::int64_t i = v.asInteger();
        return unique(ScalarIndex::kInteger, static_cast<std::uint64_t>(i), Object{Kind::Integer, &v});
      }
      case Value::Type::Double: {
        const double d = v.asDouble();
        return unique(ScalarIndex::kReal, std::bit_cast<std::uint64_t>(d), Object{Kind::Real, &v});
      }
      case Value::Type::Date: {
        const double t = v.asDate().secondsSinceReferenceDate;
        return unique(ScalarIndex::kDate, std::bit_cast<std::uint64_t>(t), Object{Kind::Date, &v});
      }
      case Value::Type::Data: {
        const Bytes& d = v.asData();
        return unique(ScalarIndex::kData, std::string_view(reinterpret_cast<const char*>(d.data()), d.size()),
                      Object{Kind::Data, &v});
      }
      case Value::Type::String:
        return addString(v.asString(), &v);
      case Value::Type::Array: {
        const std::uint64_t index = push(Object{Kind::Array, &v});
        std::vector<std::uint64_t> refs;
        refs.reserve(v.asArray().size());
        for (const Value& item : v.asArray()) {
          auto ref = add(item, depth + 1);
          if (!ref) return ref;
          refs.push_back(*ref);
        }
        objects_[index].refs = std::move(refs);
        return index;
      }
      case Value::Type::Dictionary: {
        const Dictionary& entries = v.asDictionary();
        if (entries.size() == 1 && entries.begin()->first == "CF$UID" &&
            entries.begin()->second.isInteger()) {
          const auto uid = static_cast<std::uint64_t>(entries.begin()->second.asInteger());
          return unique(ScalarIndex::kUid, uid, Object{Kind::Uid, nullptr, nullptr, uid});
        }
        const std::uint64_t index = push(Object{Kind::Dictionary, &v});
        std::vector<std::uint64_t> refs(2 * entries.size());
        std::size_t k = 0;
        for (const auto& [key, item] : entries) {
          auto keyRef = addString(key, nullptr);
          if (!keyRef) return keyRef;
          auto valueRef = add(item, depth + 1);
          if (!valueRef) return valueRef;
          refs[k] = *keyRef;
          refs[entries.size() + k] = *valueRef;
          ++k;
        }
        objects_[index].refs = std::move(refs);
        return index;
      }
      default:
        return fail(writeError(fmt::format("{} is not a property-list value", v.description())));
    }
  }

  void serialize(const Object& object, Bytes& out) const {
    switch (object.kind) {
      case Kind::Bool:
        out.push_back(object.value->asBool() ? 0x09 : 0x08);
        break;
      case Kind::Integer: {
        const std::int64_t i = object.value->asInteger();
        // Negative numbers take eight bytes, as Foundation writes them; others the fewest.
        const std::size_t width = i < 0 ? 8 : widthOf(static_cast<std::uint64_t>(i));
        out.push_back(static_cast<std::uint8_t>(0x10 | std::countr_zero(width)));
        appendBigEndian(out, static_cast<std::uint64_t>(i), width);
        break;
      }
      case Kind::Real:
        out.push_back(0x23);
        appendBigEndian(out, std::bit_cast<std::uint64_t>(object.value->asDouble()), 8);
        break;
      case Kind::Date:
        out.push_back(0x33);
        appendBigEndian(out, std::bit_cast<std::uint64_t>(object.value->asDate().secondsSinceReferenceDate),
                        8);
        break;
      case Kind::Data: {
        const Bytes& d = object.value->asData();
        appendMarker(out, 0x4, d.size());
        out.insert(out.end(), d.begin(), d.end());
        break;
      }
      case Kind::String:
        appendString(out, object.value ? object.value->asString() : *object.key);
        break;
      case Kind::Uid: {
        const std::size_t width = widthOf(object.uid);
        out.push_back(static_cast<std::uint8_t>(0x80 | (width - 1)));
        appendBigEndian(out, object.uid, width);
        break;
      }
      case Kind::Array:
        appendMarker(out, 0xA, object.refs.size());
        for (std::uint64_t ref : object.refs) appendBigEndian(out, ref, refSize_);
        break;
      case Kind::Dictionary:
        appendMarker(out, 0xD, object.refs.size() / 2);
        for (std::uint64_t ref : object.refs) appendBigEndian(out, ref, refSize_);
        break;
    }
  }

  std::vector<Object> objects_;
  ScalarIndex index_;
  std::size_t refSize_ = 1;
};

}  // namespace

void appendMarker(Bytes& out, std::uint8_t high, std::uint64_t count) {
  if (count < 15) {
    out.push_back(static_cast<std::uint8_t>((high << 4) | count));
    return;
  }
  out.push_back(static_cast<std::uint8_t>((high << 4) | 0x0F));
  const std::size_t width = widthOf(count);
  out.push_back(static_cast<std::uint8_t>(0x10 | std::countr_zero(width)));
  appendBigEndian(out, count, width);
}

void appendString(Bytes& out, std::string_view text) {
  const bool ascii =
      std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii) {
    appendMarker(out, 0x5, text.size());
    out.insert(out.end(), text.begin(), text.end());
    return;
  }
  const std::u16string units = utf8ToUtf16(text);
  appendMarker(out, 0x6, units.size());
  for (char16_t u : units) appendBigEndian(out, u, 2);
}

void appendTrailer(Bytes& out, std::size_t offsetSize, std::size_t refSize, std::uint64_t count,
                   std::uint64_t top, std::uint64_t tableOffset) {
  out.insert(out.end(), 6, 0);  // unused, sort version
  out.push_back(static_cast<std::uint8_t>(offsetSize));
  out.push_back(static_cast<std::uint8_t>(refSize));
  appendBigEndian(out, count, 8);
  appendBigEndian(out, top, 8);
  appendBigEndian(out, tableOffset, 8);
}

Expected<Bytes> writeBinary(const Value& root) {
  return BinaryWriter().write(root);
}

}  // namespace tesselune::plist
