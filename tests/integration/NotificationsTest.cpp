#include "support/Device.h"

// Notifications of changes, as listeners on the bus get them.

namespace propertyservice::test {
namespace {

class Notifications : public testing::Test {
 protected:
  static constexpr const char* kAll = "prop-service-groupnotify/any";
  static constexpr const char* kSettled = "{\"State.Settled\":\"yes\"}\n";

  Notifications() {
    device_.start();
    device_.panel();
  }

  /// Returns when everything announced so far is here: announcements come in order, so a change of our own is
  /// the last.
  void settle() {
    device_.set("State.Settled", "yes");
    ASSERT_TRUE(eventually([&] {
      const std::vector<std::string> payloads = received(kAll);
      return !payloads.empty() && payloads.back() == kSettled;
    }));
  }

  std::vector<std::string> received(const std::string& topic) { return device_.panel().received(topic); }

  std::vector<std::string> allChanges() {
    std::vector<std::string> payloads = received(kAll);
    std::erase(payloads, kSettled);
    return payloads;
  }

  Device device_;
};

TEST_F(Notifications, tellTheGroupAndEverybodyOfAChange) {
  device_.set("Audio.Volume", "7");
  settle();

  EXPECT_EQ(received("prop-service-audio/any"),
            std::vector<std::string>{"{\"param\":\"Audio.Volume\",\"value\":\"7\"}\n"});
  EXPECT_EQ(allChanges(), std::vector<std::string>{"{\"Audio.Volume\":\"7\"}\n"});
}

TEST_F(Notifications, keepQuietAboutAnUnchangedValue) {
  device_.set("Audio.Volume", "5");
  settle();

  EXPECT_TRUE(received("prop-service-audio/any").empty());
  EXPECT_TRUE(allChanges().empty());
}

TEST_F(Notifications, keepQuietAboutARefusedValue) {
  device_.set("Audio.Volume", "99");
  settle();

  EXPECT_TRUE(received("prop-service-audio/any").empty());
  EXPECT_TRUE(allChanges().empty());
}

TEST_F(Notifications, tellEverybodyButNoGroupOfAKeyWithoutAPoint) {
  device_.set("Pointless", "b");
  settle();

  EXPECT_EQ(allChanges(), std::vector<std::string>{"{\"Pointless\":\"b\"}\n"});
  EXPECT_EQ(device_.logLines("Wrong key: Pointless").size(), 1U);
  EXPECT_EQ(device_.panel().received().size(), 5U);  // two replies, both announcements of settle(), this one
}

TEST_F(Notifications, tellOfAListInOneMessageToEverybody) {
  device_.panel().requestText(
      R"({"method":"setVList","list":{"Audio.Codec":"g722","Audio.Volume":"7","NET.General.Hostname":"lobby"}})");
  settle();

  EXPECT_EQ(received("prop-service-audio/any").size(), 2U);
  EXPECT_EQ(received("prop-service-net/any").size(), 1U);
  EXPECT_EQ(allChanges(),
            std::vector<std::string>{
                "{\"Audio.Codec\":\"g722\",\"Audio.Volume\":\"7\",\"NET.General.Hostname\":\"lobby\"}\n"});
}

TEST_F(Notifications, tellNothingOfAnEmptyList) {
  device_.panel().requestText(R"({"method":"setVList","list":{}})");
  settle();

  EXPECT_TRUE(allChanges().empty());
}

TEST_F(Notifications, tellOfAPatternResetInOneMessageToEverybody) {
  device_.set("Audio.Codec", "g711");
  device_.panel().requestText(R"({"method":"resetVal","param":"Audio.%"})");
  settle();

  EXPECT_EQ(allChanges(), (std::vector<std::string>{"{\"Audio.Codec\":\"g711\"}\n",
                                                    "{\"Audio.Codec\":\"opus\",\"Audio.Volume\":\"4\"}\n"}));
}

TEST_F(Notifications, tellOfAVolatileKey) {
  device_.set("State.Call.Active", "yes");

  ASSERT_TRUE(device_.panel().waitForMessages(kAll, 1));
  EXPECT_EQ(received("prop-service-state/any"),
            std::vector<std::string>{"{\"param\":\"State.Call.Active\",\"value\":\"yes\"}\n"});
}

TEST_F(Notifications, tellOfARestore) {
  Device::writeFile(Device::kUserBackup, "Audio.Volume;9\nDatabaseVersion:5\n");

  device_.request("restore");
  settle();

  EXPECT_EQ(received("prop-service-audio/any"),
            std::vector<std::string>{"{\"param\":\"Audio.Volume\",\"value\":\"9\"}\n"});
  EXPECT_EQ(allChanges(), std::vector<std::string>{"{\"Audio.Volume\":\"9\"}\n"});
}

TEST_F(Notifications, comeInTheOrderOfTheChanges) {
  std::vector<std::string> expected;
  for (int value = 0; value < 200; ++value) {
    const std::string text = std::to_string(value);
    expected.push_back("{\"Audio.Ringtone\":\"" + text + "\"}\n");
    device_.panel().sendRequest(makeRequest("setV", "Audio.Ringtone", text));
  }

  ASSERT_TRUE(device_.panel().waitForMessages(kAll, 200));
  EXPECT_EQ(allChanges(), expected);
}

TEST_F(Notifications, areNotLostInAStopRightAfterTheAnswer) {
  constexpr std::size_t kStops = 40;

  for (std::size_t stop = 1; stop <= kStops; ++stop) {
    const std::string value = "bell " + std::to_string(stop);
    ASSERT_EQ(device_.set("Audio.Ringtone", value)["status"], "Ok");

    ASSERT_EQ(device_.stop(), 0);

    ASSERT_TRUE(device_.panel().waitForMessages("prop-service-audio/any", stop, std::chrono::seconds(2)))
        << stop;
    ASSERT_TRUE(device_.panel().waitForMessages(kAll, stop, std::chrono::seconds(2))) << stop;
    device_.start();
  }
}

TEST_F(Notifications, ofEveryAnsweredChangeComeBeforeTheEndOfABurst) {
  constexpr int kWrites = 3000;
  for (int i = 0; i < kWrites; ++i) {
    device_.panel().sendRequest(makeRequest("setV", "Audio.Ringtone", std::to_string(i)));
  }
  ASSERT_TRUE(device_.panel().waitForMessages(device_.panel().replyTopic(), 100));

  ASSERT_EQ(device_.stop(), 0);

  device_.panel().publish("mark/any", "");  // comes after all that the broker has got from the service
  ASSERT_TRUE(device_.panel().waitForMessages("mark/any", 1));
  const std::size_t answered = received(device_.panel().replyTopic()).size();
  EXPECT_GE(received(kAll).size(), answered);
  EXPECT_GE(received("prop-service-audio/any").size(), answered);
}

}  // namespace
}  // namespace propertyservice::test
