// Marker fragments and their groups in a real store: archives of the main application's shape
// decode with the group link resolved, ours survive a save and a reopen, malformed archives fall
// back or fail, the group hands its ID to its fragments, an m/z change re-stores the group's set,
// copies, dependent keys and pasting a group.

#include "model/marker_fragment.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "foundation/keyed_archiver.h"
#include "foundation/keyed_unarchiver.h"
#include "foundation/type_identifier.h"
#include "mac_archive.h"
#include "model/application_object.h"
#include "model/correlated_precursor.h"
#include "model/marker_fragment_group.h"
#include "model/precursor_list.h"
#include "test_store.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;
using test::MacArchive;

const Uuid kId = *Uuid::parse("71DC068E-3420-45FF-919E-3A267D55EC22");
const std::string kRun = "x-coredata://00000000-1111-2222-3333-444444444444/Chromatogram/p7";

Value entry(const std::string& uri, Array times) {
  return Value(
      Dictionary{{"chromatogramURIString", Value(uri)}, {"correlationBasedTimes", Value(std::move(times))}});
}

class MarkerFragments : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = test::scratchFolder("fragments") / "TesseluneStore.tesselune";
    store_ = test::openStore(path_);
  }

  std::shared_ptr<MarkerFragmentGroup> savedGroup(const std::string& name = "Group") {
    auto group = test::insertAs<MarkerFragmentGroup>(store_, "MarkerFragmentGroup");
    group->setName(name);
    EXPECT_TRUE(store_.context().save());
    return group;
  }

  std::shared_ptr<MarkerFragment> fragment(double mz, const ManagedObjectID& group) {
    return std::make_shared<MarkerFragment>(mz, &store_.context(), Uuid::random(), group, store_.environment);
  }

  // A fragment as the main application archives it (encodeEncodable shapes); keys left out on request.
  std::uint64_t macFragment(MacArchive& archive, const std::string& groupURI,
                            const std::vector<std::string>& uris,
                            const std::vector<std::vector<double>>& times, const std::string& skip = "") {
    std::vector<std::uint64_t> uriItems, timeItems;
    for (const auto& uri : uris) uriItems.push_back(archive.add(Value(uri)));
    for (const auto& row : times) {
      std::vector<std::uint64_t> reals;
      for (double t : row) reals.push_back(archive.add(Value(t)));
      timeItems.push_back(archive.mutableArray(reals));
    }
    Dictionary keys{
        {"id", MacArchive::uid(archive.add(Value(kId.string())))},
        {"mzValue", Value(714.3561)},
        {"correlationBasedTimeInChromatograms_chromatogramURIString",
         MacArchive::uid(archive.mutableArray(uriItems))},
        {"correlationBasedTimeInChromatograms_correlationBasedTimes",
         MacArchive::uid(archive.mutableArray(timeItems))},
        {"markerFragmentGroupURI", MacArchive::uid(archive.encodableUrl(groupURI))},
    };
    keys.erase(skip);
    return archive.object({"Tesselune.MarkerFragment", "NSObject"}, std::move(keys));
  }

  static Expected<Value> decode(const Bytes& data) {
    return KeyedUnarchiver::unarchiveTopLevelObjectWithData(data);
  }

  fs::path path_;
  test::OpenStore store_;
};

