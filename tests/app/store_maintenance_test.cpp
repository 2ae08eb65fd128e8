// Making, filling, marking and describing real stores on disk, each reopened before it is checked.
#include "app/store_maintenance.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "app/demo_store.h"
#include "app_test_support.h"

namespace tesselune {
namespace {

using testing::ScratchHome;
using testing::smallDemo;

std::int64_t countOf(const StoreStatus& status, std::string_view entity) {
  for (const auto& entry : status.counts) {
    if (entry.entity == entity) return entry.count;
  }
  return -1;
}

std::optional<std::int64_t> markedOf(const StoreStatus& status, std::string_view entity) {
  for (const auto& entry : status.counts) {
    if (entry.entity == entity) return entry.marked;
  }
  return std::nullopt;
}

StoreStatus statusOf(const DataLibrary& library) {
  auto opened = openMaintenanceStore(library.storeFile(), true);
  EXPECT_TRUE(opened) << opened.error().localizedDescription();
  auto status = storeStatus(*opened->store, library);
  EXPECT_TRUE(status) << status.error().localizedDescription();
  return *status;
}

TEST(StoreMaintenance, CreateMakesTheLibraryOnceAndOpeningNeedsAStore) {
  ScratchHome home;
  const DataLibrary library = home.library();

  auto missing = openMaintenanceStore(library.storeFile(), true);
  ASSERT_FALSE(missing);
  EXPECT_NE(missing.error().localizedDescription().find("tesselune-store create"), std::string::npos);

  ASSERT_TRUE(createStore(library));
  EXPECT_TRUE(std::filesystem::is_directory(library.temporaryFolder()));
  auto again = createStore(library);
  ASSERT_FALSE(again);
  EXPECT_NE(again.error().localizedDescription().find("already exists"), std::string::npos);

  const StoreStatus status = statusOf(library);
  EXPECT_TRUE(status.marked.empty());
  EXPECT_EQ(countOf(status, "Chromatogram"), 0);
  EXPECT_EQ(markedOf(status, "Chromatogram"), 0);
  EXPECT_EQ(markedOf(status, "Spectrum"), std::nullopt);  // cannot be marked
  EXPECT_GT(status.storeBytes, 0u);
  EXPECT_EQ(status.dataFolderBytes, 0u);
}

TEST(StoreMaintenance, DemoStoreHoldsWhatWasAskedForWithTheLastOfEachMarked) {
  ScratchHome home;
  const DataLibrary library = home.library();
  const DemoOptions options = smallDemo();
  auto summary = buildDemoStore(library, options, nullptr);
  ASSERT_TRUE(summary) << summary.error().localizedDescription();
  EXPECT_EQ(summary->marked, 4);
  EXPECT_EQ(summary->dataFolders, 2);

  const StoreStatus status = statusOf(library);
  EXPECT_EQ(countOf(status, "Chromatogram"), 2);
  EXPECT_EQ(countOf(status, "Spectrum"), 2 * 40);
  EXPECT_EQ(countOf(status, "FragmentSpectrum"), 2 * 5);
  EXPECT_EQ(countOf(status, "DatabaseSearchResult"), 2);
  EXPECT_EQ(countOf(status, "DatabaseSearchJoin"), 1);
  EXPECT_EQ(countOf(status, "DataCollection"), 2);
  EXPECT_EQ(countOf(status, "PeptideID"), 2 * 6);
  std::int64_t total = 0;
  for (const auto& entry : status.counts) total += entry.count;
  EXPECT_EQ(total, summary->objects);

  std::vector<std::string> marked;
  for (const auto& object : status.marked) marked.push_back(object.entity + "/" + object.name);
  std::sort(marked.begin(), marked.end());
  EXPECT_EQ(marked,
            (std::vector<std::string>{"Chromatogram/Chromatogram 2", "DataCollection/Data collection 2",
                                      "DatabaseSearchJoin/Search group 1", "DatabaseSearchResult/Search 2"}));
  EXPECT_TRUE(std::filesystem::is_directory(library.folder() / "Chromatogram 2.data"));
  // Two files of one kilobyte in each of the two data folders.
  EXPECT_EQ(status.dataFolderBytes, 2u * 2u * 1024u);

  // A second demo in the same place would mix two stores.
  EXPECT_FALSE(buildDemoStore(library, options, nullptr));
}

TEST(StoreMaintenance, DemoOptionsThatCannotBeMadeAreRefused) {
  DemoOptions tooManyMarks = smallDemo();
  tooManyMarks.markedChromatograms = 3;
  EXPECT_FALSE(validateDemoOptions(tooManyMarks));
  DemoOptions negative = smallDemo();
  negative.peptidesPerSearch = -1;
  EXPECT_FALSE(validateDemoOptions(negative));
  DemoOptions nothingMarked = smallDemo();
  nothingMarked.markedChromatograms = 0;
  nothingMarked.markedSearches = 0;
  nothingMarked.markedSearchGroups = 0;
  nothingMarked.markedDataCollections = 0;
  EXPECT_TRUE(validateDemoOptions(nothingMarked));

  ScratchHome home;
  auto built = buildDemoStore(home.library(), nothingMarked, nullptr);
  ASSERT_TRUE(built);
  EXPECT_EQ(built->marked, 0);
  EXPECT_TRUE(statusOf(home.library()).marked.empty());
}

TEST(StoreMaintenance, EntitiesAreFoundByModelNameInAnyCaseOrByShortName) {
  ScratchHome home;
  ASSERT_TRUE(createStore(home.library()));
  auto opened = openMaintenanceStore(home.library().storeFile(), true);
  ASSERT_TRUE(opened);
  const ManagedObjectModel& model = *opened->model;

  std::vector<std::string> markable;
  for (const auto* entity : markableEntities(model)) markable.push_back(entity->name());
  EXPECT_EQ(markable, (std::vector<std::string>{"Chromatogram", "DataCollection", "DatabaseSearchJoin",
                                                "DatabaseSearchResult"}));
  auto nameOf = [&](std::string_view name) {
    const EntityDescription* entity = markableEntityNamed(model, name);
    return entity == nullptr ? std::string("-") : entity->name();
  };
  EXPECT_EQ(nameOf("chromatogram"), "Chromatogram");
  EXPECT_EQ(nameOf("CHROMATOGRAM"), "Chromatogram");
  EXPECT_EQ(nameOf("search"), "DatabaseSearchResult");
  EXPECT_EQ(nameOf("search-group"), "DatabaseSearchJoin");
  EXPECT_EQ(nameOf("collection"), "DataCollection");
  EXPECT_EQ(nameOf("databasesearchjoin"), "DatabaseSearchJoin");
  EXPECT_EQ(nameOf("Spectrum"), "-");
  EXPECT_EQ(nameOf(""), "-");
}

class MarkingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DemoOptions options = smallDemo();
    options.markedChromatograms = 0;
    options.markedSearches = 0;
    options.markedSearchGroups = 0;
    options.markedDataCollections = 0;
    auto built = buildDemoStore(home_.library(), options, nullptr);
    ASSERT_TRUE(built) << built.error().localizedDescription();
  }

