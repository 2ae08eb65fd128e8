// The compact archives: for each shape, the archive's object list as NSKeyedArchiver orders it, then
// the binary object table in the order the general writer visits that archive, with the same sharing
// of equal strings, data, integers and UIDs.

#include "foundation/compact_archive.h"

#include <bit>
#include <cstdint>
#include <limits>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "foundation/coding.h"
#include "foundation/keyed_archiver.h"
#include "foundation/plist_tree.h"

namespace tesselune {

namespace {

constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();

// A binary property list's object table, built in table order. Containers take their slot first and
// get their references once their members are in the table, as the general writer does.
class ObjectTable {
 public:
  enum class Kind : std::uint8_t { String, Data, Integer, Uid, Array, Dictionary };

  std::uint32_t string(std::string_view text) {
    auto [it, inserted] = strings_.try_emplace(text, size());
    if (inserted) entries_.push_back({Kind::String, 0, 0, text});
    return it->second;
  }
  std::uint32_t data(std::span<const std::uint8_t> bytes) {
    const std::string_view view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    auto [it, inserted] = data_.try_emplace(view, size());
    if (inserted) entries_.push_back({Kind::Data, 0, 0, view});
    return it->second;
  }
  std::uint32_t integer(std::uint64_t value) {
    auto [it, inserted] = integers_.try_emplace(value, size());
    if (inserted) entries_.push_back({Kind::Integer, value, 0, {}});
    return it->second;
  }
  std::uint32_t uid(std::uint64_t value) {
    if (value >= uids_.size()) uids_.resize(value + 1, kNone);
    if (uids_[value] == kNone) {
      uids_[value] = size();
      entries_.push_back({Kind::Uid, value, 0, {}});
    }
    return uids_[value];
  }
  // A container of `count` references; a dictionary's are its keys, then its values.
  std::uint32_t container(Kind kind, std::uint32_t count) {
    entries_.push_back({kind, refs_.size(), count, {}});
    refs_.resize(refs_.size() + count, kNone);
    return size() - 1;
  }
  void reserve(std::size_t entries, std::size_t refs) {
    entries_.reserve(entries);
    refs_.reserve(refs);
  }
  void setRef(std::uint32_t container, std::uint32_t slot, std::uint32_t ref) {
    refs_[entries_[container].number + slot] = ref;
  }

