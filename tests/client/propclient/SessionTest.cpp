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
}

TEST(Session, listensToItsRepliesFromTheBeginning) {
  FakeDaemon daemon;

  const Session session(Topics("panel", ""), daemon, 5s, "?unique-");

  EXPECT_THAT(daemon.subscriptions, ElementsAre("prop-service/panel"));
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

}  // namespace
}  // namespace propclient
