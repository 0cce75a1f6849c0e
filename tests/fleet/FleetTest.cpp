#include <set>

#include "fleet/FleetFixture.h"

namespace propertyservice::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

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
  EXPECT_THAT(topics,
              UnorderedElementsAre("devices/HX-0001/online", "devices/HX-0002/online",
                                   "devices/HX-0003/online", "devices/HX-0001/services/prop-service/online",
                                   "devices/HX-0002/services/prop-service/online",
                                   "devices/HX-0003/services/prop-service/online",
                                   "devices/HX-0001/fleet/prop-service", "devices/HX-0001/prop-service/fleet",
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

TEST_F(Fleet, tellsWhetherTheServiceOfADeviceIsThere) {
  device(1).stopDaemon();
  device(2).daemon().kill();

  EXPECT_TRUE(hearsOfTheService(device(1), "0"));
  EXPECT_TRUE(hearsOfTheService(device(2), "0"));
  const auto support = controller("support");
  support->settle();
  EXPECT_THAT(support->received("devices/HX-0001/online"), ElementsAre("1"));
  EXPECT_THAT(support->received("devices/HX-0001/services/prop-service/online"), ElementsAre("0"));
  EXPECT_THAT(support->received("devices/HX-0002/services/prop-service/online"), ElementsAre("0"));
  EXPECT_THAT(support->received("devices/HX-0003/services/prop-service/online"), ElementsAre("1"));

  fleet_->forget();
  device(1).launchDaemon();
  EXPECT_TRUE(hearsOfTheService(device(1), "1"));
}

TEST_F(Fleet, hearsOfADeviceThatStartsBeforeItsNetworkIsThere) {
  device(2).stopBroker();
  ASSERT_TRUE(isOffline(device(2)));
  fleet_->forget();
  const std::string hosts = device(2).host().run({"cat", "/etc/hosts"});
  device(2).host().write("/etc/hosts", "127.0.0.1 localhost\n");
  device(2).link().down();
  device(2).startBroker();
  ASSERT_TRUE(eventually([&] { return device(2).connectAttempts() >= 2; }));

  device(2).link().up();
  device(2).host().write("/etc/hosts", hosts);

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
  EXPECT_EQ(messages.size(), kMany + 2 * devices_.size() + 1);
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
  EXPECT_THAT(support->received("devices/HX-0003/services/prop-service/online"), IsEmpty());
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

}  // namespace
}  // namespace propertyservice::test
