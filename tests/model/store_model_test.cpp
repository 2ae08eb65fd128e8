// The store model and its classes together: the model's shape (inverses, delete rules, named
// transformers), the registry handing out each entity's class, and objects of every entity
// inserted, related, saved, reopened, fetched and deleted in a real store file.

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <typeinfo>

#include "foundation/value_transformer.h"
#include "model/chromatogram.h"
#include "model/data_collection.h"
#include "model/database_search.h"
#include "model/ion_group.h"
#include "model/precursor_list.h"
#include "model/spectrum.h"
#include "objectstore/managed_object_context.h"
#include "objectstore/sqlite/schema.h"
#include "test_store.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

template <class T>
bool isExactly(const ManagedObject& object) {
  return typeid(object) == typeid(T);
}

const std::map<std::string, std::function<bool(const ManagedObject&)>>& expectedClasses() {
  static const std::map<std::string, std::function<bool(const ManagedObject&)>> classes = {
      {"Chromatogram", isExactly<Chromatogram>},
      {"ChromatogramGroup", isExactly<ChromatogramGroup>},
      {"ChromatogramAlignment", isExactly<ChromatogramAlignment>},
      {"ChromatogramMap", isExactly<ChromatogramMap>},
      {"ChromatogramNormalization", isExactly<ChromatogramNormalization>},
      {"DataCollection", isExactly<DataCollection>},
      {"DatabaseSearchResult", isExactly<DatabaseSearchResult>},
      {"DatabaseSearchJoin", isExactly<DatabaseSearchJoin>},
      {"IonGroup", isExactly<IonGroup>},
      {"NormIonGroup", isExactly<NormIonGroup>},
      {"IonVolumeGroup", isExactly<IonVolumeGroup>},
      {"PeptideID", isExactly<PeptideID>},
      {"PeptideIDJoined", isExactly<PeptideIDJoined>},
      {"ProteinID", isExactly<ProteinID>},
      {"ProteinIDJoined", isExactly<ProteinIDJoined>},
      {"Peptide", isExactly<Peptide>},
      {"Protein", isExactly<Protein>},
      {"ProteinGroup", isExactly<ProteinGroup>},
      {"PrecursorSelection", isExactly<PrecursorSelection>},
      {"SpectrumSingle", isExactly<SpectrumSingle>},
      {"Spectrum", isExactly<Spectrum>},
      {"FragmentSpectrum", isExactly<FragmentSpectrum>},
      {"ChromatogramSpectrum", isExactly<ChromatogramSpectrum>},
      {"SpectrumView", isExactly<SpectrumView>},
      {"Sequence", isExactly<Sequence>},
      {"MarkerSet", isExactly<MarkerSet>},
      {"MolecularMarkerGroup", isExactly<MolecularMarkerGroup>},
      {"MolecularMarker", isExactly<MolecularMarker>},
      {"MolecularReferenceGroup", isExactly<MolecularReferenceGroup>},
      {"MolecularReference", isExactly<MolecularReference>},
      {"PrecursorListGroup", isExactly<PrecursorListGroup>},
      {"PrecursorList", isExactly<PrecursorList>},
      {"ManagedCachedData", isExactly<ManagedCachedData>},
      {"MarkerFragmentGroup", isExactly<MarkerFragmentGroup>},
  };
  return classes;
}

std::set<std::string> cascadesOf(const std::string& entity) {
  std::set<std::string> names;
  for (const auto& [name, relationship] : test::storeModel()->entityNamed(entity)->relationshipsByName()) {
    if (relationship->deleteRule() == DeleteRule::Cascade) names.insert(name);
  }
  return names;
}

