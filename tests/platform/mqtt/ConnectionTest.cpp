#include <condition_variable>
#include <csignal>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <netinet/tcp.h>

#include "mqtt/Connection.h"
#include "platform/mqtt/ScriptedBroker.h"

// The connection and a broker that misbehaves on order. The tests stand in the order of the table of states
// and transitions in Connection.h.

namespace mqtt::test {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Gt;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr auto kPatience = ScriptedBroker::kPatience;

/// An idle thread wakes up later: what is done sooner was not left to that.
constexpr auto kWithoutIdling = 9s;

/// For packets that must not come. A packet that does come is there in much less.
constexpr auto kShortly = 100ms;

std::string failureOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const Error& error) {
    return error.what();
  }
  return "none";
}

/// Has names looked up in these lines alone.
void writeHosts(const std::string& lines) {
  std::ofstream("/etc/nsswitch.conf") << "hosts: files\n";
  std::ofstream("/etc/hosts") << lines;
}

/// Keeps what a connection tells, as text.
class Told : public Listener {
 public:
  /// Called with each message before it is kept; set before `connect`.
  std::function<void(const Message&)> onMessage = [](const Message&) {};
  std::function<Deadline()> onTurn = [] { return Deadline(); };

  void opened() override { keep("opened"); }
  void failed(const std::string& reason) override { keep("failed: " + reason); }
  void lost(const std::string& reason) override { keep("lost: " + reason); }
  void subscribed(const std::vector<std::string>& refused) override {
    keep("subscribed" + (refused.empty() ? "" : " but " + refused.front()));
  }
  void received(const Message& message) override {
    onMessage(message);
    keep(message.topic + "=" + message.payload + (message.retained ? " retained" : ""));
  }
  void delivered(const std::string& topic) override { keep("delivered " + topic); }
  Deadline turned() override { return onTurn(); }

  /// All there is, once there are `count` or the deadline has passed.
  std::vector<std::string> first(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [&] { return all_.size() >= count; });
    return all_;
  }

  void keep(std::string text) {
    const std::lock_guard lock(mutex_);
    all_.push_back(std::move(text));
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> all_;
};

class ConnectionTest : public testing::Test {
 protected:
  ~ConnectionTest() override {
    if (connection_) {
      connection_->close(0s);
    }
    if (connecting_.valid()) {
      connecting_.wait();
    }
  }

  Connection& connection() {
    if (!connection_) {
      settings_.port = broker_.port();
      connection_ = std::make_unique<Connection>(settings_, told_);
    }
    return *connection_;
  }

  /// Asks for a connection on another thread.
  void startConnecting() {
    connection();
    connecting_ =
        std::async(std::launch::async, [this] { return failureOf([&] { connection_->connect(); }); });
  }

  std::string outcome() { return connecting_.get(); }

  /// Connects; the script grants what was subscribed to.
  void open(int subscriptions = 0) {
    startConnecting();
    broker_.open(subscriptions, !settings_.presenceTopic.empty());
    ASSERT_EQ(outcome(), "none");
    ASSERT_THAT(told_.first(1), Contains("opened"));
  }

  /// Returns what the connection publishes until nothing more comes, unacknowledged.
  std::vector<Packet> receiveAll() {
    std::vector<Packet> packets;
    while (auto packet = broker_.receive(packets.empty() ? kPatience : kShortly)) {
      packets.push_back(*packet);
    }
    return packets;
  }

  ScriptedBroker broker_;
  Told told_;
  Settings settings_{.clientId = "tested",
                     .host = "127.0.0.1",
                     .firstRoundWithin = kPatience,
                     .laterRoundWithin = kPatience,
                     .shortestPause = 10ms,
                     .longestPause = 20ms};
  std::unique_ptr<Connection> connection_;
  std::future<std::string> connecting_;
};

// Idle.

using Idle = ConnectionTest;

TEST_F(Idle, makesNoConnectionByItself) {
  connection().subscribe("a");
  connection().post([this] { told_.keep("worked"); });

  EXPECT_THAT(told_.first(1), ElementsAre("worked"));
  EXPECT_FALSE(broker_.accept(kShortly));
}

TEST_F(Idle, doesPostedWorkInItsOrderOnItsOwnThread) {
  for (int i = 0; i < 100; ++i) {
    connection().post(
        [this, i] { told_.keep(std::to_string(i) + (connection_->isOwnThread() ? "" : " elsewhere")); });
  }

  const auto worked = told_.first(100);

  ASSERT_EQ(worked.size(), 100U);
  EXPECT_EQ(worked[7], "7");
  EXPECT_EQ(worked[99], "99");
  EXPECT_FALSE(connection().isOwnThread());
}

TEST_F(Idle, doesWorkThatIsPostedToItsSleepingThread) {
  for (std::size_t i = 1; i <= 3; ++i) {
    connection().post([this] { told_.keep("worked"); });
    EXPECT_EQ(told_.first(i).size(), i);
  }
}

TEST_F(Idle, blocksAllSignalsOnItsThread) {
  std::promise<bool> blocked;
  connection().post([&] {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    blocked.set_value(sigismember(&mask, SIGPIPE) == 1 && sigismember(&mask, SIGTERM) == 1);
  });

  EXPECT_TRUE(blocked.get_future().get());
}

TEST_F(Idle, cannotPublish) {
  EXPECT_EQ(failureOf([&] { connection().publish("out", "x", 1); }), "publish on \"out\": not connected");
}

TEST_F(Idle, wakesTheListenerWhenThatHasAskedForIt) {
  int turns = 0;
  told_.onTurn = [&] {
    told_.keep("turned");
    return ++turns < 3 ? Deadline(Clock::now() + 20ms) : Deadline();
  };
  const auto before = Clock::now();

  connection().post([] {});

  EXPECT_EQ(told_.first(3).size(), 3U);
  EXPECT_GE(Clock::now() - before, 40ms);
  EXPECT_LT(Clock::now() - before, kPatience);
}

