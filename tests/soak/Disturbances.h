#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace propertyservice::soak {

/// Keeps the load and the disturbances of the system apart. Safe from any thread.
class Disturbances {
 public:
  /// A moment in the life of the system. Two are equal when nothing was disturbed between them.
  struct Moment {
    unsigned disturbances;
    unsigned deaths;

    bool calm() const { return disturbances % 2 == 0; }
    bool operator==(const Moment&) const = default;
  };

  void begin() { ++disturbances_; }
  void end() { ++disturbances_; }
  void daemonDies() { ++deaths_; }
  Moment now() const { return {disturbances_, deaths_}; }

  /// True when the system has been left alone since `moment`, and at that moment.
  bool calmSince(const Moment& moment) const { return moment.calm() && now() == moment; }

 private:
  // Odd during a disturbance. A death lies within one.
  std::atomic<unsigned> disturbances_ = 0;
  std::atomic<unsigned> deaths_ = 0;
};

/// Lets the load through, or holds it between two requests. Safe from any thread.
class Gate {
 public:
  /// Waits while the gate is closed; false when it will not open any more.
  bool enter() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return open_ || ended_; });
    inside_ += ended_ ? 0 : 1;
    return !ended_;
  }

  void leave() {
    const std::lock_guard lock(mutex_);
    --inside_;
    changed_.notify_all();
  }

  /// Returns when nobody is inside.
  void close() {
    std::unique_lock lock(mutex_);
    open_ = false;
    changed_.wait(lock, [this] { return inside_ == 0; });
  }

  void open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

  /// Opens for nobody any more.
  void end() {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_.
  int inside_ = 0;
  bool open_ = false;
  bool ended_ = false;
};

}  // namespace propertyservice::soak