TEST(StoreModel, EveryEntityHasItsOwnClassAndTheSixSubentitiesTheirParents) {
  auto model = test::storeModel();
  ASSERT_TRUE(model);
  std::set<std::string> entityNames;
  for (const auto& entity : model->entities()) {
    entityNames.insert(entity->name());
    EXPECT_EQ(entity->managedObjectClassName(), entity->name());
    EXPECT_FALSE(entity->isAbstract()) << entity->name();
  }
  std::set<std::string> classNames(storeClassNames().begin(), storeClassNames().end());
  EXPECT_EQ(entityNames, classNames);
  EXPECT_EQ(entityNames.size(), expectedClasses().size());

  const std::map<std::string, std::string> parents = {
      {"NormIonGroup", "IonGroup"},   {"PeptideIDJoined", "PeptideID"}, {"ProteinIDJoined", "ProteinID"},
      {"Spectrum", "SpectrumSingle"}, {"FragmentSpectrum", "Spectrum"}, {"ChromatogramSpectrum", "Spectrum"},
  };
  for (const auto& entity : model->entities()) {
    auto parent = parents.find(entity->name());
    if (parent == parents.end()) {
      EXPECT_EQ(entity->superentity(), nullptr) << entity->name();
    } else {
      ASSERT_NE(entity->superentity(), nullptr) << entity->name();
      EXPECT_EQ(entity->superentity()->name(), parent->second);
    }
  }
}

// To-ones into hierarchies keep the destination's entity number beside the key, in a column named
// after the destination's number, as the framework names it (three such in this model).
TEST(StoreModel, EntityNumberColumnsCarryTheDestinationsNumber) {
  auto model = test::storeModel();
  ASSERT_TRUE(model);
  const EntityNumbers numbers = StoreSchema::numberEntities(*model);
  const StoreSchema schema = StoreSchema::forModel(*model, numbers);
  auto entityColumn = [&](std::string_view entity, std::string_view relationship) {
    const PropertyMapping* mapping =
        schema.mapping(*model->entityNamed(entity)->relationshipsByName().at(std::string(relationship)));
    return mapping == nullptr ? std::string() : mapping->table + "." + mapping->entityColumn;
  };
  EXPECT_EQ(numbers.at(model->entityNamed("ProteinID")), 27);
  EXPECT_EQ(entityColumn("Chromatogram", "normProteinID"), "ZCHROMATOGRAM.Z27_NORMPROTEINID");
  EXPECT_EQ(entityColumn("IonVolumeGroup", "ionGroup"), "ZIONVOLUMEGROUP.Z9_IONGROUP");
  EXPECT_EQ(entityColumn("SpectrumView", "spectrum"), "ZSPECTRUMVIEW.Z30_SPECTRUM");
}

TEST(StoreModel, EveryRelationshipHasItsInverseAndNoneDenies) {
  for (const auto& entity : test::storeModel()->entities()) {
    for (const auto& [name, relationship] : entity->relationshipsByName()) {
      const RelationshipDescription* inverse = relationship->inverseRelationship();
      ASSERT_NE(inverse, nullptr) << entity->name() << "." << name;
      EXPECT_EQ(inverse->inverseRelationship(), relationship) << entity->name() << "." << name;
      // A deny rule would make the deletion program's batch requests fail.
      EXPECT_NE(relationship->deleteRule(), DeleteRule::Deny) << entity->name() << "." << name;
    }
  }
  // The relationships the deletion engine reaches by name only.
  auto single = test::storeModel()->entityNamed("SpectrumSingle");
  EXPECT_TRUE(single->relationshipsByName().contains("chromatogramNative"));
  EXPECT_TRUE(single->relationshipsByName().contains("precursorChromatogram"));
  EXPECT_TRUE(test::storeModel()
                  ->entityNamed("DatabaseSearchJoin")
                  ->relationshipsByName()
                  .contains("peptideIDsJoined"));
}

