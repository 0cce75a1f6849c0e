#include <set>

#include "fleet/FleetFixture.h"

namespace propertyservice::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

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
  intruder_.publish("devices/HX-0001/services/prop-service/online", "0", true);
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

TEST_F(Intruder, hasTheCentreRetainNothingOnTopicsOfItsOwnInvention) {
  for (int i = 0; i < 20; ++i) {
    intruder_.publish("devices/HX-0666/prop-service-invented" + std::to_string(i) + "/any", "kept", true);
    intruder_.publish("devices/HX-0666/prop-service/invented" + std::to_string(i), "kept", true);
  }
  intruder_.publish("devices/HX-0666/prop-service-audio/any", "kept", true);

  CentralClient late("observer", Centre::kControllers, authorities_.issueController("observer"),
                     {"devices/HX-0666/#", "devices/+/online"}, "late");
  ASSERT_TRUE(late.waitFor("devices/HX-0666/prop-service-audio/any", "kept"));
  late.settle();

  std::set<std::string> topics;
  for (const CentralClient::Message& message : late.received()) {
    if (message.topic.starts_with("devices/HX-0666/")) {
      topics.insert(message.topic);
    }
  }
  EXPECT_THAT(topics, ElementsAre("devices/HX-0666/prop-service-audio/any"));
}

TEST_F(Intruder, isDisconnectedWhenTheCentreIsFull) {
  const std::string large(1'000'000, 'x');
  std::size_t sent = 0;

  // Several stolen certificates, each with as much as it may have retained, in place of a thousand.
  EXPECT_THROW(
      for (int number = 0; number < 4; ++number) {
        const std::string serial = "HX-066" + std::to_string(number);
        CentralClient thief(serial, Centre::kDevices, authorities_.issueDevice(serial));
        for (const char* group : {"audio", "display", "keys", "net", "sip", "system", "time", "update"}) {
          thief.publish("devices/" + serial + "/prop-service-" + group + "/any", large, true);
          ++sent;
        }
      },
      std::runtime_error);

  EXPECT_GT(sent, 4U);
  EXPECT_EQ(fleet_->request("HX-0001", getVolume())["result"], "5");
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

}  // namespace
}  // namespace propertyservice::test
