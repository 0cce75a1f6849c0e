#include <thread>

#include "core/Constants.h"
#include "core/Messenger.h"
#include "support/Eventually.h"
#include "support/FakeIPCClient.h"
#include "support/LogCapture.h"

namespace propertyservice {
namespace {

using test::FakeIPCClient;
using test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

using Message = FakeIPCClient::Message;

Property changed(const std::string& key, const std::string& value) {
  Property property({{"key", key}, {"value", value}, {"webui", "w"}});
  property.setStatus(Status::Changed);
  return property;
}

class MessengerTest : public testing::Test {
 protected:
  /// Everything that has been announced, in order.
  std::vector<Message> published() {
    messenger.reset();
    return client->published();
  }

  const std::shared_ptr<FakeIPCClient> client = std::make_shared<FakeIPCClient>();
  std::unique_ptr<Messenger> messenger = std::make_unique<Messenger>(client);
};

TEST_F(MessengerTest, publishesAChangeToItsGroupAndToAll) {
  Property property = changed("Audio.Volume", "5");

  messenger->notify(property, true);

  EXPECT_THAT(
      published(),
      ElementsAre(Message{"prop-service-audio/any", "{\"param\":\"Audio.Volume\",\"value\":\"5\"}\n", 1},
                  Message{"prop-service-groupnotify/any", "{\"Audio.Volume\":\"5\"}\n", 1}));
}

TEST_F(MessengerTest, publishesAChangeToItsGroupAlone) {
  Property property = changed("Audio.Volume", "5");

  messenger->notify(property, false);

  EXPECT_THAT(published(), ElementsAre(Message{"prop-service-audio/any",
                                               "{\"param\":\"Audio.Volume\",\"value\":\"5\"}\n", 1}));
}

TEST_F(MessengerTest, returnsKeyAndValueOfAChangeAndSetsItsStatusToOk) {
  Property property = changed("Audio.Volume", "5");

  const auto [key, value] = messenger->notify(property, true);

  EXPECT_EQ(key, "Audio.Volume");
  EXPECT_EQ(value, Json::Value("5"));
  EXPECT_EQ(property.status(), Status::Ok);
}

TEST_F(MessengerTest, hasPublishedEverythingWhenItHasStopped) {
  for (int i = 0; i < 1000; ++i) {
    messenger->publishAll(std::to_string(i));
  }

  messenger->stop();

  EXPECT_EQ(client->published().size(), 1000U);
}

TEST_F(MessengerTest, publishesAtOnceWhatIsAnnouncedAfterTheStop) {
  messenger->stop();

  messenger->publishAll("late");

  EXPECT_THAT(client->published(), ElementsAre(Message{"prop-service-groupnotify/any", "late", 1}));
}

TEST_F(MessengerTest, keepsTheOrderWhenItIsStoppedMeanwhile) {
  constexpr int kMessages = 2000;
  std::thread stopper([this] {
    test::eventually([this] { return client->published().size() > 100; });
    messenger->stop();
  });

  std::vector<Message> announced;
  for (int i = 0; i < kMessages; ++i) {
    messenger->publishAll(std::to_string(i));
    announced.push_back({"prop-service-groupnotify/any", std::to_string(i), 1});
  }

  stopper.join();
  EXPECT_EQ(client->published(), announced);
}

TEST_F(MessengerTest, publishesNothingThatDidNotChange) {
  for (int code = 0; code <= 9; ++code) {
    const auto status = static_cast<Status>(code);
    if (status == Status::Changed) {
      continue;
    }
    Property property = changed("Audio.Volume", "5");
    property.setStatus(status);

    const auto [key, value] = messenger->notify(property, true);

    EXPECT_EQ(key, "");
    EXPECT_TRUE(value.isNull());
    EXPECT_EQ(property.status(), status);
  }
  EXPECT_THAT(published(), IsEmpty());
}

TEST_F(MessengerTest, publishesAChangedKeyWithoutADotToAllAlone) {
  LogCapture log;
  Property property = changed("Volume", "5");

  const auto [key, value] = messenger->notify(property, true);

  EXPECT_EQ(key, "Volume");
  EXPECT_THAT(published(), ElementsAre(Message{"prop-service-groupnotify/any", "{\"Volume\":\"5\"}\n", 1}));
  EXPECT_EQ(log.linesWith("error core/Messenger:").size(), 1U);
  EXPECT_EQ(log.linesWith("Wrong key: Volume").size(), 1U);
}

TEST_F(MessengerTest, endsTheGroupAtTheFirstDot) {
  Property property = changed("Web.UI.Port", "80");

  messenger->notify(property, false);

  EXPECT_EQ(published().at(0).topic, "prop-service-web/any");
}

TEST_F(MessengerTest, lowersOnlyTheLettersOfAscii) {
  Property property = changed("A\xC3\x84Z_1.Port", "80");

  messenger->notify(property, false);

  EXPECT_EQ(published().at(0).topic, "prop-service-a\xC3\x84z_1/any");
}

TEST_F(MessengerTest, publishesAValueAsTheJsonItIs) {
  Property property = changed("State.Calls", "");
  property.set(column::kValue, 3);

  messenger->notify(property, true);

  const std::vector<Message> messages = published();
  EXPECT_EQ(messages.at(0).payload, "{\"param\":\"State.Calls\",\"value\":3}\n");
  EXPECT_EQ(messages.at(1).payload, "{\"State.Calls\":3}\n");
}

TEST_F(MessengerTest, publishesAListToItsGroupsAndOnceToAll) {
  std::vector<Property> list = {changed("Audio.Volume", "5"), changed("Web.Port", "80"),
                                changed("Audio.Gain", "7")};

  messenger->notifyList(list);

  EXPECT_THAT(
      published(),
      ElementsAre(Message{"prop-service-audio/any", "{\"param\":\"Audio.Volume\",\"value\":\"5\"}\n", 1},
                  Message{"prop-service-web/any", "{\"param\":\"Web.Port\",\"value\":\"80\"}\n", 1},
                  Message{"prop-service-audio/any", "{\"param\":\"Audio.Gain\",\"value\":\"7\"}\n", 1},
                  Message{"prop-service-groupnotify/any",
                          "{\"Audio.Gain\":\"7\",\"Audio.Volume\":\"5\",\"Web.Port\":\"80\"}\n", 1}));
}

TEST_F(MessengerTest, leavesWhatDidNotChangeOutOfAList) {
  std::vector<Property> list = {changed("Audio.Volume", "5"), changed("Web.Port", "80")};
  list[0].setStatus(Status::ReadOnly);

  messenger->notifyList(list);

  EXPECT_EQ(list[0].status(), Status::ReadOnly);
  EXPECT_EQ(list[1].status(), Status::Ok);
  EXPECT_THAT(published(),
              ElementsAre(Message{"prop-service-web/any", "{\"param\":\"Web.Port\",\"value\":\"80\"}\n", 1},
                          Message{"prop-service-groupnotify/any", "{\"Web.Port\":\"80\"}\n", 1}));
}

TEST_F(MessengerTest, publishesNothingForAListWithoutChanges) {
  std::vector<Property> unchanged = {Property({{"key", "Web.Port"}})};
  std::vector<Property> empty;

  messenger->notifyList(unchanged);
  messenger->notifyList(empty);

  EXPECT_THAT(published(), IsEmpty());
}

TEST_F(MessengerTest, publishesTheLastOfTwoValuesOfOneKeyToAll) {
  std::vector<Property> list = {changed("Web.Port", "80"), changed("Web.Port", "81")};

  messenger->notifyList(list);

  EXPECT_EQ(published().back(), (Message{"prop-service-groupnotify/any", "{\"Web.Port\":\"81\"}\n", 1}));
}

TEST_F(MessengerTest, publishesTextsAsTheyAre) {
  messenger->publishGroup("web", "payload");
  messenger->publishAll("other");

  EXPECT_THAT(published(), ElementsAre(Message{"prop-service-web/any", "payload", 1},
                                       Message{"prop-service-groupnotify/any", "other", 1}));
}

TEST_F(MessengerTest, publishesWithoutBeingDestroyed) {
  messenger->publishAll("payload");

  EXPECT_TRUE(test::eventually([&] { return client->published().size() == 1; }));
}

TEST_F(MessengerTest, outlivesAMessageThatTheBusRefuses) {
  LogCapture log;
  client->refusedTopic = "prop-service-a+b/any";
  Property odd = changed("A+B.Port", "80");
  Property next = changed("Web.Port", "80");

  messenger->notify(odd, false);
  messenger->notify(next, false);

  EXPECT_EQ(published().size(), 1U);
  EXPECT_EQ(log.linesWith("error core/Messenger:").size(), 1U);
  EXPECT_EQ(log.linesWith("Cannot publish on topic prop-service-a+b/any: refused").size(), 1U);
}

}  // namespace
}  // namespace propertyservice