TEST_F(MarkerFragments, MainApplicationArchiveInTheStoreDecodesWithItsGroup) {
  auto group = savedGroup();
  const ManagedObjectID groupID = group->objectID();
  const std::string groupURI = groupID.URIRepresentation().absoluteString();
  group = nullptr;
  store_ = {};
  MacArchive archive;
  const auto one =
      macFragment(archive, groupURI, {kRun, "x-coredata://X/Chromatogram/p8"}, {{12.25, 13.5}, {}});
  test::writeBlob(path_, "ZMARKERFRAGMENTGROUP", "ZMARKERFRAGMENTS", groupID.primaryKey(),
                  archive.data(archive.set({one})));

  store_ = test::openStore(path_);
  auto context = store_.delegate->persistentDataContainer()->newBackgroundContext();
  context->performBlockAndWait([&] {
    auto found = context->existingObjectWithID(groupID);
    ASSERT_TRUE(found);
    auto reread = std::dynamic_pointer_cast<MarkerFragmentGroup>(*found);
    auto fragments = reread->markerFragments();
    ASSERT_TRUE(fragments);
    EXPECT_EQ(reread->numberOfFragments(), 1);
    auto fragment = fragments->begin()->asObjectOf<MarkerFragment>();
    EXPECT_EQ(fragment->id(), kId);
    EXPECT_EQ(fragment->mzValue(), 714.3561);
    EXPECT_EQ(fragment->markerFragmentGroupID(), groupID);
    EXPECT_EQ(fragment->correlationBasedTimesInChromatograms(),
              (Array{entry(kRun, {Value(12.25), Value(13.5)}), entry("x-coredata://X/Chromatogram/p8", {})}));
    // Decoded fragments have no context of their own: they resolve through the delegate's.
    EXPECT_EQ(fragment->managedObjectContext(), store_.delegate->managedObjectContext());
    auto resolved = fragment->markerFragmentGroup();
    ASSERT_TRUE(resolved);
    EXPECT_EQ(resolved->objectID(), groupID);
  });
}

TEST_F(MarkerFragments, AGroupsFragmentsSurviveASaveAndAReopenWithThePermanentGroupID) {
  auto group = test::insertAs<MarkerFragmentGroup>(store_, "MarkerFragmentGroup");
  ASSERT_TRUE(group->objectID().isTemporaryID());
  auto first = fragment(500.25, group->objectID());
  // The designated initialiser already asks for a permanent ID.
  EXPECT_FALSE(first->markerFragmentGroupID().isTemporaryID());
  first->setCorrelationBasedTimesInChromatograms({entry(kRun, {Value(1.5)}), Value(Dictionary{})});
  auto second = fragment(600.5, group->objectID());
  group->setMarkerFragments(ValueSet{Value(first), Value(second)});
  const ManagedObjectID groupID = group->objectID();
  EXPECT_EQ(first->markerFragmentGroupID(), groupID);
  EXPECT_EQ(second->markerFragmentGroupID(), groupID);
  ASSERT_TRUE(store_.context().save());
  group = nullptr;
  first = second = nullptr;
  store_ = {};

  store_ = test::openStore(path_);
  auto reread =
      std::dynamic_pointer_cast<MarkerFragmentGroup>(*store_.context().existingObjectWithID(groupID));
  auto fragments = reread->markerFragments();
  ASSERT_TRUE(fragments);
  ASSERT_EQ(fragments->size(), 2u);
  std::map<double, std::shared_ptr<MarkerFragment>> byMz;
  for (const Value& item : *fragments)
    byMz[item.asObjectOf<MarkerFragment>()->mzValue()] = item.asObjectOf<MarkerFragment>();
  ASSERT_TRUE(byMz.contains(500.25));
  EXPECT_EQ(byMz[500.25]->markerFragmentGroupID(), groupID);
  // An entry without its keys was written as "" and an empty list.
  EXPECT_EQ(byMz[500.25]->correlationBasedTimesInChromatograms(),
            (Array{entry(kRun, {Value(1.5)}), entry("", {})}));
  EXPECT_TRUE(byMz[600.5]->correlationBasedTimesInChromatograms().empty());
}