// Idle to resolving to attempting.

using Resolving = ConnectionTest;

TEST_F(Resolving, fromIdleConnectsToTheAddressOfTheHost) {
  startConnecting();

  EXPECT_TRUE(broker_.accept());
  EXPECT_EQ(broker_.expect(Packet::connect).textAt(0), "MQTT");
}

TEST_F(Resolving, failsForAHostThatIsUnknown) {
  writeHosts("127.0.0.1 localhost\n");
  settings_.host = "nowhere";

  startConnecting();

  EXPECT_THAT(outcome(), AllOf(Not("none"), Not(HasSubstr("broker"))));
  EXPECT_THAT(told_.first(1), ElementsAre(StartsWith("failed: ")));
}

TEST_F(Resolving, triesTheNextAddressWhenOneRefuses) {
  writeHosts("::1 twofold\n127.0.0.2 twofold\n127.0.0.1 twofold\n");
  settings_.host = "twofold";

  open();

  EXPECT_THAT(told_.first(1), ElementsAre("opened"));
}

/// A name server that says nothing.
class SilentNameServer : public ConnectionTest {
 protected:
  SilentNameServer() {
    std::ofstream("/etc/nsswitch.conf") << "hosts: dns\n";
    std::ofstream("/etc/resolv.conf") << "nameserver 127.0.0.1\n";
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(53);
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bound_ = bind(server_, reinterpret_cast<sockaddr*>(&name), sizeof name) == 0;
    settings_.host = "nowhere.example";
  }
  ~SilentNameServer() override { ::close(server_); }

  void waitForQuestion() {
    ASSERT_TRUE(bound_);
    pollfd question{server_, POLLIN, 0};
    ASSERT_EQ(poll(&question, 1, static_cast<int>(kPatience.count())), 1);
  }

  const int server_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  bool bound_ = false;
};

TEST_F(SilentNameServer, isGivenUpWithTheRound) {
  settings_.firstRoundWithin = 50ms;
  const auto before = Clock::now();

  startConnecting();

  EXPECT_EQ(outcome(), "no name server answers");
  EXPECT_GE(Clock::now() - before, 50ms);
  EXPECT_LT(Clock::now() - before, 4s);
}

TEST_F(SilentNameServer, doesNotHoldUpPostedWork) {
  startConnecting();
  waitForQuestion();

  connection_->post([this] { told_.keep("worked"); });

  EXPECT_THAT(told_.first(1), ElementsAre("worked"));
  connection_->close(0s);
}

TEST_F(SilentNameServer, doesNotHoldUpClose) {
  startConnecting();
  waitForQuestion();
  const auto before = Clock::now();

  connection_->close(2s);

  EXPECT_EQ(outcome(), "cancelled by a disconnect");
  EXPECT_LT(Clock::now() - before, 1500ms);
}

TEST_F(SilentNameServer, isAskedOnceByRoundsThatFollowQuickly) {
  settings_.firstRoundWithin = 50ms;
  startConnecting();
  EXPECT_EQ(outcome(), "no name server answers");
  waitForQuestion();
  char question[512];
  ASSERT_GT(recv(server_, question, sizeof question, 0), 0);
  while (recv(server_, question, sizeof question, MSG_DONTWAIT) > 0) {
  }

  startConnecting();

  EXPECT_EQ(outcome(), "no name server answers");
  pollfd another{server_, POLLIN, 0};
  EXPECT_EQ(poll(&another, 1, 500), 0);
}

// Attempting.

class Attempting : public ConnectionTest {
 protected:
  Packet attempt() {
    startConnecting();
    EXPECT_TRUE(broker_.accept());
    return broker_.expect(Packet::connect);
  }
};

TEST_F(Attempting, presentsItself) {
  const Packet packet = attempt();

  EXPECT_EQ(packet.body, Packet::text("MQTT") + std::string("\x04\x02\x00\x1e", 4) + Packet::text("tested"));
}

TEST_F(Attempting, presentsItsCredentials) {
  settings_.credentials = {"panel", "secret"};

  EXPECT_THAT(attempt().body, testing::EndsWith(Packet::text("panel") + Packet::text("secret")));
}

TEST_F(Attempting, asksTheBrokerToKeepItsSession) {
  settings_.cleanSession = false;

  EXPECT_EQ(attempt().body.at(7), 0);
}

TEST_F(Attempting, leavesAWillThatItIsAway) {
  settings_.presenceTopic = "services/tested/online";

  const Packet packet = attempt();

  EXPECT_EQ(packet.body.at(7), 0x02 | 0x04 | 0x08 | 0x20);  // clean session, a will of QoS 1 that is retained
  EXPECT_THAT(packet.body, testing::EndsWith(Packet::text("services/tested/online") + Packet::text("0")));
}

TEST_F(Attempting, opensOnceItIsAccepted) {
  attempt();
  EXPECT_EQ(connecting_.wait_for(kShortly), std::future_status::timeout);

  broker_.send(ScriptedBroker::accepted());

  EXPECT_EQ(outcome(), "none");
  EXPECT_THAT(told_.first(1), ElementsAre("opened"));
}

TEST_F(Attempting, opensThoughTheAnswerComesInPieces) {
  attempt();

  for (const char byte : ScriptedBroker::accepted()) {
    broker_.send(std::string(1, byte));
  }

  EXPECT_EQ(outcome(), "none");
}

