// Property-list reading and writing over libplist, with the structural checks that keep libplist
// safe from hostile input.

#include "foundation/property_list.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "foundation/plist_tree.h"
#include "foundation/string_utilities.h"

namespace tesselune {
namespace plist {

Error writeError(std::string_view why) {
  return Error(std::string(kCocoaErrorDomain), kPropertyListWriteInvalidError,
               fmt::format("The property list could not be written: {}.", why));
}

Error corruptError(std::string_view why) {
  return Error(std::string(kCocoaErrorDomain), kPropertyListReadCorruptError,
               fmt::format("The data couldn’t be read because it isn’t in the correct format. ({})", why));
}

namespace {

// libplist copies a binary list's shared objects once per reference. Bound the copies so that a few
// bytes of references to references cannot expand into gigabytes.
constexpr std::uint64_t kMaxExpandedNodes = std::uint64_t{1} << 24;

std::uint64_t readBigEndian(const std::uint8_t* p, std::size_t size) {
  std::uint64_t v = 0;
  for (std::size_t i = 0; i < size; ++i) v = (v << 8) | p[i];
  return v;
}

// The structure of a binary property list as far as the checks need it.
class BinaryChecker {
 public:
  explicit BinaryChecker(std::span<const std::uint8_t> data) : data_(data) {}

  Status check() {
    if (data_.size() < 8 + 32) return fail(corruptError("binary property list too short"));
    if (std::memcmp(data_.data(), "bplist00", 8) != 0) return fail(corruptError("unknown binary version"));
    const std::uint8_t* trailer = data_.data() + data_.size() - 32;
    offsetSize_ = trailer[6];
    refSize_ = trailer[7];
    count_ = readBigEndian(trailer + 8, 8);
    const std::uint64_t top = readBigEndian(trailer + 16, 8);
    tableOffset_ = readBigEndian(trailer + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8)
      return fail(corruptError("bad integer sizes in the trailer"));
    if (count_ == 0 || top >= count_) return fail(corruptError("bad object count or top object"));
    // Foundation insists that the offset table ends exactly where the trailer begins.
    if (tableOffset_ < 8 || tableOffset_ > data_.size() ||
        count_ > (data_.size() - tableOffset_) / offsetSize_ ||
        tableOffset_ + count_ * offsetSize_ + 32 != data_.size())
      return fail(corruptError("the offset table does not fit the file"));

    children_.assign(count_, {});
    std::uint64_t totalRefs = 0;
    for (std::uint64_t i = 0; i < count_; ++i) {
      const std::uint64_t offset = readBigEndian(data_.data() + tableOffset_ + i * offsetSize_, offsetSize_);
      if (offset < 8 || offset >= tableOffset_) return fail(corruptError("object offset out of range"));
      offsets_.push_back(offset);
      if (auto s = checkObject(i, offset); !s) return s;
      totalRefs += children_[i].count;
    }
    for (std::uint64_t key : keys_) {
      if (auto s = checkKey(key); !s) return s;
    }
    return checkGraph(top, std::min<std::uint64_t>(kMaxExpandedNodes, 4 * totalRefs + 65536));
  }

 private:
  struct Children {
    std::uint64_t start = 0;  // byte offset of the first reference
    std::uint64_t count = 0;  // number of references (keys and values of a dictionary)
  };

  // Reads a length that follows a marker whose low nibble is 0xF.
  Expected<std::uint64_t> extendedCount(std::uint64_t& pos) {
    if (pos >= tableOffset_) return fail(corruptError("truncated object"));
    const std::uint8_t marker = data_[pos++];
    if ((marker & 0xF0) != 0x10 || (marker & 0x0F) > 3) return fail(corruptError("bad object length"));
    const std::size_t size = std::size_t{1} << (marker & 0x0F);
    if (size > tableOffset_ - pos) return fail(corruptError("truncated object length"));
    const std::uint64_t n = readBigEndian(data_.data() + pos, size);
    pos += size;
    return n;
  }

  // The element count of data, strings and collections: in the marker, or following it.
  Expected<std::uint64_t> length(std::uint8_t low, std::uint64_t& pos) {
    if (low != 0xF) return low;
    return extendedCount(pos);
  }

  Status fits(std::uint64_t pos, std::uint64_t count, std::uint64_t unit) {
    if (count > (tableOffset_ - pos) / unit) return fail(corruptError("object runs past the offset table"));
    return {};
  }

