// Precursor lists and groups in a real store: precursors written into an unsaved list carry the
// list's permanent ID and keep it when read in another context, the group's counts and inspector
// rows, and reading a group from a pasteboard.

#include "model/precursor_list.h"

#include <gtest/gtest.h>

#include "foundation/keyed_archiver.h"
#include "foundation/type_identifier.h"
#include "model/application_object.h"
#include "model/chromatogram.h"
#include "test_store.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

class PrecursorLists : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = test::scratchFolder("lists") / "TesseluneStore.tesselune";
    store_ = test::openStore(path_);
    selection_ = store_.insert("PrecursorSelection");
  }

  CorrelatedPrecursors precursors(int count) {
    CorrelatedPrecursors made;
    for (int i = 0; i < count; ++i) {
      made.push_back(std::make_shared<CorrelatedPrecursor>(Uuid::random(), 400.0 + i, 0.1,
                                                           selection_->objectID(), store_.environment));
    }
    return made;
  }

  std::vector<std::string> rows(PrecursorListGroup& group) {
    std::vector<std::string> lines;
    const auto descriptors = group.propertiesDescription();
    for (const auto& row : *descriptors) {
      lines.push_back(row->propertyName() + row->attributeContent().asString());
    }
    return lines;
  }

  fs::path path_;
  test::OpenStore store_;
  std::shared_ptr<ManagedObject> selection_;
};

TEST_F(PrecursorLists, PrecursorsCarryTheListsPermanentIDIntoAnotherContext) {
  auto list = test::insertAs<PrecursorList>(store_, "PrecursorList");
  ASSERT_TRUE(list->objectID().isTemporaryID());
  auto written = precursors(3);
  list->setCorrelatedPrecursors(written);
  const ManagedObjectID listID = list->objectID();
  EXPECT_FALSE(listID.isTemporaryID());
  for (const auto& precursor : written) {
    EXPECT_EQ(precursor->precursorListID(), listID);
    EXPECT_EQ(precursor->managedObjectContext(), &store_.context());
  }
  ASSERT_TRUE(store_.context().save());
  list = nullptr;
  written.clear();
  store_ = {};

  store_ = test::openStore(path_);
  auto context = store_.delegate->persistentDataContainer()->newBackgroundContext();
  context->performBlockAndWait([&] {
    auto reread = std::dynamic_pointer_cast<PrecursorList>(*context->existingObjectWithID(listID));
    auto read = reread->correlatedPrecursors();
    ASSERT_TRUE(read);
    ASSERT_EQ(read->size(), 3u);
    EXPECT_EQ((*read)[2]->precursorMZ(), 402.0);
    for (const auto& precursor : *read) EXPECT_EQ(precursor->precursorListID(), listID);
    // Stored back, they take the context of the list that holds them.
    reread->setCorrelatedPrecursors(*read);
    EXPECT_EQ((*read)[0]->managedObjectContext(), context.get());
  });
}

TEST_F(PrecursorLists, NothingAndOtherValuesReadAsNothing) {
  auto list = test::insertAs<PrecursorList>(store_, "PrecursorList");
  EXPECT_FALSE(list->correlatedPrecursors());
  list->setCorrelatedPrecursors(CorrelatedPrecursors{});
  ASSERT_TRUE(list->correlatedPrecursors());
  EXPECT_TRUE(list->correlatedPrecursors()->empty());
  list->setPrimitiveValue(Value::array({Value("not a precursor")}), "correlatedPrecursors");
  EXPECT_FALSE(list->correlatedPrecursors());
  list->setCorrelatedPrecursors(std::nullopt);
  EXPECT_TRUE(list->primitiveValueForKey("correlatedPrecursors").isNull());

  EXPECT_EQ(list->scoreNormFactor(), 1.0);
  std::vector<std::string> changed;
  list->addObserver("maxFragmentIntensity",
                    [&](ManagedObject&, std::string_view key) { changed.emplace_back(key); });
  list->setMaxFragmentIntensity(3.5);
  EXPECT_EQ(list->valueForKey("maxFragmentIntensity"), Value(3.5));
  EXPECT_EQ(changed, std::vector<std::string>{"maxFragmentIntensity"});
}

