// Ion volumes in a real store: archives under "Tesselune.IonVolume" decode with their IDs
// resolved and survive a save and a reopen, the group ID reaches related ion volumes, and edits
// in place make the owning group store its set anew.

#include "model/ion_volume.h"

#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "foundation/keyed_unarchiver.h"
#include "mac_archive.h"
#include "model/application_object.h"
#include "model/ion_group.h"
#include "test_store.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;
using test::MacArchive;

class IonVolumes : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = test::scratchFolder("volumes") / "TesseluneStore.tesselune";
    store_ = test::openStore(path_);
  }

  std::shared_ptr<IonVolume> volume(double value) {
    auto made = std::make_shared<IonVolume>(store_.environment);
    made->setValue(Value(value));
    return made;
  }

  fs::path path_;
  test::OpenStore store_;
};

TEST_F(IonVolumes, ArchivesDecodeWithTheirIDsAndSurviveAReopen) {
  auto group = test::insertAs<IonVolumeGroup>(store_, "IonVolumeGroup");
  auto peptide = store_.insert("PeptideID");
  ASSERT_TRUE(store_.context().save());
  const ManagedObjectID groupID = group->objectID();
  const ManagedObjectID peptideID = peptide->objectID();

  // An archive laid out as macOS writes it, under the Swift class name.
  MacArchive archive;
  const auto macVolume = archive.object(
      {"Tesselune.IonVolume", "NSObject"},
      {{"value", MacArchive::uid(archive.add(Value(1234.5678)))},
       {"typeOfQuantification", Value(2)},
       {"objectInfo", MacArchive::uid(archive.mutableDictionary(
                          {{"objectID", archive.url(peptideID.URIRepresentation().absoluteString())}}))},
       {"ionVolumeGroupURI", MacArchive::uid(archive.url(groupID.URIRepresentation().absoluteString()))},
       {"referenceObjectURI", MacArchive::uid(archive.url(peptideID.URIRepresentation().absoluteString()))},
       {"relatedIonVolumes", MacArchive::uid(archive.set({}))}});
  auto decoded = KeyedUnarchiver::unarchiveTopLevelObjectWithData(archive.data(archive.set({macVolume})));
  ASSERT_TRUE(decoded) << decoded.error().debugDescription();
  auto mac = decoded->asSet().begin()->asObjectOf<IonVolume>();
  ASSERT_TRUE(mac);
  EXPECT_EQ(mac->value(), Value(1234.5678));
  EXPECT_EQ(mac->typeOfQuantification(), 2u);
  EXPECT_EQ(mac->ionVolumeGroupID(), groupID);
  EXPECT_EQ(mac->referenceObjectID(), peptideID);
  EXPECT_EQ(objectIDOfValue(mac->objectID()), peptideID);
  EXPECT_EQ(mac->ionVolumeGroup(), group);

  // Ours, with a related volume and the quantification details, through the store.
  auto related = volume(2.0);
  auto ours = volume(1.0);
  ours->setAcceptableQuality(Value(0.95));
  ours->setQuantificationInfo(Value::dictionary({{"method", Value("area")}}));
  ours->setObjectInfo(valueWithObjectID(peptideID));
  ours->setNormIonVolumeObjectID(peptideID);
  ours->setRelatedIonVolumes(ValueSet{Value(related)});
  ours->setIonVolumeGroup(group);
  ours->setReferenceObjectID(peptideID);
  group->setIonVolumes(ValueSet{Value(ours)});
  ASSERT_TRUE(store_.context().save());
  group = nullptr;
  ours = related = mac = nullptr;
  decoded = Value();  // drops the decoded volume
  store_ = {};

  store_ = test::openStore(path_);
  auto reread = std::dynamic_pointer_cast<IonVolumeGroup>(*store_.context().existingObjectWithID(groupID));
  auto volumes = reread->ionVolumes();
  ASSERT_TRUE(volumes);
  ASSERT_EQ(volumes->size(), 1u);
  auto back = volumes->begin()->asObjectOf<IonVolume>();
  EXPECT_EQ(back->value(), Value(1.0));
  EXPECT_EQ(back->acceptableQuality(), Value(0.95));
  EXPECT_EQ(back->quantificationInfo(), Value::dictionary({{"method", Value("area")}}));
  EXPECT_EQ(objectIDOfValue(back->objectID()), peptideID);
  EXPECT_EQ(back->normIonVolumeObjectID(), peptideID);
  EXPECT_EQ(back->referenceObjectID(), peptideID);
  EXPECT_EQ(back->ionVolumeGroupID(), groupID);
  ASSERT_EQ(back->relatedIonVolumes().size(), 1u);
  EXPECT_EQ(back->relatedIonVolumes().begin()->asObjectOf<IonVolume>()->ionVolumeGroupID(), groupID);
  EXPECT_EQ(back->ionVolumeGroup(), reread);
}