// Archived values belong to the store they are read from, not to the store opened last.
TEST_F(MarkerFragments, ArchivedValuesDecodeAgainstTheirOwnStoreWhenAnotherIsOpen) {
  auto group = savedGroup();
  group->setMarkerFragments(ValueSet{Value(fragment(500.25, group->objectID()))});
  auto selection = store_.insert("PrecursorSelection");
  auto list = test::insertAs<PrecursorList>(store_, "PrecursorList");
  ASSERT_TRUE(store_.context().save());
  const ManagedObjectID groupID = group->objectID(), listID = list->objectID();
  const ManagedObjectID selectionID = selection->objectID();
  list->setCorrelatedPrecursors(CorrelatedPrecursors{
      std::make_shared<CorrelatedPrecursor>(kId, 412.2371, 0.0123, selectionID, store_.environment)});
  ASSERT_TRUE(store_.context().save());
  group = nullptr;
  list = nullptr;
  selection = nullptr;
  store_ = {};

  auto first = test::openStore(path_);
  auto second = test::openStore(test::scratchFolder("fragments-other") / "TesseluneStore.tesselune");
  auto context = first.delegate->persistentDataContainer()->newBackgroundContext();
  context->performBlockAndWait([&] {
    auto reread = std::dynamic_pointer_cast<MarkerFragmentGroup>(*context->existingObjectWithID(groupID));
    ASSERT_TRUE(reread);
    auto fragments = reread->markerFragments();
    ASSERT_TRUE(fragments);
    ASSERT_EQ(fragments->size(), 1u);
    auto decoded = fragments->begin()->asObjectOf<MarkerFragment>();
    EXPECT_EQ(decoded->markerFragmentGroupID(), groupID);
    EXPECT_EQ(decoded->application(), first.environment);

    auto precursors = std::dynamic_pointer_cast<PrecursorList>(*context->existingObjectWithID(listID))
                          ->correlatedPrecursors();
    ASSERT_TRUE(precursors);
    ASSERT_EQ(precursors->size(), 1u);
    EXPECT_EQ((*precursors)[0]->precursorSelectionID(), selectionID);
    EXPECT_EQ((*precursors)[0]->application(), first.environment);
  });
}