  Bytes serialize(std::uint32_t top) const {
    const std::size_t refSize = plist::widthOf(entries_.size());
    Bytes out{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    out.reserve(entries_.size() * 8 + refs_.size() * refSize + textBytes());
    std::vector<std::uint64_t> offsets;
    offsets.reserve(entries_.size());
    for (const Entry& entry : entries_) {
      offsets.push_back(out.size());
      switch (entry.kind) {
        case Kind::String:
          plist::appendString(out, entry.text);
          break;
        case Kind::Data:
          plist::appendMarker(out, 0x4, entry.text.size());
          out.insert(out.end(), entry.text.begin(), entry.text.end());
          break;
        case Kind::Integer: {
          const std::size_t width = plist::widthOf(entry.number);
          out.push_back(static_cast<std::uint8_t>(0x10 | std::countr_zero(width)));
          plist::appendBigEndian(out, entry.number, width);
          break;
        }
        case Kind::Uid: {
          const std::size_t width = plist::widthOf(entry.number);
          out.push_back(static_cast<std::uint8_t>(0x80 | (width - 1)));
          plist::appendBigEndian(out, entry.number, width);
          break;
        }
        case Kind::Array:
        case Kind::Dictionary:
          plist::appendMarker(out, entry.kind == Kind::Array ? 0xA : 0xD,
                              entry.kind == Kind::Array ? entry.count : entry.count / 2);
          for (std::uint32_t i = 0; i < entry.count; ++i) {
            plist::appendBigEndian(out, refs_[entry.number + i], refSize);
          }
          break;
      }
    }
    const std::uint64_t tableOffset = out.size();
    const std::size_t offsetSize = plist::widthOf(tableOffset);
    for (std::uint64_t offset : offsets) plist::appendBigEndian(out, offset, offsetSize);
    plist::appendTrailer(out, offsetSize, refSize, entries_.size(), top, tableOffset);
    return out;
  }

 private:
  struct Entry {
    Kind kind;
    std::uint64_t number;   // integers and UIDs: the value; containers: their first reference
    std::uint32_t count;    // containers: how many references
    std::string_view text;  // strings, and the bytes of data
  };

  std::uint32_t size() const { return static_cast<std::uint32_t>(entries_.size()); }
  std::size_t textBytes() const {
    std::size_t total = 0;
    for (const auto& [text, index] : strings_) total += text.size() + 3;
    for (const auto& [bytes, index] : data_) total += bytes.size() + 10;
    return total;
  }

  std::vector<Entry> entries_;
  std::vector<std::uint32_t> refs_;
  std::unordered_map<std::string_view, std::uint32_t> strings_;
  std::unordered_map<std::string_view, std::uint32_t> data_;
  std::unordered_map<std::uint64_t, std::uint32_t> integers_;
  std::vector<std::uint32_t> uids_;  // by UID value, the UID's object
};

// One object of a URL array's archive ("$objects"), in the order NSKeyedArchiver appends them:
// "$null", the array, then per URL its dictionary, its text when not seen before and (after the
// first URL's text) the NSURL class; the NSArray class last.
struct ArchiveObject {
  enum Kind : std::uint8_t { Null, Array, UrlObject, UrlText, UrlClass, ArrayClass } kind;
  std::uint32_t url = 0;
};

using Kind = ObjectTable::Kind;

std::uint32_t classDictionary(ObjectTable& table, const std::vector<std::string>& chain) {
  const std::uint32_t dictionary = table.container(Kind::Dictionary, 4);
  table.setRef(dictionary, 0, table.string("$classes"));
  const std::uint32_t classes = table.container(Kind::Array, static_cast<std::uint32_t>(chain.size()));
  for (std::uint32_t i = 0; i < chain.size(); ++i) table.setRef(classes, i, table.string(chain[i]));
  table.setRef(dictionary, 2, classes);
  table.setRef(dictionary, 1, table.string("$classname"));
  table.setRef(dictionary, 3, table.string(chain.front()));
  return dictionary;
}

// The archive's top dictionary, its entries in key order, each key before its value, depth first.
// `object(j)` adds the archive's object j (of `count`) and answers its reference; the root object
// is object 1.
template <class AddObject>
Bytes writeArchive(ObjectTable& table, std::uint32_t count, AddObject object) {
  const std::uint32_t root = table.container(Kind::Dictionary, 8);
  table.setRef(root, 0, table.string("$archiver"));
  table.setRef(root, 4, table.string("NSKeyedArchiver"));
  table.setRef(root, 1, table.string("$objects"));
  const std::uint32_t objects = table.container(Kind::Array, count);
  table.setRef(root, 5, objects);
  for (std::uint32_t j = 0; j < count; ++j) table.setRef(objects, j, object(j));
  table.setRef(root, 2, table.string("$top"));
  const std::uint32_t top = table.container(Kind::Dictionary, 2);
  table.setRef(top, 0, table.string("root"));
  table.setRef(top, 1, table.uid(1));
  table.setRef(root, 6, top);
  table.setRef(root, 3, table.string("$version"));
  table.setRef(root, 7, table.integer(100000));
  return table.serialize(root);
}

}  // namespace

Expected<Bytes> archivedURLArray(std::span<const Url> urls) {
  const auto generalPath = [&] {
    return KeyedArchiver::archivedDataWithRootObject(Value(Array(urls.begin(), urls.end())), false);
  };
  if (urls.size() >= kNone / 16) return generalPath();
  const auto count = static_cast<std::uint32_t>(urls.size());

  // The archive's objects, with each URL's dictionary and text numbered as the archiver numbers them.
  std::vector<ArchiveObject> archive{{ArchiveObject::Null}, {ArchiveObject::Array}};
  archive.reserve(2 * urls.size() + 4);
  std::vector<std::uint32_t> urlObject(urls.size());
  std::vector<std::uint32_t> urlText(urls.size());
  std::unordered_map<std::string_view, std::uint32_t> texts;  // "$null" is not among them
  std::uint32_t urlClass = kNone;
  for (std::uint32_t i = 0; i < count; ++i) {
    const Url& url = urls[i];
    // The rare shapes take the general path, which also fails the way the archiver fails.
    if (url.baseUrl() != nullptr || !plist::isWritableString(url.relativeString())) return generalPath();
    urlObject[i] = static_cast<std::uint32_t>(archive.size());
    archive.push_back({ArchiveObject::UrlObject, i});
    auto [seen, isNew] = texts.try_emplace(url.relativeString(), static_cast<std::uint32_t>(archive.size()));
    if (isNew) archive.push_back({ArchiveObject::UrlText, i});
    urlText[i] = seen->second;
    if (urlClass == kNone) {
      urlClass = static_cast<std::uint32_t>(archive.size());
      archive.push_back({ArchiveObject::UrlClass});
    }
  }
  const auto arrayClass = static_cast<std::uint32_t>(archive.size());
  archive.push_back({ArchiveObject::ArrayClass});
  texts = {};

  ObjectTable table;
  // Per URL: its dictionary, two UIDs and its text; references: the dictionary's six and one in the array.
  table.reserve(4 * std::size_t{count} + 32, 7 * std::size_t{count} + 64);
  return writeArchive(table, static_cast<std::uint32_t>(archive.size()), [&](std::uint32_t j) {
    const ArchiveObject& object = archive[j];
    switch (object.kind) {
      case ArchiveObject::Null:
        return table.string("$null");
      case ArchiveObject::Array: {
        const std::uint32_t ref = table.container(Kind::Dictionary, 4);
        table.setRef(ref, 0, table.string("$class"));
        table.setRef(ref, 2, table.uid(arrayClass));
        table.setRef(ref, 1, table.string("NS.objects"));
        const std::uint32_t members = table.container(Kind::Array, count);
        for (std::uint32_t i = 0; i < count; ++i) table.setRef(members, i, table.uid(urlObject[i]));
        table.setRef(ref, 3, members);
        return ref;
      }
      case ArchiveObject::UrlObject: {
        const std::uint32_t ref = table.container(Kind::Dictionary, 6);
        table.setRef(ref, 0, table.string("$class"));
        table.setRef(ref, 3, table.uid(urlClass));
        table.setRef(ref, 1, table.string("NS.base"));
        table.setRef(ref, 4, table.uid(0));
        table.setRef(ref, 2, table.string("NS.relative"));
        table.setRef(ref, 5, table.uid(urlText[object.url]));
        return ref;
      }
      case ArchiveObject::UrlText:
        return table.string(urls[object.url].relativeString());
      case ArchiveObject::UrlClass:
        return classDictionary(table, foundationClassChain("NSURL"));
      case ArchiveObject::ArrayClass:
        break;
    }
    return classDictionary(table, foundationClassChain("NSArray"));
  });
}

Expected<Bytes> archivedDataDictionary(std::span<const DataEntry> entries) {
  const auto generalPath = [&] {
    Dictionary dictionary;
    for (const auto& [key, bytes] : entries)
      dictionary.emplace(key, Value(Bytes(bytes.begin(), bytes.end())));
    return KeyedArchiver::archivedDataWithRootObject(Value(std::move(dictionary)), false);
  };
  if (entries.size() >= kNone / 16) return generalPath();
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (!plist::isWritableString(entries[i].first)) return generalPath();
    if (i > 0 && !(entries[i - 1].first < entries[i].first)) return generalPath();
  }
  const auto count = static_cast<std::uint32_t>(entries.size());