TEST_F(PrecursorLists, GroupCountsAndDescribesItself) {
  auto group = test::insertAs<PrecursorListGroup>(store_, "PrecursorListGroup");
  auto full = test::insertAs<PrecursorList>(store_, "PrecursorList");
  full->setCorrelatedPrecursors(precursors(4));
  auto half = test::insertAs<PrecursorList>(store_, "PrecursorList");
  half->setCorrelatedPrecursors(precursors(2));
  group->addObject(full, "precursorLists");
  group->addObject(half, "precursorLists");
  group->addObject(store_.insert("PrecursorList"), "precursorLists");  // without precursors
  EXPECT_EQ(group->numberOfPrecursors(), 6);

  EXPECT_EQ(rows(*group), (std::vector<std::string>{"Name: Precursor List Group", "No. of precursor lists: 3",
                                                    "No. of precursors: 6"}));
  EXPECT_TRUE((*group->propertiesDescription())[0]->editable());
  // The rows read the group afresh every time.
  group->setName("Run 4 precursors");
  half->setCorrelatedPrecursors(precursors(5));
  EXPECT_EQ(rows(*group)[0], "Name: Run 4 precursors");
  EXPECT_EQ(rows(*group)[2], "No. of precursors: 9");
  // Editing the name row writes the attribute.
  (*group->propertiesDescription())[0]->setAttributeContent(Value("Renamed"));
  EXPECT_EQ(group->name(), "Renamed");

  // With a fragment group and a chromatogram, a rebuilt description has all six rows.
  auto fragments = test::insertAs<MarkerFragmentGroup>(store_, "MarkerFragmentGroup");
  fragments->setName("Fragments");
  fragments->setMarkerFragments(ValueSet{});
  group->setValue(Value(ObjectPtr(fragments)), "markerFragmentGroup");
  auto run = store_.insert("Chromatogram");
  group->setValue(Value(ObjectPtr(run)), "chromatogram");
  EXPECT_EQ(group->markerFragmentGroup(), fragments);
  EXPECT_EQ(rows(*group).size(), 3u);  // built once, not rebuilt
  group->setPropertiesDescription(std::nullopt);
  EXPECT_FALSE(group->propertiesDescription());  // emptied on purpose: stays empty
  auto rebuilt = test::insertAs<PrecursorListGroup>(store_, "PrecursorListGroup");
  rebuilt->setValue(Value(ObjectPtr(fragments)), "markerFragmentGroup");
  rebuilt->setValue(Value(ObjectPtr(run)), "chromatogram");
  EXPECT_EQ(rows(*rebuilt),
            (std::vector<std::string>{"Name: Precursor List Group", "No. of precursor lists: 0",
                                      "No. of precursors: 0", "Fragment Group: Fragments",
                                      "No. of fragments: 0", "Chromatogram: Chromatogram"}));
}

TEST_F(PrecursorLists, GroupsAreReadFromTheDragPasteboard) {
  MemoryPasteboard drag{std::string(kPasteboardNameDrag)};
  MemoryPasteboard general{std::string(kPasteboardNameGeneral)};
  EXPECT_EQ(PrecursorListGroup::readableTypesForPasteboard(drag),
            std::vector<std::string>{dynamicUTIForPasteboardType("ObjectStoreObjects")});
  EXPECT_TRUE(PrecursorListGroup::readableTypesForPasteboard(general).empty());

  auto group = test::insertAs<PrecursorListGroup>(store_, "PrecursorListGroup");
  group->setName("Dragged");
  group->setObjectStoreMember(true);
  group->addObject(store_.insert("PrecursorList"), "precursorLists");
  ASSERT_TRUE(store_.context().save());
  auto archived = KeyedArchiver::archivedDataWithRootObject(Value(group->objectID().URIRepresentation()));
  ASSERT_TRUE(archived);
  const std::string type = dynamicUTIForPasteboardType("ObjectStoreObjects");
  drag.setPropertyList(Value(*archived), type);

  auto pasted = PrecursorListGroup::initWithPasteboardPropertyList(*drag.propertyListForType(type), type,
                                                                   store_.environment);
  ASSERT_TRUE(pasted);
  EXPECT_NE(pasted, group);
  EXPECT_EQ(pasted->name(), "Dragged");
  EXPECT_TRUE(pasted->objectStoreMember());
  EXPECT_TRUE(pasted->precursorLists().empty());
  EXPECT_EQ(pasted->managedObjectContext(), store_.delegate->managedObjectContext());

  // Every missing piece fails; only a missing application object stops the program.
  EXPECT_FALSE(PrecursorListGroup::initWithPasteboardPropertyList(
      Value(*archived), dynamicUTIForPasteboardType("MarkerFragmentGroup"), store_.environment));
  EXPECT_FALSE(
      PrecursorListGroup::initWithPasteboardPropertyList(Value::data("junk"), type, store_.environment));
  auto notURL = KeyedArchiver::archivedDataWithRootObject(Value("x-coredata://nothing"));
  EXPECT_FALSE(PrecursorListGroup::initWithPasteboardPropertyList(Value(*notURL), type, store_.environment));
  EXPECT_FALSE(PrecursorListGroup::initWithPasteboardPropertyList(Value(*archived), type,
                                                                  std::make_shared<StoreEnvironment>()));
  EXPECT_THROW((void)PrecursorListGroup::initWithPasteboardPropertyList(Value(*archived), type, nullptr),
               FatalError);

  // The URI of an object of another entity is refused without leaving anything in the context.
  ASSERT_TRUE(store_.context().save());
  auto list = store_.insert("PrecursorList");
  ASSERT_TRUE(store_.context().save());
  auto other = KeyedArchiver::archivedDataWithRootObject(Value(list->objectID().URIRepresentation()));
  ASSERT_TRUE(other);
  EXPECT_FALSE(PrecursorListGroup::initWithPasteboardPropertyList(Value(*other), type, store_.environment));
  EXPECT_TRUE(store_.context().insertedObjects().empty());
  EXPECT_FALSE(store_.context().hasChanges());
}

}  // namespace
}  // namespace tesselune