  Status checkObject(std::uint64_t index, std::uint64_t pos) {
    const std::uint8_t marker = data_[pos++];
    const std::uint8_t high = marker >> 4;
    const std::uint8_t low = marker & 0x0F;
    switch (high) {
      case 0x0:
        if (marker == 0x00 || marker == 0x08 || marker == 0x09 || marker == 0x0F) return {};
        return fail(corruptError(fmt::format("unknown object marker 0x{:02x}", marker)));
      case 0x1:
        if (low > 4) return fail(corruptError("integer too wide"));
        return fits(pos, std::uint64_t{1} << low, 1);
      case 0x2:
        if (low != 2 && low != 3) return fail(corruptError("bad real size"));
        return fits(pos, std::uint64_t{1} << low, 1);
      case 0x3:
        if (marker != 0x33) return fail(corruptError("bad date"));
        return fits(pos, 8, 1);
      case 0x4:
      case 0x5:
      case 0x6: {
        auto n = length(low, pos);
        if (!n) return fail(n.error());
        return fits(pos, *n, high == 0x6 ? 2 : 1);
      }
      case 0x8:
        return fits(pos, std::uint64_t{low} + 1, 1);
      case 0xA:
      case 0xD: {
        auto count = length(low, pos);
        if (!count) return fail(count.error());
        std::uint64_t n = *count;
        if (high == 0xD) {
          if (n > std::numeric_limits<std::uint64_t>::max() / 2)
            return fail(corruptError("dictionary too large"));
          n *= 2;
        }
        if (auto s = fits(pos, n, refSize_); !s) return s;
        for (std::uint64_t k = 0; k < n; ++k) {
          if (readBigEndian(data_.data() + pos + k * refSize_, refSize_) >= count_)
            return fail(corruptError("reference to a missing object"));
        }
        children_[index] = {pos, n};
        if (high == 0xD) {
          for (std::uint64_t k = 0; k < n / 2; ++k) keys_.push_back(child(index, k));
        }
        return {};
      }
      default:
        return fail(corruptError(fmt::format("unknown object marker 0x{:02x}", marker)));
    }
  }

  // Dictionary keys must be strings; libplist cannot handle a key with a NUL character in it.
  Status checkKey(std::uint64_t index) {
    std::uint64_t pos = offsets_[index];
    const std::uint8_t marker = data_[pos++];
    const std::uint8_t high = marker >> 4;
    if (high != 0x5 && high != 0x6) return fail(corruptError("a dictionary key is not a string"));
    auto n = length(marker & 0x0F, pos);
    if (!n) return fail(n.error());
    const std::size_t unit = high == 0x6 ? 2 : 1;
    for (std::uint64_t k = 0; k < *n; ++k) {
      const std::uint8_t* c = data_.data() + pos + k * unit;
      if (c[0] == 0 && (unit == 1 || c[1] == 0)) return fail(corruptError("a dictionary key contains NUL"));
    }
    return {};
  }

  std::uint64_t child(std::uint64_t index, std::uint64_t k) const {
    return readBigEndian(data_.data() + children_[index].start + k * refSize_, refSize_);
  }

  // Depth-first walk without recursion: rejects cycles, nesting beyond the limit and trees whose
  // expansion exceeds `budget` nodes.
  Status checkGraph(std::uint64_t top, std::uint64_t budget) {
    enum : std::uint8_t { kNew, kOpen, kDone };
    std::vector<std::uint8_t> state(count_, kNew);
    std::vector<std::uint64_t> expanded(count_, 1);
    struct Frame {
      std::uint64_t index;
      std::uint64_t next;
    };
    std::vector<Frame> stack{{top, 0}};
    state[top] = kOpen;
    while (!stack.empty()) {
      Frame& f = stack.back();
      if (f.next < children_[f.index].count) {
        const std::uint64_t c = child(f.index, f.next++);
        if (state[c] == kOpen) return fail(corruptError("the object graph has a cycle"));
        if (state[c] == kNew) {
          if (stack.size() >= kMaxPropertyListDepth) return fail(corruptError("nesting too deep"));
          state[c] = kOpen;
          stack.push_back({c, 0});
        }
        continue;
      }
      std::uint64_t total = 1;
      for (std::uint64_t k = 0; k < children_[f.index].count; ++k) {
        total += expanded[child(f.index, k)];
        if (total > budget) return fail(corruptError("shared objects expand too far"));
      }
      expanded[f.index] = total;
      state[f.index] = kDone;
      stack.pop_back();
    }
    return {};
  }

