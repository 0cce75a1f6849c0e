#include "support/Device.h"

// The memory of the daemon, seen from outside.

namespace propertyservice::test {
namespace {

constexpr std::size_t kMostGrowthKiB = 1024;

/// Writes to a property under a regular expression; every tenth value is refused.
void write(BusClient& client, int writes) {
  constexpr int kAtOnce = 500;
  for (int sent = 0; sent < writes; sent += kAtOnce) {
    client.forget();
    for (int i = sent; i < sent + kAtOnce; ++i) {
      const std::string value = (i % 10 == 0 ? "No!" : "n") + std::to_string(i);
      client.sendRequest(makeRequest("setV", "NET.General.Hostname", value));
    }
    ASSERT_TRUE(client.waitForMessages(client.replyTopic(), kAtOnce));
  }
}

TEST(Memory, staysAsItIsOver100000WritesUnderARegularExpression) {
  constexpr int kWarmUp = 20'000;
  constexpr int kWrites = 100'000;
  Device device;
  device.start();
  BusClient client("writer");
  write(client, kWarmUp);
  const std::size_t before = device.daemon().residentKiB();

  write(client, kWrites);

  EXPECT_LT(device.daemon().residentKiB(), before + kMostGrowthKiB);
}

}  // namespace
}  // namespace propertyservice::test
