#include <optional>
#include <sstream>

#include "fleet/FleetFixture.h"

namespace propertyservice::test {
namespace {

using testing::ElementsAre;

/// The command-line client, at the centre as the controller "support".
class PropctlInTheFleet : public Fleet {
 protected:
  PropctlInTheFleet() { authorities_.issueController("support"); }

  /// Runs it for the devices of `serials`.
  void propctl(const std::string& serials, const std::vector<std::string>& command) {
    std::vector<std::string> words = {PROPCTL_BINARY,
                                      "--host",
                                      Centre::kAddress,
                                      "--port",
                                      std::to_string(Centre::kControllers),
                                      "--cafile",
                                      authorities_.path("centre-ca.crt"),
                                      "--cert",
                                      authorities_.path("support.crt"),
                                      "--key",
                                      authorities_.path("support.key"),
                                      "--name",
                                      "support",
                                      "--device",
                                      serials};
    words.insert(words.end(), command.begin(), command.end());
    Process process(words, authorities_.path("propctl.log"));
    status_ = process.wait();
    std::istringstream output(process.output());
    for (std::string line; std::getline(output, line);) {
      lines_.push_back(line);
    }
  }

  std::optional<int> status_;
  std::vector<std::string> lines_;
};

TEST_F(PropctlInTheFleet, readsAsTheDocumentationSays) {
  EXPECT_EQ(authorities_.runDocumented("propctl", "controller=support serial=HX-0001"), "5\n");
}

TEST_F(PropctlInTheFleet, isNotNeeded) {
  EXPECT_EQ(authorities_.runDocumented("mosquitto_rr", "controller=support serial=HX-0001"),
            "{\"param\":\"Audio.Volume\",\"result\":\"5\",\"status\":\"Ok\"}\n\n");
}

TEST_F(PropctlInTheFleet, readsFromOneDevice) {
  propctl("HX-0002", {"get", "Audio.Volume"});

  EXPECT_EQ(status_, 0);
  EXPECT_THAT(lines_, ElementsAre("5"));
}

TEST_F(PropctlInTheFleet, writesToAllDevicesOfAPattern) {
  propctl("HX-000[12]", {"set", "Audio.Volume=9"});

  EXPECT_EQ(status_, 0);
  EXPECT_EQ(device(1).valueOf("Audio.Volume"), "9");
  EXPECT_EQ(device(2).valueOf("Audio.Volume"), "9");
  EXPECT_EQ(device(3).valueOf("Audio.Volume"), "5");
}

TEST_F(PropctlInTheFleet, sumsUpWhatIsDoneRefusedAndSilent) {
  device(2).stopBroker();
  ASSERT_TRUE(isOffline(device(2)));

  propctl("HX-*", {"set", "Audio.Volume=9"});

  EXPECT_EQ(status_, 3);
  EXPECT_EQ(lines_.back(), "2 done, 0 refused, 1 silent");
}

TEST_F(PropctlInTheFleet, tellsThatADeviceRefuses) {
  propctl("HX-*", {"set", "Audio.Volume=99"});

  EXPECT_EQ(status_, 1);
  EXPECT_EQ(lines_.back(), "0 done, 3 refused, 0 silent");
}

TEST_F(PropctlInTheFleet, listsTheDevicesAndWhoIsThere) {
  device(2).stopDaemon();
  device(3).stopBroker();
  ASSERT_TRUE(isOffline(device(3)));
  ASSERT_TRUE(fleet_->waitFor(topicOf(device(2), "services/prop-service/online"), "0"));

  propctl("", {"devices"});

  EXPECT_EQ(status_, 0);
  EXPECT_THAT(lines_, ElementsAre("HX-0001\tconnected\trunning", "HX-0002\tconnected\tstopped",
                                  "HX-0003\taway\tunknown"));
}

TEST_F(PropctlInTheFleet, listsTheDevicesOfAPattern) {
  propctl("HX-000[12]", {"--json", "devices"});

  EXPECT_EQ(status_, 0);
  EXPECT_THAT(lines_, ElementsAre(R"([{"connected":true,"device":"HX-0001","service":true},)"
                                  R"({"connected":true,"device":"HX-0002","service":true}])"));
}

TEST_F(PropctlInTheFleet, findsADeviceSilentWhoseDaemonIsDown) {
  device(3).stopDaemon();

  propctl("HX-*", {"--timeout", "2", "get", "Audio.Volume"});

  EXPECT_EQ(status_, 3);
  EXPECT_EQ(lines_.back(), "2 done, 0 refused, 1 silent");
}

}  // namespace
}  // namespace propertyservice::test
