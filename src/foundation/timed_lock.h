// TimedLock: a lock that can be waited for until a deadline, as NSLock's lockBeforeDate:.
//
// Callers that give up waiting go on without the lock and must then not unlock it:
//
//   const bool locked = lock.lockWithin(std::chrono::seconds(10));
//   ... work, with or without the lock ...
//   if (locked) lock.unlock();
#pragma once

#include <chrono>
#include <mutex>

namespace tesselune {

class TimedLock {
 public:
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }
  [[nodiscard]] bool tryLock() { return mutex_.try_lock(); }
  // Takes the lock, waiting until the deadline at most; false when it was not taken.
  [[nodiscard]] bool lockBefore(std::chrono::steady_clock::time_point deadline) {
    return mutex_.try_lock_until(deadline);
  }
  template <class Rep, class Period>
  [[nodiscard]] bool lockWithin(std::chrono::duration<Rep, Period> timeout) {
    return mutex_.try_lock_for(timeout);
  }

 private:
  std::timed_mutex mutex_;
};

}  // namespace tesselune
