#pragma once

namespace mqtt {

/// Gets a thread out of its `poll`. Safe from any thread.
class Wakeup {
 public:
  /// Throws `Error`.
  Wakeup();
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;
  ~Wakeup();

  /// Readable from `signal` until `clear`.
  int descriptor() const { return descriptor_; }

  void signal();
  void clear();

 private:
  const int descriptor_;
};

}  // namespace mqtt
