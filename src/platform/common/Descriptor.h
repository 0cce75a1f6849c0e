#pragma once

#include <unistd.h>
#include <utility>

namespace common {

/// Owns an open file descriptor; a negative one is none.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  ~Descriptor() { reset(); }

  int get() const { return descriptor_; }

  void reset() {
    if (descriptor_ >= 0) {
      close(descriptor_);
      descriptor_ = -1;
    }
  }

 private:
  int descriptor_;
};

}  // namespace common
