// UndoManager: a stack of undo actions, as NSUndoManager keeps them for a document or a context.
//
// Actions are plain callables registered while a change is made; undo runs the newest group and
// what it registers while undoing becomes the redo. Use from one thread at a time (the owner's).
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace tesselune {

class UndoManager {
 public:
  using Action = std::function<void()>;

  // Adds an action to the open group, or to a group of its own when none is open. Ignored while
  // registration is disabled.
  void registerUndo(Action action);
  void beginUndoGrouping();
  void endUndoGrouping();

  bool canUndo() const { return !undo_.empty(); }
  bool canRedo() const { return !redo_.empty(); }
  // Runs the newest group's actions, newest first.
  void undo();
  void redo();
  void removeAllActions();

  void disableUndoRegistration() { ++disabled_; }
  void enableUndoRegistration() {
    if (disabled_ > 0) --disabled_;
  }
  bool isUndoRegistrationEnabled() const { return disabled_ == 0; }
  std::size_t groupingLevel() const { return open_.size(); }

  // The most top-level groups kept on each of the undo and redo stacks; the oldest go first.
  // 0 (the default) keeps every group. Lowering it trims the stacks at once.
  std::size_t levelsOfUndo() const { return levelsOfUndo_; }
  void setLevelsOfUndo(std::size_t levels);
  std::size_t undoCount() const { return undo_.size(); }
  std::size_t redoCount() const { return redo_.size(); }

 private:
  using Group = std::vector<Action>;
  void push(Group group);
  void trim(std::vector<Group>& stack) const;

  std::vector<Group> undo_;
  std::vector<Group> redo_;
  std::vector<Group> open_;
  int disabled_ = 0;
  std::size_t levelsOfUndo_ = 0;
  enum class Mode { Normal, Undoing, Redoing } mode_ = Mode::Normal;
};

}  // namespace tesselune
