// The entity classes' derived values in a real store: their formulas, what they cache and when
// they notify, the display-key dependencies, and ApplicationControl's forwarding accessors.

#include <gtest/gtest.h>

#include <cmath>

#include "foundation/attributed_string.h"
#include "model/chromatogram.h"
#include "model/data_collection.h"
#include "model/database_search.h"
#include "model/ion_group.h"
#include "objectstore/managed_object_context.h"
#include "test_store.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

class EntityClasses : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = test::scratchFolder("entities");
    dataFolder_ = folder_ / "Tesselune Data Library";
    fs::create_directories(dataFolder_);
    store_ = test::openStore(folder_ / "TesseluneStore.tesselune", dataFolder_);
  }

  // Counts the notifications for one key of an object.
  struct Counter {
    int count = 0;
  };
  std::shared_ptr<Counter> observe(ManagedObject& object, std::string key) {
    auto counter = std::make_shared<Counter>();
    object.addObserver(std::move(key), [counter](ManagedObject&, std::string_view) { ++counter->count; });
    return counter;
  }

  fs::path folder_;
  fs::path dataFolder_;
  test::OpenStore store_;
};

TEST_F(EntityClasses, IonGroupCountsItsIonsOnlyWhileItHasNone) {
  auto group = test::insertAs<IonGroup>(store_, "IonGroup");
  auto counted = observe(*group, "numberOfIons");

  // No ions: 0, and every read counts again (each count is a notified set).
  EXPECT_EQ(group->numberOfIons(), 0);
  EXPECT_EQ(group->objectDescription(), "0 ions");
  EXPECT_EQ(group->shortObjectDescription(), "(0)");
  const int afterFirstReads = counted->count;
  EXPECT_EQ(group->numberOfIons(), 0);
  EXPECT_GT(counted->count, afterFirstReads);

  // A stored count of 0 is replaced by the members' count on the next read; after that the count
  // is the object's own and is not taken from the members again.
  for (int i = 0; i < 12; ++i) group->addObject(store_.insert("PeptideID"), "ions");
  EXPECT_EQ(group->numberOfIons(), 12);
  EXPECT_EQ(group->objectDescription(), "12 ions");
  EXPECT_EQ(group->shortObjectDescription(), "(12)");
  EXPECT_EQ(group->valueForKey("objectDescription"), Value("12 ions"));
  group->addObject(store_.insert("PeptideID"), "ions");
  EXPECT_EQ(group->numberOfIons(), 12);
  group->refreshMembersCount();
  EXPECT_EQ(group->valueForKey("numberOfIons"), Value(13));
}

TEST_F(EntityClasses, IonGroupDescriptionsFollowItsIonsAndNameFollowsItsName) {
  auto group = test::insertAs<NormIonGroup>(store_, "NormIonGroup");
  auto description = observe(*group, "objectDescription");
  auto name = observe(*group, "objectName");
  group->addObject(store_.insert("PeptideID"), "ions");
  EXPECT_EQ(description->count, 1);
  EXPECT_EQ(name->count, 0);
  group->setValue(Value("light"), "ionGroupName");
  EXPECT_EQ(name->count, 1);

  auto chromatogramGroup = test::insertAs<ChromatogramGroup>(store_, "ChromatogramGroup");
  EXPECT_EQ(chromatogramGroup->keyPathsForValuesAffectingValueForKey("shortObjectDescription"),
            std::set<std::string>{"chromatograms"});
  EXPECT_EQ(chromatogramGroup->keyPathsForValuesAffectingValueForKey("objectName"),
            std::set<std::string>{"chromatogramGroupName"});
  EXPECT_TRUE(chromatogramGroup->keyPathsForValuesAffectingValueForKey("chromatogramGroupName").empty());
  auto alignment = store_.insert("ChromatogramAlignment");
  EXPECT_EQ(alignment->keyPathsForValuesAffectingValueForKey("objectDescription"),
            std::set<std::string>{"chromatogramGroup.objectName"});
  auto markers = store_.insert("MolecularMarkerGroup");
  EXPECT_EQ(markers->keyPathsForValuesAffectingValueForKey("objectDescription"),
            (std::set<std::string>{"molecularMarkers", "markerSets"}));
  EXPECT_EQ(markers->keyPathsForValuesAffectingValueForKey("objectName"), std::set<std::string>{"name"});
}