TEST_F(Attempting, subscribesInTheOrderOfTheCalls) {
  settings_.subscriptionQos = 2;
  for (const char* filter : {"z/+", "b", "z/+", "a/#"}) {
    connection().subscribe(filter);
  }
  attempt();

  broker_.send(ScriptedBroker::accepted());

  for (const char* filter : {"z/+", "b", "a/#"}) {
    const Packet packet = broker_.expect(Packet::subscribe);
    EXPECT_EQ(packet.topicFilter(), filter);
    EXPECT_EQ(packet.body.back(), 2);
  }
  EXPECT_FALSE(broker_.receive(kShortly));
}

TEST_F(Attempting, opensOnceEachSubscriptionIsAnsweredInAnyOrder) {
  connection().subscribe("a");
  connection().subscribe("b");
  attempt();
  broker_.send(ScriptedBroker::accepted());
  const int first = broker_.expect(Packet::subscribe).id();
  const int second = broker_.expect(Packet::subscribe).id();

  broker_.send(ScriptedBroker::granted(second) + ScriptedBroker::granted(second) +
               ScriptedBroker::granted(7777));
  EXPECT_EQ(connecting_.wait_for(kShortly), std::future_status::timeout);
  broker_.send(ScriptedBroker::granted(first));

  EXPECT_EQ(outcome(), "none");
}

TEST_F(Attempting, failsWhenASubscriptionIsRefused) {
  connection().subscribe("secret");
  attempt();
  broker_.send(ScriptedBroker::accepted());

  broker_.send(ScriptedBroker::denied(broker_.expect(Packet::subscribe).id()));

  EXPECT_EQ(outcome(), "the broker refuses the subscription to \"secret\"");
  EXPECT_TRUE(broker_.isLeft());
}

TEST_F(Attempting, opensWhenAnOptionalSubscriptionIsRefused) {
  connection().subscribe("secret", true);
  connection().subscribe("public");
  attempt();
  broker_.send(ScriptedBroker::accepted());

  broker_.send(ScriptedBroker::denied(broker_.expect(Packet::subscribe).id()));
  broker_.send(ScriptedBroker::granted(broker_.expect(Packet::subscribe).id()));

  EXPECT_EQ(outcome(), "none");
  connection_->subscribe("more");
  broker_.send(ScriptedBroker::granted(broker_.expect(Packet::subscribe).id()));
  EXPECT_THAT(told_.first(2), ElementsAre("opened", "subscribed"));
}

TEST_F(Attempting, subscribesToWhatIsAddedBeforeTheAnswer) {
  attempt();
  connection_->subscribe("a");
  EXPECT_FALSE(broker_.receive(kShortly));

  broker_.send(ScriptedBroker::accepted());

  EXPECT_EQ(broker_.expect(Packet::subscribe).topicFilter(), "a");
}

TEST_F(Attempting, subscribesToWhatIsAddedAfterTheAnswer) {
  connection().subscribe("a");
  attempt();
  broker_.send(ScriptedBroker::accepted());
  const int first = broker_.expect(Packet::subscribe).id();

  connection_->subscribe("b");
  const Packet second = broker_.expect(Packet::subscribe);
  broker_.send(ScriptedBroker::granted(first));
  EXPECT_EQ(connecting_.wait_for(kShortly), std::future_status::timeout);
  broker_.send(ScriptedBroker::granted(second.id()));

  EXPECT_EQ(second.topicFilter(), "b");
  EXPECT_EQ(outcome(), "none");
}

TEST_F(Attempting, tellsMessagesThatComeBeforeItIsOpen) {
  connection().subscribe("a");
  attempt();
  broker_.send(ScriptedBroker::accepted(true) + ScriptedBroker::message("a", "1", 1, 9));
  const int id = broker_.expect(Packet::subscribe).id();

  broker_.send(ScriptedBroker::granted(id) + ScriptedBroker::message("a", "2"));

  EXPECT_THAT(told_.first(3), ElementsAre("a=1", "opened", "a=2"));
}

TEST_F(Attempting, sendsWhatWasPublishedMeanwhileOnceItIsOpen) {
  settings_.resends = true;
  connection().subscribe("a");
  attempt();
  broker_.send(ScriptedBroker::accepted());
  const int id = broker_.expect(Packet::subscribe).id();
  connection_->publish("out", "1", 1);
  EXPECT_FALSE(broker_.receive(kShortly));

  broker_.send(ScriptedBroker::granted(id));

  EXPECT_EQ(broker_.expect(Packet::publish).payload(), "1");
}

TEST_F(Attempting, failsWhenItIsRefused) {
  attempt();

  broker_.send(ScriptedBroker::refused(5));

  EXPECT_THAT(outcome(), HasSubstr("not authori"));
  EXPECT_THAT(told_.first(1), ElementsAre(HasSubstr("not authori")));
}

TEST_F(Attempting, failsWhenTheBrokerClosesInMidPacket) {
  attempt();

  broker_.send(ScriptedBroker::accepted().substr(0, 3));
  broker_.closeConnection();

  EXPECT_EQ(outcome(), "The connection was lost.");
}

TEST_F(Attempting, failsWithTheReasonOfTheSystem) {
  settings_.port = 1;
  connection_ = std::make_unique<Connection>(settings_, told_);

  startConnecting();

  EXPECT_EQ(outcome(), "Connection refused");
}

TEST_F(Attempting, failsWhenItsTimeIsUp) {
  settings_.firstRoundWithin = 200ms;
  const auto before = Clock::now();

  attempt();

  EXPECT_EQ(outcome(), "the broker does not answer");
  EXPECT_GE(Clock::now() - before, 200ms);
  EXPECT_LT(Clock::now() - before, 5s);
  EXPECT_TRUE(broker_.isLeft());
}

TEST_F(Attempting, failsWhenASubscriptionIsNotAnsweredInTime) {
  settings_.firstRoundWithin = 200ms;
  connection().subscribe("a");
  attempt();

  broker_.send(ScriptedBroker::accepted());

  EXPECT_EQ(outcome(), "the broker does not answer");
}