// A model whose attribute is spelt "MarkerFragments" keeps the set there: written, saved and read
// back through the same attribute.
TEST_F(MarkerFragments, TheSetRoundTripsUnderEitherSpellingOfTheModelsAttribute) {
  auto bundle = storeModelBundlePath();
  ASSERT_TRUE(bundle) << bundle.error().debugDescription();
  const fs::path folder = test::scratchFolder("fragments-spelling");
  std::ifstream in(*bundle / "Tesselune.xcdatamodel" / "contents");
  std::string contents((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const std::string lower = "<attribute name=\"markerFragments\"";
  ASSERT_NE(contents.find(lower), std::string::npos);
  contents.replace(contents.find(lower), lower.size(), "<attribute name=\"MarkerFragments\"");
  std::ofstream(folder / "contents") << contents;
  auto model = ManagedObjectModel::modelWithContentsOfFile(folder / "contents");
  ASSERT_TRUE(model) << model.error().debugDescription();

  store_ = {};
  const fs::path path = folder / "TesseluneStore.tesselune";
  store_ = test::openStore(path, {}, *model);
  auto group = savedGroup();
  ASSERT_TRUE(group->entity().attributesByName().contains("MarkerFragments"));
  group->setMarkerFragments(ValueSet{Value(fragment(500.25, group->objectID()))});
  EXPECT_EQ(group->numberOfFragments(), 1);
  EXPECT_EQ(group->valueForKey("markerFragments").asSet().size(), 1u);
  ASSERT_TRUE(store_.context().save());
  const ManagedObjectID groupID = group->objectID();
  group = nullptr;
  store_ = {};

  store_ = test::openStore(path, {}, *model);
  auto reread =
      std::dynamic_pointer_cast<MarkerFragmentGroup>(*store_.context().existingObjectWithID(groupID));
  ASSERT_TRUE(reread);
  auto fragments = reread->markerFragments();
  ASSERT_TRUE(fragments);
  ASSERT_EQ(fragments->size(), 1u);
  EXPECT_EQ(fragments->begin()->asObjectOf<MarkerFragment>()->mzValue(), 500.25);
  reread->setMarkerFragments(std::nullopt);
  EXPECT_EQ(reread->numberOfFragments(), 0);
}

TEST_F(MarkerFragments, MalformedArchivesFallBackOrFail) {
  const std::string groupURI = savedGroup()->objectID().URIRepresentation().absoluteString();
  {  // parallel arrays of different lengths: an empty list, no message
    MacArchive archive;
    ::testing::internal::CaptureStdout();
    auto value = decode(archive.data(macFragment(archive, groupURI, {kRun, kRun}, {{1.0}})));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    ASSERT_TRUE(value);
    EXPECT_TRUE(value->asObjectOf<MarkerFragment>()->correlationBasedTimesInChromatograms().empty());
  }
  {  // no id: a fresh one
    MacArchive archive;
    auto value = decode(archive.data(macFragment(archive, groupURI, {}, {}, "id")));
    ASSERT_TRUE(value);
    EXPECT_NE(value->asObjectOf<MarkerFragment>()->id(), kId);
  }
  {  // no group, or a group of another store: no fragment
    MacArchive archive;
    EXPECT_FALSE(decode(archive.data(macFragment(archive, groupURI, {}, {}, "markerFragmentGroupURI"))));
    MacArchive foreign;
    EXPECT_FALSE(decode(foreign.data(macFragment(
        foreign, "x-coredata://00000000-1111-2222-3333-444444444444/MarkerFragmentGroup/p1", {}, {}))));
  }
  {  // the delegate is of another kind: no coordinator, no fragment
    ClassRegistry::shared().setClass(kMarkerFragmentClassName,
                                     MarkerFragment::codingClass(std::make_shared<StoreEnvironment>()));
    MacArchive archive;
    EXPECT_FALSE(decode(archive.data(macFragment(archive, groupURI, {}, {}))));
    ClassRegistry::shared().setClass(kMarkerFragmentClassName,
                                     MarkerFragment::codingClass(store_.environment));
  }
}

TEST_F(MarkerFragments, GroupLinksResolvePrintAFailureAndStopWithoutAContext) {
  auto group = savedGroup();
  auto other = savedGroup("Other");
  auto one = fragment(500.0, group->objectID());
  EXPECT_EQ(one->markerFragmentGroup(), group);
  one->setMarkerFragmentGroup(nullptr);
  EXPECT_EQ(one->markerFragmentGroupID(), group->objectID());
  one->setMarkerFragmentGroup(other);
  EXPECT_EQ(one->markerFragmentGroup(), other);
  // Setting the group does not put the fragment into the group's set.
  EXPECT_FALSE(other->markerFragments());

  auto fresh = test::insertAs<MarkerFragmentGroup>(store_, "MarkerFragmentGroup");
  one->setMarkerFragmentGroup(fresh);
  EXPECT_FALSE(one->markerFragmentGroupID().isTemporaryID());
  EXPECT_EQ(one->markerFragmentGroupID(), fresh->objectID());

  store_.context().deleteObject(other);
  ASSERT_TRUE(store_.context().save());
  one->setMarkerFragmentGroupID(other->objectID());
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(one->markerFragmentGroup(), nullptr);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Internal error. The marker fragment group of a marker fragment could not be retrieved.\n");

  // No context set and no delegate to fall back on: the program cannot go on.
  MarkerFragment orphan(1.0, nullptr, kId, group->objectID(), std::make_shared<StoreEnvironment>());
  EXPECT_THROW((void)orphan.managedObjectContext(), FatalError);
  EXPECT_THROW((void)orphan.markerFragmentGroup(), FatalError);
}

TEST_F(MarkerFragments, ChangingTheMzValueStoresTheGroupsSetAnew) {
  auto group = savedGroup();
  auto one = fragment(500.0, group->objectID());
  auto two = fragment(600.0, group->objectID());
  two->setCorrelationBasedTimesInChromatograms({entry(kRun, {Value(2.0)})});
  group->setMarkerFragments(ValueSet{Value(two), Value(one)});
  ASSERT_TRUE(store_.context().save());
  ASSERT_FALSE(group->hasChanges());

  one->setMzValue(501.0);
  EXPECT_TRUE(group->hasChanges());
  auto fragments = group->markerFragments();
  ASSERT_TRUE(fragments);
  ASSERT_EQ(fragments->size(), 2u);
  // The first element (here the other fragment) was replaced by its exact copy.
  EXPECT_FALSE(fragments->contains(Value(two)));
  EXPECT_TRUE(fragments->contains(Value(one)));
  std::shared_ptr<MarkerFragment> copy;
  for (const Value& item : *fragments) {
    if (item != Value(one)) copy = item.asObjectOf<MarkerFragment>();
  }
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->id(), two->id());
  EXPECT_EQ(copy->mzValue(), 600.0);
  EXPECT_EQ(copy->markerFragmentGroupID(), group->objectID());
  EXPECT_EQ(copy->correlationBasedTimesInChromatograms(), two->correlationBasedTimesInChromatograms());
  ASSERT_TRUE(store_.context().save());

  // Without fragments in the group, or without a group, only the value changes.
  auto empty = savedGroup("Empty");
  auto lone = fragment(700.0, empty->objectID());
  lone->setMzValue(701.0);
  EXPECT_EQ(lone->mzValue(), 701.0);
  EXPECT_FALSE(empty->hasChanges());
}

TEST_F(MarkerFragments, GroupSetterCopiesAndDependentKeys) {
  auto group = savedGroup("A");
  auto one = fragment(500.0, group->objectID());
  group->setMarkerFragments(ValueSet{Value(one)});
  group->setMarkerFragments(std::nullopt);
  EXPECT_FALSE(group->markerFragments());
  EXPECT_EQ(group->numberOfFragments(), 0);
  EXPECT_EQ(one->markerFragmentGroupID(), group->objectID());  // the old fragments are left alone
  group->setMarkerFragments(ValueSet{});
  ASSERT_TRUE(group->markerFragments());
  EXPECT_EQ(group->numberOfFragments(), 0);
  // Something else stored under the attribute reads as nothing.
  group->setPrimitiveValue(Value::set({Value("not a fragment")}), "markerFragments");
  EXPECT_FALSE(group->markerFragments());

  auto copy = group->objectStoreCopy();
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->name(), "A copy");
  EXPECT_NE(copy->objectID(), group->objectID());
  auto unnamed = test::insertAs<MarkerFragmentGroup>(store_, "MarkerFragmentGroup");
  EXPECT_EQ(unnamed->objectStoreCopy()->name(), " copy");

  EXPECT_EQ(group->keyPathsForValuesAffectingValueForKey("objectName"), (std::set<std::string>{"name"}));
  EXPECT_EQ(group->keyPathsForValuesAffectingValueForKey("objectDescription"),
            (std::set<std::string>{"markerFragments"}));
  EXPECT_TRUE(group->keyPathsForValuesAffectingValueForKey("name").empty());

  auto exact = one->exactCopy();
  EXPECT_NE(exact, one);
  EXPECT_EQ(exact->id(), one->id());
  EXPECT_EQ(ValueSet({Value(one), Value(exact)}).size(), 2u);
}

