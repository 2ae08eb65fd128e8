// Property lists: Apple-written files read, our writes read back, and hand-made hostile binary
// lists rejected before libplist can be hurt by them.

#include "foundation/property_list.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>

#include "fixtures.h"

namespace tesselune {
namespace {

using test::readFixture;

// A binary property list from raw objects, with one-byte offsets and references.
Bytes binaryList(const std::vector<Bytes>& objects, std::uint8_t top = 0, int countAdjust = 0) {
  Bytes out{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  std::vector<std::uint8_t> offsets;
  for (const Bytes& o : objects) {
    offsets.push_back(static_cast<std::uint8_t>(out.size()));
    out.insert(out.end(), o.begin(), o.end());
  }
  const std::size_t table = out.size();
  out.insert(out.end(), offsets.begin(), offsets.end());
  Bytes trailer(32, 0);
  trailer[6] = 1;
  trailer[7] = 1;
  trailer[15] = static_cast<std::uint8_t>(static_cast<int>(objects.size()) + countAdjust);
  trailer[23] = top;
  trailer[31] = static_cast<std::uint8_t>(table);
  out.insert(out.end(), trailer.begin(), trailer.end());
  return out;
}

TEST(PropertyList, ReadsAppleWrittenBinaryAndXml) {
  PropertyListFormat format{};
  auto binary = propertyListWithData(readFixture("keyedarchive/small/fixtures/dict.bin"), &format);
  ASSERT_TRUE(binary) << binary.error().debugDescription();
  EXPECT_EQ(format, PropertyListFormat::Binary);
  auto xml = propertyListWithData(readFixture("keyedarchive/small/fixtures/dict.xml"), &format);
  ASSERT_TRUE(xml) << xml.error().debugDescription();
  EXPECT_EQ(format, PropertyListFormat::Xml);

  // The two files hold the same archive; UIDs read as { "CF$UID": n } in both forms.
  EXPECT_EQ(*binary, *xml);
  EXPECT_EQ((*binary)["$archiver"], Value("NSKeyedArchiver"));
  EXPECT_EQ((*binary)["$top"]["$0"], Value::dictionary({{"CF$UID", 1}}));
  EXPECT_EQ((*binary)["$objects"].at(2), Value("int"));
}

TEST(PropertyList, WritesWhatItReadsInBothFormats) {
  Value tree = Value::dictionary({
      {"negative", Value(std::numeric_limits<std::int64_t>::min())},
      {"big", Value(std::numeric_limits<std::int64_t>::max())},
      {"tenth", 0.1},
      {"tiny", 4.9406564584124654e-324},
      {"float", 1.5},
      {"text", "Grüße, 世界 🧪"},
      {"flag", true},
      {"blob", Value::data(std::string("\0\1\2\xff", 4))},
      {"when", Date{-123456}},
      {"list", Value::array({1, "two", Value::array({}), Value::dictionary({})})},
      {"uid", Value::dictionary({{"CF$UID", 7}})},
  });
  for (auto format : {PropertyListFormat::Binary, PropertyListFormat::Xml}) {
    auto bytes = dataWithPropertyList(tree, format);
    ASSERT_TRUE(bytes) << bytes.error().debugDescription();
    auto back = propertyListWithData(*bytes);
    ASSERT_TRUE(back) << back.error().debugDescription();
    for (const auto& [key, value] : tree.asDictionary()) EXPECT_EQ((*back)[key], value) << key;
    // Bit for bit, not just equal within rounding.
    EXPECT_EQ(std::bit_cast<std::uint64_t>((*back)["tenth"].asDouble()), std::bit_cast<std::uint64_t>(0.1));
    EXPECT_TRUE((*back)["negative"].isInteger());
  }
}

TEST(PropertyList, WritesEveryWidthOfLengthReferenceAndOffset) {
  // More than 65536 objects: four-byte references and offsets; lengths past the one-nibble form.
  Array numbers;
  for (std::int64_t i = 0; i < 70000; ++i) numbers.emplace_back(i * 997);
  Dictionary many;
  for (int i = 0; i < 20; ++i) many.emplace("key" + std::to_string(i), i);
  const Value tree = Value::dictionary({
      {"numbers", Value(std::move(numbers))},
      {"widths", Value::array({0, 255, 256, 65535, 65536, std::int64_t{1} << 32, -1, -65536})},
      {"ascii", std::string(300, 'x')},
      {"utf16", "ünïcødé ünïcødé ünïcødé"},
      {"astral", "🧪🧪🧪🧪🧪🧪🧪🧪"},
      {"blob", Value(Bytes(1000, 0xAB))},
      {"many", Value(std::move(many))},
  });
  auto bytes = dataWithPropertyList(tree);
  ASSERT_TRUE(bytes);
  const std::uint8_t* trailer = bytes->data() + bytes->size() - 32;
  EXPECT_EQ(trailer[6], 4) << "offset size";
  EXPECT_EQ(trailer[7], 4) << "reference size";
  auto back = propertyListWithData(*bytes);
  ASSERT_TRUE(back) << back.error().debugDescription();
  EXPECT_EQ(*back, tree);

  // A small list uses one-byte references, and equal values are written once.
  auto small = dataWithPropertyList(Value::array({"same", "same", "same", 7, 7}));
  ASSERT_TRUE(small);
  EXPECT_EQ(small->at(small->size() - 25), 1);
  EXPECT_EQ(small->at(small->size() - 17), 3) << "array, one string, one integer";
}

TEST(PropertyList, RefusesToWriteWhatIsNoPropertyList) {
  // libplist would write text that is not UTF-8 as UTF-16 that nothing reads back.
  for (const Value& v : {Value(), Value(Uuid::random()), Value::set({1}), Value::array({Value()}),
                         Value(std::string("a\0b", 3)), Value("\xff)Y"), Value("\xc0\xaf"),
                         Value("\xed\xa0\x80"), Value("caf\xc3")}) {
    auto bytes = dataWithPropertyList(v);
    ASSERT_FALSE(bytes) << v.description();
    EXPECT_EQ(bytes.error().code(), kPropertyListWriteInvalidError);
  }
}

TEST(PropertyList, RejectsMalformedInputWithCorruptError) {
  const Bytes array{0xA1, 0x01};    // [ref 1]
  const Bytes integer{0x10, 0x2A};  // 42
  Bytes truncated = binaryList({integer});
  truncated.pop_back();
  const std::vector<std::pair<std::string, Bytes>> cases = {
      {"empty", {}},
      {"not a list", Bytes{'h', 'e', 'l', 'l', 'o'}},
      {"broken xml", readFixture("keyedarchive/small/fixtures/broken_plist.xml")},
      {"truncated", truncated},
      {"reference beyond the table", binaryList({Bytes{0xA1, 0x05}, integer})},
      {"count larger than the table", binaryList({array, integer}, 0, 1)},
      {"top beyond the table", binaryList({integer}, 3)},
      {"unknown marker", binaryList({Bytes{0x70}})},
      {"string past the table", binaryList({Bytes{0x5F, 0x10, 0x7F, 'a'}})},
      {"array that contains itself", binaryList({Bytes{0xA1, 0x00}})},
      {"cycle through two arrays", binaryList({array, Bytes{0xA1, 0x00}})},
      {"key that is no string", binaryList({Bytes{0xD1, 0x01, 0x01}, integer})},
      {"key with a NUL", binaryList({Bytes{0xD1, 0x01, 0x02}, Bytes{0x52, 'a', 0}, integer})},
  };
  for (const auto& [name, bytes] : cases) {
    auto result = propertyListWithData(bytes);
    ASSERT_FALSE(result) << name;
    EXPECT_EQ(result.error().domain(), kCocoaErrorDomain) << name;
    EXPECT_EQ(result.error().code(), kPropertyListReadCorruptError) << name;
  }
}

TEST(PropertyList, RejectsExponentialSharingAndDeepNesting) {
  // Object i is an array holding object i+1 sixteen times: 16^12 nodes once expanded.
  std::vector<Bytes> objects;
  for (std::uint8_t i = 0; i < 12; ++i) {
    Bytes a{0xAF, 0x10, 16};
    a.insert(a.end(), 16, static_cast<std::uint8_t>(i + 1));
    objects.push_back(a);
  }
  objects.push_back(Bytes{0x09});
  auto bomb = propertyListWithData(binaryList(objects));
  ASSERT_FALSE(bomb);
  EXPECT_NE(bomb.error().localizedDescription().find("expand"), std::string::npos);

  std::string xml = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
  for (int i = 0; i < 2000; ++i) xml += "<array>";
  for (int i = 0; i < 2000; ++i) xml += "</array>";
  xml += "</plist>";
  auto deep = propertyListWithData(Bytes(xml.begin(), xml.end()));
  ASSERT_FALSE(deep);
  EXPECT_NE(deep.error().localizedDescription().find("deep"), std::string::npos);

  // A nesting within the limit still reads.
  std::string fine = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
  for (int i = 0; i < 100; ++i) fine += "<array>";
  for (int i = 0; i < 100; ++i) fine += "</array>";
  fine += "</plist>";
  EXPECT_TRUE(propertyListWithData(Bytes(fine.begin(), fine.end())));
}

}  // namespace
}  // namespace tesselune
