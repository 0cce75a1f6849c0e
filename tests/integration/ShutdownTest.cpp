#include <csignal>

#include <SQLiteCpp/SQLiteCpp.h>

#include "support/Device.h"

// The end of the daemon, asked for or not.

namespace propertyservice::test {
namespace {

constexpr int kProperties = 100;

std::vector<Row> manyRows() {
  std::vector<Row> rows = Device::defaultRows();
  for (int i = 0; i < kProperties; ++i) {
    rows.push_back({.key = "Test.Burst" + std::to_string(i), .value = "start", .defaultValue = "start"});
  }
  return rows;
}

/// Sends a burst of writes and tells from the replies how many of them were accepted.
class Burst {
 public:
  explicit Burst(BusClient& client) : client_(client) {}

  void send(int writes) {
    for (; sent_ < writes; ++sent_) {
      client_.sendRequest(makeRequest("setV", key(sent_), std::to_string(sent_)));
    }
  }

  bool waitForReplies(std::size_t count) { return client_.waitForMessages(client_.replyTopic(), count); }
  int accepted() { return static_cast<int>(client_.received(client_.replyTopic()).size()); }

  static std::string key(int write) { return "Test.Burst" + std::to_string(write % kProperties); }

 private:
  BusClient& client_;
  int sent_ = 0;
};

TEST(Shutdown, endsAtSigtermWithStatusZero) {
  Device device;
  device.start();

  EXPECT_EQ(device.stop(), 0);
}

TEST(Shutdown, endsAtSigintWithStatusZero) {
  Device device;
  device.start();

  device.daemon().signal(SIGINT);

  EXPECT_EQ(device.daemon().wait(), 0);
}

TEST(Shutdown, isNotCausedBySighupAndSigpipe) {
  Device device;
  device.start();

  device.daemon().signal(SIGHUP);
  device.daemon().signal(SIGPIPE);

  EXPECT_EQ(device.getValue("Audio.Codec"), "opus");
}

TEST(Shutdown, duringStartUpIsNotLost) {
  Device device;

  device.launch();
  device.daemon().signal(SIGTERM);

  const std::optional<int> status = device.daemon().wait();
  EXPECT_TRUE(status == 0 || status == -SIGTERM) << status.value_or(-1000);
}

TEST(Shutdown, inABurstKeepsEveryAcceptedWrite) {
  Device device(manyRows());
  device.start();
  Burst burst(device.panel());

  burst.send(1000);
  ASSERT_TRUE(burst.waitForReplies(300));
  ASSERT_EQ(device.stop(), 0);

  const int accepted = burst.accepted();
  const auto values = Device::valuesInFile();
  for (int i = std::max(0, accepted - kProperties); i < accepted; ++i) {
    const std::string& value = values.at(Burst::key(i));
    EXPECT_GE(std::stoi(value), i) << Burst::key(i);
  }
}

TEST(Shutdown, inABurstLeavesTheRestForTheNextStart) {
  Device device(manyRows());
  device.start();
  Burst burst(device.panel());
  burst.send(1000);
  ASSERT_TRUE(burst.waitForReplies(300));

  device.restart();

  EXPECT_TRUE(burst.waitForReplies(1000));
  // A request that was under way may be served twice, so the client that sent the burst cannot ask.
  EXPECT_EQ(BusClient("observer").request(makeRequest("getV", Burst::key(999)))["result"], "999");
}

TEST(Shutdown, byKillLeavesAWholeDatabaseAndAStartThatWorks) {
  Device device(manyRows());
  device.start();
  Burst burst(device.panel());
  burst.send(1000);
  ASSERT_TRUE(burst.waitForReplies(300));

  device.daemon().kill();

  EXPECT_EQ(SQLite::Database(Device::kDatabase, SQLite::OPEN_READONLY)
                .execAndGet("PRAGMA integrity_check")
                .getString(),
            "ok");
  device.start();
  // A request that was under way is served twice, so the client that sent the burst cannot ask.
  EXPECT_EQ(BusClient("observer").request(makeRequest("getV", "Audio.Codec"))["result"], "opus");
}

}  // namespace
}  // namespace propertyservice::test
