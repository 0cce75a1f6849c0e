#include "ipc/IPCFactory.h"

#include <csignal>
#include <cstdint>
#include <random>
#include <utility>

#include "ipc/MosquittoClient.h"
#include "wire/Names.h"

namespace ipc {

namespace {

std::string randomSuffix() {
  constexpr char kDigits[] = "0123456789abcdef";
  std::random_device random;
  std::string suffix = "-";
  for (std::uint64_t bits = std::uint64_t{random()} << 32U | random(); suffix.size() <= 16; bits >>= 4U) {
    suffix += kDigits[bits & 0xFU];
  }
  return suffix;
}

/// libmosquitto writes to its socket in a way that raises SIGPIPE when the broker has gone, and it is any
/// thread that publishes.
void ignoreBrokenPipes() {
  struct sigaction broken {};
  if (sigaction(SIGPIPE, nullptr, &broken) == 0 && broken.sa_handler == SIG_DFL) {
    broken.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &broken, nullptr);
  }
}

}  // namespace

std::shared_ptr<IIPCClient> IPCFactory::createInstanceShared(const std::string& name, const std::string& host,
                                                             bool uniqueSuffix, SignOfLife sayAlive) {
  ignoreBrokenPipes();
  return std::make_shared<MosquittoClient>(
      MosquittoClient::Options{.id = uniqueSuffix ? name + randomSuffix() : name,
                               .host = host,
                               .credentialsPath = "/etc/ipc/" + name + ".credentials",
                               .presenceTopic = uniqueSuffix ? "" : propertyservice::topic::online(name),
                               .sayAlive = std::move(sayAlive)});
}

}  // namespace ipc
