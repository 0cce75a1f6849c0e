#include <algorithm>
#include <cstdlib>
#include <set>
#include <sstream>

#include "fleet/Fleet.h"
#include "support/Device.h"

// Three devices and a centre, each on a host of its own with a real broker, the installed configuration and
// certificates made as the documentation says.

namespace propertyservice::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

Json::Value setVolume(const std::string& value) {
  return makeRequest("setV", "Audio.Volume", value);
}

Json::Value getVolume() {
  return makeRequest("getV", "Audio.Volume");
}

std::string topicOf(const FleetDevice& device, const std::string& rest) {
  return "devices/" + device.serial() + "/" + rest;
}

class Fleet : public testing::Test {
 protected:
  Fleet() {
    centre_.start();
    for (int number = 1; number <= 3; ++number) {
      devices_.push_back(std::make_unique<FleetDevice>(number, centre_, authorities_));
      devices_.back()->startBroker();
      devices_.back()->launchDaemon();
    }
    fleet_ = controller("fleet");
    for (const auto& device : devices_) {
      device->waitForDaemon();
      if (!isOnline(*device)) {
        throw std::runtime_error(device->serial() + " does not come to the centre:\n" + device->brokerLog());
      }
    }
  }

  /// A controller that listens to everything that it may.
  std::unique_ptr<CentralClient> controller(const std::string& name) {
    return std::make_unique<CentralClient>(
        name, Centre::kControllers, authorities_.issueController(name),
        std::vector<std::string>{"devices/+/online", "devices/+/prop-service/" + name, "devices/+/+/any"});
  }

  bool isOnline(const FleetDevice& device) { return fleet_->waitFor(topicOf(device, "online"), "1"); }
  bool isOffline(const FleetDevice& device) { return fleet_->waitFor(topicOf(device, "online"), "0"); }

  /// Asks until the device answers: it comes online a moment before it hears.
  bool reaches(const FleetDevice& device) {
    return eventually([&] {
      return !fleet_->request(device.serial(), makeRequest("", "Are you alive?"), std::chrono::seconds(1))
                  .isNull();
    });
  }

  FleetDevice& device(std::size_t number) { return *devices_.at(number - 1); }

  Authorities authorities_;
  Centre centre_{authorities_};
  std::vector<std::unique_ptr<FleetDevice>> devices_;
  std::unique_ptr<CentralClient> fleet_;
};

TEST_F(Fleet, answersAControllerFromEachDevice) {
  for (const auto& device : devices_) {
    const auto begin = std::chrono::steady_clock::now();

    const Json::Value reply = fleet_->request(device->serial(), getVolume());

    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_EQ(reply["param"], "Audio.Volume");
    EXPECT_EQ(reply["result"], "5");
    EXPECT_EQ(device->requestsSeen().back(), "fleet/prop-service");
  }
}

TEST_F(Fleet, answersTheDocumentedCommand) {
  EXPECT_EQ(authorities_.runDocumented("mosquitto_rr", "controller=fleet serial=HX-0001"),
            "{\"param\":\"Audio.Volume\",\"result\":\"5\",\"status\":\"Ok\"}\n\n");
}

TEST_F(Fleet, reachesTheDeviceThatIsAskedAlone) {
  ASSERT_EQ(fleet_->request(device(2).serial(), setVolume("9"))["status"], "Ok");

  EXPECT_EQ(device(1).valueOf("Audio.Volume"), "5");
  EXPECT_EQ(device(2).valueOf("Audio.Volume"), "9");
  EXPECT_EQ(device(3).valueOf("Audio.Volume"), "5");
}

TEST_F(Fleet, carriesNotificationsUp) {
  device(1).askLocally(R"({"method":"setV","param":"Audio.Volume","value":"9"})");

  EXPECT_TRUE(fleet_->waitFor(topicOf(device(1), "prop-service-audio/any"),
                              "{\"param\":\"Audio.Volume\",\"value\":\"9\"}\n"));
  EXPECT_TRUE(
      fleet_->waitFor(topicOf(device(1), "prop-service-groupnotify/any"), "{\"Audio.Volume\":\"9\"}\n"));
}

