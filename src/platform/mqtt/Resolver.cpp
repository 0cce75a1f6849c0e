#include "mqtt/Resolver.h"

#include <algorithm>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <thread>
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

std::future<Addresses> resolve(const std::string& host, std::function<void()> done) {
  std::packaged_task<Addresses()> task([host] { return addressesOf(host); });
  std::future<Addresses> addresses = task.get_future();
  std::thread([task = std::move(task), done = std::move(done)]() mutable {
    task();
    done();
  }).detach();
  return addresses;
}

}  // namespace mqtt
