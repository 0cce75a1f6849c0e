#include "client/propclient/FakeDaemon.h"
#include "propclient/Session.h"

namespace propclient {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST(Session, addressesTheDeviceAtTheBroker) {
  const Topics topics("panel", "");

  EXPECT_EQ(topics.requests, "panel/prop-service");
  EXPECT_EQ(topics.replies, "prop-service/panel");
  EXPECT_EQ(topics.changes("audio"), "prop-service-audio/any");
}

TEST(Session, addressesADeviceBehindACentralBroker) {
  const Topics topics("centre", "0815");

  EXPECT_EQ(topics.requests, "devices/0815/centre/prop-service");
  EXPECT_EQ(topics.replies, "devices/0815/prop-service/centre");
  EXPECT_EQ(topics.changes("audio"), "devices/0815/prop-service-audio/any");
  EXPECT_EQ(topics.presence, "devices/0815/services/prop-service/online");
}

TEST(Session, listensToItsRepliesFromTheBeginning) {
  FakeDaemon daemon;

  const Session session(Topics("panel", ""), daemon, 5s, "?unique-");

  EXPECT_THAT(daemon.subscriptions, ElementsAre("prop-service/panel", "services/prop-service/online"));
}

TEST(Session, asksAndIsAnswered) {
  FakeDaemon daemon;
  daemon.values["Audio.Volume"] = "5";
  Session session(Topics("panel", ""), daemon, 5s, "?unique-");
  session.opened();
  std::string value;

  session.ask(request::get("Audio.Volume", Field::key,
                           [&](const Answer<std::string>& answer) { value = answer.value; }),
              Clock::now());
  while (daemon.hasRequests()) {
    daemon.serve();
    const auto reply = daemon.arrive();
    session.received(reply->topic, reply->payload);
  }

  EXPECT_EQ(value, "5");
}

TEST(Session, givesARequestItsTimeFromWhenItWasAsked) {
  FakeDaemon daemon;
  Session session(Topics("panel", ""), daemon, 5s, "?unique-");
  session.opened();
  const auto asked = Clock::now() - 1s;

  session.ask(request::ping([](const Answer<Client::Nothing>&) {}), asked);

  EXPECT_EQ(session.nextDeadline(), asked + 5s);
}

/// A session that is open, and what it tells of the service.
class Presence : public testing::Test {
 protected:
  Presence() { session_.opened(); }

  void announce(const std::string& payload) { session_.received("services/prop-service/online", payload); }

  void ask() {
    session_.ask(
        request::ping([this](const Answer<Client::Nothing>& answer) { answers_.push_back(answer.status); }),
        Clock::now());
  }

  FakeDaemon daemon_;
  std::vector<std::optional<bool>> told_;
  std::vector<Status> answers_;
  Session session_{Topics("panel", ""), daemon_, 5s, "?unique-",
                   [this](std::optional<bool> present) { told_.push_back(present); }};
};

TEST_F(Presence, isToldWheneverItChanges) {
  for (const char* payload : {"1", "1", "0", "1", ""}) {
    announce(payload);
  }

  EXPECT_THAT(told_, ElementsAre(true, false, true, std::nullopt));
}

TEST_F(Presence, isUnknownOnceTheConnectionIsLost) {
  announce("0");

  session_.lost();

  EXPECT_THAT(told_, ElementsAre(false, std::nullopt));
}

TEST_F(Presence, isNotNeededToAsk) {
  ask();

  EXPECT_FALSE(daemon_.requests.empty());
  EXPECT_THAT(told_, testing::IsEmpty());
}

TEST_F(Presence, refusesWhatIsAskedWhileTheServiceIsAway) {
  announce("0");

  ask();

  EXPECT_THAT(answers_, ElementsAre(Status::away));
  EXPECT_TRUE(daemon_.requests.empty());
}

TEST_F(Presence, sendsAgainWhenTheServiceIsBack) {
  announce("0");
  announce("1");

  ask();

  EXPECT_FALSE(daemon_.requests.empty());
  EXPECT_THAT(answers_, testing::IsEmpty());
}

TEST_F(Presence, refusesWhatWasNotSentYetAndWaitsForTheRest) {
  constexpr std::size_t kAsked = Conversation::kMostUnanswered + 5;
  for (std::size_t i = 0; i < kAsked; ++i) {
    ask();
  }

  announce("0");

  EXPECT_EQ(answers_, std::vector<Status>(5, Status::away));
}

TEST_F(Presence, refusesWhatWaitedForTheConnectionBeforeItIsSent) {
  session_.lost();
  ask();
  announce("0");

  session_.opened();

  EXPECT_THAT(answers_, ElementsAre(Status::away));
  EXPECT_TRUE(daemon_.requests.empty());
}

}  // namespace
}  // namespace propclient
