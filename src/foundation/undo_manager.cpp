// UndoManager: groups, and the undo and redo stacks.

#include "foundation/undo_manager.h"

#include <cstddef>
#include <utility>

namespace tesselune {

void UndoManager::registerUndo(Action action) {
  if (disabled_ > 0 || !action) return;
  if (!open_.empty()) {
    open_.back().push_back(std::move(action));
    return;
  }
  push(Group{std::move(action)});
}

void UndoManager::push(Group group) {
  if (group.empty()) return;
  if (mode_ == Mode::Undoing) {
    redo_.push_back(std::move(group));
    trim(redo_);
    return;
  }
  undo_.push_back(std::move(group));
  trim(undo_);
  // A new change makes the redo history meaningless.
  if (mode_ == Mode::Normal) redo_.clear();
}

void UndoManager::setLevelsOfUndo(std::size_t levels) {
  levelsOfUndo_ = levels;
  trim(undo_);
  trim(redo_);
}

void UndoManager::trim(std::vector<Group>& stack) const {
  if (levelsOfUndo_ == 0 || stack.size() <= levelsOfUndo_) return;
  stack.erase(stack.begin(), stack.begin() + static_cast<std::ptrdiff_t>(stack.size() - levelsOfUndo_));
}

void UndoManager::beginUndoGrouping() {
  open_.emplace_back();
}

void UndoManager::endUndoGrouping() {
  if (open_.empty()) return;
  Group group = std::move(open_.back());
  open_.pop_back();
  if (!open_.empty()) {
    for (Action& action : group) open_.back().push_back(std::move(action));
    return;
  }
  push(std::move(group));
}

void UndoManager::undo() {
  if (undo_.empty()) return;
  Group group = std::move(undo_.back());
  undo_.pop_back();
  mode_ = Mode::Undoing;
  beginUndoGrouping();
  for (auto action = group.rbegin(); action != group.rend(); ++action) (*action)();
  endUndoGrouping();
  mode_ = Mode::Normal;
}

void UndoManager::redo() {
  if (redo_.empty()) return;
  Group group = std::move(redo_.back());
  redo_.pop_back();
  mode_ = Mode::Redoing;
  beginUndoGrouping();
  for (auto action = group.rbegin(); action != group.rend(); ++action) (*action)();
  endUndoGrouping();
  mode_ = Mode::Normal;
}

void UndoManager::removeAllActions() {
  undo_.clear();
  redo_.clear();
  open_.clear();
}

}  // namespace tesselune
