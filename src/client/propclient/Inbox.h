#pragma once

#include <functional>
#include <mutex>
#include <vector>

namespace propclient {

/// Work that other threads hand to the one that waits for a descriptor.
class Inbox {
 public:
  using Work = std::function<void()>;

  /// Throws `std::system_error`.
  Inbox();
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;
  ~Inbox();

  /// Readable while there is work.
  int descriptor() const { return descriptor_; }

  void put(Work work);

  /// All there is, in order.
  std::vector<Work> take();

 private:
  const int descriptor_;
  std::mutex mutex_;
  std::vector<Work> work_;  // Guarded by mutex_.
};

}  // namespace propclient
