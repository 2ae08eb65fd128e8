// ApplicationControl: the main application's delegate, carried for its accessors. Store objects
// fall back on its context, coordinator and store when their own context is gone (through the
// StoreEnvironment that it is registered with).
//
// It holds the persistent data container and a main-queue view context on the container's
// coordinator, made with the container; the context is destroyed before the container. The
// main-application members are opaque slots that this program never fills. Use from the main
// thread; the context itself is used as every context is (performBlockAndWait).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "foundation/value.h"
#include "objectstore/managed_object_context.h"
#include "objectstore/persistent_store_coordinator.h"

namespace tesselune {

class ApplicationControl {
 public:
  struct Point {
    double x = 0;
    double y = 0;
    friend bool operator==(const Point&, const Point&) = default;
  };

  explicit ApplicationControl(std::shared_ptr<PersistentContainer> persistentDataContainer = nullptr);
  ~ApplicationControl();
  ApplicationControl(const ApplicationControl&) = delete;
  ApplicationControl& operator=(const ApplicationControl&) = delete;

  // The container; replacing it drops the old view context and makes a new one.
  const std::shared_ptr<PersistentContainer>& persistentDataContainer() const { return container_; }
  void setPersistentDataContainer(std::shared_ptr<PersistentContainer> container);

  // The container's model, view context and coordinator; nothing without a container.
  std::shared_ptr<const ManagedObjectModel> managedObjectModel() const;
  ManagedObjectContext* managedObjectContext() const { return viewContext_.get(); }
  PersistentStoreCoordinator* persistentStoreCoordinator() const;
  // The URL of the container's first store description; nothing when it has none.
  std::optional<Url> URLForStore() const;
  // The coordinator's store for URLForStore; nothing when that store is not open.
  SqliteStore* persistentStore() const;

  Point progressWindowTopLeftPoint() const { return progressWindowTopLeftPoint_; }
  void setProgressWindowTopLeftPoint(Point point) { progressWindowTopLeftPoint_ = point; }

  // Main-application objects: plain slots.
  const ObjectPtr& dataLibrary() const { return dataLibrary_; }
  void setDataLibrary(ObjectPtr object) { dataLibrary_ = std::move(object); }
  const ObjectPtr& residueLibrary() const { return residueLibrary_; }
  void setResidueLibrary(ObjectPtr object) { residueLibrary_ = std::move(object); }
  const ObjectPtr& libraryWindowController() const { return libraryWindowController_; }
  void setLibraryWindowController(ObjectPtr object) { libraryWindowController_ = std::move(object); }
  const ObjectPtr& mainMenuController() const { return mainMenuController_; }
  void setMainMenuController(ObjectPtr object) { mainMenuController_ = std::move(object); }
  const Array& managedWindowControllers() const { return managedWindowControllers_; }
  void setManagedWindowControllers(Array controllers) { managedWindowControllers_ = std::move(controllers); }
  const ObjectPtr& colorManager() const { return colorManager_; }
  void setColorManager(ObjectPtr object) { colorManager_ = std::move(object); }
  const ObjectPtr& debuggingLock() const { return debuggingLock_; }
  void setDebuggingLock(ObjectPtr object) { debuggingLock_ = std::move(object); }
  bool debugging() const { return debugging_; }
  void setDebugging(bool debugging) { debugging_ = debugging; }
  bool isLaunching() const { return isLaunching_; }
  void setIsLaunching(bool launching) { isLaunching_ = launching; }
  std::int64_t scriptOperationCounter() const { return scriptOperationCounter_; }
  void setScriptOperationCounter(std::int64_t counter) { scriptOperationCounter_ = counter; }

 private:
  // Declared before the context: members go in reverse order, and the context must go first.
  std::shared_ptr<PersistentContainer> container_;
  std::unique_ptr<ManagedObjectContext> viewContext_;
  Point progressWindowTopLeftPoint_;
  ObjectPtr dataLibrary_;
  ObjectPtr residueLibrary_;
  ObjectPtr libraryWindowController_;
  ObjectPtr mainMenuController_;
  Array managedWindowControllers_;
  ObjectPtr colorManager_;
  ObjectPtr debuggingLock_;
  bool debugging_ = false;
  bool isLaunching_ = false;
  std::int64_t scriptOperationCounter_ = 0;
};

}  // namespace tesselune