  std::span<const std::uint8_t> data_;
  std::size_t offsetSize_ = 0;
  std::size_t refSize_ = 0;
  std::uint64_t count_ = 0;
  std::uint64_t tableOffset_ = 0;
  std::vector<Children> children_;
  std::vector<std::uint64_t> offsets_;
  std::vector<std::uint64_t> keys_;  // objects used as dictionary keys
};

bool startsWithTag(std::string_view text, std::size_t pos, std::string_view tag) {
  if (text.compare(pos, tag.size(), tag) != 0) return false;
  const std::size_t end = pos + tag.size();
  return end < text.size() &&
         (text[end] == '>' || text[end] == '/' || std::isspace(static_cast<unsigned char>(text[end])));
}

// Counts nesting of <array> and <dict> elements. It errs on the side of counting too much (text in
// comments counts too), which only ever rejects odd input.
Status checkXmlDepth(std::string_view text) {
  std::size_t depth = 0;
  for (std::size_t pos = text.find('<'); pos != std::string_view::npos; pos = text.find('<', pos + 1)) {
    if (startsWithTag(text, pos + 1, "array") || startsWithTag(text, pos + 1, "dict")) {
      const std::size_t close = text.find('>', pos);
      if (close == std::string_view::npos) break;
      if (text[close - 1] == '/') continue;
      if (++depth > kMaxPropertyListDepth) return fail(corruptError("nesting too deep"));
    } else if (startsWithTag(text, pos + 1, "/array") || startsWithTag(text, pos + 1, "/dict")) {
      if (depth > 0) --depth;
    }
  }
  return {};
}

}  // namespace

Expected<PlistPtr> parse(std::span<const std::uint8_t> data, PropertyListFormat* format) {
  if (data.size() > std::numeric_limits<std::uint32_t>::max()) return fail(corruptError("too large"));
  const auto* chars = reinterpret_cast<const char*>(data.data());
  const auto length = static_cast<std::uint32_t>(data.size());
  plist_t root = nullptr;
  if (data.size() >= 6 && std::memcmp(chars, "bplist", 6) == 0) {
    if (auto s = BinaryChecker(data).check(); !s) return fail(s.error());
    plist_from_bin(chars, length, &root);
    if (format) *format = PropertyListFormat::Binary;
  } else {
    const std::string_view text(chars, data.size());
    if (text.find("<plist") == std::string_view::npos) return fail(corruptError("not a property list"));
    if (auto s = checkXmlDepth(text); !s) return fail(s.error());
    plist_from_xml(chars, length, &root);
    if (format) *format = PropertyListFormat::Xml;
  }
  if (root == nullptr) return fail(corruptError("malformed property list"));
  return PlistPtr(root);
}

Expected<Bytes> serialize(plist_t root, PropertyListFormat format) {
  char* out = nullptr;
  std::uint32_t length = 0;
  if (format == PropertyListFormat::Binary) {
    plist_to_bin(root, &out, &length);
  } else {
    plist_to_xml(root, &out, &length);
  }
  if (out == nullptr) {
    return fail(Error(std::string(kCocoaErrorDomain), kPropertyListWriteInvalidError,
                      "The property list could not be written."));
  }
  Bytes bytes(out, out + length);
  if (format == PropertyListFormat::Binary) {
    plist_to_bin_free(out);
  } else {
    plist_to_xml_free(out);
  }
  return bytes;
}

bool isWritableString(std::string_view text) {
  return text.find('\0') == std::string_view::npos && isValidUtf8(text);
}

bool isType(plist_t node, plist_type type) {
  return node != nullptr && plist_get_node_type(node) == type;
}

std::vector<plist_t> arrayItems(plist_t array) {
  std::vector<plist_t> items;
  if (!isType(array, PLIST_ARRAY)) return items;
  items.reserve(plist_array_get_size(array));
  plist_array_iter it = nullptr;
  plist_array_new_iter(array, &it);
  for (;;) {
    plist_t item = nullptr;
    plist_array_next_item(array, it, &item);
    if (item == nullptr) break;
    items.push_back(item);
  }
  std::free(it);
  return items;
}

std::optional<std::string_view> stringValue(plist_t node) {
  if (!isType(node, PLIST_STRING)) return std::nullopt;
  std::uint64_t length = 0;
  const char* p = plist_get_string_ptr(node, &length);
  if (p == nullptr) return std::string_view();
  return std::string_view(p, length);
}

std::optional<std::uint64_t> unsignedValue(plist_t node) {
  if (!isType(node, PLIST_UINT)) return std::nullopt;
  std::uint64_t v = 0;
  plist_get_uint_val(node, &v);
  return v;
}

std::optional<std::uint64_t> uidValue(plist_t node) {
  if (isType(node, PLIST_UID)) {
    std::uint64_t v = 0;
    plist_get_uid_val(node, &v);
    return v;
  }
  if (isType(node, PLIST_DICT) && plist_dict_get_size(node) == 1) {
    return unsignedValue(plist_dict_get_item(node, "CF$UID"));
  }
  return std::nullopt;
}

}  // namespace plist

namespace {

Value toValue(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return Value(b != 0);
    }
    case PLIST_UINT:
      return Value(static_cast<std::int64_t>(*plist::unsignedValue(node)));
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return Value(d);
    }
    case PLIST_STRING:
    case PLIST_KEY:
      return Value(std::string(plist::stringValue(node).value_or("")));
    case PLIST_DATE: {
      std::int32_t sec = 0;
      std::int32_t usec = 0;
      plist_get_date_val(node, &sec, &usec);
      return Value(Date{sec + usec / 1e6});
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* p = plist_get_data_ptr(node, &length);
      return p ? Value(Bytes(p, p + length)) : Value(Bytes());
    }
    case PLIST_UID: {
      return Value::dictionary({{"CF$UID", Value(static_cast<std::int64_t>(*plist::uidValue(node)))}});
    }
    case PLIST_ARRAY: {
      Array items;
      for (plist_t item : plist::arrayItems(node)) items.push_back(toValue(item));
      return Value(std::move(items));
    }
    case PLIST_DICT: {
      Dictionary entries;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, it, &key, &item);
        if (item == nullptr) break;
        entries.insert_or_assign(std::string(key ? key : ""), toValue(item));
        std::free(key);
      }
      std::free(it);
      return Value(std::move(entries));
    }
    default:
      return Value();
  }
}

