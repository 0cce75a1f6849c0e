#pragma once

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <vector>

#include "common/Descriptor.h"

namespace propertyservice::test {

/// A service manager's ear: the socket that NOTIFY_SOCKET names.
class NotifySocket {
 public:
  /// At a path, or with "@" under an abstract name. Throws `std::runtime_error`.
  explicit NotifySocket(std::string address)
      : address_(std::move(address)), socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::memcpy(name.sun_path, address_.data(), address_.size());
    if (address_.starts_with('@')) {
      name.sun_path[0] = '\0';
    }
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size());
    if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&name), length) != 0) {
      throw std::runtime_error(address_ + ": " + std::strerror(errno));  // NOLINT(concurrency-mt-unsafe)
    }
  }

  const std::string& address() const { return address_; }

  /// The next message; nothing when none comes in time.
  std::optional<std::string> next(std::chrono::milliseconds timeout) {
    pollfd descriptor{socket_.get(), POLLIN, 0};
    if (poll(&descriptor, 1, static_cast<int>(timeout.count())) <= 0) {
      return std::nullopt;
    }
    std::array<char, 4096> message;
    const ssize_t size = recv(socket_.get(), message.data(), message.size(), 0);
    return size < 0 ? std::nullopt
                    : std::optional(std::string(message.data(), static_cast<std::size_t>(size)));
  }

  /// All that has come.
  std::vector<std::string> all() {
    std::vector<std::string> messages;
    while (auto message = next(std::chrono::milliseconds(0))) {
      messages.push_back(*message);
    }
    return messages;
  }

  /// Waits for a message that begins with `start`, and returns it and those before it; the last is another
  /// where it does not come in 10 s.
  std::vector<std::string> until(const std::string& start) {
    std::vector<std::string> messages;
    do {
      const auto message = next(std::chrono::seconds(10));
      if (!message) {
        return messages;
      }
      messages.push_back(*message);
    } while (!messages.back().starts_with(start));
    return messages;
  }

 private:
  const std::string address_;
  const common::Descriptor socket_;
};

}  // namespace propertyservice::test
