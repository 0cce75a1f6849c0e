#include <fstream>
#include <sys/stat.h>

#include "support/Device.h"

// The device's own broker configuration and access list: everybody speaks for himself alone.

namespace propertyservice::test {
namespace {

class Access : public testing::Test {
 protected:
  static constexpr const char* kCredentials = "/etc/ipc/prop-service.credentials";

  Access() : device_(Device::defaultRows(), brokerConfiguration()) {
    Device::writeFile(kCredentials, "prop-service\n" + passwordOf("prop-service") + "\n");
    chmod(kCredentials, 0600);
  }

  static std::string passwordOf(const std::string& user) { return "secret of " + user; }

  /// The installed files as they are, with users of the test's own. The fixture's broker has its own listener
  /// and log.
  static std::string brokerConfiguration() {
    Device::writeFile("/etc/mosquitto/propsrv.acl",
                      Device::readFile(SOURCE_DIRECTORY "/device/mosquitto/propsrv.acl"));
    Device::writeFile("/etc/mosquitto/propsrv.passwd", "");
    for (const std::string user : {"prop-service", "panel", "web"}) {
      run({"mosquitto_passwd", "-b", "/etc/mosquitto/propsrv.passwd", user, passwordOf(user)});
    }
    std::ifstream installed(SOURCE_DIRECTORY "/device/mosquitto/propsrv.conf");
    std::string configuration;
    for (std::string line; std::getline(installed, line);) {
      if (!line.starts_with("listener") && !line.starts_with("log_dest") &&
          !line.starts_with("set_tcp_nodelay")) {
        configuration += line + "\n";
      }
    }
    return configuration;
  }

  static std::unique_ptr<BusClient> client(const std::string& user,
                                           const std::vector<std::string>& topics = {}) {
    return std::make_unique<BusClient>(user, topics, 1883, passwordOf(user));
  }

  void launch() {
    device_.launch();
    panel_ = client("panel", {"+/any"});
    web_ = client("web", {"#", "+/prop-service", "prop-service/panel"});
    ASSERT_TRUE(eventually([&] { return panel_->serviceIsAlive(std::chrono::milliseconds(200)); }));
  }

  Device device_;
  std::unique_ptr<BusClient> panel_;
  std::unique_ptr<BusClient> web_;
};

TEST_F(Access, letsAClientAskAsItselfAndHearWhatChanges) {
  launch();

  EXPECT_EQ(panel_->request(makeRequest("setV", "Audio.Volume", "9"))["status"], "Ok");

  EXPECT_TRUE(panel_->waitForMessages("prop-service-audio/any", 1));
  EXPECT_TRUE(panel_->waitForMessages("prop-service-groupnotify/any", 1));
}

TEST_F(Access, refusesARequestInAnothersName) {
  launch();

  web_->publish("panel/prop-service", R"({"method":"setV","param":"Audio.Volume","value":"9"})");
  web_->settle();
  panel_->settle();

  EXPECT_EQ(panel_->request(makeRequest("getV", "Audio.Volume"))["result"], "5");
}

TEST_F(Access, hidesRequestsAndRepliesOfOthers) {
  launch();

  panel_->settle();
  panel_->request(makeRequest("getV", "Audio.Volume"));
  web_->settle();

  for (const BusClient::Message& message : web_->received()) {
    EXPECT_THAT(message.topic, testing::AnyOf("prop-service/web", "services/prop-service/online"));
  }
}

TEST_F(Access, refusesAForgedReply) {
  launch();
  panel_->forget();

  web_->publish("prop-service/panel", "forged");
  web_->settle();
  panel_->settle();

  EXPECT_EQ(panel_->received("prop-service/panel"), std::vector<std::string>{"{\"param\":\"Ok\"}\n"});
}

TEST_F(Access, refusesAForgedNotification) {
  launch();

  web_->publish("prop-service-audio/any", "forged");
  web_->publish("prop-service-groupnotify/any", "forged");
  web_->settle();
  panel_->request(makeRequest("setV", "Audio.Volume", "9"));

  ASSERT_TRUE(panel_->waitForMessages("prop-service-groupnotify/any", 1));
  EXPECT_EQ(panel_->received("prop-service-audio/any").size(), 1U);
  EXPECT_EQ(panel_->received("prop-service-groupnotify/any").size(), 1U);
}

TEST_F(Access, letsEveryClientSeeThePresenceOfTheService) {
  launch();

  const auto panel = client("panel", {"services/+/online"});

  EXPECT_TRUE(panel->waitForMessages("services/prop-service/online", 1));
  EXPECT_EQ(panel->received("services/prop-service/online"), std::vector<std::string>{"1"});
}

TEST_F(Access, refusesAForgedPresence) {
  launch();
  const auto panel = client("panel", {"services/+/online"});
  ASSERT_TRUE(panel->waitForMessages("services/prop-service/online", 1));

  web_->publish("services/prop-service/online", "0", 1, true);
  web_->publish("services/web/online", "1", 1, true);
  web_->settle();
  panel->settle();

  EXPECT_EQ(panel->received("services/prop-service/online"), std::vector<std::string>{"1"});
  EXPECT_TRUE(panel->received("services/web/online").empty());
}

TEST_F(Access, refusesAClientWithoutAName) {
  EXPECT_THROW(BusClient("anonymous"), std::runtime_error);
}

TEST_F(Access, refusesAWrongPassword) {
  EXPECT_THROW(BusClient("panel", {}, 1883, "guessed"), std::runtime_error);
}

TEST_F(Access, refusesTheServiceItselfWithoutItsCredentials) {
  unlink(kCredentials);

  EXPECT_EQ(device_.runToEnd({}), -SIGABRT);

  EXPECT_EQ(device_.logLines("PROP-SRV error core/Dispatcher:").size(), 1U);
}

TEST_F(Access, refusesCredentialsThatOthersMayRead) {
  chmod(kCredentials, 0644);

  EXPECT_EQ(device_.runToEnd({}), -SIGABRT);

  EXPECT_EQ(device_.logLines("PROP-SRV error core/Dispatcher:").size(), 1U);
  EXPECT_FALSE(device_.logLines("must be a file that nobody but its owner may read").empty());
}

}  // namespace
}  // namespace propertyservice::test
