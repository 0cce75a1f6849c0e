#include <algorithm>
#include <ctime>

#include "core/JsonText.h"
#include "support/HostileRequests.h"

// A request costs what its size explains: one of up to 1 MiB keeps no thread busy for longer than a second
// and takes less than 64 MiB, which the daemon gives back.

namespace propertyservice::test {
namespace {

constexpr std::size_t kMostKiB = std::size_t{64} * 1024;

/// The values and the volatile store take more after all these writes.
constexpr std::size_t kMostKeptKiB = std::size_t{32} * 1024;

/// A second on a machine that reads a list of 1 MiB in 25 ms. Elsewhere, or beside other work, longer.
constexpr double kMostOverReading = 40;

/// The answer waits after up to 80,000 notifications for a broker that may have little of the processor.
constexpr auto kPatienceWithTheBroker = 5 * kPatience;

double processorMs() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

/// The processor time that this program takes to read the text.
double readingMs(const std::string& payload) {
  const double before = processorMs();
  Json::Value value;
  EXPECT_TRUE(json::parse(payload, value));
  return processorMs() - before;
}

double busiestMs(const std::map<std::string, double>& before, const std::map<std::string, double>& after) {
  double most = 0;
  for (const auto& [thread, time] : after) {
    const auto earlier = before.find(thread);
    most = std::max(most, time - (earlier != before.end() ? earlier->second : 0));
  }
  return most;
}

TEST(HostileRequests, costLittleTimeAndMemoryAndGiveItBack) {
  const std::vector<Row> rows = variedRows();
  const std::vector<HostileRequest> requests = hostileRequests(rows);
  const auto list = std::ranges::find(requests, "ListOfUnknownKeys", &HostileRequest::name);
  ASSERT_NE(list, requests.end());
  Device device(rows);
  device.start();
  BusClient client("client");  // hears no notifications: the broker would drop replies beyond its limit
  Process& daemon = device.daemon();
  const std::size_t atFirst = daemon.residentKiB();

  for (const HostileRequest& request : requests) {
    SCOPED_TRACE(request.name);
    ASSERT_LE(request.payload.size(), 1U << 20U);
    ASSERT_TRUE(daemon.waitUntilIdle());
    client.forget();
    daemon.resetPeak();
    const std::size_t before = daemon.residentKiB();
    const auto timeBefore = daemon.processorMs();

    client.send(request.payload);
    ASSERT_TRUE(client.serviceIsAlive(kPatienceWithTheBroker));
    const double ms = busiestMs(timeBefore, daemon.processorMs());
    ASSERT_TRUE(daemon.waitUntilIdle());

    const std::size_t grown = daemon.peakKiB() - std::min(before, daemon.peakKiB());
    EXPECT_EQ(client.received(client.replyTopic()).size(), request.isAnswered ? 2U : 1U);
    EXPECT_LT(ms, kMostOverReading * readingMs(list->payload));
    EXPECT_LT(grown, kMostKiB);
    RecordProperty(request.name + "_ms", std::to_string(ms));
    RecordProperty(request.name + "_kib", std::to_string(grown));
  }
  EXPECT_LT(daemon.residentKiB(), atFirst + kMostKeptKiB);
}

}  // namespace
}  // namespace propertyservice::test
