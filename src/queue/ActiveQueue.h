#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <queue>
#include <system_error>
#include <thread>
#include <utility>

namespace common {

/// A first-in-first-out queue with a worker thread that hands each element to a handler, one at a time.
///
/// Any thread may push; nobody waits for the handler. The handler runs on the worker, outside the lock, and
/// catches its own exceptions: one that escapes ends the process.
template <typename T>
class ActiveQueue {
 public:
  using Handler = std::function<void(T&)>;

  /// The worker runs from here on when `startThread` is set; it never sleeps longer than `timeoutMs`
  /// milliseconds.
  ActiveQueue(Handler handler, bool startThread, std::uint32_t timeoutMs)
      : handler_(std::move(handler)), timeout_(timeoutMs) {
    if (startThread) {
      start();
    }
  }

  ActiveQueue(const ActiveQueue&) = delete;
  ActiveQueue& operator=(const ActiveQueue&) = delete;

  /// Returns after everything that was pushed has been handled.
  virtual ~ActiveQueue() { stop(); }

  /// Drops the element when the queue has been stopped.
  void push(T element) { tryPush(element); }

  /// Takes the element, or returns false and leaves it alone when the queue has been stopped.
  bool tryPush(T& element) {
    const std::scoped_lock lock(mutex_);
    if (stopped_) {
      return false;
    }
    queue_.push(std::move(element));
    wakeUp_.notify_one();
    return true;
  }

  /// Lets the worker handle what has been pushed and waits for its end; does not wait when the worker itself
  /// calls. A stopped queue cannot be restarted. Any thread may call it, several at once too; each waits.
  void stop() {
    if (!stopped_) {
      const std::scoped_lock lock(mutex_);
      stopped_ = true;
      wakeUp_.notify_one();
    }
    if (workerId_ == std::this_thread::get_id()) {
      return;
    }
    const std::scoped_lock lock(joining_);
    if (worker_.joinable()) {
      try {
        worker_.join();
      } catch (const std::system_error&) {
        // The owner is about to go, and an exception would not bring the worker to its end.
      }
    }
  }

  /// True while the worker sleeps and nothing is queued: everything that was pushed before has been handled.
  bool isWaiting() {
    const std::scoped_lock lock(mutex_);
    return waiting_ && queue_.empty();
  }

 protected:
  /// Starts the worker. REQUIRES: not started yet. A derived class with a `processQueue` of its own calls
  /// this at the end of its constructor, when there is something to process with, and `stop` at the start of
  /// its destructor.
  void start() {
    worker_ = std::thread([this] {
      workerId_ = std::this_thread::get_id();
      run();
    });
  }

  bool isStopped() const { return stopped_; }

  /// Called on the worker, with the lock held on entry and on return, at each push, at each time-out and once
  /// more after `stop`; the queue may be empty.
  virtual void processQueue(std::unique_lock<std::mutex>& lock) {
    while (!queue_.empty()) {
      T element = std::move(queue_.front());
      queue_.pop();
      lock.unlock();
      handler_(element);
      lock.lock();
    }
  }

  std::queue<T> queue_;  ///< Guarded by the lock that `processQueue` is given.

 private:
  void run() {
    // A stop that comes while the queue is being processed is served in another round: something may have
    // been pushed before it.
    bool stopping = false;
    while (!stopping) {
      std::unique_lock lock(mutex_);
      waitForWork(lock);
      stopping = stopped_;
      processQueue(lock);
    }
  }

  void waitForWork(std::unique_lock<std::mutex>& lock) {
    const auto hasWork = [this] { return stopped_ || !queue_.empty(); };
    if (hasWork()) {
      return;
    }
    waiting_ = true;
    wakeUp_.wait_until(lock, std::chrono::system_clock::now() + timeout_, hasWork);
    waiting_ = false;
  }

  const Handler handler_;
  const std::chrono::milliseconds timeout_;
  std::mutex mutex_;
  std::condition_variable wakeUp_;
  std::atomic<bool> stopped_{false};       ///< Written under the mutex.
  bool waiting_ = false;                   ///< Guarded by the mutex: the worker is in its timed wait.
  std::atomic<std::thread::id> workerId_;  ///< Written by the worker, before it handles anything.
  std::mutex joining_;                     ///< Held by the one thread that waits for the worker's end.
  std::thread worker_;
};

}  // namespace common
