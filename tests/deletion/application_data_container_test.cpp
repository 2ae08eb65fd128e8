// The data container on scratch folders: where the data library is found and made, the fatal alert
// when it cannot be, and the pool of read-only coordinators.

#include "deletion/application_data_container.h"

#include <gtest/gtest.h>

#include <barrier>
#include <chrono>
#include <fstream>
#include <set>
#include <thread>

#include "deletion_test_support.h"
#include "model/store_classes.h"

namespace tesselune::test {
namespace {

std::shared_ptr<const ManagedObjectModel> model() {
  auto loaded = loadStoreModel();
  EXPECT_TRUE(loaded);
  return *loaded;
}

TEST(ApplicationDataContainerTest, TheLibraryLiesInTheGroupContainerAndIsMade) {
  const fs::path group = scratchFolder("group");
  FakeServices fakes(group);
  ApplicationDataContainer container("Tesselune", model(), fakes.services());
  EXPECT_EQ(fakes.groups->asked.front(), "KV3N8Q2ZR5.TesseluneGroup");
  EXPECT_TRUE(fs::is_directory(group / "Tesselune Data Library"));
  EXPECT_EQ(fs::path(container.defaultDirectoryURL().path()), group / "Tesselune Data Library");
  EXPECT_EQ(fs::path(container.temporaryFolderURL().path()), group / "Tesselune Data Library/temporaryFiles");
  EXPECT_FALSE(fs::exists(group / "Tesselune Data Library" / "temporaryFiles")) << "made by the first report";
  EXPECT_TRUE(fakes.alerts->shown().empty());
}

// Without a group container the library goes beside the user's Library folder, found upwards from
// the home folder as a sandboxed program's home lies three levels below it.
TEST(ApplicationDataContainerTest, WithoutAGroupTheUsersLibraryFolderIsFoundAboveTheHome) {
  const fs::path root = scratchFolder("users");
  FakeServices sandboxed(std::nullopt);
  sandboxed.home = (root / "x/Library/Containers/some.id/Data").string();
  EXPECT_EQ(fs::path(ApplicationDataContainer::dataLibraryURL(sandboxed.services()).path()),
            root / "x/Library/Tesselune Data Library");

  FakeServices plain(std::nullopt);
  plain.home = (root / "y/Library/").string();
  EXPECT_EQ(fs::path(ApplicationDataContainer::dataLibraryURL(plain.services()).path()),
            root / "y/Library/Tesselune Data Library");
  EXPECT_TRUE(fs::is_directory(root / "y/Library/Tesselune Data Library"));
}

TEST(ApplicationDataContainerTest, ALibraryThatCannotBeMadeIsFatal) {
  const fs::path blocked = scratchFolder("blocked");
  std::ofstream(blocked / "group") << "a file where the group folder belongs";
  FakeServices fakes(blocked / "group");
  const Url url = ApplicationDataContainer::dataLibraryURL(fakes.services());
  EXPECT_EQ(fs::path(url.path()), blocked / "group/Tesselune Data Library") << "answered all the same";
  const auto alerts = fakes.alerts->shown();
  ASSERT_EQ(alerts.size(), 1u);
  EXPECT_EQ(alerts[0].style, AlertContent::Style::Critical);
  EXPECT_EQ(alerts[0].messageText,
            "Fatal Error when trying to create the folder to store the application data.");
  EXPECT_EQ(alerts[0].informativeText,
            "Try to create a folder named \"Tesselune Data Library\" at the location \"" +
                Url::fileUrl((blocked / "group").string(), true).absoluteString() + "\" manually.");
  EXPECT_EQ(fakes.terminationCount(), 1);
}

class ReadOnlyPoolTest : public DeletionTest {};

TEST_F(ReadOnlyPoolTest, CoordinatorsAreLentReadOnlyAndTakenBackLastInFirstOut) {
  ApplicationDataContainer& data = container_->dataContainer();
  auto first = data.activateReadOnlyStoreCoordinator();
  auto second = data.activateReadOnlyStoreCoordinator();
  ASSERT_TRUE(first && second);
  EXPECT_NE(first.get(), second.get());
  ASSERT_EQ(first->persistentStores().size(), 1u);
  EXPECT_TRUE(first->persistentStores()[0]->isReadOnly());

  PersistentStoreCoordinator* const last = second.get();
  data.deactivateReadOnlyStoreCoordinatorWithReadOnlyStoreCoordinator(std::move(first));
  data.deactivateReadOnlyStoreCoordinatorWithReadOnlyStoreCoordinator(std::move(second));
  EXPECT_EQ(data.idleReadOnlyStoreCoordinatorCount(), 2u);
  auto again = data.activateReadOnlyStoreCoordinator();
  EXPECT_EQ(again.get(), last);
  EXPECT_EQ(data.idleReadOnlyStoreCoordinatorCount(), 1u);
  EXPECT_TRUE(fakes_->printedLines().empty());
}

TEST_F(ReadOnlyPoolTest, AStoreThatCannotBeAddedLeavesTheCoordinatorWithoutOne) {
  ApplicationDataContainer& data = container_->dataContainer();
  data.setPersistentStoreDescriptions({});
  EXPECT_TRUE(data.activateReadOnlyStoreCoordinator()->persistentStores().empty());
  EXPECT_TRUE(fakes_->printedLines().empty());

  data.setPersistentStoreDescriptions({PersistentStoreDescription::persistentStoreDescriptionWithURL(
      Url::fileUrl((library() / "missing" / "Missing.tesselune").string(), false))});
  EXPECT_TRUE(data.activateReadOnlyStoreCoordinator()->persistentStores().empty());
  const auto printed = fakes_->printedLines();
  ASSERT_EQ(printed.size(), 1u);
  EXPECT_TRUE(printed[0].starts_with("An error occurred when adding a read only store. Reason: "))
      << printed[0];
}

// The access lock is held elsewhere beyond the wait (a slow store being added, say): two threads
// then go on without it, and still neither lose nor share a coordinator.
TEST_F(ReadOnlyPoolTest, ThreadsThatGaveUpWaitingForTheLockStillShareThePoolSafely) {
  ApplicationDataContainer& data = container_->dataContainer();
  data.setStoreCoordinatorAccessTimeout(std::chrono::milliseconds(0));
  ASSERT_TRUE(data.storeCoordinatorAccessLock().tryLock());

  constexpr int kEach = 2000;
  std::set<PersistentStoreCoordinator*> given;
  std::vector<std::unique_ptr<PersistentStoreCoordinator>> own[2];
  for (auto& list : own) {
    for (int i = 0; i < kEach; ++i) {
      list.push_back(std::make_unique<PersistentStoreCoordinator>(data.managedObjectModel()));
      given.insert(list.back().get());
    }
  }
  std::barrier allGivenBack(2);
  std::vector<std::unique_ptr<PersistentStoreCoordinator>> taken[2];
  auto work = [&](int t) {
    for (auto& coordinator : own[t])
      data.deactivateReadOnlyStoreCoordinatorWithReadOnlyStoreCoordinator(std::move(coordinator));
    allGivenBack.arrive_and_wait();
    for (int i = 0; i < kEach; ++i) taken[t].push_back(data.activateReadOnlyStoreCoordinator());
  };
  std::thread first(work, 0), second(work, 1);
  first.join();
  second.join();
  data.storeCoordinatorAccessLock().unlock();

  std::set<PersistentStoreCoordinator*> back;
  for (auto& list : taken) {
    for (auto& coordinator : list) back.insert(coordinator.get());
  }
  EXPECT_EQ(back, given) << "a coordinator was lost, or handed out twice";
  EXPECT_EQ(data.idleReadOnlyStoreCoordinatorCount(), 0u);
}

}  // namespace
}  // namespace tesselune::test
