#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <queue>

#include "core/Property.h"
#include "queue/ActiveQueueBulk.h"

namespace propertyservice {

/// The road of accepted values to the storage: a worker that hands over, in push order, what has been pushed
/// ("key" and "value" are all it needs), and keeps it until the storage has taken it.
///
/// - The storage lets the first of two equal keys in a statement win; so the last value of each key that was
///   pushed more than once follows in a second call.
/// - More than fills a statement means that the disk cannot follow: only the last value of each key is then
///   handed over.
/// - Where the storage refuses a property for good, all are handed over one by one, and the refused ones are
///   logged as errors and dropped.
/// - Where it fails in any other way, the last value of each key is kept and tried again with what is pushed
///   next, at each time-out of the worker and at the stop. Between two such tries the worker sleeps, so that
///   the disk is not hammered. The beginning and the end of the trouble are logged.
///
/// The worker runs at a lower priority than the threads that push.
///
/// A power cut takes what the storage has not taken yet; so does the end of this object while the storage
/// fails, which is logged as an error.
class WriteBehind final : public ActiveQueueBulk<Property> {
 public:
  /// Called on the worker only. Takes the properties out of the queue, or throws.
  using Write = std::function<void(std::queue<Property>&)>;

  explicit WriteBehind(Write write);
  ~WriteBehind() override;

  /// True when the storage has taken everything that was pushed. From any thread.
  bool isIdle() { return isWaiting() && allTaken_; }

  /// True from a try that failed until one that succeeds. From any thread.
  bool isFailing() const { return failing_; }

 private:
  void processQueue(std::unique_lock<std::mutex>& lock) override;
  void tryToWrite();
  void reportFailure(const char* reason) noexcept;
  void writeAll();
  void writeOneByOne();
  void write(const std::deque<Property>& properties);

  // Used by the worker alone.
  const Write write_;
  std::queue<Property> pushed_;     ///< On its way to `unwritten_`.
  std::deque<Property> unwritten_;  ///< In push order.
  bool requestsGoFirst_ = false;
  std::chrono::steady_clock::time_point nextTry_;  ///< While failing.

  // Written by the worker alone.
  std::atomic<bool> allTaken_ = true;
  std::atomic<bool> failing_ = false;
};

}  // namespace propertyservice