TEST(StoreModel, OwnersCascadeAndEverythingElseNullifies) {
  EXPECT_EQ(
      cascadesOf("Chromatogram"),
      (std::set<std::string>{"chromatogramMaps", "chromatogramNormalizations", "fragmentSpectrum", "ionGroup",
                             "ionVolumeGroups", "myChromatogramAlignments", "precursorListGroups",
                             "precursorSelections", "spectrum", "spectrumDerived"}));
  EXPECT_EQ(cascadesOf("DatabaseSearchResult"),
            (std::set<std::string>{"ionVolumeGroups", "peptideID", "proteinID"}));
  EXPECT_EQ(cascadesOf("DatabaseSearchJoin"), (std::set<std::string>{"peptideIDsJoined"}));
  EXPECT_EQ(cascadesOf("PrecursorListGroup"), (std::set<std::string>{"precursorLists"}));
  const std::set<std::string> owners = {"Chromatogram", "DatabaseSearchResult", "DatabaseSearchJoin",
                                        "PrecursorListGroup"};
  for (const auto& entity : test::storeModel()->entities()) {
    if (!owners.contains(entity->name())) {
      EXPECT_TRUE(cascadesOf(entity->name()).empty()) << entity->name();
    }
    for (const auto& [name, relationship] : entity->relationshipsByName()) {
      if (relationship->deleteRule() == DeleteRule::Cascade) {
        EXPECT_TRUE(relationship->userInfo().contains("ownership")) << "no reason given for " << name;
      }
    }
  }
}

TEST(StoreModel, TransformableAttributesNameRegisteredTransformers) {
  registerStoreValueTransformers();
  int transformables = 0;
  for (const auto& entity : test::storeModel()->entities()) {
    for (const auto& [name, attribute] : entity->attributesByName()) {
      if (attribute->attributeType() != AttributeType::Transformable) continue;
      ++transformables;
      EXPECT_FALSE(attribute->valueTransformerName().empty()) << entity->name() << "." << name;
      EXPECT_TRUE(ValueTransformer::valueTransformerForName(attribute->valueTransformerName()))
          << attribute->valueTransformerName();
    }
  }
  EXPECT_GT(transformables, 4);
}

// One object of every entity, each relationship leading to a partner of its own.
class EveryEntity : public ::testing::Test {
 protected:
  void SetUp() override { path_ = test::scratchFolder("every-entity") / "TesseluneStore.tesselune"; }

  ManagedObjectID idFor(const test::OpenStore& store, const Url& uri) {
    auto id = store.delegate->persistentStoreCoordinator()->managedObjectIDForURIRepresentation(uri);
    EXPECT_TRUE(id) << uri.absoluteString();
    return *id;
  }

  fs::path path_;
  std::map<std::string, Url> primaries_;                         // entity -> URI
  std::map<std::pair<std::string, std::string>, Url> partners_;  // (entity, relationship) -> URI
};

