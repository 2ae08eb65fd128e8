// DataCollection's undo manager and the marker group's display-key dependencies.

#include "model/data_collection.h"

namespace tesselune {

const std::shared_ptr<UndoManager>& DataCollection::undoManager() {
  if (!undoManager_) {
    undoManager_ = std::make_shared<UndoManager>();
    undoManager_->setLevelsOfUndo(kLevelsOfUndo);
  }
  return undoManager_;
}

std::set<std::string> MolecularMarkerGroup::keyPathsForValuesAffectingValueForKey(
    std::string_view key) const {
  auto paths = StoreObject::keyPathsForValuesAffectingValueForKey(key);
  if (key == "shortObjectDescription" || key == "objectDescription") {
    paths.insert("molecularMarkers");
    paths.insert("markerSets");
  }
  if (key == "objectName") paths.insert("name");
  return paths;
}

}  // namespace tesselune
