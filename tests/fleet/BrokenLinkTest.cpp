#include <array>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "fleet/FleetFixture.h"

namespace propertyservice::test {
namespace {

using testing::IsEmpty;

class BrokenLink : public Fleet {};

TEST_F(BrokenLink, answersAfterAShortBreakOfTheLink) {
  device(1).daemon().signal(SIGSTOP);
  fleet_->ask("HX-0001", setVolume("9"));
  ASSERT_TRUE(eventually([&] { return device(1).requestsSeen().back() == "fleet/prop-service"; }));

  device(1).link().down();
  device(1).daemon().signal(SIGCONT);
  ASSERT_TRUE(
      eventually([&] { return device(1).daemonLog().find("prop-service/fleet") != std::string::npos; }));
  ASSERT_THAT(fleet_->replies("HX-0001"), IsEmpty());
  device(1).link().up();

  EXPECT_TRUE(fleet_->waitFor("devices/HX-0001/prop-service/fleet",
                              "{\"param\":\"Audio.Volume\",\"status\":\"Ok\"}\n"));
}

TEST_F(BrokenLink, bringsALateAnswerAndLateNotificationsButNoLateRequest) {
  // Served while the link is down.
  device(1).daemon().signal(SIGSTOP);
  fleet_->ask("HX-0001", setVolume("9"));
  ASSERT_TRUE(eventually([&] { return device(1).requestsSeen().back() == "fleet/prop-service"; }));
  for (const auto& device : devices_) {
    device->link().down();
  }
  device(1).daemon().signal(SIGCONT);
  // Changed while the link is down.
  device(2).askLocally(R"({"method":"setV","param":"Audio.Volume","value":"9"})");
  for (const auto& device : devices_) {
    ASSERT_TRUE(isOffline(*device));
  }
  // Asked while the link is down.
  fleet_->ask("HX-0003", setVolume("9"));
  fleet_->forget();

  for (const auto& device : devices_) {
    device->link().up();
  }

  EXPECT_TRUE(fleet_->waitFor("devices/HX-0001/prop-service/fleet",
                              "{\"param\":\"Audio.Volume\",\"status\":\"Ok\"}\n"));
  EXPECT_TRUE(fleet_->waitFor("devices/HX-0002/prop-service-audio/any",
                              "{\"param\":\"Audio.Volume\",\"value\":\"9\"}\n"));
  ASSERT_TRUE(isOnline(device(3)));
  ASSERT_TRUE(reaches(device(3)));
  EXPECT_EQ(device(3).valueOf("Audio.Volume"), "5");
}

TEST_F(BrokenLink, tellsAfterwardsThatTheServiceHasGoneMeanwhile) {
  device(1).link().down();
  ASSERT_TRUE(isOffline(device(1)));
  device(1).stopDaemon();
  ASSERT_THAT(fleet_->received(topicOf(device(1), "services/prop-service/online")).back(), "1");

  device(1).link().up();

  EXPECT_TRUE(hearsOfTheService(device(1), "0"));
}

/// How many milliseconds after the request each device's link breaks, -1 for before it: FLEET_CUTS_MS="-1 10
/// 200" tries others.
std::array<int, 3> cutsMs() {
  std::array<int, 3> cuts = {-1, 0, 5};
  if (const char* given = std::getenv("FLEET_CUTS_MS")) {
    std::istringstream numbers(given);
    numbers >> cuts[0] >> cuts[1] >> cuts[2];
  }
  return cuts;
}

TEST_F(BrokenLink, answersExactlyWhatWasServedWheneverItBreaks) {
  for (std::size_t i = 0; i < devices_.size(); ++i) {
    const FleetDevice& device = *devices_[i];
    const int cut = cutsMs()[i];
    if (cut < 0) {
      device.link().down();
    }
    fleet_->ask(device.serial(), setVolume("9"));
    if (cut >= 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(cut));
      device.link().down();
    }
  }
  for (const auto& device : devices_) {
    ASSERT_TRUE(isOffline(*device));
  }
  for (const auto& device : devices_) {
    device->link().up();
  }

  for (const auto& device : devices_) {
    // The answer to the question whether it is alive is its last.
    ASSERT_TRUE(eventually([&] { return fleet_->received(topicOf(*device, "online")).back() == "1"; }));
    ASSERT_TRUE(reaches(*device));
    const bool served = device->valueOf("Audio.Volume") == "9";
    const auto replies = fleet_->received(topicOf(*device, "prop-service/fleet"));
    EXPECT_EQ(replies.front() == "{\"param\":\"Audio.Volume\",\"status\":\"Ok\"}\n", served)
        << device->serial();
  }
}

}  // namespace
}  // namespace propertyservice::test