TEST_F(MarkerFragments, PastingAGroupCopiesItsAttributes) {
  auto group = savedGroup("Markers");
  auto one = fragment(500.0, group->objectID());
  group->setMarkerFragments(ValueSet{Value(one)});
  group->addObject(store_.insert("ManagedCachedData"), "managedCachedDatas");
  ASSERT_TRUE(store_.context().save());
  auto archived = KeyedArchiver::archivedDataWithRootObject(Value(group->objectID().URIRepresentation()));
  ASSERT_TRUE(archived);
  const std::string type = dynamicUTIForPasteboardType("MarkerFragmentGroup");

  auto pasted =
      MarkerFragmentGroup::initWithPasteboardPropertyList(Value(*archived), type, store_.environment);
  ASSERT_TRUE(pasted);
  EXPECT_NE(pasted, group);
  EXPECT_EQ(pasted->name(), "Markers");
  EXPECT_EQ(pasted->numberOfFragments(), 1);
  EXPECT_TRUE(pasted->objectsForKey("managedCachedDatas").empty());

  EXPECT_FALSE(MarkerFragmentGroup::initWithPasteboardPropertyList(Value(*archived), "public.data",
                                                                   store_.environment));
  EXPECT_FALSE(MarkerFragmentGroup::initWithPasteboardPropertyList(Value("text"), type, store_.environment));
  EXPECT_FALSE(MarkerFragmentGroup::initWithPasteboardPropertyList(Value(*archived), type,
                                                                   std::make_shared<StoreEnvironment>()));
  // A URI of an object of another class fails; one whose object is gone stops the program.
  auto selection = store_.insert("PrecursorSelection");
  ASSERT_TRUE(store_.context().save());
  auto wrong = KeyedArchiver::archivedDataWithRootObject(Value(selection->objectID().URIRepresentation()));
  EXPECT_FALSE(MarkerFragmentGroup::initWithPasteboardPropertyList(Value(*wrong), type, store_.environment));
  store_.context().deleteObject(group);
  ASSERT_TRUE(store_.context().save());
  EXPECT_THROW(
      (void)MarkerFragmentGroup::initWithPasteboardPropertyList(Value(*archived), type, store_.environment),
      FatalError);
}

}  // namespace
}  // namespace tesselune
