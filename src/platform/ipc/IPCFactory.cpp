#include "ipc/IPCFactory.h"

#include <cstdint>
#include <random>

#include "ipc/MosquittoClient.h"

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

}  // namespace

std::shared_ptr<IIPCClient> IPCFactory::createInstanceShared(const std::string& name, const std::string& host,
                                                             bool uniqueSuffix) {
  return std::make_shared<MosquittoClient>(uniqueSuffix ? name + randomSuffix() : name, host,
                                           "/etc/ipc/" + name + ".credentials");
}

}  // namespace ipc
