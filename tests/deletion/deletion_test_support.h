// Test support for the deletion layer: fakes of the platform seams that record what happened, and
// a scratch data library with a store made from the store model, opened the way the program opens
// it.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "deletion/store_support_container.h"
#include "deletion/store_support_services.h"
#include "fixtures.h"
#include "foundation/main_queue.h"
#include "model/chromatogram.h"

namespace tesselune::test {

namespace fs = std::filesystem;

class RecordingAlerts : public AlertPresenter {
 public:
  int runModal(const AlertContent& alert) override {
    std::lock_guard lock(mutex_);
    shown_.push_back(alert);
    return 0;
  }
  std::vector<AlertContent> shown() const {
    std::lock_guard lock(mutex_);
    return shown_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<AlertContent> shown_;
};

// Records lines; `onLine` lets a test act at a given moment of a run.
class RecordingLog : public SystemLog {
 public:
  void log(std::string_view message) override {
    std::function<void(std::string_view)> hook;
    {
      std::lock_guard lock(mutex_);
      lines_.emplace_back(message);
      hook = onLine;
    }
    if (hook) hook(message);
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  std::function<void(std::string_view)> onLine;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

class RecordingNotifications : public DistributedNotificationCenter {
 public:
  Status postNotificationName(std::string_view name, std::string_view object) override {
    std::lock_guard lock(mutex_);
    posted_.emplace_back(std::string(name), std::string(object));
    return {};
  }
  std::vector<std::pair<std::string, std::string>> posted() const {
    std::lock_guard lock(mutex_);
    return posted_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, std::string>> posted_;
};

// The running applications by the names they answer to.
class FixedWorkspace : public Workspace {
 public:
  bool isApplicationRunning(std::string_view localizedName) override {
    std::lock_guard lock(mutex_);
    return std::find(names_.begin(), names_.end(), localizedName) != names_.end();
  }
  void setNames(std::vector<std::string> names) {
    std::lock_guard lock(mutex_);
    names_ = std::move(names);
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> names_;
};

class FixedGroupContainers : public GroupContainerLocator {
 public:
  explicit FixedGroupContainers(std::optional<Url> container) : container_(std::move(container)) {}
  std::optional<Url> containerUrlForGroupIdentifier(std::string_view identifier) override {
    std::lock_guard lock(mutex_);
    asked.emplace_back(identifier);
    return container_;
  }
  // Moves the container, also while a run asks from other threads.
  void setContainer(std::optional<Url> container) {
    std::lock_guard lock(mutex_);
    container_ = std::move(container);
  }
  std::vector<std::string> asked;

 private:
  std::mutex mutex_;
  std::optional<Url> container_;
};

// A progress reporter that keeps its state and the history of what it was told.
class RecordingReporter : public ProgressReporter {
 public:
  std::int64_t indicatorValue() const override { return indicator; }
  void setIndicatorValue(std::int64_t value) override { indicator = value; }
  double maximumIndicatorValue() const override { return maximum; }
  void setMaximumIndicatorValue(double value) override {
    maximum = value;
    maxima.push_back(value);
  }
  void setInfoText(const std::string& text) override { texts.push_back(text); }
  void incrementProgressbarBy(double delta) override {
    indicator += static_cast<std::int64_t>(delta);
    ++increments;
  }

  std::int64_t indicator = 0;
  double maximum = 0;
  std::vector<double> maxima;
  std::vector<std::string> texts;
  int increments = 0;
};

// Runs SQL on a store file directly, beside the engine (triggers that make deletes fail).
inline void runSql(const fs::path& store, const std::string& sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(store.c_str(), &db), SQLITE_OK);
  char* message = nullptr;
  const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message);
  const std::string text = message ? message : "";
  sqlite3_free(message);
  sqlite3_close(db);
  ASSERT_EQ(rc, SQLITE_OK) << text;
}

// Every seam faked; the group container is `group`, or none when it is empty.
struct FakeServices {
  std::shared_ptr<RecordingAlerts> alerts = std::make_shared<RecordingAlerts>();
  std::shared_ptr<RecordingLog> log = std::make_shared<RecordingLog>();
  std::shared_ptr<RecordingNotifications> notifications = std::make_shared<RecordingNotifications>();
  std::shared_ptr<FixedWorkspace> workspace = std::make_shared<FixedWorkspace>();
  std::shared_ptr<FixedGroupContainers> groups;
  std::shared_ptr<std::mutex> mutex = std::make_shared<std::mutex>();
  std::shared_ptr<std::vector<std::string>> printed = std::make_shared<std::vector<std::string>>();
  std::shared_ptr<int> terminations = std::make_shared<int>(0);
  std::string home = "/nonexistent";

  explicit FakeServices(const std::optional<fs::path>& group) {
    groups = std::make_shared<FixedGroupContainers>(
        group ? std::optional<Url>(Url::fileUrl(group->string(), true)) : std::nullopt);
  }

  StoreSupportServices services() const {
    StoreSupportServices services;
    services.alerts = alerts;
    services.log = log;
    services.notifications = notifications;
    services.workspace = workspace;
    services.groupContainers = groups;
    services.terminate = [mutex = mutex, terminations = terminations] {
      std::lock_guard lock(*mutex);
      ++*terminations;
    };
    services.homeFolder = [home = home] { return home; };
    services.printLine = [mutex = mutex, printed = printed](const std::string& line) {
      std::lock_guard lock(*mutex);
      printed->push_back(line);
    };
    return services;
  }
  std::vector<std::string> printedLines() const {
    std::lock_guard lock(*mutex);
    return *printed;
  }
  int terminationCount() const {
    std::lock_guard lock(*mutex);
    return *terminations;
  }
};

// A scratch group container whose data library holds the store, opened as the program opens it,
// and a main queue of the test's own so that queued alerts can be delivered.
class DeletionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    queue_ = std::make_shared<RunLoopMainQueue>();
    setMainQueue(queue_);
    group_ = scratchFolder("group");
    fakes_.emplace(group_);
    container_ = makeContainer();
  }
  void TearDown() override { container_.reset(); }