  // The archive: "$null", the dictionary, its keys (all new: they differ), its values (equal ones
  // shared), the NSDictionary class.
  std::vector<std::uint32_t> valueObject(count);
  std::vector<std::uint32_t> newValues;  // the entries whose value is not an earlier one's
  std::unordered_map<std::string_view, std::uint32_t> seen;
  std::uint32_t next = 2 + count;
  for (std::uint32_t i = 0; i < count; ++i) {
    const auto& bytes = entries[i].second;
    auto [found, isNew] =
        seen.try_emplace(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()), next);
    valueObject[i] = found->second;
    if (isNew) {
      newValues.push_back(i);
      ++next;
    }
  }
  const std::uint32_t dictionaryClass = next;

  ObjectTable table;
  return writeArchive(table, dictionaryClass + 1, [&](std::uint32_t j) {
    if (j == 0) return table.string("$null");
    if (j == 1) {
      const std::uint32_t ref = table.container(Kind::Dictionary, 6);
      table.setRef(ref, 0, table.string("$class"));
      table.setRef(ref, 3, table.uid(dictionaryClass));
      table.setRef(ref, 1, table.string("NS.keys"));
      const std::uint32_t keys = table.container(Kind::Array, count);
      for (std::uint32_t i = 0; i < count; ++i) table.setRef(keys, i, table.uid(2 + i));
      table.setRef(ref, 4, keys);
      table.setRef(ref, 2, table.string("NS.objects"));
      const std::uint32_t values = table.container(Kind::Array, count);
      for (std::uint32_t i = 0; i < count; ++i) table.setRef(values, i, table.uid(valueObject[i]));
      table.setRef(ref, 5, values);
      return ref;
    }
    if (j < 2 + count) return table.string(entries[j - 2].first);
    if (j < dictionaryClass) return table.data(entries[newValues[j - 2 - count]].second);
    return classDictionary(table, foundationClassChain("NSDictionary"));
  });
}

}  // namespace tesselune