TEST_F(EntityClasses, MassDeviationFollowsItsFormulaOnceAndIsThenCached) {
  auto peptide = test::insertAs<PeptideID>(store_, "PeptideID");
  peptide->setValue(Value(0), "charge");
  peptide->setValue(Value(1234.5), "calculatedMass");
  peptide->setValue(Value(618.0), "mzValue");
  // Charge 0 takes the second branch: (m + 1) * 0 + c.
  EXPECT_FLOAT_EQ(peptide->massDeviation(), 1234.5f);
  // Cached: a new charge changes nothing.
  peptide->setValue(Value(2), "charge");
  EXPECT_FLOAT_EQ(peptide->massDeviation(), 1234.5f);

  // With the cache cleared, a positive charge takes the first branch. The formula reads the key
  // "mz", which the model does not have, so m is 0 whatever mzValue holds.
  peptide->setMassDeviation(std::nullopt);
  EXPECT_FLOAT_EQ(peptide->massDeviation(), (0.0f - 1.0f) * 2.0f - 1234.5f);
  peptide->setMassDeviation(std::nullopt);
  peptide->setValue(Value(-3), "charge");
  EXPECT_FLOAT_EQ(peptide->massDeviation(), (0.0f + 1.0f) * -3.0f + 1234.5f);

  // The cache is a transient attribute: it is not written to the store.
  ASSERT_TRUE(store_.context().save());
  const Url uri = peptide->objectID().URIRepresentation();
  store_ = {};
  store_ = test::openStore(folder_ / "TesseluneStore.tesselune", dataFolder_);
  auto again = store_.context().existingObjectWithID(
      *store_.delegate->persistentStoreCoordinator()->managedObjectIDForURIRepresentation(uri));
  ASSERT_TRUE(again);
  EXPECT_TRUE((*again)->primitiveValueForKey("massDeviation").isNull());
}

TEST_F(EntityClasses, IonVolumeSearchPredicateIsBuiltOnceAndSubstituted) {
  auto peptide = test::insertAs<PeptideID>(store_, "PeptideID");
  const Predicate& predicate = peptide->ionVolumeSearchPredicate();
  EXPECT_EQ(&predicate, &peptide->ionVolumeSearchPredicate());
  EXPECT_EQ(predicate.predicateFormat(),
            "chromatogram == $chromatogram AND referenceObjectID == $referenceObjectID");
  auto bound = predicate.predicateWithSubstitutionVariables(
      Dictionary{{"chromatogram", Value("run 1")}, {"referenceObjectID", Value(7)}});
  ASSERT_TRUE(bound);
  EXPECT_TRUE(bound->evaluateWithObject(
      Value(Dictionary{{"chromatogram", Value("run 1")}, {"referenceObjectID", Value(7)}})));
  EXPECT_FALSE(bound->evaluateWithObject(
      Value(Dictionary{{"chromatogram", Value("run 2")}, {"referenceObjectID", Value(7)}})));
}

TEST_F(EntityClasses, PeptideParserStateIsAnnouncedAndStartsEmpty) {
  struct Recording : PeptideID {
    mutable std::vector<std::string> accessed;
    void willAccessValueForKey(std::string_view key) const override { accessed.emplace_back(key); }
  } peptide;
  EXPECT_FALSE(peptide.readCharacters());
  EXPECT_TRUE(peptide.valueString().empty());
  peptide.valueString() += "VLSEGEWQLVLHVWAK";
  EXPECT_EQ(peptide.valueString(), "VLSEGEWQLVLHVWAK");
  peptide.setXmlAttributeNames({"rank", "score"});
  EXPECT_EQ(peptide.xmlAttributeNames(), (std::vector<std::string>{"rank", "score"}));
  EXPECT_EQ(peptide.accessed, (std::vector<std::string>{"readCharacters", "valueString", "valueString",
                                                        "valueString", "xmlAttributeNames"}));
}

