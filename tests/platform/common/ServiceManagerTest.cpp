#include <cstdlib>
#include <unistd.h>

#include "common/ServiceManager.h"
#include "support/NotifySocket.h"
#include "support/TemporaryDirectory.h"

namespace common {
namespace {

using namespace std::chrono_literals;
using propertyservice::test::NotifySocket;
using propertyservice::test::TemporaryDirectory;
using testing::ElementsAre;
using testing::IsEmpty;

// NOLINTBEGIN(concurrency-mt-unsafe): each test has one thread

class ServiceManagerTest : public testing::Test {
 protected:
  ServiceManagerTest() { forget(); }
  ~ServiceManagerTest() override { forget(); }

  static void forget() {
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
      unsetenv(name);
    }
  }

  TemporaryDirectory directory_;
  NotifySocket socket_{directory_.path("notify")};
};

TEST_F(ServiceManagerTest, tellsWhenTheServiceIsReadyAndWhenItStops) {
  ServiceManager manager(socket_.address());

  manager.ready();
  manager.stopping();

  EXPECT_THAT(socket_.all(), ElementsAre("READY=1", "STOPPING=1"));
}

TEST_F(ServiceManagerTest, speaksToAnAbstractSocket) {
  NotifySocket abstract("@propertyservice-test-" + std::to_string(getpid()));

  ServiceManager(abstract.address()).ready();

  EXPECT_THAT(abstract.all(), ElementsAre("READY=1"));
}

TEST_F(ServiceManagerTest, showsTheTroubleAfterTheStatusForAsLongAsItLasts) {
  ServiceManager manager(socket_.address());

  manager.setStatus("Serving 3 properties");
  manager.setTrouble("no disk");
  manager.setTrouble("");

  EXPECT_THAT(socket_.all(),
              ElementsAre("STATUS=Serving 3 properties", "STATUS=Serving 3 properties; no disk",
                          "STATUS=Serving 3 properties"));
}

TEST_F(ServiceManagerTest, keepsAStatusWithALineBreakToOneLine) {
  ServiceManager manager(socket_.address());

  manager.setTrouble("disk\nREADY=1");

  EXPECT_THAT(socket_.all(), ElementsAre("STATUS=disk READY=1"));
}

TEST_F(ServiceManagerTest, feedsTheWatchdogFourTimesInItsInterval) {
  ServiceManager manager(socket_.address(), 8s);
  const auto start = ServiceManager::Clock::now();

  for (auto passed = 0ms; passed < 8s; passed += 100ms) {
    manager.alive(start + passed);
  }

  EXPECT_THAT(socket_.all(), ElementsAre("WATCHDOG=1", "WATCHDOG=1", "WATCHDOG=1", "WATCHDOG=1"));
}

TEST_F(ServiceManagerTest, feedsNoWatchdogThatIsNotThere) {
  ServiceManager manager(socket_.address());

  manager.alive();

  EXPECT_THAT(socket_.all(), IsEmpty());
}

TEST_F(ServiceManagerTest, feedsTheWatchdogLateRatherThanWaitForAManagerThatDoesNotListen) {
  ServiceManager manager(socket_.address(), 4s);
  auto now = ServiceManager::Clock::now();
  constexpr std::size_t kMoreThanASocketHolds = 100'000;
  for (std::size_t i = 0; i < kMoreThanASocketHolds; ++i) {
    manager.alive(now += 1s);
  }
  ASSERT_LT(socket_.all().size(), kMoreThanASocketHolds);

  manager.alive(now);

  EXPECT_THAT(socket_.all(), ElementsAre("WATCHDOG=1"));
}

TEST_F(ServiceManagerTest, takesSocketAndWatchdogOutOfTheEnvironment) {
  setenv("NOTIFY_SOCKET", socket_.address().c_str(), 1);
  setenv("WATCHDOG_USEC", "60000000", 1);
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);

  const auto manager = ServiceManager::fromEnvironment();
  manager->alive();

  EXPECT_THAT(socket_.all(), ElementsAre("WATCHDOG=1"));
  EXPECT_EQ(getenv("NOTIFY_SOCKET"), nullptr);
  EXPECT_EQ(getenv("WATCHDOG_USEC"), nullptr);
  EXPECT_EQ(getenv("WATCHDOG_PID"), nullptr);
}

TEST_F(ServiceManagerTest, leavesTheWatchdogOfAnotherProcessAlone) {
  setenv("NOTIFY_SOCKET", socket_.address().c_str(), 1);
  setenv("WATCHDOG_USEC", "60000000", 1);
  setenv("WATCHDOG_PID", "1", 1);

  ServiceManager::fromEnvironment()->alive();

  EXPECT_THAT(socket_.all(), IsEmpty());
}

TEST_F(ServiceManagerTest, feedsNoWatchdogWithAnIntervalThatIsNoNumber) {
  setenv("NOTIFY_SOCKET", socket_.address().c_str(), 1);
  for (const char* interval : {"", "0", "-1", "60s", "99999999999999999999"}) {
    setenv("WATCHDOG_USEC", interval, 1);

    ServiceManager::fromEnvironment()->alive();

    EXPECT_THAT(socket_.all(), IsEmpty()) << interval;
  }
}

TEST_F(ServiceManagerTest, speaksToNobodyWithoutASocket) {
  ServiceManager::fromEnvironment()->ready();
  ServiceManager("/no/such/socket", 1s).alive();
  ServiceManager(std::string(200, 'x')).ready();

  EXPECT_THAT(socket_.all(), IsEmpty());
}

// NOLINTEND(concurrency-mt-unsafe)

}  // namespace
}  // namespace common
