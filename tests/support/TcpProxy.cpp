#include "support/TcpProxy.h"

#include <arpa/inet.h>
#include <array>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace propertyservice::test {

namespace {

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

struct Pair {
  int client;
  int target;

  void close() const {
    ::close(client);
    ::close(target);
  }
};

bool sendAll(int socket, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t sent = send(socket, bytes, size, MSG_NOSIGNAL);
    if (sent <= 0) {
      return false;
    }
    bytes += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

}  // namespace

TcpProxy::TcpProxy(std::uint16_t port, std::uint16_t target) : target_(target) {
  const sockaddr_in address = loopback(port);
  const int on = 1;
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener_, 16) != 0) {
    close(listener_);
    throw std::runtime_error("the proxy cannot listen");
  }
  thread_ = std::thread([this] { relay(); });
}

TcpProxy::~TcpProxy() {
  stopping_ = true;
  thread_.join();
  close(listener_);
}

void TcpProxy::relay() {
  std::vector<Pair> pairs;
  std::array<char, 65536> buffer;

  while (!stopping_) {
    std::vector<pollfd> watched = {{listener_, POLLIN, 0}};
    for (const Pair& pair : pairs) {
      const short events = silent_ ? 0 : POLLIN;
      watched.push_back({pair.client, events, 0});
      watched.push_back({pair.target, events, 0});
    }
    poll(watched.data(), watched.size(), 20);

    std::vector<Pair> kept;
    for (std::size_t i = 0; i < pairs.size(); ++i) {
      const Pair& pair = pairs[i];
      bool alive = true;
      for (const bool upwards : {true, false}) {
        const pollfd& from = watched[1 + 2 * i + (upwards ? 0 : 1)];
        if (from.revents == 0 || !alive) {
          continue;
        }
        const ssize_t size = recv(from.fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        std::size_t allowed = size > 0 ? static_cast<std::size_t>(size) : 0;
        alive = size > 0;
        if (alive && upwards && budget_ >= 0) {
          allowed = std::min(allowed, static_cast<std::size_t>(budget_.load()));
          budget_ -= static_cast<std::ptrdiff_t>(allowed);
        }
        alive = alive && sendAll(upwards ? pair.target : pair.client, buffer.data(), allowed);
      }
      if (alive && budget_ != 0) {
        kept.push_back(pair);
      } else {
        pair.close();
      }
    }
    pairs = std::move(kept);
    if (budget_ == 0) {
      budget_ = -1;
    }

    if ((watched.front().revents & POLLIN) != 0) {
      const sockaddr_in address = loopback(target_);
      const Pair pair = {accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC),
                         socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
      ++accepted_;
      const int on = 1;
      setsockopt(pair.client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      setsockopt(pair.target, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      if (connect(pair.target, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        pairs.push_back(pair);
      } else {
        pair.close();
      }
    }
  }
  for (const Pair& pair : pairs) {
    pair.close();
  }
}

}  // namespace propertyservice::test
