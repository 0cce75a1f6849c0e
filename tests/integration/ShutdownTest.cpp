#include <arpa/inet.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include "support/Device.h"
#include "support/FirstInPath.h"

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

constexpr auto kEndsWithin = std::chrono::seconds(4);

/// The daemon has begun: from its first instruction on it blocks the termination signals. So does its fork
/// before it becomes the daemon, for a moment, from glibc 2.41 on.
bool hasBegun(Device& device) {
  return eventually([&device] {
    std::ifstream status("/proc/" + std::to_string(device.daemon().pid()) + "/status");
    std::string name;
    for (std::string word; status >> word;) {
      if (word == "Name:") {
        status >> name;
      } else if (word == "SigBlk:") {
        status >> word;
        return name == "PropertyService" && (std::stoull(word, nullptr, 16) >> (SIGTERM - 1) & 1) == 1;
      }
    }
    return false;
  });
}

/// A process that ended and that nobody has waited for yet has ended, too.
bool runs(pid_t pid) {
  const std::string status = Device::readFile("/proc/" + std::to_string(pid) + "/status");
  return !status.empty() && status.find("State:\tZ") == std::string::npos;
}

void expectToEndInTime(Device& device, int signal = SIGTERM) {
  device.daemon().signal(signal);
  EXPECT_EQ(device.daemon().wait(kEndsWithin), 0) << device.log();
}

/// The next start, of which nothing is in the way, has all rows.
void expectAWholeStart(Device& device, std::size_t rows) {
  device.start();
  EXPECT_EQ(Device::valuesInFile().size(), rows);
  EXPECT_EQ(device.getValue("Audio.Codec"), "opus");
  EXPECT_EQ(device.stop(), 0);
}

/// A listener on the broker's port that has room for one connection and never takes it.
class SilentBroker {
 public:
  SilentBroker() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(listener_, reinterpret_cast<const sockaddr*>(&kAddress), sizeof kAddress) != 0 ||
        listen(listener_, 0) != 0) {
      throw std::runtime_error("cannot listen on the broker's port");
    }
  }
  SilentBroker(const SilentBroker&) = delete;
  SilentBroker& operator=(const SilentBroker&) = delete;
  ~SilentBroker() { close(listener_); }

  /// The daemon's connection has been made and waits to be taken.
  bool isAskedForAConnection() const {
    pollfd waiting = {listener_, POLLIN, 0};
    return poll(&waiting, 1, static_cast<int>(kPatience.count())) == 1;
  }

 private:
  static inline const sockaddr_in kAddress = {AF_INET, htons(1883), {htonl(INADDR_LOOPBACK)}, {}};

  const int listener_;
};

TEST(Shutdown, atAnyMomentOfAStartUpEndsWithStatusZeroAndLosesNoRow) {
  constexpr int kMoments = 30;
  const std::vector<Row> rows = manyRows();
  Device device(rows);
  device.panel();

  for (int moment = 0; moment < kMoments; ++moment) {
    SCOPED_TRACE(moment);
    const bool anew = moment % 2 == 0;
    if (anew) {
      std::filesystem::remove(Device::kDatabase);
      Device::writeFile(Device::kVersionChangeBackup, "Audio.Volume;8\nDatabaseVersion:5\n");
    }

    device.launch();
    ASSERT_TRUE(hasBegun(device));
    std::this_thread::sleep_for(std::chrono::milliseconds(2 * moment));  // the moment, which may be any
    expectToEndInTime(device, moment % 3 == 0 ? SIGINT : SIGTERM);

    expectAWholeStart(device, rows.size());
    EXPECT_EQ(Device::valueInFile("Audio.Volume"), "8");
  }
}

TEST(Shutdown, whileTheDatabaseIsBeingMadeEndsTheShellToo) {
  Device device;
  {
    const FirstInPath shell("sqlite3", R"(echo $$ >"$(dirname "$0")/shell"
{ head -c 2000; sleep 60; } | /usr/bin/sqlite3 "$@")");
    device.launch();
    ASSERT_TRUE(eventually([&] { return !Device::readFile(shell.path("shell")).empty(); }));

    expectToEndInTime(device);

    EXPECT_FALSE(runs(std::stoi(Device::readFile(shell.path("shell")))));
  }
  expectAWholeStart(device, Device::defaultRows().size());
}