TEST_F(Attempting, sharesTheTimeOfTheRoundAmongTheAddresses) {
  writeHosts("127.0.0.1 twofold\n127.0.0.2 twofold\n");
  settings_.host = "twofold";
  settings_.firstRoundWithin = 2s;
  ScriptedBroker second("127.0.0.2", broker_.port());
  const auto before = Clock::now();

  startConnecting();
  for (int accepted = 0; accepted < 2 && Clock::now() - before < kPatience;) {
    accepted += broker_.accept(10ms) || second.accept(10ms) ? 1 : 0;
  }
  const auto between = Clock::now() - before;

  EXPECT_EQ(outcome(), "the broker does not answer");
  EXPECT_GE(between, 950ms);
  EXPECT_LT(between, 1900ms);
  EXPECT_GE(Clock::now() - before, 2s);
}

TEST_F(Attempting, leavesTheStateIdleWhenItFails) {
  settings_.firstRoundWithin = 100ms;
  attempt();
  EXPECT_EQ(outcome(), "the broker does not answer");

  EXPECT_FALSE(broker_.accept(kShortly));
  EXPECT_EQ(failureOf([&] { connection_->publish("out", "x", 1); }), "publish on \"out\": not connected");
}

TEST_F(Attempting, canBeAskedForAgainAfterAFailure) {
  attempt();
  broker_.send(ScriptedBroker::refused(3));
  EXPECT_THAT(outcome(), Not("none"));

  attempt();
  broker_.send(ScriptedBroker::accepted());

  EXPECT_EQ(outcome(), "none");
}

TEST_F(Attempting, failsForEachCallThatWaits) {
  attempt();
  auto second = std::async(std::launch::async, [this] { return failureOf([&] { connection_->connect(); }); });
  EXPECT_EQ(second.wait_for(kShortly), std::future_status::timeout);

  broker_.send(ScriptedBroker::refused(3));

  EXPECT_EQ(outcome(), second.get());
  EXPECT_FALSE(broker_.accept(kShortly));
}

// Open.

using Open = ConnectionTest;

TEST_F(Open, announcesItsPresenceOnceItIsSubscribed) {
  settings_.presenceTopic = "services/tested/online";
  connection().subscribe("a");
  startConnecting();
  ASSERT_TRUE(broker_.accept());
  broker_.expect(Packet::connect);
  broker_.send(ScriptedBroker::accepted());
  const int id = broker_.expect(Packet::subscribe).id();
  EXPECT_FALSE(broker_.receive(kShortly));

  broker_.send(ScriptedBroker::granted(id));

  const Packet packet = broker_.expect(Packet::publish);
  EXPECT_EQ(packet.topic(), "services/tested/online");
  EXPECT_EQ(packet.payload(), "1");
  EXPECT_EQ(packet.qos(), 1);
  EXPECT_TRUE(packet.retained());
}

TEST_F(Open, announcesNoPresenceWithoutATopicForIt) {
  open();

  EXPECT_FALSE(broker_.receive(kShortly));
}

TEST_F(Open, connectReturnsAtOnce) {
  open();

  EXPECT_EQ(failureOf([&] { connection_->connect(); }), "none");
  EXPECT_FALSE(broker_.accept(kShortly));
}

TEST_F(Open, publishesWithEachQualityOfService) {
  open();
  const auto before = Clock::now();

  for (const int qos : {0, 1, 2}) {
    connection_->publish("out", std::to_string(qos), qos);
    const Packet packet = broker_.expect(Packet::publish);
    EXPECT_EQ(packet.topic(), "out");
    EXPECT_EQ(packet.payload(), std::to_string(qos));
    EXPECT_EQ(packet.qos(), qos);
    EXPECT_FALSE(packet.retained());
    if (qos == 1) {
      broker_.send(ScriptedBroker::acknowledged(packet.id()));
    } else if (qos == 2) {
      broker_.send(ScriptedBroker::received(packet.id()));
      broker_.send(ScriptedBroker::completed(broker_.expect(Packet::pubrel).id()));
    }
    EXPECT_EQ(told_.first(static_cast<std::size_t>(qos) + 2).back(), "delivered out");
  }
  EXPECT_LT(Clock::now() - before, kWithoutIdling);
}

TEST_F(Open, tellsADeliveryOnceThoughItIsAcknowledgedTwice) {
  open();
  connection_->publish("out", "x", 1);
  const int id = broker_.expect(Packet::publish).id();

  broker_.send(ScriptedBroker::acknowledged(id) + ScriptedBroker::acknowledged(id) +
               ScriptedBroker::acknowledged(4711) + ScriptedBroker::message("end", ""));

  EXPECT_THAT(told_.first(3), ElementsAre("opened", "delivered out", "end="));
}

TEST_F(Open, takesAcknowledgementsInAnyOrder) {
  open();
  connection_->publish("first", "x", 1);
  connection_->publish("second", "x", 1);
  const int first = broker_.expect(Packet::publish).id();
  const int second = broker_.expect(Packet::publish).id();

  broker_.send(ScriptedBroker::acknowledged(second) + ScriptedBroker::acknowledged(first));

  EXPECT_THAT(told_.first(3), ElementsAre("opened", "delivered second", "delivered first"));
}

