#include "mqtt/Wakeup.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

#include "mqtt/Error.h"

namespace mqtt {

Wakeup::Wakeup() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (descriptor_ < 0) {
    throw Error("eventfd: " + std::generic_category().message(errno));
  }
}

Wakeup::~Wakeup() {
  close(descriptor_);
}

void Wakeup::signal() {
  eventfd_write(descriptor_, 1);
}

void Wakeup::clear() {
  eventfd_t ignored = 0;
  eventfd_read(descriptor_, &ignored);
}

}  // namespace mqtt
