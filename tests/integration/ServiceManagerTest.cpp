#include <cstdlib>

#include <SQLiteCpp/SQLiteCpp.h>

#include "support/Device.h"
#include "support/NotifySocket.h"

// The daemon under a service manager that listens.

namespace propertyservice::test {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

/// Keeps the daemon from writing to the database file.
class LockedSettings {
 public:
  LockedSettings() { database_.exec("BEGIN IMMEDIATE"); }

 private:
  SQLite::Database database_{Device::kDatabase, SQLite::OPEN_READWRITE, 5000};
};

class ServiceManager : public testing::Test {
 protected:
  ServiceManager() {
    setenv("NOTIFY_SOCKET", socket_.address().c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
    setenv("WATCHDOG_USEC", "400000", 1);                   // NOLINT(concurrency-mt-unsafe)
  }
  ~ServiceManager() override {
    unsetenv("NOTIFY_SOCKET");  // NOLINT(concurrency-mt-unsafe)
    unsetenv("WATCHDOG_USEC");  // NOLINT(concurrency-mt-unsafe)
  }

  /// The messages up to the one that begins with `start`, without the signs of life.
  std::vector<std::string> until(const std::string& start) {
    std::vector<std::string> messages = socket_.until(start);
    std::erase(messages, "WATCHDOG=1");
    return messages;
  }

  const TemporaryDirectory directory_;
  NotifySocket socket_{directory_.path("notify")};
  Device device_;
};

TEST_F(ServiceManager, isToldWhatTheStartDoesAndWhenRequestsAreAnswered) {
  device_.launch();

  const std::vector<std::string> messages = until("READY=1");

  EXPECT_THAT(messages,
              ElementsAre("STATUS=Making the database from /etc/propsrv.d/nvminit.sql",
                          "STATUS=Connecting to the broker",
                          "STATUS=Serving " + std::to_string(Device::defaultRows().size()) + " properties",
                          "READY=1"));
  EXPECT_EQ(device_.getValue("Audio.Codec"), "opus");
  EXPECT_TRUE(device_.waitForLog("Ready: version " PROPERTYSERVICE_VERSION ", " +
                                 std::to_string(Device::defaultRows().size()) + " properties, "));
}

TEST_F(ServiceManager, isToldOfARestore) {
  device_.start();
  device_.request("prepareFactoryReset");
  until("READY=1");

  device_.restart();

  EXPECT_THAT(until("READY=1"), Contains("STATUS=Restoring what outlives a factory reset"));
}

TEST_F(ServiceManager, isNotToldThatADaemonIsReadyWhichCannotStart) {
  Device::writeFile(Device::kDatabase, "not a database, but long enough to be looked at as one");

  EXPECT_EQ(device_.runToEnd({}), 1);

  EXPECT_THAT(socket_.all(), testing::Not(Contains("READY=1")));
}

TEST_F(ServiceManager, isToldThatTheDaemonStops) {
  device_.start();

  device_.stop();

  EXPECT_EQ(until("STOPPING=1").back(), "STOPPING=1");
}

TEST_F(ServiceManager, isToldSinceWhenTheDatabaseCannotBeWritten) {
  device_.start();
  until("READY=1");
  {
    const LockedSettings lock;
    device_.set("Audio.Volume", "9");

    EXPECT_THAT(until("STATUS=").back(),
                AllOf(StartsWith("STATUS=Serving "), HasSubstr("; the database cannot be written since 20"),
                      HasSubstr("locked")));
  }

  EXPECT_EQ(until("STATUS=").back(),
            "STATUS=Serving " + std::to_string(Device::defaultRows().size()) + " properties");
}

TEST_F(ServiceManager, hearsASignOfLifeFromADaemonThatHasNothingToDo) {
  device_.start();
  until("READY=1");
  socket_.all();

  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(socket_.next(10s), "WATCHDOG=1");
  }
}

TEST_F(ServiceManager, hearsNoSignOfLifeWhileTheThreadThatServesRequestsHangs) {
  device_.start();
  until("READY=1");
  const LockedSettings lock;
  device_.set("Audio.Volume", "9");
  // An export waits for the write.
  device_.panel().sendRequest(makeRequest("makeBackup", ""));
  ASSERT_TRUE(eventually([&] { return !socket_.next(1s); })) << "more than twice the interval";

  EXPECT_TRUE(device_.daemon().running());
}

TEST_F(ServiceManager, isNotTheServiceManagerOfCommands) {
  Device::writeFile(Device::kScript,
                    Device::readFile(Device::kScript) +
                        "\n.shell printenv NOTIFY_SOCKET WATCHDOG_USEC >/config/environment\n");

  device_.start();

  EXPECT_EQ(Device::readFile("/config/environment"), "");
}

}  // namespace
}  // namespace propertyservice::test
