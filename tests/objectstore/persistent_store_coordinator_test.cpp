// Containers and coordinators: models found by name, stores created where the container says,
// fixture stores added with their models, object URIs resolved through the coordinator, and
// failures delivered to the completion handler, also for asynchronous adds.

#include "objectstore/persistent_store_coordinator.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <thread>

#include "fixtures.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

const fs::path kMoody = fs::path(TESSELUNE_FIXTURES_DIR) / "coredata/moody";

// A container that keeps its stores in a folder of the test's.
class FolderContainer : public PersistentContainer {
 public:
  FolderContainer(std::string name, std::shared_ptr<const ManagedObjectModel> model, fs::path folder)
      : PersistentContainer(std::move(name), std::move(model)), folder_(std::move(folder)) {}
  Url defaultDirectoryURL() const override { return Url::fileUrl(folder_.string(), true); }

 private:
  fs::path folder_;
};

TEST(PersistentContainer, CreatesItsStoreInItsDirectoryAndResolvesUris) {
  auto found = PersistentContainer::persistentContainerWithName("Moody", {"/nonexistent", kMoody});
  ASSERT_TRUE(found) << found.error().debugDescription();
  const fs::path folder = test::scratchFolder("container");
  FolderContainer container("Moody", (*found)->managedObjectModel(), folder);
  ASSERT_EQ(container.persistentStoreDescriptions().size(), 1u);
  EXPECT_EQ(container.persistentStoreDescriptions()[0].url.path(), (folder / "Moody.sqlite").string());

  int calls = 0;
  container.loadPersistentStoresWithCompletionHandler(
      [&](const PersistentStoreDescription& d, const auto& error) {
        ++calls;
        EXPECT_FALSE(error) << error->debugDescription();
        EXPECT_EQ(d.url.lastPathComponent(), "Moody.sqlite");
      });
  EXPECT_EQ(calls, 1) << "a synchronous add has called its handler when it returns";
  PersistentStoreCoordinator& coordinator = container.persistentStoreCoordinator();
  SqliteStore* store =
      coordinator.persistentStoreForURL(Url::fileUrl((folder / "Moody.sqlite").string(), false));
  ASSERT_NE(store, nullptr);
  EXPECT_TRUE(fs::exists(folder / "Moody.sqlite"));

  const EntityDescription& mood = *coordinator.managedObjectModel()->entityNamed("Mood");
  auto key = store->allocatePrimaryKeys(mood, 1);
  ASSERT_TRUE(key);
  const ManagedObjectID id = ManagedObjectID::permanent(mood, store->identifier(), *key);
  EXPECT_EQ(coordinator.managedObjectIDForURIRepresentation(id.URIRepresentation()), id);
  EXPECT_FALSE(coordinator.managedObjectIDForURIRepresentation(
      *Url::parse("x-coredata://0AD863BA-7584-40CF-8896-BD87B3280C34/Mood/p1")));

  EXPECT_FALSE(PersistentContainer::persistentContainerWithName("Nowhere", {kMoody}));
}

TEST(PersistentStoreCoordinator, ReportsFailuresToTheHandlerAlsoWhenAsynchronous) {
  const fs::path folder = test::scratchFolder("coordinator");
  test::copyFixtureStore("coredata/moody/stores/Moody.moody", folder);
  auto v1 = ManagedObjectModel::modelWithContentsOfFile(kMoody / "Moody.xcdatamodeld/Moody.xcdatamodel");
  auto v6 = ManagedObjectModel::modelWithContentsOfFile(kMoody / "Moody.xcdatamodeld");
  ASSERT_TRUE(v1 && v6);

  PersistentStoreCoordinator matching(*v1);
  auto description = PersistentStoreDescription::persistentStoreDescriptionWithURL(
      Url::fileUrl((folder / "Moody.moody").string(), false));
  description.readOnly = true;
  EXPECT_TRUE(matching.addPersistentStore(description));
  EXPECT_EQ(matching.addPersistentStore(description).value_or(nullptr), matching.persistentStores().front())
      << "adding the same file again answers the store already there";

  PersistentStoreCoordinator other(*v6);
  description.shouldAddStoreAsynchronously = true;
  std::promise<std::optional<Error>> result;
  const auto caller = std::this_thread::get_id();
  std::thread::id handlerThread;
  other.addPersistentStoreWithDescription(description, [&](const auto&, const std::optional<Error>& error) {
    handlerThread = std::this_thread::get_id();
    result.set_value(error);
  });
  const std::optional<Error> error = result.get_future().get();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), kPersistentStoreIncompatibleVersionHashError);
  EXPECT_NE(handlerThread, caller);
  EXPECT_TRUE(other.persistentStores().empty());

  auto missing = PersistentStoreDescription::persistentStoreDescriptionWithURL(
      Url::fileUrl((folder / "absent.moody").string(), false));
  missing.readOnly = true;
  auto refused = other.addPersistentStore(missing);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code(), kFileReadNoSuchFileError);
  EXPECT_FALSE(fs::exists(folder / "absent.moody")) << "a read-only add never creates a store";
}

}  // namespace
}  // namespace tesselune
