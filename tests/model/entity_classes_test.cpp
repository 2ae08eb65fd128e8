// The entity classes' derived values in a real store: their formulas, what they cache and when
// they notify, the display-key dependencies, and ApplicationControl's forwarding accessors.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <type_traits>
#include <utility>

#include "foundation/attributed_string.h"
#include "model/chromatogram.h"
#include "model/data_collection.h"
#include "model/database_search.h"
#include "model/ion_group.h"
#include "model/marker_fragment_group.h"
#include "model/precursor_list.h"
#include "model/spectrum.h"
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

// The declared accessors name the model's properties with the model's kinds: written through them,
// saved, and read back through them from a reopened store; to-one setters keep the inverse.
TEST_F(EntityClasses, DeclaredPropertiesAreTheStoresOwnAndSurviveReopening) {
  const Uuid chromatogramTag = Uuid::random();
  const Uuid searchTag = Uuid::random();
  {
    auto chromatogram = test::insertAs<Chromatogram>(store_, "Chromatogram");
    chromatogram->setDestinedForDeletion(true);
    chromatogram->setChromatogramName("Run 7");
    chromatogram->setDataFolderRelativePath("Run 7 data");
    chromatogram->setDeltaTimeMin(0.25);
    chromatogram->setDuration(3600.5);
    chromatogram->setIdTag(chromatogramTag);
    chromatogram->setIntegratedIonCount(1.5e9);
    chromatogram->setNumberOfSpectra(2);
    chromatogram->setNumberOfFragmentSpectra(1);
    chromatogram->setParallelFragmentation(4);
    chromatogram->setRawFileName("run7.raw");
    chromatogram->setTime(12.0);
    chromatogram->setSpectrumModelData(Bytes{1, 2, 3});
    chromatogram->setMapData(Value(Dictionary{{"zoom", Value(2.0)}}));
    for (int i = 0; i < 2; ++i) chromatogram->addObject(store_.insert("Spectrum"), "spectrum");
    chromatogram->addObject(store_.insert("FragmentSpectrum"), "fragmentSpectrum");
    chromatogram->addObject(store_.insert("PrecursorListGroup"), "precursorListGroups");

    auto search = test::insertAs<DatabaseSearchResult>(store_, "DatabaseSearchResult");
    search->setIdTag(searchTag);
    search->setNumberOfPeptides(3);
    search->setResultURLString("file:///searches/run7.dat");
    search->setTypeOfSearchEngine("Mascot");
    chromatogram->setDatabaseSearchResult(search);
    EXPECT_EQ(search->chromatogram(), chromatogram);

    auto ions = test::insertAs<IonGroup>(store_, "IonGroup");
    ions->setIonGroupName("Light");
    ions->setObjectStoreMember(true);
    ions->setChromatogram(chromatogram);
    for (int charge = 1; charge <= 3; ++charge) {
      auto peptide = test::insertAs<PeptideID>(store_, "PeptideIDJoined");
      peptide->setCharge(charge);
      peptide->setCalculatedMass(1000.0 + charge);
      peptide->setSequence("PEPTIDE");
      peptide->setIonData(Bytes{static_cast<std::uint8_t>(charge)});
      peptide->setDatabaseSearchResult(search);
      ions->addObject(peptide, "ions");
    }
    auto volumes = test::insertAs<IonVolumeGroup>(store_, "IonVolumeGroup");
    volumes->setChromatogram(chromatogram);
    volumes->setIonGroup(ions);
    volumes->setDatabaseSearchResult(search);
    volumes->setMarkerFragmentGroup(test::insertAs<MarkerFragmentGroup>(store_, "MarkerFragmentGroup"));
    ASSERT_TRUE(store_.context().save());
  }
  store_ = {};
  store_ = test::openStore(folder_ / "TesseluneStore.tesselune", dataFolder_);

  auto found = store_.context().executeFetchRequest(Chromatogram::fetchRequest());
  ASSERT_TRUE(found);
  ASSERT_EQ(found->size(), 1u);
  auto chromatogram = (*found)[0].asObjectOf<Chromatogram>();
  ASSERT_TRUE(chromatogram);
  EXPECT_TRUE(chromatogram->destinedForDeletion());
  EXPECT_EQ(chromatogram->chromatogramName(), "Run 7");
  EXPECT_EQ(chromatogram->dataFolderRelativePath(), "Run 7 data");
  EXPECT_EQ(chromatogram->deltaTimeMin(), 0.25);
  EXPECT_EQ(chromatogram->duration(), 3600.5);
  EXPECT_EQ(chromatogram->idTag(), chromatogramTag);
  EXPECT_EQ(chromatogram->integratedIonCount(), 1.5e9);
  EXPECT_EQ(chromatogram->numberOfSpectra(), 2);
  EXPECT_EQ(chromatogram->numberOfFragmentSpectra(), 1);
  EXPECT_EQ(chromatogram->parallelFragmentation(), 4);
  EXPECT_EQ(chromatogram->rawFileName(), "run7.raw");
  EXPECT_EQ(chromatogram->time(), 12.0);
  EXPECT_EQ(chromatogram->spectrumModelData(), (Bytes{1, 2, 3}));
  EXPECT_FALSE(chromatogram->fragmentSpectrumModelData());
  EXPECT_EQ(chromatogram->mapData(), Value(Dictionary{{"zoom", Value(2.0)}}));
  EXPECT_TRUE(chromatogram->spectrumModel().isNull());
  EXPECT_EQ(chromatogram->spectrum().size(), 2u);
  ASSERT_EQ(chromatogram->fragmentSpectrum().size(), 1u);
  EXPECT_TRUE(std::dynamic_pointer_cast<FragmentSpectrum>(chromatogram->fragmentSpectrum()[0]));
  EXPECT_EQ(chromatogram->precursorListGroups().size(), 1u);
  EXPECT_TRUE(chromatogram->spectrumDerived().empty());
  EXPECT_FALSE(chromatogram->normProtein());

  auto search = chromatogram->databaseSearchResult();
  ASSERT_TRUE(search);
  EXPECT_FALSE(search->destinedForDeletion());
  EXPECT_EQ(search->idTag(), searchTag);
  EXPECT_EQ(search->numberOfPeptides(), 3);
  EXPECT_EQ(search->numberOfProteins(), 0);  // the model's default
  EXPECT_EQ(search->resultURLString(), "file:///searches/run7.dat");
  EXPECT_EQ(search->typeOfSearchEngine(), "Mascot");
  EXPECT_EQ(search->peptideID().size(), 3u);
  ASSERT_EQ(search->ionVolumeGroups().size(), 1u);

  ASSERT_EQ(chromatogram->ionGroup().size(), 1u);
  auto ions = chromatogram->ionGroup()[0];
  EXPECT_EQ(ions->ionGroupName(), "Light");
  EXPECT_TRUE(ions->objectStoreMember());
  EXPECT_EQ(ions->chromatogram(), chromatogram);
  std::vector<std::int64_t> charges;
  for (const auto& peptide : ions->ions()) {
    EXPECT_TRUE(std::dynamic_pointer_cast<PeptideIDJoined>(peptide));
    EXPECT_EQ(peptide->databaseSearchResult(), search);
    EXPECT_EQ(peptide->sequence(), "PEPTIDE");
    EXPECT_EQ(peptide->calculatedMass(), 1000.0 + static_cast<double>(*peptide->charge()));
    EXPECT_EQ(peptide->ionData(), (Bytes{static_cast<std::uint8_t>(*peptide->charge())}));
    EXPECT_FALSE(peptide->mzValue());
    charges.push_back(*peptide->charge());
  }
  std::sort(charges.begin(), charges.end());
  EXPECT_EQ(charges, (std::vector<std::int64_t>{1, 2, 3}));

  auto volumes = search->ionVolumeGroups()[0];
  EXPECT_EQ(volumes->chromatogram(), chromatogram);
  EXPECT_EQ(volumes->ionGroup(), ions);
  EXPECT_EQ(volumes->databaseSearchResult(), search);
  ASSERT_TRUE(volumes->markerFragmentGroup());
  EXPECT_EQ(volumes->markerFragmentGroup()->objectsForKey("ionVolumeGroups").size(), 1u);
  EXPECT_FALSE(volumes->proteinGroup());

  // Clearing a to-one through its setter clears the inverse too.
  volumes->setChromatogram(nullptr);
  EXPECT_FALSE(volumes->chromatogram());
  EXPECT_TRUE(chromatogram->ionVolumeGroups().empty());
}

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

TEST_F(EntityClasses, IonVolumeSearchPredicateIsACopyThatOutlivesAFault) {
  static_assert(!std::is_reference_v<decltype(std::declval<PeptideID&>().ionVolumeSearchPredicate())>,
                "a reference into the cache would change under its holder when a fault rebuilds it");
  auto peptide = test::insertAs<PeptideID>(store_, "PeptideID");
  const Predicate predicate = peptide->ionVolumeSearchPredicate();
  ASSERT_TRUE(store_.context().save());
  store_.context().refreshObject(peptide, false);  // a fault: the cache is built anew
  EXPECT_EQ(peptide->ionVolumeSearchPredicate().predicateFormat(), predicate.predicateFormat());
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

  // Twenty levels: the oldest changes fall off, undo and redo alike.
  std::vector<int> undone;
  for (int change = 1; change <= 25; ++change) {
    undo->registerUndo([&undone, &undo, change] {
      undone.push_back(change);
      undo->registerUndo([] {});
    });
  }
  while (undo->canUndo()) undo->undo();
  ASSERT_EQ(undone.size(), 20u);
  EXPECT_EQ(undone.front(), 25);
  EXPECT_EQ(undone.back(), 6);
  EXPECT_EQ(undo->redoCount(), 20u);

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