TEST_F(Fleet, carriesNothingElseUp) {
  CentralClient observer("observer", Centre::kControllers, authorities_.issueController("observer"), {"#"});

  device(1).askLocally(R"({"method":"setV","param":"Audio.Volume","value":"9"})");
  fleet_->request(device(1).serial(), getVolume());

  // The reply was the last to go up.
  ASSERT_TRUE(
      eventually([&] { return !observer.received(topicOf(device(1), "prop-service/fleet")).empty(); }));
  std::set<std::string> topics;
  for (const CentralClient::Message& message : observer.received()) {
    topics.insert(message.topic);
  }
  EXPECT_THAT(topics, UnorderedElementsAre("devices/HX-0001/online", "devices/HX-0002/online",
                                           "devices/HX-0003/online", "devices/HX-0001/fleet/prop-service",
                                           "devices/HX-0001/prop-service/fleet",
                                           "devices/HX-0001/prop-service-audio/any",
                                           "devices/HX-0001/prop-service-groupnotify/any"));
}

TEST_F(Fleet, carriesNothingDownButRequestsOfTheControllersThatADeviceObeys) {
  const auto guest = controller("guest");
  const auto support = controller("support");

  guest->ask(device(1).serial(), setVolume("9"));
  support->request(device(1).serial(), getVolume());

  std::vector<std::string> fromOutside = device(1).requestsSeen();
  std::erase(fromOutside, "panel/prop-service");
  EXPECT_THAT(fromOutside, ElementsAre("support/prop-service"));
}

TEST_F(Fleet, hidesTheRepliesToAnotherController) {
  CentralClient support(
      "support", Centre::kControllers, authorities_.issueController("support"),
      {"#", "devices/+/prop-service/fleet", "devices/+/+/prop-service", "devices/+/online"});

  fleet_->request(device(1).serial(), getVolume());
  support.settle();

  for (const CentralClient::Message& message : support.received()) {
    EXPECT_TRUE(message.topic.ends_with("/online")) << message.topic;
  }
}

TEST_F(Fleet, refusesARequestInAnotherControllersName) {
  const auto support = controller("support");

  support->publish(topicOf(device(1), "fleet/prop-service"),
                   R"({"method":"setV","param":"Audio.Volume","value":"9"})");
  support->request(device(1).serial(), getVolume());

  EXPECT_EQ(device(1).valueOf("Audio.Volume"), "5");
}

class Intruder : public Fleet {
 protected:
  /// A proper device, in the hands of somebody else.
  CentralClient intruder_{"HX-0666",
                          Centre::kDevices,
                          authorities_.issueDevice("HX-0666"),
                          {"#", "devices/HX-0001/#", "devices/+/+/prop-service", "devices/+/online"}};
};

TEST_F(Intruder, readsNothingInAnotherDevicesBranch) {
  fleet_->request("HX-0001", setVolume("9"));
  ASSERT_TRUE(fleet_->waitFor("devices/HX-0001/prop-service-audio/any",
                              "{\"param\":\"Audio.Volume\",\"value\":\"9\"}\n"));
  fleet_->publish("devices/HX-0666/fleet/prop-service", "the mark");

  ASSERT_TRUE(intruder_.waitFor("devices/HX-0666/fleet/prop-service", "the mark"));
  EXPECT_EQ(intruder_.received().size(), 1U);
}

TEST_F(Intruder, writesNothingInAnotherDevicesBranch) {
  fleet_->settle();
  fleet_->forget();

  intruder_.publish("devices/HX-0001/prop-service/fleet", "forged");
  intruder_.publish("devices/HX-0001/prop-service-audio/any", "forged");
  intruder_.publish("devices/HX-0001/online", "0", true);
  fleet_->settle();

  EXPECT_EQ(fleet_->received().size(), 1U) << "more than the mark";
}

TEST_F(Intruder, asksNoDevice) {
  intruder_.publish("devices/HX-0001/fleet/prop-service",
                    R"({"method":"setV","param":"Audio.Volume","value":"9"})");
  intruder_.publish("devices/HX-0001/HX-0666/prop-service",
                    R"({"method":"setV","param":"Audio.Volume","value":"9"})");
  fleet_->request("HX-0001", getVolume());

  EXPECT_EQ(device(1).valueOf("Audio.Volume"), "5");
}

TEST_F(Intruder, isNoControllerByItsNameAlone) {
  CentralClient impostor("fleet", Centre::kDevices, authorities_.issueDevice("fleet"),
                         {"devices/+/prop-service/fleet"});

  impostor.publish("devices/HX-0001/fleet/prop-service",
                   R"({"method":"setV","param":"Audio.Volume","value":"9"})");
  fleet_->request("HX-0001", getVolume());

  EXPECT_EQ(device(1).valueOf("Audio.Volume"), "5");
  EXPECT_THROW(CentralClient("fleet", Centre::kControllers, authorities_.issueDevice("fleet")),
               std::runtime_error);
}

