// DataCollection (a user's collection of store objects, with its own undo manager and user
// interface state), the protein Sequence, and the molecular marker entities: MarkerSet,
// MolecularMarkerGroup, MolecularMarker, MolecularReferenceGroup and MolecularReference.
//
// Objects belong to their context and are used on its thread. View controllers, menus and display
// managers are the main application's objects, held in opaque slots that start empty.
#pragma once

#include <memory>
#include <optional>

#include "foundation/predicate.h"
#include "foundation/undo_manager.h"
#include "model/store_object.h"

namespace tesselune {

class DataCollection : public StoreObject {
 public:
  // The undo depth of the collection's own undo manager.
  static constexpr int kLevelsOfUndo = 20;

  // The collection's own undo manager, made on first request and kept for the object's life.
  const std::shared_ptr<UndoManager>& undoManager();

  // The main application's view controllers, held weakly.
  ObjectPtr graphicViewController() const { return graphicViewController_.lock(); }
  void setGraphicViewController(const ObjectPtr& controller) { graphicViewController_ = controller; }
  ObjectPtr listViewController() const { return listViewController_.lock(); }
  void setListViewController(const ObjectPtr& controller) { listViewController_ = controller; }
  const ObjectPtr& menu() const { return menu_; }
  void setMenu(ObjectPtr menu) { menu_ = std::move(menu); }
  ValueSet& proxies() { return proxies_; }
  const ValueSet& createdDataObjects() const { return createdDataObjects_; }
  void setCreatedDataObjects(ValueSet objects) { createdDataObjects_ = std::move(objects); }
  const ValueSet& libraryDataObjects() const { return libraryDataObjects_; }
  void setLibraryDataObjects(ValueSet objects) { libraryDataObjects_ = std::move(objects); }
  // Plain flags: changing them notifies nobody.
  bool requiresLibraryObjectsRegeneration() const { return requiresLibraryObjectsRegeneration_; }
  void setRequiresLibraryObjectsRegeneration(bool required) {
    requiresLibraryObjectsRegeneration_ = required;
  }
  bool requiresDataObjectsRegeneration() const { return requiresDataObjectsRegeneration_; }
  void setRequiresDataObjectsRegeneration(bool required) { requiresDataObjectsRegeneration_ = required; }

 private:
  std::shared_ptr<UndoManager> undoManager_;
  std::weak_ptr<Object> graphicViewController_;
  std::weak_ptr<Object> listViewController_;
  ObjectPtr menu_;
  ValueSet proxies_;
  ValueSet createdDataObjects_;
  ValueSet libraryDataObjects_;
  bool requiresLibraryObjectsRegeneration_ = false;
  bool requiresDataObjectsRegeneration_ = false;
};

class Sequence : public StoreObject {
 public:
  const ObjectPtr& displayManager() const { return displayManager_; }
  void setDisplayManager(ObjectPtr manager) { displayManager_ = std::move(manager); }

 private:
  ObjectPtr displayManager_;
};

class MarkerSet : public StoreObject {};

class MolecularMarkerGroup : public StoreObject {
 public:
  std::set<std::string> keyPathsForValuesAffectingValueForKey(std::string_view key) const override;
};

class MolecularMarker : public StoreObject {
 public:
  const Dictionary& chromatogramsData() const { return chromatogramsData_; }
  void setChromatogramsData(Dictionary data) { chromatogramsData_ = std::move(data); }
  const std::optional<Predicate>& ionVolumeSearchPredicate() const { return ionVolumeSearchPredicate_; }
  void setIonVolumeSearchPredicate(std::optional<Predicate> predicate) {
    ionVolumeSearchPredicate_ = std::move(predicate);
  }

 private:
  Dictionary chromatogramsData_;
  std::optional<Predicate> ionVolumeSearchPredicate_;
};

class MolecularReferenceGroup : public StoreObject {};
class MolecularReference : public StoreObject {};

}  // namespace tesselune