TEST_F(EntityClasses, DataFolderIsResolvedFromTheRelativePathAndCachedQuietly) {
  auto chromatogram = test::insertAs<Chromatogram>(store_, "Chromatogram");
  EXPECT_FALSE(chromatogram->dataFolderURL());
  chromatogram->setValue(Value(""), "dataFolderRelativePath");
  EXPECT_FALSE(chromatogram->dataFolderURL());

  fs::create_directories(dataFolder_ / "Run 7 data");
  chromatogram->setValue(Value("Run 7 data"), "dataFolderRelativePath");
  auto notified = observe(*chromatogram, "dataFolderURL");
  auto url = chromatogram->dataFolderURL();
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path(), (dataFolder_ / "Run 7 data").string());
  EXPECT_TRUE(url->hasDirectoryPath());
  EXPECT_EQ(notified->count, 0);
  EXPECT_EQ(chromatogram->primitiveValueForKey("dataFolderURL"), Value(*url));

  // The cache wins over a changed path; setting it notifies and leaves the path alone.
  chromatogram->setValue(Value("elsewhere"), "dataFolderRelativePath");
  EXPECT_EQ(chromatogram->dataFolderURL(), url);
  const Url moved = Url::fileUrl("/tmp/moved/", true);
  chromatogram->setDataFolderURL(moved);
  EXPECT_EQ(notified->count, 1);
  EXPECT_EQ(chromatogram->valueForKey("dataFolderURL"), Value(moved));
  EXPECT_EQ(chromatogram->valueForKey("dataFolderRelativePath"), Value("elsewhere"));
  // Emptied, the cache is resolved again from the path.
  chromatogram->setDataFolderURL(std::nullopt);
  EXPECT_EQ(chromatogram->dataFolderURL()->lastPathComponent(), "elsewhere");
}

TEST_F(EntityClasses, DatabaseSearchResultNameReadsEmptyAndEqualNamesPostNothing) {
  auto result = test::insertAs<DatabaseSearchResult>(store_, "DatabaseSearchResult");
  EXPECT_EQ(result->databaseSearchResultName(), "");
  EXPECT_EQ(result->valueForKey("databaseSearchResultName"), Value(""));
  EXPECT_TRUE(result->primitiveDatabaseSearchResultName().isNull());

  auto notified = observe(*result, "databaseSearchResultName");
  result->setDatabaseSearchResultName("Search 1");
  EXPECT_EQ(notified->count, 1);
  result->setDatabaseSearchResultName("Search 1");
  result->setValueForKey(Value("Search 1"), "databaseSearchResultName");
  EXPECT_EQ(notified->count, 1);
  result->setValueForKey(Value("Search 2"), "databaseSearchResultName");
  EXPECT_EQ(notified->count, 2);
  EXPECT_EQ(result->databaseSearchResultName(), "Search 2");
  // An empty name differs from none, so it is set.
  auto unnamed = test::insertAs<DatabaseSearchResult>(store_, "DatabaseSearchResult");
  auto unnamedNotified = observe(*unnamed, "databaseSearchResultName");
  unnamed->setDatabaseSearchResultName("");
  EXPECT_EQ(unnamedNotified->count, 1);
  EXPECT_EQ(unnamed->primitiveDatabaseSearchResultName(), Value(""));
}