  MaintenanceStore openForWriting() {
    auto opened = openMaintenanceStore(home_.library().storeFile(), false);
    EXPECT_TRUE(opened) << opened.error().localizedDescription();
    return std::move(*opened);
  }

  ScratchHome home_;
};

TEST_F(MarkingTest, MarkingByNameMarksThatObjectOnlyAndSurvivesReopening) {
  {
    MaintenanceStore opened = openForWriting();
    const EntityDescription* search = markableEntityNamed(*opened.model, "search");
    auto marked = markObjectsNamed(*opened.store, *search, "Search 1");
    ASSERT_TRUE(marked) << marked.error().localizedDescription();
    ASSERT_EQ(marked->size(), 1u);
    EXPECT_EQ((*marked)[0].entity, "DatabaseSearchResult");
    EXPECT_TRUE((*marked)[0].uri.starts_with("x-coredata://"));
    EXPECT_TRUE((*marked)[0].uri.ends_with("/DatabaseSearchResult/p1"));
  }
  const StoreStatus status = statusOf(home_.library());
  ASSERT_EQ(status.marked.size(), 1u);
  EXPECT_EQ(status.marked[0].name, "Search 1");
  EXPECT_EQ(markedOf(status, "DatabaseSearchResult"), 1);
  EXPECT_EQ(markedOf(status, "Chromatogram"), 0);
}

TEST_F(MarkingTest, AnUnknownNameFailsAndChangesNothing) {
  {
    MaintenanceStore opened = openForWriting();
    const EntityDescription* chromatogram = markableEntityNamed(*opened.model, "chromatogram");
    auto marked = markObjectsNamed(*opened.store, *chromatogram, "Chromatogram 9");
    ASSERT_FALSE(marked);
    EXPECT_NE(marked.error().localizedDescription().find("Chromatogram 9"), std::string::npos);
    // A search's name is not a chromatogram's.
    EXPECT_FALSE(markObjectsNamed(*opened.store, *chromatogram, "Search 1"));
  }
  EXPECT_TRUE(statusOf(home_.library()).marked.empty());
}

TEST_F(MarkingTest, MarkingByURIAcceptsOnlyMarkableObjectsOfThisStore) {
  std::string storeUUID;
  {
    MaintenanceStore opened = openForWriting();
    storeUUID = opened.store->identifier().string();
    const std::string prefix = "x-coredata://" + storeUUID;
    auto marked = markObjectWithURI(*opened.store, prefix + "/DataCollection/p2");
    ASSERT_TRUE(marked) << marked.error().localizedDescription();
    EXPECT_EQ(marked->name, "Data collection 2");

    EXPECT_FALSE(markObjectWithURI(*opened.store, prefix + "/DataCollection/p99"));  // no such row
    EXPECT_FALSE(markObjectWithURI(*opened.store, prefix + "/Spectrum/p1"));         // cannot be marked
    EXPECT_FALSE(markObjectWithURI(*opened.store, prefix + "/NoSuchEntity/p1"));
    EXPECT_FALSE(markObjectWithURI(
        *opened.store,
        "x-coredata://00000000-0000-0000-0000-000000000001/DataCollection/p1"));  // another store
    EXPECT_FALSE(markObjectWithURI(*opened.store, "Data collection 1"));
    EXPECT_FALSE(markObjectWithURI(*opened.store, ""));
  }
  const StoreStatus status = statusOf(home_.library());
  ASSERT_EQ(status.marked.size(), 1u);
  EXPECT_EQ(status.marked[0].uri, "x-coredata://" + storeUUID + "/DataCollection/p2");
}

TEST(StoreMaintenance, ByteCountsReadAsPeopleWriteThem) {
  EXPECT_EQ(formatByteCount(0), "0 bytes");
  EXPECT_EQ(formatByteCount(999), "999 bytes");
  EXPECT_EQ(formatByteCount(1000), "1.0 kB");
  EXPECT_EQ(formatByteCount(1'500'000), "1.5 MB");
  EXPECT_EQ(formatByteCount(999'999), "1.0 MB");  // not "1000.0 kB"
}

}  // namespace
}  // namespace tesselune
