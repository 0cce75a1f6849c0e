#pragma once

#include <functional>
#include <mutex>
#include <queue>
#include <utility>

#include "queue/ActiveQueue.h"

namespace propertyservice {

/// An `ActiveQueue` whose handler gets everything that has piled up since its last call, in push order, in
/// one call.
template <typename T>
class ActiveQueueBulk : public common::ActiveQueue<T> {
 public:
  using BulkHandler = std::function<void(std::queue<T>&)>;

  explicit ActiveQueueBulk(BulkHandler bulkHandler) : ActiveQueueBulk(std::move(bulkHandler), true) {}

  ~ActiveQueueBulk() override { this->stop(); }

 protected:
  /// For a derived class that starts the worker itself.
  ActiveQueueBulk(BulkHandler bulkHandler, bool startThread)
      : common::ActiveQueue<T>({}, false, kTimeoutMs), bulkHandler_(std::move(bulkHandler)) {
    if (startThread) {
      this->start();
    }
  }

  void processQueue(std::unique_lock<std::mutex>& lock) override {
    if (this->queue_.empty()) {
      return;
    }
    std::queue<T> taken;
    taken.swap(this->queue_);
    lock.unlock();
    bulkHandler_(taken);
    lock.lock();
  }

 private:
  static constexpr std::uint32_t kTimeoutMs = 1000;

  const BulkHandler bulkHandler_;
};

}  // namespace propertyservice
