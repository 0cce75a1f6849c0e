#include "propclient/Inbox.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace propclient {

Inbox::Inbox() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (descriptor_ < 0) {
    throw std::system_error(errno, std::generic_category(), "eventfd");
  }
}

Inbox::~Inbox() {
  close(descriptor_);
}

void Inbox::put(Work work) {
  const std::lock_guard lock(mutex_);
  work_.push_back(std::move(work));
  if (work_.size() == 1) {
    eventfd_write(descriptor_, 1);
  }
}

std::vector<Inbox::Work> Inbox::take() {
  const std::lock_guard lock(mutex_);
  eventfd_t ignored = 0;
  eventfd_read(descriptor_, &ignored);
  return std::exchange(work_, {});
}

}  // namespace propclient