TEST_F(EntityClasses, ChromatogramGroupStartsWithOneSpaceOfInfoAndCountsItsChromatograms) {
  auto group = test::insertAs<ChromatogramGroup>(store_, "ChromatogramGroup");
  auto info = group->valueForKey("info").asObjectOf<AttributedString>();
  ASSERT_TRUE(info);
  EXPECT_EQ(info->string(), " ");
  EXPECT_EQ(info->className(), "NSMutableAttributedString");
  ASSERT_EQ(info->runs().size(), 1u);
  EXPECT_EQ(info->runs()[0].length, 1u);
  EXPECT_EQ(info->runs()[0].attributes.at("NSFont")["NSSize"], Value(12.0));

  EXPECT_EQ(group->numberOfChromatograms(), 0u);
  group->addObject(store_.insert("Chromatogram"), "chromatograms");
  group->addObject(store_.insert("Chromatogram"), "chromatograms");
  EXPECT_EQ(group->valueForKey("numberOfChromatograms"), Value(2));

  // The info survives the store (it is archived through its transformer).
  ASSERT_TRUE(store_.context().save());
  const Url uri = group->objectID().URIRepresentation();
  store_ = {};
  store_ = test::openStore(folder_ / "TesseluneStore.tesselune", dataFolder_);
  auto again = store_.context().existingObjectWithID(
      *store_.delegate->persistentStoreCoordinator()->managedObjectIDForURIRepresentation(uri));
  ASSERT_TRUE(again);
  auto stored = (*again)->valueForKey("info").asObjectOf<AttributedString>();
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->string(), " ");
}

TEST_F(EntityClasses, DataCollectionKeepsOneUndoManager) {
  auto collection = test::insertAs<DataCollection>(store_, "DataCollection");
  auto undo = collection->undoManager();
  ASSERT_TRUE(undo);
  EXPECT_EQ(collection->undoManager(), undo);
  EXPECT_NE(undo, store_.context().undoManager());
  // The view controllers are held weakly.
  auto controller = std::make_shared<AttributedString>();
  collection->setGraphicViewController(controller);
  EXPECT_EQ(collection->graphicViewController(), controller);
  controller.reset();
  EXPECT_FALSE(collection->graphicViewController());
}

TEST_F(EntityClasses, ApplicationControlForwardsToItsContainer) {
  const auto& delegate = *store_.delegate;
  ASSERT_TRUE(delegate.persistentDataContainer());
  EXPECT_EQ(delegate.managedObjectModel(), test::storeModel());
  EXPECT_EQ(delegate.managedObjectContext()->persistentStoreCoordinator(),
            delegate.persistentStoreCoordinator());
  ASSERT_TRUE(delegate.URLForStore());
  EXPECT_EQ(delegate.URLForStore()->lastPathComponent(), "TesseluneStore.tesselune");
  ASSERT_NE(delegate.persistentStore(), nullptr);
  EXPECT_EQ(delegate.persistentStore(), delegate.persistentStoreCoordinator()->persistentStores().front());

  // Without store descriptions there is no store URL and no store.
  auto bare = std::make_shared<PersistentContainer>("Bare", test::storeModel());
  bare->setPersistentStoreDescriptions({});
  ApplicationControl control(bare);
  EXPECT_FALSE(control.URLForStore());
  EXPECT_EQ(control.persistentStore(), nullptr);
  EXPECT_NE(control.managedObjectContext(), nullptr);
  ApplicationControl empty;
  EXPECT_EQ(empty.managedObjectContext(), nullptr);
  EXPECT_EQ(empty.persistentStoreCoordinator(), nullptr);

  // The environment holds the delegate weakly; with it gone, objects have no fallback.
  auto environment = std::make_shared<StoreEnvironment>();
  {
    auto delegateOfTheMoment = std::make_shared<ApplicationControl>(bare);
    environment->setApplicationDelegate(delegateOfTheMoment);
    EXPECT_EQ(environment->applicationDelegate(), delegateOfTheMoment);
    EXPECT_TRUE(environment->defaultDirectoryURL()) << "falls back on the delegate's container";
  }
  EXPECT_FALSE(environment->applicationDelegate());
  EXPECT_FALSE(environment->defaultDirectoryURL());
}

}  // namespace
}  // namespace tesselune
