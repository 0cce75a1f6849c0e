#include "support/Device.h"
#include "support/TcpProxy.h"

// The topic that tells whether the service is there.

namespace propertyservice::test {
namespace {

constexpr const char* kPresence = "services/prop-service/online";

/// Listens to the presence from its construction on.
class Observer {
 public:
  explicit Observer(int port = 1883) : client_("observer", {"services/+/online"}, port) {}

  bool sees(const std::vector<std::string>& presences) {
    return client_.waitForMessages(kPresence, presences.size()) && client_.received(kPresence) == presences;
  }
  BusClient& client() { return client_; }

 private:
  BusClient client_;
};

TEST(Presence, isRetainedWhileTheServiceIsThere) {
  Device device;
  device.start();

  EXPECT_TRUE(Observer().sees({"1"}));
}

TEST(Presence, comesWhenRequestsAreHeard) {
  Device device;
  Observer observer;
  device.launch();
  ASSERT_TRUE(observer.sees({"1"}));

  observer.client().send(R"({"param":"Are you alive?"})", 0);

  EXPECT_TRUE(observer.client().waitForMessages(observer.client().replyTopic(), 1));
}

TEST(Presence, goesAtTheStop) {
  Device device;
  device.start();
  Observer observer;
  ASSERT_TRUE(observer.sees({"1"}));

  device.stop();

  EXPECT_TRUE(observer.sees({"1", "0"}));
  EXPECT_TRUE(Observer().sees({"0"}));
}

TEST(Presence, goesAfterTheLastReplyAndTheLastNotification) {
  Device device;
  device.start();
  BusClient observer("observer", {"#"});
  ASSERT_TRUE(observer.waitForMessages(kPresence, 1));
  observer.forget();
  for (int i = 0; i < 200; ++i) {
    device.panel().sendRequest(makeRequest("setV", "Audio.Ringtone", std::to_string(i)));
  }
  ASSERT_TRUE(device.panel().waitForMessages(device.panel().replyTopic(), 20));

  device.stop();

  ASSERT_TRUE(observer.waitForMessages(kPresence, 1));
  std::string lastOfTheService;
  for (const BusClient::Message& message : observer.received()) {
    if (!message.topic.ends_with("/prop-service")) {
      lastOfTheService = message.topic;
    }
  }
  EXPECT_EQ(lastOfTheService, kPresence);
}

TEST(Presence, goesWhenTheServiceIsKilled) {
  Device device;
  device.start();
  Observer observer;
  ASSERT_TRUE(observer.sees({"1"}));

  device.daemon().kill();

  EXPECT_TRUE(observer.sees({"1", "0"}));
  device.start();
  EXPECT_TRUE(observer.sees({"1", "0", "1"}));
}

TEST(Presence, goesAndComesBackWithTheConnection) {
  Device device;
  device.broker().stop();
  Broker broker("allow_anonymous true\n", 1884);
  TcpProxy proxy(1883, 1884);
  Observer observer(1884);
  device.launch();
  ASSERT_TRUE(observer.sees({"1"}));

  proxy.cutAfter(0);
  observer.client().send(R"({"param":"Are you alive?"})");  // the reply has to go through

  EXPECT_TRUE(observer.sees({"1", "0", "1"}));
}

TEST(Presence, comesBackWithABrokerThatHasForgottenIt) {
  Device device;
  device.start();

  device.broker().restart();

  EXPECT_TRUE(Observer().sees({"1"}));
}

TEST(RetainedRequest, isDroppedAtEachConnectWithAWarningThatNamesTheSender) {
  Device device;
  device.broker().stop();
  Broker broker("allow_anonymous true\n", 1884);
  TcpProxy proxy(1883, 1884);
  BusClient panel("panel", {"+/prop-service"}, 1884);
  const std::string request = R"({"method":"resetVal","param":"Audio.Volume"})";
  panel.publish("web/prop-service", request, 1, true);
  ASSERT_TRUE(panel.waitForMessages("web/prop-service", 1));
  // The first replies may be to earlier questions.
  const auto value = [&panel] {
    Json::Value reply;
    eventually([&] {
      reply = panel.request(makeRequest("getV", "Audio.Volume"));
      return reply.isMember("result");
    });
    return reply["result"].asString();
  };

  device.launch();
  ASSERT_TRUE(eventually([&] { return panel.serviceIsAlive(std::chrono::milliseconds(200)); }));
  EXPECT_EQ(value(), "5");
  proxy.cutAfter(0);
  panel.settle();
  EXPECT_EQ(value(), "5");

  EXPECT_EQ(device.logLines("warning").size(), 2U) << device.log();
  EXPECT_EQ(device.logLines("web/prop-service").size(), 2U) << device.log();

  panel.publish("web/prop-service", request);
  EXPECT_TRUE(eventually([&] { return value() == "4"; }));
}

}  // namespace
}  // namespace propertyservice::test
