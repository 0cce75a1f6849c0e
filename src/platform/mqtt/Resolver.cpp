#include "mqtt/Resolver.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <utility>

#include "mqtt/Error.h"

namespace mqtt {

namespace {

/// Returns all addresses: libmosquitto would only try the first one of a name that has several, and
/// "localhost" often has one for IPv6 where no broker listens.
Addresses addressesOf(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* first = nullptr;
  if (const int error = getaddrinfo(host.c_str(), nullptr, &hints, &first); error != 0) {
    throw Error(gai_strerror(error));
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(first, &freeaddrinfo);

  Addresses addresses;
  for (const addrinfo* entry = first; entry != nullptr; entry = entry->ai_next) {
    char text[INET6_ADDRSTRLEN + 16];
    if (getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0 &&
        std::find(addresses.begin(), addresses.end(), text) == addresses.end()) {
      addresses.emplace_back(text);
    }
  }
  if (addresses.empty()) {
    throw Error("the host has no address");
  }
  return addresses;
}

}  // namespace

Lookup::Lookup(const std::string& host, std::function<void()> done) {
  std::packaged_task<Addresses()> task([host] { return addressesOf(host); });
  addresses_ = task.get_future();
  thread_ = std::thread([task = std::move(task), done = std::move(done)]() mutable {
    task();
    done();
  });
}

Lookup::~Lookup() {
  if (!addresses_.valid() || isDone()) {
    thread_.join();
  } else {
    thread_.detach();
  }
}

bool Lookup::isDone() const {
  return addresses_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

Addresses Lookup::take() {
  return addresses_.get();
}

}  // namespace mqtt