TEST_F(IonVolumes, TheGroupIDReachesRelatedVolumesAndTheirs) {
  auto a = volume(1), b = volume(2), c = volume(3);
  b->setRelatedIonVolumes(ValueSet{Value(c)});
  a->setRelatedIonVolumes(ValueSet{Value(b)});
  c->setRelatedIonVolumes(std::nullopt);
  EXPECT_TRUE(c->relatedIonVolumes().empty());

  auto group = test::insertAs<IonVolumeGroup>(store_, "IonVolumeGroup");
  a->setIonVolumeGroup(group);
  EXPECT_FALSE(group->objectID().isTemporaryID());
  for (const auto& v : {a, b, c}) EXPECT_EQ(v->ionVolumeGroupID(), group->objectID());
  a->setIonVolumeGroup(nullptr);
  EXPECT_EQ(a->ionVolumeGroupID(), group->objectID());

  // Volumes related to each other pass the ID around once.
  c->setRelatedIonVolumes(ValueSet{Value(a)});
  auto other = test::insertAs<IonVolumeGroup>(store_, "IonVolumeGroup");
  b->setIonVolumeGroup(other);
  for (const auto& v : {a, b, c}) EXPECT_EQ(v->ionVolumeGroupID(), other->objectID());

  // The link that closed the cycle does not own: letting go of the head frees all three.
  EXPECT_EQ(c->relatedIonVolumes(), (ValueSet{Value(a)}));
  std::weak_ptr<IonVolume> weakA = a, weakB = b, weakC = c;
  a = b = c = nullptr;
  EXPECT_TRUE(weakA.expired());
  EXPECT_TRUE(weakB.expired());
  EXPECT_TRUE(weakC.expired());
}

TEST_F(IonVolumes, RelatedVolumesThatReferToEachOtherSurviveASaveAndAreFreed) {
  auto group = test::insertAs<IonVolumeGroup>(store_, "IonVolumeGroup");
  auto a = volume(1), b = volume(2), lone = volume(3);
  a->setRelatedIonVolumes(ValueSet{Value(b)});
  b->setRelatedIonVolumes(ValueSet{Value(a), Value(b)});  // itself too
  a->setIonVolumeGroup(group);
  group->setIonVolumes(ValueSet{Value(a), Value(b), Value(lone)});
  ASSERT_TRUE(store_.context().save());
  const ManagedObjectID groupID = group->objectID();
  group = nullptr;
  a = b = lone = nullptr;
  store_ = {};

  store_ = test::openStore(path_);
  std::vector<std::weak_ptr<IonVolume>> decoded;
  {
    auto reread = std::dynamic_pointer_cast<IonVolumeGroup>(*store_.context().existingObjectWithID(groupID));
    ASSERT_TRUE(reread);
    auto volumes = reread->ionVolumes();
    ASSERT_TRUE(volumes);
    ASSERT_EQ(volumes->size(), 3u);
    std::map<double, std::shared_ptr<IonVolume>> byValue;
    for (const Value& member : *volumes) {
      auto v = member.asObjectOf<IonVolume>();
      ASSERT_TRUE(v);
      byValue[v->value().doubleValue()] = v;
      decoded.push_back(v);
    }
    EXPECT_EQ(byValue[1]->relatedIonVolumes(), (ValueSet{Value(byValue[2])}));
    EXPECT_EQ(byValue[2]->relatedIonVolumes(), (ValueSet{Value(byValue[1]), Value(byValue[2])}));
    EXPECT_TRUE(byValue[3]->relatedIonVolumes().empty());
    EXPECT_EQ(byValue[2]->ionVolumeGroupID(), groupID);
  }
  store_ = {};
  for (const auto& volume : decoded) EXPECT_TRUE(volume.expired());
}