TEST_F(Open, keepsTheMessagesInFlightWithinTheirBound) {
  for (const auto& [qos, bound] : {std::pair(1, 128), std::pair(2, 20)}) {
    settings_.resends = false;
    connection_.reset();
    open();
    for (int i = 0; i < 200; ++i) {
      connection_->publish("out", std::to_string(i), qos);
    }

    const auto packets = receiveAll();
    ASSERT_EQ(packets.size(), static_cast<std::size_t>(bound));
    EXPECT_EQ(packets.back().payload(), std::to_string(bound - 1));

    const int id = packets.front().id();
    broker_.send(qos == 1 ? ScriptedBroker::acknowledged(id) : ScriptedBroker::received(id));
    if (qos == 2) {
      broker_.send(ScriptedBroker::completed(broker_.expect(Packet::pubrel).id()));
    }
    EXPECT_EQ(broker_.expect(Packet::publish).payload(), std::to_string(bound));
    EXPECT_FALSE(broker_.receive(kShortly));
  }
}

TEST_F(Open, hasAReplyOnTheSocketBeforeTheNextMessageIsTold) {
  std::promise<void> mayEnd;
  told_.onMessage = [&](const Message& message) {
    if (message.payload == "slow") {
      mayEnd.get_future().wait();
    }
    connection_->publish("reply", message.payload, 1);
  };
  open();
  for (int i = 0; i < 10; ++i) {  // With so many in flight, libmosquitto reads several packets at once.
    connection_->publish("unacknowledged", "", 1);
    broker_.expect(Packet::publish);
  }

  broker_.send(ScriptedBroker::message("a", "1", 1, 1) + ScriptedBroker::message("a", "2", 1, 2) +
               ScriptedBroker::message("a", "slow", 1, 3));

  std::vector<std::string> replies;
  while (replies.size() < 2) {
    const auto packet = broker_.receive();
    ASSERT_TRUE(packet);
    if (packet->type() == Packet::publish) {
      replies.push_back(packet->payload());
    }
  }
  mayEnd.set_value();
  connection_->close(0s);
  EXPECT_THAT(replies, ElementsAre("1", "2"));
}

TEST_F(Open, writesOnTheThreadThatPublishesWhileItsOwnIsBusy) {
  std::promise<void> running;
  std::promise<void> mayEnd;
  told_.onMessage = [&](const Message&) {
    running.set_value();
    mayEnd.get_future().wait();
  };
  open();
  broker_.send(ScriptedBroker::message("a", "slow"));
  running.get_future().wait();

  connection_->publish("out", "x", 1);

  const auto packet = broker_.receive();
  mayEnd.set_value();
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->payload(), "x");
  connection_->close(0s);
}

TEST_F(Open, tellsWhetherAMessageWasRetained) {
  open();

  broker_.send(ScriptedBroker::message("a", "old", 0, 0, true) + ScriptedBroker::message("a", "new"));

  EXPECT_THAT(told_.first(3), ElementsAre("opened", "a=old retained", "a=new"));
}

TEST_F(Open, tellsAMessageOfQos2Once) {
  open();

  broker_.send(ScriptedBroker::message("a", "1", 2, 5));
  EXPECT_EQ(broker_.expect(Packet::pubrec).id(), 5);
  broker_.send(ScriptedBroker::message("a", "1", 2, 5));
  EXPECT_EQ(broker_.expect(Packet::pubrec).id(), 5);
  broker_.send(ScriptedBroker::packet(0x62, Packet::number(5)));
  EXPECT_EQ(broker_.expect(Packet::pubcomp).id(), 5);
  broker_.send(ScriptedBroker::message("end", ""));

  EXPECT_THAT(told_.first(3), Contains("a=1"));
  EXPECT_THAT(told_.first(3).back(), "end=");
}

TEST_F(Open, acknowledgesAMessageOnceItIsServed) {
  std::promise<void> mayEnd;
  told_.onMessage = [&](const Message&) { mayEnd.get_future().wait(); };
  open();

  broker_.send(ScriptedBroker::message("a", "1", 1, 5));

  EXPECT_FALSE(broker_.receive(kShortly));
  mayEnd.set_value();
  EXPECT_EQ(broker_.expect(Packet::puback).id(), 5);
  connection_->close(0s);
}

TEST_F(Open, carriesMoreThanTheSocketTakesAtOnce) {
  const std::string large(20U << 20U, 'x');
  open();
  const auto before = Clock::now();

  connection_->publish("out", large, 1);

  EXPECT_TRUE(broker_.expect(Packet::publish).payload() == large);
  EXPECT_LT(Clock::now() - before, kWithoutIdling);
}

TEST_F(Open, refusesMoreThanItsBound) {
  const std::string large((1U << 20U) - 3, 'x');
  open();

  for (int i = 0; i < 64; ++i) {
    connection_->publish("out", large, 1);
  }

  EXPECT_EQ(failureOf([&] { connection_->publish("out", "", 1); }),
            "publish on \"out\": too much waits for the broker");
}

TEST_F(Open, refusesTopicsThatMqttDoesNotAllow) {
  open();

  for (const std::string& topic : {std::string("a/+"), std::string("#"), std::string(),
                                   std::string("a\0b", 3), std::string("\xff"), std::string(65536, 'x')}) {
    EXPECT_THAT(failureOf([&] { connection_->publish(topic, "x", 1); }), StartsWith("publish: no topic"));
  }
  for (const std::string& filter : {std::string("a/#/b"), std::string("a+"), std::string()}) {
    EXPECT_THAT(failureOf([&] { connection_->subscribe(filter); }), StartsWith("subscribe: no topic filter"));
  }
}

TEST_F(Open, tellsWhenAllSubscriptionsAreAnswered) {
  open();
  connection_->subscribe("a");
  connection_->subscribe("secret");
  const int first = broker_.expect(Packet::subscribe).id();
  const int second = broker_.expect(Packet::subscribe).id();

  broker_.send(ScriptedBroker::denied(second) + ScriptedBroker::message("x", "") +
               ScriptedBroker::granted(first));

  EXPECT_THAT(told_.first(3), ElementsAre("opened", "x=", "subscribed but secret"));
}