Expected<plist::PlistPtr> fromValue(const Value& value, std::size_t depth) {
  if (depth > kMaxPropertyListDepth) return fail(plist::writeError("nesting too deep"));
  switch (value.type()) {
    case Value::Type::Bool:
      return plist::PlistPtr(plist_new_bool(value.asBool()));
    case Value::Type::Integer:
      // libplist keeps integers unsigned; the bits of a negative value go through unchanged and are
      // written as Apple's signed eight-byte integer.
      return plist::PlistPtr(plist_new_uint(static_cast<std::uint64_t>(value.asInteger())));
    case Value::Type::Double:
      return plist::PlistPtr(plist_new_real(value.asDouble()));
    case Value::Type::String: {
      const std::string& s = value.asString();
      if (!plist::isWritableString(s))
        return fail(plist::writeError("a string is not UTF-8 or contains NUL"));
      return plist::PlistPtr(plist_new_string(s.c_str()));
    }
    case Value::Type::Data: {
      const Bytes& d = value.asData();
      return plist::PlistPtr(plist_new_data(reinterpret_cast<const char*>(d.data()), d.size()));
    }
    case Value::Type::Date: {
      const double t = value.asDate().secondsSinceReferenceDate;
      const double sec = std::floor(t);
      if (!(sec >= std::numeric_limits<std::int32_t>::min() &&
            sec <= std::numeric_limits<std::int32_t>::max()))
        return fail(plist::writeError("a date is out of range"));
      return plist::PlistPtr(plist_new_date(static_cast<std::int32_t>(sec),
                                            static_cast<std::int32_t>(std::lround((t - sec) * 1e6))));
    }
    case Value::Type::Array: {
      plist::PlistPtr array(plist_new_array());
      for (const Value& item : value.asArray()) {
        auto child = fromValue(item, depth + 1);
        if (!child) return child;
        plist_array_append_item(array.get(), child->release());
      }
      return array;
    }
    case Value::Type::Dictionary: {
      const Dictionary& entries = value.asDictionary();
      if (entries.size() == 1 && entries.begin()->first == "CF$UID" && entries.begin()->second.isInteger())
        return plist::PlistPtr(
            plist_new_uid(static_cast<std::uint64_t>(entries.begin()->second.asInteger())));
      plist::PlistPtr dict(plist_new_dict());
      for (const auto& [key, item] : entries) {
        if (!plist::isWritableString(key))
          return fail(plist::writeError("a key is not UTF-8 or contains NUL"));
        auto child = fromValue(item, depth + 1);
        if (!child) return child;
        plist_dict_set_item(dict.get(), key.c_str(), child->release());
      }
      return dict;
    }
    default:
      return fail(plist::writeError(fmt::format("{} is not a property-list value", value.description())));
  }
}

}  // namespace

Expected<Value> propertyListWithData(std::span<const std::uint8_t> data, PropertyListFormat* format) {
  auto tree = plist::parse(data, format);
  if (!tree) return fail(tree.error());
  return toValue(static_cast<plist_t>(tree->get()));
}

Expected<Bytes> dataWithPropertyList(const Value& value, PropertyListFormat format) {
  if (format == PropertyListFormat::Binary) return plist::writeBinary(value);
  auto tree = fromValue(value, 0);
  if (!tree) return fail(tree.error());
  return plist::serialize(tree->get(), format);
}

}  // namespace tesselune