TEST(Shutdown, whileAnotherProcessLocksTheDatabaseAtTheStart) {
  Device device;
  device.start();
  device.stop();
  {
    SQLite::Database other(Device::kDatabase, SQLite::OPEN_READWRITE);
    other.exec("BEGIN EXCLUSIVE");
    device.launch();
    ASSERT_TRUE(hasBegun(device));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // most of its start-up is waiting

    expectToEndInTime(device);
  }
  expectAWholeStart(device, Device::defaultRows().size());
}

TEST(Shutdown, whileAnotherProcessLocksTheDatabaseThatHasToBeWritten) {
  Device device;
  device.start();
  device.panel();
  SQLite::Database other(Device::kDatabase, SQLite::OPEN_READWRITE);
  other.exec("BEGIN EXCLUSIVE");
  ASSERT_EQ(device.set("Audio.Volume", "9")["status"], "Ok");

  expectToEndInTime(device);
}

TEST(Shutdown, whileABrokerAcceptsTheConnectionAndSaysNothing) {
  Device device;
  device.broker().stop();
  {
    const SilentBroker broker;
    device.launch();
    ASSERT_TRUE(broker.isAskedForAConnection());

    expectToEndInTime(device);
  }
  device.broker().start();
  expectAWholeStart(device, Device::defaultRows().size());
}

TEST(Shutdown, whileTheBrokerDoesNotEvenAccept) {
  Device device;
  device.broker().stop();
  const SilentBroker broker;
  const int taken = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in address = {AF_INET, htons(1883), {htonl(INADDR_LOOPBACK)}, {}};
  connect(taken, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  ASSERT_TRUE(broker.isAskedForAConnection());  // its room is taken
  device.launch();
  ASSERT_TRUE(device.waitForLog("Customization files not found"));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // nobody can see that it waits

  expectToEndInTime(device);

  close(taken);
}

TEST(Shutdown, whileTheBrokerIsAway) {
  Device device;
  device.start();
  device.broker().kill();
  ASSERT_TRUE(device.waitForLog("Connection lost due to: "));

  expectToEndInTime(device);
}

TEST(Shutdown, whileTheBrokerHangs) {
  Device device;
  device.start();
  device.panel().sendRequest(makeRequest("setV", "Audio.Volume", "9"));
  device.panel().settle();
  device.broker().pause();

  expectToEndInTime(device);

  device.broker().resume();
}

TEST(Shutdown, whileAnExportTakesLongRefusesIt) {
  Device device;
  const FirstInPath shell("sqlite3", R"(case $* in *separator*) echo >"$(dirname "$0")/runs"; sleep 60 ;; esac
exec /usr/bin/sqlite3 "$@")");
  device.start();
  device.panel().send(R"({"method":"makeBackup"})");
  ASSERT_TRUE(eventually([&] { return Device::exists(shell.path("runs")); }));

  expectToEndInTime(device);

  EXPECT_EQ(device.logLines("Database backup failed").size(), 1U) << device.log();
  for (const std::string& reply : device.panel().received(device.panel().replyTopic())) {
    EXPECT_EQ(reply, "{\"status\":\"DBError\"}\n");
  }
}

TEST(Shutdown, isNotChangedByFurtherSignals) {
  Device device;
  device.start();
  ASSERT_EQ(device.set("Audio.Volume", "9")["status"], "Ok");

  device.daemon().signal(SIGTERM);
  while (device.daemon().running()) {
    device.daemon().signal(SIGTERM);
    device.daemon().signal(SIGINT);
  }

  EXPECT_EQ(device.daemon().wait(), 0);
  EXPECT_EQ(Device::valueInFile("Audio.Volume"), "9");
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
  // Replies to the burst are still on their way to the client that sent it, some of them twice.
  EXPECT_EQ(BusClient("observer").request(makeRequest("getV", "Audio.Codec"))["result"], "opus");
}

}  // namespace
}  // namespace propertyservice::test