TEST_F(Open, tellsARefusalOnce) {
  open();
  connection_->subscribe("secret");
  broker_.send(ScriptedBroker::denied(broker_.expect(Packet::subscribe).id()));
  ASSERT_EQ(told_.first(2).size(), 2U);
  connection_->subscribe("a");
  broker_.send(ScriptedBroker::granted(broker_.expect(Packet::subscribe).id()));

  EXPECT_THAT(told_.first(3), ElementsAre("opened", "subscribed but secret", "subscribed"));
}

TEST_F(Open, unsubscribesForGood) {
  connection().subscribe("a");
  connection().subscribe("b");
  open(2);

  connection_->unsubscribe("a");
  connection_->unsubscribe("unknown");
  EXPECT_EQ(broker_.expect(Packet::unsubscribe).topicFilter(), "a");
  EXPECT_FALSE(broker_.receive(kShortly));

  broker_.closeConnection();
  broker_.open();
  EXPECT_EQ(broker_.expect(Packet::subscribe).topicFilter(), "b");
  EXPECT_FALSE(broker_.receive(kShortly));
}

TEST_F(Open, tellsTheLossWhenTheBrokerCloses) {
  open();

  broker_.closeConnection();

  EXPECT_THAT(told_.first(2), ElementsAre("opened", "lost: The connection was lost."));
}

TEST_F(Open, tellsTheLossWhenTheBrokerClosesInMidPacket) {
  open();

  broker_.send(ScriptedBroker::message("a", "never whole").substr(0, 8));
  broker_.closeConnection();

  EXPECT_THAT(told_.first(2), ElementsAre("opened", StartsWith("lost: ")));
}

TEST_F(Open, probesASilentConnectionAndGivesItUp) {
  settings_.keepAlive = 5s;
  open();
  const auto before = Clock::now();

  ASSERT_TRUE(broker_.expect(Packet::kPing).body.empty());
  EXPECT_GE(Clock::now() - before, 3s);
  EXPECT_EQ(told_.first(1).size(), 1U);

  EXPECT_THAT(told_.first(2), ElementsAre("opened", StartsWith("lost: ")));
}

/// The options of the socket that this program has to the port.
int socketOption(std::uint16_t port, int option) {
  for (int descriptor = 3; descriptor < 100; ++descriptor) {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
        ntohs(peer.sin_port) == port) {
      int value = -1;
      size = sizeof value;
      getsockopt(descriptor, IPPROTO_TCP, option, &value, &size);
      return value;
    }
  }
  return -1;
}

TEST_F(Open, sendsSmallPacketsAtOnce) {
  open();

  EXPECT_EQ(socketOption(broker_.port(), TCP_NODELAY), 1);
}

TEST_F(Open, acknowledgesPacketsOfTheNetworkAtOnce) {
  open();
  // Replies make the kernel fall back to delayed acknowledgements.
  for (int i = 1; i <= 20; ++i) {
    broker_.send(ScriptedBroker::message("a", "x", 1, i));
    broker_.expect(Packet::puback);
  }

  broker_.send(ScriptedBroker::message("a", "end"));

  ASSERT_EQ(told_.first(22).size(), 22U);
  EXPECT_GE(socketOption(broker_.port(), TCP_QUICKACK), 1);
}

// Pausing.

using Pausing = ConnectionTest;

TEST_F(Pausing, comesBackWithItsSubscriptions) {
  connection().subscribe("a");
  open(1);
  connection_->subscribe("b");
  broker_.send(ScriptedBroker::granted(broker_.expect(Packet::subscribe).id()));
  broker_.closeConnection();

  broker_.open(2);

  EXPECT_THAT(told_.first(4), ElementsAre("opened", "subscribed", StartsWith("lost: "), "opened"));
}

TEST_F(Pausing, forgetsSubscriptionsThatStayedUnanswered) {
  settings_.resends = true;
  connection().subscribe("a");
  open(1);
  connection_->subscribe("b");
  broker_.expect(Packet::subscribe);
  broker_.closeConnection();

  broker_.open(2);

  EXPECT_THAT(told_.first(3), ElementsAre("opened", StartsWith("lost: "), "opened"));
}

TEST_F(Pausing, subscribesToWhatIsAddedMeanwhile) {
  settings_.shortestPause = 200ms;
  open();
  broker_.closeConnection();
  ASSERT_EQ(told_.first(2).size(), 2U);

  connection_->subscribe("a");
  broker_.open(1);

  EXPECT_THAT(told_.first(3), ElementsAre("opened", StartsWith("lost: "), "opened"));
}

TEST_F(Pausing, announcesItsPresenceAgain) {
  settings_.presenceTopic = "services/tested/online";
  open();
  broker_.closeConnection();

  broker_.open();

  EXPECT_EQ(broker_.expect(Packet::publish).payload(), "1");
}

TEST_F(Pausing, triesAgainUntilTheBrokerAccepts) {
  open();
  broker_.closeConnection();
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(broker_.accept());
    broker_.expect(Packet::connect);
    broker_.send(ScriptedBroker::refused(3));
  }

  broker_.open();

  EXPECT_THAT(told_.first(6), ElementsAre("opened", StartsWith("lost: "), StartsWith("failed: "),
                                          StartsWith("failed: "), StartsWith("failed: "), "opened"));
}

TEST_F(Pausing, triesAgainUntilTheBrokerGrantsTheSubscription) {
  connection().subscribe("a");
  open(1);
  broker_.closeConnection();
  ASSERT_TRUE(broker_.accept());
  broker_.expect(Packet::connect);
  broker_.send(ScriptedBroker::accepted());
  broker_.send(ScriptedBroker::denied(broker_.expect(Packet::subscribe).id()));

  broker_.open(1);

  EXPECT_THAT(told_.first(4), ElementsAre("opened", StartsWith("lost: "),
                                          "failed: the broker refuses the subscription to \"a\"", "opened"));
}

