#include "support/TcpProxy.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <functional>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace propertyservice::test {

namespace {

constexpr int kLookAroundMs = 20;

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

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

void TcpProxy::Pair::close() const {
  ::close(client);
  ::close(target);
}

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
  while (!stopping_) {
    const short awaited = silent_ ? 0 : POLLIN;
    std::vector<pollfd> watched = {{listener_, POLLIN, 0}};
    for (const Pair& pair : pairs) {
      watched.push_back({pair.client, awaited, 0});
      watched.push_back({pair.target, awaited, 0});
    }
    poll(watched.data(), watched.size(), kLookAroundMs);

    std::vector<Pair> kept;
    for (std::size_t i = 0; i < pairs.size(); ++i) {
      const bool alive = (watched[1 + 2 * i].revents == 0 || forward(pairs[i], true)) &&
                         (watched[2 + 2 * i].revents == 0 || forward(pairs[i], false));
      if (alive) {
        kept.push_back(pairs[i]);
      } else {
        pairs[i].close();
      }
    }
    // A single look at the budget cuts and resets: a cut that is asked for right after it waits for the next
    // turn.
    if (std::ptrdiff_t spent = 0; budget_.compare_exchange_strong(spent, kNoBudget)) {
      std::for_each(kept.begin(), kept.end(), std::mem_fn(&Pair::close));
      kept.clear();
    }
    pairs = std::move(kept);
    if (watched.front().revents != 0) {
      takeConnection(pairs);
    }
  }
  for (const Pair& pair : pairs) {
    pair.close();
  }
}

/// Relays what has come from one side; false when that side, or the other, has gone.
bool TcpProxy::forward(const Pair& pair, bool upwards) {
  std::array<char, 65536> buffer;
  const ssize_t size = recv(upwards ? pair.client : pair.target, buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (size <= 0) {
    return false;
  }
  auto allowed = static_cast<std::size_t>(size);
  if (upwards && budget_ >= 0) {
    allowed = std::min(allowed, static_cast<std::size_t>(budget_.load()));
    budget_ -= static_cast<std::ptrdiff_t>(allowed);
  }
  return sendAll(upwards ? pair.target : pair.client, buffer.data(), allowed);
}

void TcpProxy::takeConnection(std::vector<Pair>& pairs) {
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

}  // namespace propertyservice::test