TEST_F(EveryEntity, IsInsertedRelatedSavedFetchedAndDeleted) {
  {
    auto store = test::openStore(path_);
    std::map<std::string, std::shared_ptr<ManagedObject>> primaries;
    std::map<std::pair<std::string, std::string>, std::shared_ptr<ManagedObject>> partners;
    for (const auto& entity : test::storeModel()->entities()) {
      auto object = store.insert(entity->name());
      ASSERT_TRUE(expectedClasses().at(entity->name())(*object)) << entity->name();
      primaries[entity->name()] = object;
      for (const auto& [name, relationship] : entity->relationshipsByName()) {
        auto partner = store.insert(relationship->destinationEntity()->name());
        if (relationship->isToMany()) {
          object->addObject(partner, name);
        } else {
          object->setValue(Value(ObjectPtr(partner)), name);
        }
        partners[{entity->name(), name}] = partner;
      }
    }
    ASSERT_TRUE(store.context().save());
    for (const auto& [entity, object] : primaries)
      primaries_[entity] = object->objectID().URIRepresentation();
    for (const auto& [key, object] : partners) partners_[key] = object->objectID().URIRepresentation();
  }
  {
    // Reopened: every primary is fetched back with its class and its partners.
    auto store = test::openStore(path_);
    for (const auto& [entityName, uri] : primaries_) {
      auto object = store.context().existingObjectWithID(idFor(store, uri));
      ASSERT_TRUE(object) << entityName;
      EXPECT_TRUE(expectedClasses().at(entityName)(**object)) << entityName;
      for (const auto& [name, relationship] : (*object)->entity().relationshipsByName()) {
        const Url& partner = partners_.at({entityName, name});
        if (relationship->isToMany()) {
          auto members = (*object)->objectsForKey(name);
          ASSERT_EQ(members.size(), 1u) << entityName << "." << name;
          EXPECT_EQ(members[0]->objectID().URIRepresentation(), partner);
        } else {
          auto related = (*object)->objectForKey(name);
          ASSERT_TRUE(related) << entityName << "." << name;
          EXPECT_EQ(related->objectID().URIRepresentation(), partner);
        }
      }
      store.context().deleteObject(*object);
    }
    // Fetch requests of the entity classes find their objects (sub-entities included).
    auto ionGroups = store.context().fetchObjects(IonGroup::fetchRequest());
    ASSERT_TRUE(ionGroups);
    EXPECT_GE(ionGroups->size(), 2u);
    ASSERT_TRUE(store.context().save());
  }
  {
    // Cascaded partners went with their owner; nullified ones stayed and lost it.
    auto store = test::openStore(path_);
    for (const auto& [key, uri] : partners_) {
      const auto& [entityName, name] = key;
      const RelationshipDescription* relationship =
          test::storeModel()->entityNamed(entityName)->relationshipsByName().find(name)->second;
      auto partner = store.context().existingObjectWithID(idFor(store, uri));
      if (relationship->deleteRule() == DeleteRule::Cascade) {
        EXPECT_FALSE(partner) << entityName << "." << name << " should have been cascaded";
        continue;
      }
      ASSERT_TRUE(partner) << entityName << "." << name << " should have stayed";
      const std::string& inverse = relationship->inverseRelationshipName();
      EXPECT_TRUE((*partner)->objectsForKey(inverse).empty() && !(*partner)->objectForKey(inverse))
          << entityName << "." << name;
    }
  }
}

TEST(StoreModelBatchDelete, DeletesAChromatogramWithWhatItOwns) {
  const fs::path path = test::scratchFolder("batch") / "TesseluneStore.tesselune";
  Url spectrumURI, collectionURI, chromatogramURI;
  {
    auto store = test::openStore(path);
    auto chromatogram = store.insert("Chromatogram");
    auto spectrum = store.insert("Spectrum");
    auto collection = store.insert("DataCollection");
    chromatogram->addObject(spectrum, "spectrum");
    chromatogram->addObject(collection, "dataCollections");
    ASSERT_TRUE(store.context().save());
    chromatogramURI = chromatogram->objectID().URIRepresentation();
    spectrumURI = spectrum->objectID().URIRepresentation();
    collectionURI = collection->objectID().URIRepresentation();
    auto result =
        store.context().executeRequest(BatchDeleteRequest::initWithObjectIDs({chromatogram->objectID()}));
    ASSERT_TRUE(result) << result.error().debugDescription();
  }
  auto store = test::openStore(path);
  auto* coordinator = store.delegate->persistentStoreCoordinator();
  EXPECT_FALSE(store.context().existingObjectWithID(
      *coordinator->managedObjectIDForURIRepresentation(chromatogramURI)));
  EXPECT_FALSE(
      store.context().existingObjectWithID(*coordinator->managedObjectIDForURIRepresentation(spectrumURI)));
  auto collection =
      store.context().existingObjectWithID(*coordinator->managedObjectIDForURIRepresentation(collectionURI));
  ASSERT_TRUE(collection);
  EXPECT_TRUE((*collection)->objectsForKey("chromatograms").empty());
}

}  // namespace
}  // namespace tesselune
