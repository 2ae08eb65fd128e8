// Progress: the state of a long piece of work, as NSProgress: unit counts, the texts shown with it,
// user info, cancellation, and observers that a progress window binds to.
//
// Thread-safe. Observers and the cancellation handler run on the thread that made the change,
// after the change and outside the lock, so they may read the progress (and change it again).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "foundation/value.h"

namespace tesselune {

class Progress {
 public:
  using ObserverId = std::uint64_t;

  explicit Progress(std::int64_t totalUnitCount = -1) : total_(totalUnitCount) {}
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // A negative total means the amount of work is unknown (indeterminate).
  std::int64_t totalUnitCount() const;
  void setTotalUnitCount(std::int64_t count);
  std::int64_t completedUnitCount() const;
  void setCompletedUnitCount(std::int64_t count);
  bool isIndeterminate() const;
  // completed / total, 0 when indeterminate or the total is 0.
  double fractionCompleted() const;

  std::string localizedDescription() const;
  void setLocalizedDescription(std::string text);
  std::string localizedAdditionalDescription() const;
  void setLocalizedAdditionalDescription(std::string text);

  Dictionary userInfo() const;
  // Setting null removes the key.
  void setUserInfoObject(Value value, const std::string& key);

  bool isCancellable() const;
  void setCancellable(bool cancellable);
  bool isCancelled() const;
  // Cancels once; the handler runs then. Does nothing unless cancellable.
  void cancel();
  // Runs when the progress is cancelled; at once when it already is.
  void setCancellationHandler(std::function<void()> handler);

  // Called after every change.
  ObserverId addObserver(std::function<void(const Progress&)> observer);
  void removeObserver(ObserverId id);

 private:
  template <class Change>
  void change(Change&& apply);

  mutable std::mutex mutex_;
  std::int64_t total_;
  std::int64_t completed_ = 0;
  std::string description_;
  std::string additionalDescription_;
  Dictionary userInfo_;
  bool cancellable_ = true;
  bool cancelled_ = false;
  std::function<void()> cancellationHandler_;
  std::map<ObserverId, std::function<void(const Progress&)>> observers_;
  ObserverId nextObserver_ = 1;
};

}  // namespace tesselune