TEST_F(Pausing, doublesItsPausesUpToTheLongest) {
  settings_.shortestPause = 100ms;
  settings_.longestPause = 400ms;
  open();
  std::vector<Clock::duration> pauses;
  for (int i = 0; i < 6; ++i) {
    const auto before = Clock::now();
    broker_.closeConnection();
    ASSERT_TRUE(broker_.accept());
    pauses.push_back(Clock::now() - before);
  }

  EXPECT_GE(pauses[0], 100ms);
  EXPECT_GE(pauses[1], 200ms);
  EXPECT_GE(pauses[2], 400ms);
  EXPECT_GE(pauses[5], 400ms);
  EXPECT_LT(pauses[5], 1600ms);
}

TEST_F(Pausing, doublesThePausesOfAConnectionThatBreaksAgainAndAgain) {
  settings_.shortestPause = 100ms;
  settings_.longestPause = 400ms;
  open();
  broker_.closeConnection();
  broker_.open();
  broker_.closeConnection();
  broker_.open();
  const auto before = Clock::now();
  broker_.closeConnection();

  ASSERT_TRUE(broker_.accept());

  EXPECT_GE(Clock::now() - before, 390ms);
}

TEST_F(Pausing, isShortAgainAfterASteadyConnection) {
  settings_.shortestPause = 50ms;
  settings_.longestPause = 10s;
  settings_.steadyAfter = 0s;
  open();
  for (int i = 0; i < 6; ++i) {  // 50 ms each; doubled, 3 s
    broker_.closeConnection();
    broker_.open();
  }
  const auto before = Clock::now();
  broker_.closeConnection();

  ASSERT_TRUE(broker_.accept());

  EXPECT_LT(Clock::now() - before, 2s);
}

TEST_F(Pausing, endsWhenItIsAskedToConnect) {
  settings_.shortestPause = 1h;
  settings_.longestPause = 1h;
  open();
  broker_.closeConnection();
  ASSERT_EQ(told_.first(2).size(), 2U);

  startConnecting();
  broker_.open();

  EXPECT_EQ(outcome(), "none");
}

TEST_F(Pausing, givesAnAttemptTheTimeOfALaterRound) {
  settings_.laterRoundWithin = 100ms;
  open();
  broker_.closeConnection();

  ASSERT_TRUE(broker_.accept());
  const auto before = Clock::now();
  ASSERT_TRUE(broker_.accept());

  EXPECT_LT(Clock::now() - before, 5s);
}

/// Messages that were not acknowledged when the connection broke.
class Unacknowledged : public ConnectionTest {
 protected:
  void loseMessages() {
    settings_.cleanSession = false;
    open();
    for (const int qos : {0, 1, 2, 2}) {
      connection_->publish("out", std::to_string(qos), qos);
    }
    for (int i = 0; i < 3; ++i) {
      broker_.expect(Packet::publish);
    }
    broker_.send(ScriptedBroker::received(broker_.expect(Packet::publish).id()));
    broker_.expect(Packet::pubrel);
    broker_.closeConnection();
    ASSERT_EQ(told_.first(3).size(), 3U);  // opened, delivered (of QoS 0), lost
  }
};

TEST_F(Unacknowledged, areSentAgainWithResends) {
  settings_.resends = true;
  loseMessages();

  broker_.open();

  const Packet first = broker_.expect(Packet::publish);
  const Packet second = broker_.expect(Packet::publish);
  const Packet third = broker_.expect(Packet::pubrel);
  EXPECT_EQ(first.payload(), "1");
  EXPECT_TRUE(first.duplicate());
  EXPECT_EQ(second.payload(), "2");
  EXPECT_TRUE(second.duplicate());
  broker_.send(ScriptedBroker::acknowledged(first.id()) + ScriptedBroker::received(second.id()) +
               ScriptedBroker::completed(third.id()));
  broker_.send(ScriptedBroker::completed(broker_.expect(Packet::pubrel).id()));
  EXPECT_THAT(told_.first(7), ElementsAre("opened", "delivered out", StartsWith("lost: "), "opened",
                                          "delivered out", "delivered out", "delivered out"));
}

TEST_F(Unacknowledged, areForgottenWithoutResends) {
  loseMessages();

  broker_.open();
  ASSERT_EQ(told_.first(4).size(), 4U);
  connection_->publish("out", "new", 1);

  EXPECT_EQ(broker_.expect(Packet::publish).payload(), "new");
}

TEST_F(Unacknowledged, doNotCountForTheBoundOnceForgotten) {
  const std::string large((1U << 20U) - 3, 'x');
  open();
  for (int i = 0; i < 64; ++i) {
    connection_->publish("out", large, 1);
  }
  broker_.closeConnection();
  broker_.open();
  ASSERT_EQ(told_.first(3).size(), 3U);

  EXPECT_EQ(failureOf([&] { connection_->publish("out", "x", 1); }), "none");
}

TEST_F(Pausing, keepsWhatIsPublishedMeanwhileWithResends) {
  settings_.resends = true;
  open();
  broker_.closeConnection();
  ASSERT_EQ(told_.first(2).size(), 2U);
  for (int i = 0; i < 200; ++i) {
    connection_->publish("out", std::to_string(i), 1);
  }

  broker_.open();

  for (int i = 0; i < 200; ++i) {
    const Packet packet = broker_.expect(Packet::publish);
    EXPECT_EQ(packet.payload(), std::to_string(i));
    broker_.send(ScriptedBroker::acknowledged(packet.id()));
  }
}