// The delegate's context, handed out as the fallback, stays alive while the handle is held even
// when the store's owner lets go of everything on another thread.
TEST_F(IonVolumes, TheFallbackContextOutlivesItsOwnerWhileInUse) {
  auto detached = volume(1);
  ContextHandle context = detached->managedObjectContext();
  ASSERT_TRUE(context);
  EXPECT_EQ(context, store_.delegate->managedObjectContext());
  std::thread owner([&] { store_ = {}; });
  owner.join();
  auto group = context->insertNewObjectForEntityForName("IonVolumeGroup");
  EXPECT_TRUE(group);
  EXPECT_EQ(group->managedObjectContext(), context.get());
  group = nullptr;
  context = ContextHandle();
  EXPECT_THROW((void)detached->managedObjectContext(), FatalError);
}

TEST_F(IonVolumes, EditsInPlaceMakeTheGroupStoreItsSetAnew) {
  auto group = test::insertAs<IonVolumeGroup>(store_, "IonVolumeGroup");
  auto first = volume(1), second = volume(2);
  first->setIonVolumeGroup(group);
  second->setIonVolumeGroup(group);
  first->setQuantificationInfo(Value::dictionary({{"k", Value(1)}}));
  group->setIonVolumes(ValueSet{Value(first), Value(second)});
  ASSERT_TRUE(store_.context().save());

  std::vector<std::pair<std::string, bool>> told;
  second->setChangeObserver([&](std::string_view key, bool prior) { told.emplace_back(key, prior); });
  auto peptide = store_.insert("PeptideID");
  ASSERT_TRUE(store_.context().save());
  second->setReferenceObjectID(peptide->objectID());
  EXPECT_EQ(told, (std::vector<std::pair<std::string, bool>>{{"referenceObjectID", true},
                                                             {"referenceObjectID", false}}));
  EXPECT_TRUE(group->hasChanges());
  auto volumes = group->ionVolumes();
  ASSERT_EQ(volumes->size(), 2u);
  // The first element was swapped for an exact copy, whichever volume changed.
  EXPECT_FALSE(volumes->contains(Value(first)));
  EXPECT_TRUE(volumes->contains(Value(second)));
  auto copy = volumes->values().back().asObjectOf<IonVolume>();
  EXPECT_EQ(copy->value(), Value(1));
  EXPECT_EQ(copy->ionVolumeGroupID(), group->objectID());
  EXPECT_EQ(copy->quantificationInfo(), first->quantificationInfo());
  ASSERT_TRUE(store_.context().save());

  // A group with an empty set is left alone.
  group->setIonVolumes(ValueSet{});
  ASSERT_TRUE(store_.context().save());
  second->signalInternalChange();
  EXPECT_FALSE(group->hasChanges());

  // With neither a context nor a delegate there is nothing to resolve in.
  IonVolume orphan(std::make_shared<StoreEnvironment>());
  orphan.setIonVolumeGroupID(group->objectID());
  EXPECT_THROW((void)orphan.ionVolumeGroup(), FatalError);
}

}  // namespace
}  // namespace tesselune