TEST_F(Intruder, throwsNoOtherDeviceOff) {
  fleet_->forget();

  CentralClient("HX-0666", Centre::kDevices, authorities_.issueDevice("HX-0666"), {}, "HX-0001");
  fleet_->settle();

  EXPECT_EQ(fleet_->request("HX-0001", getVolume())["result"], "5");
  EXPECT_THAT(fleet_->received("devices/HX-0001/online"), IsEmpty());
}

TEST_F(Intruder, needsACertificate) {
  const Certificate none = {authorities_.path("centre-ca.crt"), "", ""};

  EXPECT_THROW(CentralClient("HX-0001", Centre::kDevices, none), std::runtime_error);
  EXPECT_THROW(CentralClient("fleet", Centre::kControllers, none), std::runtime_error);
}

TEST_F(Intruder, isNoCentreUnderAnotherName) {
  device(1).stopBroker();
  device(1).host().write("/etc/hosts",
                         std::string("127.0.0.1 localhost\n") + Centre::kAddress + " elsewhere.example\n");
  device(1).installBridge(authorities_, "elsewhere.example");
  ASSERT_TRUE(isOffline(device(1)));
  fleet_->forget();

  device(1).startBroker();

  EXPECT_TRUE(eventually([&] {
    return device(1).brokerLog().find("certificate verify failed") != std::string::npos;
  })) << device(1).brokerLog();
  fleet_->settle();
  EXPECT_THAT(fleet_->received("devices/HX-0001/online"), IsEmpty());
}

TEST_F(Fleet, tellsWhichDevicesAreThere) {
  device(2).stopBroker();
  ASSERT_TRUE(isOffline(device(2)));

  const auto support = controller("support");
  support->settle();

  EXPECT_THAT(support->received("devices/HX-0001/online"), ElementsAre("1"));
  EXPECT_THAT(support->received("devices/HX-0002/online"), ElementsAre("0"));
  EXPECT_THAT(support->received("devices/HX-0003/online"), ElementsAre("1"));
}

TEST_F(Fleet, tellsThatADeviceIsBack) {
  device(2).stopBroker();
  ASSERT_TRUE(isOffline(device(2)));
  fleet_->forget();

  device(2).startBroker();

  EXPECT_TRUE(isOnline(device(2)));
}

TEST_F(Fleet, listsAllDevicesBeforeTheMark) {
  constexpr int kMany = 5000;
  CentralClient registry("registry", Centre::kControllers, authorities_.issueController("registry"));
  for (int i = 0; i < kMany; ++i) {
    registry.publish("devices/OLD-" + std::to_string(i) + "/online", "0", true);
  }

  const auto support = controller("support");
  support->settle();

  const std::vector<CentralClient::Message> messages = support->received();
  EXPECT_EQ(messages.size(), kMany + devices_.size() + 1);
  EXPECT_FALSE(messages.back().retained);
}

TEST_F(Fleet, forgetsADeviceThatIsGoneForGood) {
  device(3).stopBroker();
  ASSERT_TRUE(isOffline(device(3)));
  authorities_.issueController("registry");

  authorities_.runDocumented("mosquitto_pub", "serial=HX-0003");
  const auto support = controller("support");
  support->settle();

  EXPECT_THAT(support->received("devices/HX-0003/online"), IsEmpty());
}

TEST_F(Fleet, answersWhatWasAskedWhileTheDaemonRestarts) {
  device(1).stopDaemon();
  fleet_->ask("HX-0001", setVolume("9"));

  device(1).launchDaemon();
  device(1).waitForDaemon();

  ASSERT_TRUE(fleet_->waitFor("devices/HX-0001/prop-service/fleet",
                              "{\"param\":\"Audio.Volume\",\"status\":\"Ok\"}\n"));
  EXPECT_EQ(device(1).valueOf("Audio.Volume"), "9");
}

TEST_F(Fleet, comesBackAfterTheCentreRestarted) {
  device(3).stopBroker();
  ASSERT_TRUE(isOffline(device(3)));

  centre_.stop();
  centre_.start();
  fleet_ = controller("fleet");

  EXPECT_TRUE(isOnline(device(1)));
  EXPECT_TRUE(isOnline(device(2)));
  EXPECT_TRUE(reaches(device(1)));
  EXPECT_TRUE(reaches(device(2)));
  EXPECT_THAT(fleet_->received("devices/HX-0003/online"), ElementsAre("0"));
}

TEST_F(Fleet, answersAfterAShortBreakOfTheLink) {
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

class BrokenLink : public Fleet {};

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
