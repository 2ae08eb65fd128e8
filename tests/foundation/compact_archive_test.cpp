// The compact archives must be the general archiver's bytes exactly, whatever they hold and whatever
// widths their object tables need, and must read back as what was archived.

#include "foundation/compact_archive.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation/keyed_archiver.h"
#include "foundation/keyed_unarchiver.h"

namespace tesselune {
namespace {

Bytes generalArchive(const std::vector<Url>& urls) {
  auto bytes = KeyedArchiver::archivedDataWithRootObject(Value(Array(urls.begin(), urls.end())), false);
  EXPECT_TRUE(bytes) << bytes.error().debugDescription();
  return bytes.value_or(Bytes());
}

void expectSameArchive(const std::vector<Url>& urls) {
  auto bytes = archivedURLArray(urls);
  ASSERT_TRUE(bytes) << bytes.error().debugDescription();
  ASSERT_EQ(*bytes, generalArchive(urls)) << urls.size() << " URLs";
  auto decoded = KeyedUnarchiver::unarchivedObjectOfClasses(foundationClasses(), *bytes);
  ASSERT_TRUE(decoded) << decoded.error().debugDescription();
  ASSERT_TRUE(decoded->isArray());
  ASSERT_EQ(decoded->asArray().size(), urls.size());
  for (std::size_t i = 0; i < urls.size(); ++i) EXPECT_EQ(decoded->asArray()[i], Value(urls[i]));
}

// Object URIs as a store hands them out; every `repeatEvery`-th one repeats an earlier URI.
std::vector<Url> objectURIs(std::size_t count, std::size_t repeatEvery = 0) {
  std::vector<Url> urls;
  const char* entities[] = {"Spectrum", "FragmentSpectrum", "Chromatogram", "PeptideID"};
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t key = repeatEvery != 0 && i % repeatEvery == repeatEvery - 1 ? i / 2 : i;
    urls.push_back(*Url::parse("x-coredata://6A0F6C47-2B59-4A0C-9E0B-0D8F1D0E0B11/" +
                               std::string(entities[key % 4]) + "/p" + std::to_string(key + 1)));
  }
  return urls;
}

TEST(URLArrayArchive, SmallArraysOfEveryShapeAreTheGeneralArchiversBytes) {
  expectSameArchive({});
  expectSameArchive(objectURIs(1));
  expectSameArchive(objectURIs(9, 3));
  // Texts that are also the archive's own strings and class names.
  expectSameArchive({*Url::parse("$null"), *Url::parse("NS.base"), *Url::parse("NSURL"), *Url::parse("$null"),
                     *Url::parse("NSObject"), Url::fileUrl("/data/Lauf 1", true), *Url::parse("NSArray")});
}

TEST(URLArrayArchive, LargeArraysNeedWiderReferencesAndOffsetsAndStillMatch) {
  // About four objects per URL: past 255 objects (2-byte references) and past 65,535 (4-byte
  // references, and offsets past 64 KB).
  expectSameArchive(objectURIs(100, 7));
  expectSameArchive(objectURIs(20000, 5));
}

TEST(URLArrayArchive, URLsRelativeToABaseTakeTheGeneralPath) {
  const Url base = *Url::parse("x-coredata://6A0F6C47-2B59-4A0C-9E0B-0D8F1D0E0B11/");
  std::vector<Url> relative{*Url::parse("Spectrum/p1", base), *Url::parse("Spectrum/p2")};
  auto bytes = archivedURLArray(relative);
  ASSERT_TRUE(bytes);
  EXPECT_EQ(*bytes, generalArchive(relative));
}

Bytes bytesOf(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

void expectSameDictionaryArchive(const std::vector<std::pair<std::string, Bytes>>& items) {
  std::vector<DataEntry> entries;
  Dictionary dictionary;
  for (const auto& [key, bytes] : items) {
    entries.emplace_back(key, bytes);
    dictionary.emplace(key, Value(bytes));
  }
  auto bytes = archivedDataDictionary(entries);
  ASSERT_TRUE(bytes) << bytes.error().debugDescription();
  auto general = KeyedArchiver::archivedDataWithRootObject(Value(dictionary), false);
  ASSERT_TRUE(general);
  ASSERT_EQ(*bytes, *general) << items.size() << " entries";
  auto decoded = KeyedUnarchiver::unarchivedObjectOfClasses(foundationClasses(), *bytes);
  ASSERT_TRUE(decoded) << decoded.error().debugDescription();
  EXPECT_EQ(*decoded, Value(dictionary));
}

TEST(DataDictionaryArchive, IsTheGeneralArchiversBytesForEveryShape) {
  expectSameDictionaryArchive({});
  // A deletion report: a one-byte flag and an archive of 20,000 URLs (offsets past 64 KB).
  auto uris = archivedURLArray(objectURIs(20000));
  ASSERT_TRUE(uris);
  expectSameDictionaryArchive({{"chromatogramDeleted", Bytes{1}}, {"uriData", *uris}});
  // Equal values are one object; keys that are the archive's own strings; data equal to a key;
  // enough entries for a counted marker.
  std::vector<std::pair<std::string, Bytes>> items{{"$class", bytesOf("NS.keys")},
                                                   {"$null", Bytes{}},
                                                   {"NS.keys", Bytes{}},
                                                   {"NS.objects", bytesOf("$null")},
                                                   {"a", bytesOf("NS.keys")}};
  for (int i = 0; i < 20; ++i)
    items.emplace_back("key " + std::to_string(100 + i), Bytes{std::uint8_t(i % 3)});
  expectSameDictionaryArchive(items);
}

TEST(DataDictionaryArchive, KeysOutOfOrderTakeTheGeneralPath) {
  const Bytes one{1};
  const Bytes two{2};
  const DataEntry entries[] = {{"uriData", two}, {"chromatogramDeleted", one}, {"uriData", one}};
  auto bytes = archivedDataDictionary(entries);
  ASSERT_TRUE(bytes);
  auto general = KeyedArchiver::archivedDataWithRootObject(
      Value(Dictionary{{"chromatogramDeleted", Value(one)}, {"uriData", Value(two)}}), false);
  ASSERT_TRUE(general);
  EXPECT_EQ(*bytes, *general);
}

}  // namespace
}  // namespace tesselune
