// AttributedString: NSAttributedString's archive keys. "NSString" holds the text; "NSAttributes"
// holds one dictionary when a single run covers everything, otherwise an array of dictionaries,
// with "NSAttributeInfo" listing the runs as base-128 varint pairs (length, index into the array).

#include "foundation/attributed_string.h"

#include <fmt/format.h>

#include "foundation/keyed_archiver.h"
#include "foundation/keyed_unarchiver.h"

namespace tesselune {

namespace {

void appendVarint(Bytes& out, std::uint64_t v) {
  do {
    std::uint8_t byte = v & 0x7F;
    v >>= 7;
    if (v != 0) byte |= 0x80;
    out.push_back(byte);
  } while (v != 0);
}

std::optional<std::uint64_t> readVarint(const Bytes& in, std::size_t& pos) {
  std::uint64_t v = 0;
  for (int shift = 0; pos < in.size() && shift < 64; shift += 7) {
    const std::uint8_t byte = in[pos++];
    v |= std::uint64_t{byte & 0x7Fu} << shift;
    if ((byte & 0x80) == 0) return v;
  }
  return std::nullopt;
}

}  // namespace

bool AttributedString::isEqual(const Object& other) const {
  const auto* o = dynamic_cast<const AttributedString*>(&other);
  return o != nullptr && o->string_ == string_ && o->runs_ == runs_;
}

std::size_t AttributedString::hash() const {
  return std::hash<std::string>()(string_);
}

std::string AttributedString::description() const {
  std::string text;
  std::size_t position = 0;
  for (const Run& run : runs_) {
    text += fmt::format("{{{}+{}: {}}}", position, run.length, Value(run.attributes).description());
    position += run.length;
  }
  return fmt::format("{} \"{}\" {}", className(), string_, text);
}

std::vector<std::string> AttributedString::classChain() const {
  return foundationClassChain(className());
}

void AttributedString::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeObject(Value(string_), "NSString");
  if (runs_.size() == 1) {
    coder.encodeObject(Value(runs_.front().attributes), "NSAttributes");
    return;
  }
  Array dictionaries;
  Bytes info;
  for (const Run& run : runs_) {
    const Value attributes(run.attributes);
    std::size_t index = 0;
    while (index < dictionaries.size() && !(dictionaries[index] == attributes)) ++index;
    if (index == dictionaries.size()) dictionaries.push_back(attributes);
    appendVarint(info, run.length);
    appendVarint(info, index);
  }
  coder.encodeObject(std::move(Value(std::move(dictionaries)).setMutable()), "NSAttributes");
  coder.encodeObject(std::move(Value(std::move(info)).setMutable()), "NSAttributeInfo");
}

Status AttributedString::initWithCoder(KeyedUnarchiver& coder) {
  Value text = coder.decodeObjectOfClasses({"NSString"}, "NSString");
  Value attributes = coder.decodeObjectOfClasses(foundationClasses(), "NSAttributes");
  Value info = coder.decodeObjectOfClasses({"NSData"}, "NSAttributeInfo");
  if (coder.error()) return fail(*coder.error());
  if (!text.isString()) return fail(corruptArchiveError("attributed string without text"));
  string_ = text.asString();
  runs_.clear();
  if (attributes.isDictionary() && info.isNull()) {
    runs_.push_back({0, attributes.asDictionary()});
    // One run over the whole text; its length is the text's length in UTF-16 units.
    std::size_t units = 0;
    for (unsigned char c : string_) {
      if ((c & 0xC0) != 0x80) units += (c >= 0xF0) ? 2 : 1;
    }
    runs_.front().length = units;
    return {};
  }
  if (attributes.isNull() && info.isNull()) return {};
  if (!attributes.isArray() || !info.isData())
    return fail(corruptArchiveError("attributed string with malformed runs"));
  const Bytes& bytes = info.asData();
  for (std::size_t pos = 0; pos < bytes.size();) {
    auto length = readVarint(bytes, pos);
    auto index = length ? readVarint(bytes, pos) : std::nullopt;
    if (!index || *index >= attributes.count() || !attributes.at(*index).isDictionary()) {
      return fail(corruptArchiveError("attributed string with malformed runs"));
    }
    runs_.push_back({static_cast<std::size_t>(*length), attributes.at(*index).asDictionary()});
  }
  return {};
}

}  // namespace tesselune
