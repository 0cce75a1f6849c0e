#pragma once

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
/// - Where the storage refuses a property for good, all are handed over one by one, and the refused ones are
///   logged as errors and dropped.
/// - Where it fails for now, the last value of each key is kept and tried again with what is pushed next, at
///   each time-out of the worker and at the stop. Between two such tries the worker sleeps, so that it is
///   seen idle and the disk is not hammered. The beginning and the end of the trouble are logged.
///
/// The worker runs at a lower priority than the threads that push.
///
/// A power cut takes what the storage has not taken yet; so does the end of this object while the storage
/// fails, which is logged as an error.
class WriteBehind final : public ActiveQueueBulk<Property> {
 public:
  /// Called on the worker only. Takes the properties out of the queue, or throws a
  /// `PersistentStorageException`.
  using Write = std::function<void(std::queue<Property>&)>;

  explicit WriteBehind(Write write);
  ~WriteBehind() override;

 private:
  void processQueue(std::unique_lock<std::mutex>& lock) override;
  void accept(std::queue<Property>& taken);
  void tryToWrite();
  void writeAll();
  void writeOneByOne();
  void write(const std::deque<Property>& properties);

  // Used by the worker alone.
  const Write write_;
  std::deque<Property> unwritten_;  ///< In push order.
  bool requestsGoFirst_ = false;
  bool failing_ = false;
  std::chrono::steady_clock::time_point nextTry_;  ///< While failing.
};

}  // namespace propertyservice