TEST_F(Pausing, dropsWhatIsPublishedMeanwhileWithoutResends) {
  settings_.shortestPause = 300ms;
  open();
  broker_.closeConnection();
  ASSERT_EQ(told_.first(2).size(), 2U);
  connection_->publish("out", "lost", 1);
  broker_.open();
  ASSERT_EQ(told_.first(3).size(), 3U);

  connection_->publish("out", "new", 1);

  EXPECT_EQ(broker_.expect(Packet::publish).payload(), "new");
}

// Closed.

using Closed = ConnectionTest;

TEST_F(Closed, fromOpenSaysThatItIsAwayAndDisconnects) {
  settings_.presenceTopic = "services/tested/online";
  open();

  connection_->close(kPatience);

  const Packet packet = broker_.expect(Packet::publish);
  EXPECT_EQ(packet.payload(), "0");
  EXPECT_EQ(packet.qos(), 1);
  EXPECT_TRUE(packet.retained());
  broker_.expect(Packet::kDisconnect);
  EXPECT_TRUE(broker_.isLeft());
}

TEST_F(Closed, waitsUntilAllIsAcknowledged) {
  open();
  for (int i = 0; i < 200; ++i) {
    connection_->publish("out", "x", 1);
  }

  auto closed = std::async(std::launch::async, [this] { connection_->close(kPatience); });

  for (int i = 0; i < 199; ++i) {
    broker_.send(ScriptedBroker::acknowledged(broker_.expect(Packet::publish).id()));
  }
  EXPECT_EQ(closed.wait_for(kShortly), std::future_status::timeout);
  const auto acknowledged = Clock::now();
  broker_.send(ScriptedBroker::acknowledged(broker_.expect(Packet::publish).id()));
  broker_.expect(Packet::kDisconnect);
  EXPECT_LT(Clock::now() - acknowledged, kPatience / 2);
  closed.wait();
  EXPECT_EQ(told_.first(201).size(), 201U);
}

TEST_F(Closed, waitsNoLongerThanItWasTold) {
  open();
  connection_->publish("out", "x", 1);
  const auto before = Clock::now();

  connection_->close(300ms);

  EXPECT_GE(Clock::now() - before, 300ms);
  EXPECT_LT(Clock::now() - before, 5s);
}

TEST_F(Closed, waitsForACallThatStillRuns) {
  std::promise<void> running;
  std::promise<void> mayEnd;
  told_.onMessage = [&](const Message&) {
    running.set_value();
    mayEnd.get_future().wait();
  };
  open();
  broker_.send(ScriptedBroker::message("a", "1") + ScriptedBroker::message("a", "2"));
  running.get_future().wait();

  auto closed = std::async(std::launch::async, [this] { connection_->close(0s); });
  EXPECT_EQ(closed.wait_for(kShortly), std::future_status::timeout);
  mayEnd.set_value();
  closed.wait();

  EXPECT_THAT(told_.first(2), ElementsAre("opened", "a=1"));
}

TEST_F(Closed, tellsNothingMoreOfWhatWaits) {
  std::promise<void> posted;
  std::promise<void> running;
  std::promise<void> mayEnd;
  connection().post([&] { posted.get_future().wait(); });
  connection().post([&] {
    running.set_value();
    mayEnd.get_future().wait();
    told_.keep("ran");
  });
  connection().post([&] { told_.keep("late"); });
  posted.set_value();
  running.get_future().wait();

  auto closed = std::async(std::launch::async, [this] { connection_->close(0s); });
  EXPECT_EQ(closed.wait_for(kShortly), std::future_status::timeout);
  mayEnd.set_value();
  closed.wait();

  EXPECT_THAT(told_.first(1), ElementsAre("ran"));
}

TEST_F(Closed, cancelsAConnectThatWaitsForASilentBroker) {
  startConnecting();
  ASSERT_TRUE(broker_.accept());
  const auto before = Clock::now();

  connection_->close(2s);

  EXPECT_EQ(outcome(), "cancelled by a disconnect");
  EXPECT_LT(Clock::now() - before, 1500ms);
}

TEST_F(Closed, doesNotWaitForMessagesOfAConnectionThatWasNeverOpen) {
  settings_.resends = true;
  startConnecting();
  ASSERT_TRUE(broker_.accept());
  connection_->publish("out", "x", 1);
  const auto before = Clock::now();

  connection_->close(kPatience);

  EXPECT_LT(Clock::now() - before, kPatience / 2);
}

TEST_F(Closed, cancelsAConnectThatWaitsInAPause) {
  settings_.laterRoundWithin = 1h;
  open();
  broker_.closeConnection();
  ASSERT_TRUE(broker_.accept());
  startConnecting();
  EXPECT_EQ(connecting_.wait_for(kShortly), std::future_status::timeout);

  connection_->close(0s);

  EXPECT_EQ(outcome(), "cancelled by a disconnect");
}

TEST_F(Closed, staysSo) {
  open();
  connection_->close(0s);
  broker_.expect(Packet::kDisconnect);

  EXPECT_EQ(failureOf([&] { connection_->connect(); }), "cancelled by a disconnect");
  EXPECT_EQ(failureOf([&] { connection_->publish("out", "x", 1); }), "publish on \"out\": not connected");
  connection_->post([this] { told_.keep("worked"); });
  connection_->close(0s);
  EXPECT_THAT(told_.first(1), ElementsAre("opened"));
  EXPECT_FALSE(broker_.accept(kShortly));
}

TEST_F(Closed, fromIdleDoesNothing) {
  connection().close(kPatience);

  EXPECT_FALSE(broker_.accept(kShortly));
}

TEST_F(Closed, mayBeToldByTwoThreads) {
  open();

  auto other = std::async(std::launch::async, [this] { connection_->close(kShortly); });
  connection_->close(kShortly);
  other.wait();

  broker_.expect(Packet::kDisconnect);
}

}  // namespace
}  // namespace mqtt::test