  std::shared_ptr<StoreSupportContainer> makeContainer() {
    auto container = StoreSupportContainer::create(fakes_->services());
    EXPECT_TRUE(container) << container.error().debugDescription();
    auto opened = (*container)->openStore();
    EXPECT_TRUE(opened) << opened.error().debugDescription();
    return *container;
  }
  fs::path library() const { return group_ / "Tesselune Data Library"; }
  fs::path temporaryFolder() const { return library() / "temporaryFiles"; }
  fs::path storeFile() const { return library() / "TesseluneStore.tesselune"; }

  // A context of its own on the container's store, for making and checking objects.
  std::unique_ptr<ManagedObjectContext> newContext() const {
    auto context = std::make_unique<ManagedObjectContext>(ManagedObjectContextConcurrencyType::PrivateQueue);
    context->setPersistentStoreCoordinator(&container_->dataContainer().persistentStoreCoordinator());
    return context;
  }
  std::int64_t count(const std::string& entity, const std::string& predicate = "") const {
    auto context = newContext();
    FetchRequest request = FetchRequest::fetchRequestWithEntityName(entity);
    if (!predicate.empty()) request.predicate = *predicateWithFormat(predicate);
    auto counted = context->countForFetchRequest(request);
    EXPECT_TRUE(counted) << counted.error().debugDescription();
    return counted ? *counted : -1;
  }
  static void save(ManagedObjectContext& context) {
    auto saved = context.save();
    ASSERT_TRUE(saved) << saved.error().debugDescription();
  }
  // Inserts `n` objects of `entity` pointing back at `owner` through `inverse`.
  static void insertChildren(ManagedObjectContext& context, const std::shared_ptr<ManagedObject>& owner,
                             const std::string& entity, const std::string& inverse, int n) {
    for (int i = 0; i < n; ++i) {
      auto child = context.insertNewObjectForEntityForName(entity);
      child->setValue(Value(ObjectPtr(owner)), inverse);
    }
  }
  // As insertChildren, for many: set through the owner's to-many `relationship` in one go, which
  // keeps the engine's inverse upkeep linear.
  static void insertManyChildren(ManagedObjectContext& context, const std::shared_ptr<ManagedObject>& owner,
                                 const std::string& entity, const std::string& relationship, int n) {
    Array children;
    children.reserve(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
      children.emplace_back(ObjectPtr(context.insertNewObjectForEntityForName(entity)));
    owner->setValue(Value(ValueSet(children)), relationship);
  }
  // A chromatogram whose data folder is `relativePath` (none when empty).
  static std::shared_ptr<Chromatogram> insertChromatogram(ManagedObjectContext& context,
                                                          const std::string& name,
                                                          const std::string& relativePath, bool marked) {
    auto chromatogram =
        std::dynamic_pointer_cast<Chromatogram>(context.insertNewObjectForEntityForName("Chromatogram"));
    EXPECT_TRUE(chromatogram);
    chromatogram->setValue(Value(name), "chromatogramName");
    if (!relativePath.empty()) chromatogram->setValue(Value(relativePath), "dataFolderRelativePath");
    chromatogram->setValue(Value(marked), "destinedForDeletion");
    return chromatogram;
  }
  // Runs what is queued on the main queue (the alerts of presentError).
  std::vector<AlertContent> deliverAlerts() {
    queue_->runUntilIdle();
    return fakes_->alerts->shown();
  }

  std::shared_ptr<RunLoopMainQueue> queue_;
  fs::path group_;
  std::optional<FakeServices> fakes_;
  std::shared_ptr<StoreSupportContainer> container_;
};

}  // namespace tesselune::test
