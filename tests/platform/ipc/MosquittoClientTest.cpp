#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <thread>

#include "ipc/IIPCCallback.h"
#include "ipc/IPCException.h"
#include "ipc/IPCFactory.h"
#include "platform/mqtt/ScriptedBroker.h"
#include "support/Broker.h"
#include "support/LogCapture.h"

namespace ipc {
namespace {

using namespace std::chrono_literals;
using mqtt::test::Packet;
using mqtt::test::ScriptedBroker;
using propertyservice::test::Broker;
using propertyservice::test::LogCapture;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr auto kDeadline = 20s;
constexpr std::size_t kMebibyte = 1U << 20;

using Message = std::pair<std::string, std::string>;  ///< Topic and payload.

/// Keeps what a client is told.
class Recorder : public IIPCCallback {
 public:
  /// Called on the callback thread with each message; set before `connect`.
  std::function<void(const std::string& topic, const std::string& payload)> onMessage;

  void messageArrived(const std::string& topic, const std::string& payload) override {
    record(messages_, Message(topic, payload));
    if (onMessage) {
      onMessage(topic, payload);
    }
  }
  void deliveryComplete(const std::string& topic) override { record(deliveries_, topic); }
  void connectionLost(const std::string& cause) override { record(losses_, cause); }

  /// Wait for `count` of them, or the deadline, and return all.
  std::vector<Message> messages(std::size_t count) { return waitFor(messages_, count); }
  std::vector<std::string> deliveries(std::size_t count) { return waitFor(deliveries_, count); }
  std::vector<std::string> losses(std::size_t count) { return waitFor(losses_, count); }

  /// The payloads alone.
  std::vector<std::string> payloads(std::size_t count) {
    std::vector<std::string> payloads;
    for (const Message& message : messages(count)) {
      payloads.push_back(message.second);
    }
    return payloads;
  }

 private:
  template <typename Item>
  void record(std::vector<Item>& list, Item item) {
    const std::lock_guard lock(mutex_);
    list.push_back(std::move(item));
    changed_.notify_all();
  }

  template <typename Item>
  std::vector<Item> waitFor(const std::vector<Item>& list, std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kDeadline, [&] { return list.size() >= count; });
    return list;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Message> messages_;
  std::vector<std::string> deliveries_;
  std::vector<std::string> losses_;
};

std::shared_ptr<IIPCClient> makeClient(const std::string& name = "tested") {
  return IPCFactory::createInstanceShared(name, "localhost", false);
}

std::vector<std::string> numbers(int count) {
  std::vector<std::string> numbers;
  for (int number = 0; number < count; ++number) {
    numbers.push_back(std::to_string(number));
  }
  return numbers;
}

std::string failureOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const IPCException& exception) {
    return exception.what();
  }
  return "none";
}

/// A broker and a client that, connected, has subscribed to "in/#" with the first recorder.
class BusClient : public testing::Test {
 protected:
  void connect() {
    client_->subscribe("in/#", &recorder_);
    client_->connect(0, 2, "localhost");
  }

  /// From 2.0.12 on it holds a client to 20 messages in flight, and drops what is beyond 1000 in its queue.
  Broker broker_{"allow_anonymous true\nmax_queued_messages 10000\n"};
  Recorder recorder_;
  Recorder second_;
  Recorder third_;
  std::shared_ptr<IIPCClient> client_ = makeClient();
};

/// A client for which no broker is started, but perhaps a scripted one.
class LonelyBusClient : public testing::Test {
 protected:
  static constexpr std::uint16_t kPort = 1883;

  Recorder recorder_;
  std::shared_ptr<IIPCClient> client_ = makeClient();
};

TEST_F(LonelyBusClient, throwsWhenThereIsNoBroker) {
  EXPECT_EQ(failureOf([&] { client_->connect(0, 2, "localhost"); }),
            "connect to localhost: Connection refused");
}

TEST_F(LonelyBusClient, throwsForAHostThatDoesNotExist) {
  EXPECT_THAT(failureOf([&] { client_->connect(0, 2, "no host"); }), HasSubstr("connect to no host: "));
}

TEST_F(LonelyBusClient, connectsAfterAnAttemptThatFailed) {
  EXPECT_THROW(client_->connect(0, 2, "localhost"), IPCException);
  const Broker broker;

  EXPECT_NO_THROW(client_->connect(0, 2, "localhost"));
}

TEST_F(LonelyBusClient, triesEachAddressOfTheHost) {
  std::ofstream("/etc/hosts") << "::1 localhost\n127.0.0.1 localhost\n";
  const Broker broker;

  EXPECT_NO_THROW(client_->connect(0, 2, "localhost"));
}

TEST_F(LonelyBusClient, givesUpABrokerThatStaysSilentFor10Seconds) {
  const ScriptedBroker silent("127.0.0.1", kPort);
  const auto start = std::chrono::steady_clock::now();

  const std::string failure = failureOf([&] { client_->connect(0, 2, "localhost"); });

  EXPECT_EQ(failure, "connect to localhost: the broker does not answer");
  EXPECT_GE(std::chrono::steady_clock::now() - start, 9s);
  EXPECT_LE(std::chrono::steady_clock::now() - start, 15s);
}

TEST_F(LonelyBusClient, throwsWhenTheBrokerRefusesTheConnection) {
  const Broker broker("allow_anonymous false\n");

  EXPECT_THAT(failureOf([&] { client_->connect(0, 2, "localhost"); }), HasSubstr("not authorised"));
}

TEST_F(LonelyBusClient, throwsWhenTheBrokerRefusesASubscription) {
  ScriptedBroker broker("127.0.0.1", kPort);
  client_->subscribe("secret", &recorder_);
  std::future<std::string> failure =
      std::async(std::launch::async, [&] { return failureOf([&] { client_->connect(0, 2, "localhost"); }); });

  ASSERT_TRUE(broker.accept());
  broker.expect(Packet::connect);
  broker.send(ScriptedBroker::accepted());
  broker.send(ScriptedBroker::denied(broker.expect(Packet::subscribe).id()));

  EXPECT_EQ(failure.get(), "connect to localhost: the broker refuses the subscription to \"secret\"");
  EXPECT_EQ(failureOf([&] { client_->publish("out", "x", 1); }), "publish on \"out\": not connected");
}

TEST_F(LonelyBusClient, logsThatTheBrokerRefusesALaterSubscription) {
  LogCapture log;
  ScriptedBroker broker("127.0.0.1", kPort);
  std::future<void> connected = std::async(std::launch::async, [&] { client_->connect(0, 2, "localhost"); });
  broker.open(0, true);
  connected.get();

  client_->subscribe("secret", &recorder_);
  broker.send(ScriptedBroker::denied(broker.expect(Packet::subscribe).id()) +
              ScriptedBroker::message("secret", "x"));

  EXPECT_THAT(recorder_.payloads(1), ElementsAre("x"));
  EXPECT_THAT(log.linesWith("The broker refuses the subscription to \"secret\""), SizeIs(1));
}

TEST_F(LonelyBusClient, logsOnceWhyTheConnectionIsNotBackAndThatItIs) {
  LogCapture log;
  ScriptedBroker broker("127.0.0.1", kPort);
  client_->subscribe("in", &recorder_);
  std::future<void> connected = std::async(std::launch::async, [&] { client_->connect(0, 2, "localhost"); });
  broker.open(1, true);
  connected.get();
  for (int i = 0; i < 3; ++i) {
    broker.closeConnection();
    ASSERT_TRUE(broker.accept());
    broker.expect(Packet::connect);
    broker.send(ScriptedBroker::refused(3));
  }

  broker.open(1, true);
  broker.send(ScriptedBroker::message("in", "x"));

  EXPECT_THAT(recorder_.payloads(1), ElementsAre("x"));
  EXPECT_THAT(log.linesWith("No connection to localhost yet: "), SizeIs(1));
  EXPECT_THAT(log.linesWith("The connection to localhost is back"), SizeIs(1));
}

TEST_F(LonelyBusClient, givesUpConnectingWhenItIsToldToDisconnect) {
  ScriptedBroker silent("127.0.0.1", kPort);
  std::future<std::string> failure =
      std::async(std::launch::async, [&] { return failureOf([&] { client_->connect(0, 2, "localhost"); }); });
  ASSERT_TRUE(silent.accept());
  const auto start = std::chrono::steady_clock::now();

  client_->disconnect();

  EXPECT_EQ(failure.get(), "connect to localhost: cancelled by a disconnect");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
}

TEST_F(LonelyBusClient, answersEachRequestBeforeItServesTheNext) {
  ScriptedBroker broker("127.0.0.1", kPort);
  std::promise<void> mayEnd;
  recorder_.onMessage = [&](const std::string&, const std::string& payload) {
    if (payload == "export") {
      mayEnd.get_future().wait();
    }
    client_->publish("reply", payload, 1);
  };
  client_->subscribe("in", &recorder_);
  std::future<void> connected = std::async(std::launch::async, [&] { client_->connect(0, 2, "localhost"); });
  broker.open(1, true);
  connected.get();

  std::string requests;
  for (int i = 1; i <= 6; ++i) {
    requests += ScriptedBroker::message("in", std::to_string(i), 1, i);
  }
  broker.send(requests + ScriptedBroker::message("in", "export", 1, 7));
  std::vector<std::string> replies;
  while (replies.size() < 6) {
    const auto packet = broker.receive();
    ASSERT_TRUE(packet);
    if (packet->type() == Packet::publish) {
      replies.push_back(packet->payload());
    }
  }
  mayEnd.set_value();
  broker.expect(Packet::publish);

  EXPECT_THAT(replies, ElementsAre("1", "2", "3", "4", "5", "6"));
}

TEST_F(LonelyBusClient, presentsTheCredentialsOfItsName) {
  mkdir("/etc/ipc", 0700);
  std::ofstream("/etc/ipc/tested.credentials") << "tested\nsecret\n";
  chmod("/etc/ipc/tested.credentials", 0600);
  ScriptedBroker broker("127.0.0.1", kPort);
  std::future<std::string> failure =
      std::async(std::launch::async, [&] { return failureOf([&] { client_->connect(0, 2, "localhost"); }); });

  ASSERT_TRUE(broker.accept());

  EXPECT_THAT(broker.expect(Packet::connect).body,
              testing::EndsWith(Packet::text("tested") + Packet::text("secret")));
  broker.send(ScriptedBroker::refused(5));
  failure.wait();
}

TEST_F(LonelyBusClient, saysThatItIsAliveAtTheTimeThatItWasTold) {
  const Broker broker;
  std::atomic<int> times = 0;
  client_ = IPCFactory::createInstanceShared("tested", "localhost", false, [&] {
    ++times;
    return std::chrono::steady_clock::now() + 50ms;
  });
  client_->connect(0, 2, "localhost");
  const int connected = times;

  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  while (times < connected + 10 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }

  EXPECT_GE(times, connected + 10);
}

TEST_F(LonelyBusClient, cannotPublishBeforeItIsConnected) {
  EXPECT_EQ(failureOf([&] { client_->publish("out", "x", 1); }), "publish on \"out\": not connected");
}

TEST_F(LonelyBusClient, disconnectsFromNothing) {
  EXPECT_NO_THROW(client_->disconnect());
}

TEST_F(LonelyBusClient, cannotBeMadeWithoutAName) {
  EXPECT_THROW(makeClient(""), IPCException);
}

TEST_F(BusClient, receivesWhatItHasSubscribedToBeforeConnecting) {
  connect();

  client_->publish("in/a", "hello", 1);

  EXPECT_THAT(recorder_.messages(1), ElementsAre(Message("in/a", "hello")));
}

TEST_F(BusClient, receivesWhatItHasSubscribedToAfterConnecting) {
  client_->connect(0, 2, "localhost");
  client_->subscribe("late", &recorder_);

  client_->publish("late", "hello", 1);

  EXPECT_THAT(recorder_.messages(1), ElementsAre(Message("late", "hello")));
}

TEST_F(BusClient, looksForTheBrokerOnTheHostItWasMadeFor) {
  EXPECT_NO_THROW(client_->connect(0, 2, ""));
}

TEST_F(BusClient, refusesASecondConnection) {
  connect();

  EXPECT_THROW(client_->connect(0, 2, "localhost"), IPCException);
}

TEST_F(BusClient, carriesAnyBytes) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes.push_back(static_cast<char>(byte));
  }
  connect();

  client_->publish("in/a", bytes, 1);

  EXPECT_THAT(recorder_.payloads(1), ElementsAre(bytes));
}

TEST_F(BusClient, carriesNothing) {
  connect();

  client_->publish("in/a", "", 1);

  EXPECT_THAT(recorder_.payloads(1), ElementsAre(""));
}

TEST_F(BusClient, carriesMoreThanTheSocketTakesAtOnce) {
  const std::string large(20 * kMebibyte, 'x');
  connect();

  client_->publish("in/a", large, 1);

  EXPECT_TRUE(recorder_.payloads(1) == std::vector{large});
}

TEST_F(BusClient, publishesFromACallback) {
  recorder_.onMessage = [&](const std::string&, const std::string& payload) {
    client_->publish("reply", payload + payload, 1);
  };
  client_->subscribe("reply", &second_);
  connect();

  client_->publish("in/a", "x", 1);

  EXPECT_THAT(second_.messages(1), ElementsAre(Message("reply", "xx")));
}

TEST_F(BusClient, carriesEveryQualityOfService) {
  connect();

  for (const int qos : {0, 1, 2}) {
    client_->publish("in/a", std::to_string(qos), qos);
  }

  EXPECT_THAT(recorder_.payloads(3), ElementsAre("0", "1", "2"));
  EXPECT_THAT(recorder_.deliveries(3), ElementsAre("in/a", "in/a", "in/a"));
}

TEST_F(BusClient, carriesEveryQualityOfServiceToASubscriptionOfQos1) {
  client_->subscribe("in/#", &recorder_);
  client_->connect(0, 1, "localhost");

  for (const int qos : {0, 1, 2}) {
    client_->publish("in/a", std::to_string(qos), qos);
  }

  EXPECT_THAT(recorder_.payloads(3), ElementsAre("0", "1", "2"));
}

TEST_F(BusClient, keepsTheOrderOfMoreMessagesThanMayBeInFlight) {
  constexpr int kMessages = 2000;
  connect();

  for (const std::string& number : numbers(kMessages)) {
    client_->publish("in/a", number, 1);
  }

  EXPECT_EQ(recorder_.payloads(kMessages), numbers(kMessages));
}

TEST_F(BusClient, keepsTheOrderOfManyMessagesOfQos2) {
  constexpr int kMessages = 1000;
  connect();

  for (const std::string& number : numbers(kMessages)) {
    client_->publish("in/a", number, 2);
  }

  EXPECT_EQ(recorder_.payloads(kMessages), numbers(kMessages));
}

TEST_F(BusClient, keepsTheOrderOfEachThreadThatPublishes) {
  constexpr int kMessages = 500;
  client_->subscribe("second", &second_);
  connect();
  const auto publishAll = [&](const std::string& topic) {
    for (const std::string& number : numbers(kMessages)) {
      client_->publish(topic, number, 1);
    }
  };

  std::thread other(publishAll, "second");
  publishAll("in/a");
  other.join();

  EXPECT_EQ(recorder_.payloads(kMessages), numbers(kMessages));
  EXPECT_EQ(second_.payloads(kMessages), numbers(kMessages));
}

TEST_F(BusClient, tellsACallbackOnceWhereItsFiltersOverlap) {
  client_->subscribe("+/a", &recorder_);
  client_->subscribe("in/a", &recorder_);
  connect();

  client_->publish("in/a", "once", 1);
  client_->publish("in/end", "end", 1);

  EXPECT_THAT(recorder_.payloads(2), ElementsAre("once", "end"));
}

TEST_F(BusClient, tellsEachCallbackWhatItsFiltersMatch) {
  client_->subscribe("+/a", &second_);
  client_->subscribe("end", &second_);
  client_->subscribe("other/+", &third_);
  connect();

  client_->publish("in/a", "1", 1);
  client_->publish("other/a", "2", 1);
  client_->publish("end", "3", 1);

  EXPECT_THAT(second_.payloads(3), ElementsAre("1", "2", "3"));
  EXPECT_THAT(recorder_.payloads(1), ElementsAre("1"));
  EXPECT_THAT(third_.payloads(1), ElementsAre("2"));
}

TEST_F(BusClient, survivesAnExceptionFromACallbackAndLogsIt) {
  LogCapture log;
  recorder_.onMessage = [](const std::string&, const std::string& payload) {
    if (payload == "bad") {
      throw std::runtime_error("went wrong");
    }
  };
  connect();

  client_->publish("in/a", "bad", 1);
  client_->publish("in/a", "good", 1);

  EXPECT_THAT(recorder_.payloads(2), ElementsAre("bad", "good"));
  EXPECT_THAT(log.linesWith("Exception in messageArrived on \"in/a\": went wrong"),
              ElementsAre(HasSubstr("IPC error")));
}

TEST_F(BusClient, survivesAForeignExceptionAndLogsIt) {
  LogCapture log;
  recorder_.onMessage = [](const std::string&, const std::string& payload) {
    if (payload == "bad") {
      throw 1;
    }
  };
  connect();

  client_->publish("in/a", "bad", 1);
  client_->publish("in/a", "good", 1);

  EXPECT_THAT(recorder_.payloads(2), ElementsAre("bad", "good"));
  EXPECT_THAT(log.linesWith("Exception in messageArrived on \"in/a\""), SizeIs(1));
}

TEST_F(BusClient, dropsARetainedMessageAndNamesItsSender) {
  LogCapture log;
  ASSERT_EQ(std::system("mosquitto_pub -t in/panel -m old -q 1 -r"), 0);
  connect();

  client_->publish("in/panel", "new", 1);

  EXPECT_THAT(recorder_.payloads(1), ElementsAre("new"));
  EXPECT_THAT(log.linesWith("Dropped a retained message on \"in/panel\""),
              ElementsAre(HasSubstr("IPC warning")));
}

TEST_F(BusClient, announcesItsPresenceUnlessItHasAUniqueSuffix) {
  const auto watcher = IPCFactory::createInstanceShared("watcher", "localhost", true);
  watcher->subscribe("services/+/online", &second_);
  watcher->connect(1, 1, "localhost");

  connect();
  EXPECT_THAT(second_.messages(1), ElementsAre(Message("services/tested/online", "1")));
  client_->disconnect();

  ASSERT_GE(second_.messages(2).size(), 2U);
  EXPECT_EQ(second_.messages(2)[1], Message("services/tested/online", "0"));
}

TEST_F(BusClient, ignoresBrokenPipesUnlessTheProgramHandlesThem) {
  signal(SIGPIPE, SIG_DFL);
  makeClient("other");
  struct sigaction present {};
  sigaction(SIGPIPE, nullptr, &present);
  EXPECT_EQ(present.sa_handler, SIG_IGN);

  present.sa_handler = [](int) {};
  sigaction(SIGPIPE, &present, nullptr);
  makeClient("other");
  struct sigaction later {};
  sigaction(SIGPIPE, nullptr, &later);
  signal(SIGPIPE, SIG_IGN);

  EXPECT_EQ(later.sa_handler, present.sa_handler);
}

TEST_F(BusClient, tellsEachCallbackOfADelivery) {
  client_->subscribe("other", &second_);
  connect();

  client_->publish("out/a", "x", 1);
  client_->publish("out/b", "x", 2);

  EXPECT_THAT(recorder_.deliveries(2), ElementsAre("out/a", "out/b"));
  EXPECT_THAT(second_.deliveries(2), ElementsAre("out/a", "out/b"));
}

TEST_F(BusClient, tellsOfNoDeliveryThatTheBrokerHasNotAcknowledged) {
  connect();
  broker_.pause();

  client_->publish("out", "x", 1);
  broker_.kill();

  EXPECT_THAT(recorder_.losses(1), SizeIs(1));
  EXPECT_THAT(recorder_.deliveries(0), IsEmpty());
}

TEST_F(BusClient, tellsEachCallbackOnceOfALostConnection) {
  client_->subscribe("other/a", &second_);
  client_->subscribe("other/b", &second_);
  connect();

  broker_.stop();
  EXPECT_THAT(recorder_.losses(1), ElementsAre(testing::Not(IsEmpty())));
  broker_.start();
  client_->publish("in/a", "back", 1);

  EXPECT_THAT(recorder_.payloads(1), ElementsAre("back"));
  EXPECT_THAT(recorder_.losses(1), SizeIs(1));
  EXPECT_THAT(second_.losses(1), SizeIs(1));
}

TEST_F(BusClient, tellsOfEachLoss) {
  connect();

  for (std::size_t loss = 1; loss <= 3; ++loss) {
    broker_.kill();
    EXPECT_THAT(recorder_.losses(loss), SizeIs(loss));
    broker_.start();
    client_->publish("in/a", "back", 1);
    EXPECT_THAT(recorder_.messages(loss), SizeIs(loss));
    EXPECT_THAT(recorder_.deliveries(loss), SizeIs(loss));  // unacknowledged it would come again
  }
}

TEST_F(BusClient, answersWithin5SecondsOfTheBrokersReturn) {
  connect();
  broker_.kill();
  ASSERT_THAT(recorder_.losses(1), SizeIs(1));
  Recorder otherRecorder;
  const auto other = makeClient("other");
  other->subscribe("reply", &otherRecorder);

  broker_.start();
  const auto start = std::chrono::steady_clock::now();
  other->connect(1, 2, "localhost");
  client_->publish("reply", "x", 1);

  EXPECT_THAT(otherRecorder.messages(1), SizeIs(1));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

TEST_F(BusClient, comesBackAfterSomethingThatTookConnectionsAndSaidNothing) {
  connect();
  broker_.kill();
  {
    ScriptedBroker silent("127.0.0.1", 1883);
    ASSERT_TRUE(silent.accept());
    ASSERT_TRUE(silent.accept()) << "the first attempt still waits";
  }

  broker_.start();
  client_->publish("in/a", "back", 1);

  EXPECT_THAT(recorder_.payloads(1), ElementsAre("back"));
}

TEST_F(BusClient, sendsAgainWhatWasNotAcknowledged) {
  connect();
  broker_.pause();
  client_->publish("in/a", "1", 1);
  client_->publish("in/a", "2", 2);
  broker_.kill();
  broker_.start();

  EXPECT_THAT(recorder_.payloads(2), ElementsAre("1", "2"));
  EXPECT_THAT(recorder_.deliveries(2), ElementsAre("in/a", "in/a"));
}

TEST_F(BusClient, sendsWhatWasPublishedWhileTheBrokerWasAway) {
  constexpr int kMessages = 300;
  connect();
  broker_.kill();
  ASSERT_THAT(recorder_.losses(1), SizeIs(1));

  for (const std::string& number : numbers(kMessages)) {
    client_->publish("in/a", number, 1);
  }
  broker_.start();

  EXPECT_EQ(recorder_.payloads(kMessages), numbers(kMessages));
}

TEST_F(BusClient, losesNothingWhenTheBrokerDiesInABurst) {
  constexpr int kMessages = 1000;
  const std::string large(20'000, 'x');
  connect();

  for (int message = 0; message < kMessages; ++message) {
    client_->publish("out", large, 1 + message % 2);
    if (message == kMessages / 2) {
      broker_.kill();
    }
  }
  broker_.start();

  EXPECT_THAT(recorder_.deliveries(kMessages), SizeIs(kMessages));
}

TEST_F(BusClient, getsWhatWasSentWhileItWasAway) {
  connect();
  client_->disconnect();
  const auto other = makeClient("other");
  other->connect(1, 2, "localhost");
  other->publish("in/a", "queued", 1);
  other->disconnect();

  client_->connect(0, 2, "localhost");

  EXPECT_THAT(recorder_.payloads(1), ElementsAre("queued"));
}

TEST_F(BusClient, getsNothingOfItsAbsenceWithACleanSession) {
  client_->subscribe("in/#", &recorder_);
  client_->connect(1, 2, "localhost");
  client_->disconnect();
  const auto other = makeClient("other");
  other->connect(1, 2, "localhost");
  other->publish("in/a", "missed", 1);
  other->disconnect();

  client_->connect(1, 2, "localhost");
  client_->publish("in/a", "present", 1);

  EXPECT_THAT(recorder_.payloads(1), ElementsAre("present"));
}

TEST_F(BusClient, answersWhatWaitedForItBeforeItIsConnected) {
  Recorder replies;
  const auto other = makeClient("other");
  other->subscribe("reply", &replies);
  other->connect(1, 2, "localhost");
  connect();
  client_->disconnect();
  other->publish("in/a", "x", 1);
  recorder_.onMessage = [&](const std::string&, const std::string& payload) {
    client_->publish("reply", payload, 1);
  };

  client_->connect(0, 2, "localhost");

  EXPECT_THAT(replies.payloads(1), ElementsAre("x"));
}

TEST_F(BusClient, takes64MebibytesForABrokerThatIsAway) {
  const std::string large(kMebibyte, 'x');
  connect();
  broker_.kill();
  ASSERT_THAT(recorder_.losses(1), SizeIs(1));

  for (int count = 0; count < 63; ++count) {
    client_->publish("out", large, 1);
  }

  EXPECT_EQ(failureOf([&] { client_->publish("out", large, 1); }),
            "publish on \"out\": too much waits for the broker");
}

TEST_F(BusClient, takesMoreOnceTheBrokerHasAcknowledged) {
  const std::string large(kMebibyte, 'x');
  connect();
  broker_.pause();
  for (int count = 0; count < 63; ++count) {
    client_->publish("out", large, 1);
  }
  EXPECT_THROW(client_->publish("out", large, 1), IPCException);

  broker_.resume();
  EXPECT_THAT(recorder_.deliveries(63), SizeIs(63));

  EXPECT_NO_THROW(client_->publish("out", large, 1));
}

TEST_F(BusClient, refusesToPublishOnWhatIsNoTopic) {
  connect();

  for (const std::string& topic : {std::string("a/+"), std::string("#"), std::string(),
                                   std::string("a\0b", 3), std::string("\xff"), std::string(65536, 'x')}) {
    EXPECT_THROW(client_->publish(topic, "x", 1), IPCException) << topic.substr(0, 10);
  }
}

TEST_F(BusClient, refusesToSubscribeToWhatIsNoTopicFilter) {
  for (const std::string& filter : {std::string("a/#/b"), std::string("a+"), std::string(),
                                    std::string("a\0b", 3), std::string("\xff"), std::string(65536, 'x')}) {
    EXPECT_THROW(client_->subscribe(filter, &recorder_), IPCException) << filter.substr(0, 10);
  }
}

TEST_F(BusClient, refusesAQualityOfServiceThatDoesNotExist) {
  EXPECT_THROW(client_->connect(0, 3, "localhost"), IPCException);
  connect();

  EXPECT_THROW(client_->publish("out", "x", 3), IPCException);
  EXPECT_THROW(client_->publish("out", "x", -1), IPCException);
}

TEST_F(BusClient, cannotPublishOnceItIsDisconnected) {
  connect();

  client_->disconnect();

  EXPECT_EQ(failureOf([&] { client_->publish("out", "x", 1); }), "publish on \"out\": not connected");
}

TEST_F(BusClient, disconnectsOnlyOnceAllIsAcknowledged) {
  Recorder other;
  const auto listener = makeClient("listener");
  listener->subscribe("out", &other);
  listener->connect(1, 2, "localhost");
  connect();
  broker_.pause();
  for (const std::string& number : numbers(300)) {
    client_->publish("out", number, 1);
  }

  std::future<void> disconnected = std::async(std::launch::async, [&] { client_->disconnect(); });
  broker_.resume();
  disconnected.get();

  EXPECT_THAT(recorder_.deliveries(0), SizeIs(300));
  EXPECT_EQ(other.payloads(300), numbers(300));
}

TEST_F(BusClient, disconnectsFromASilentBrokerAfter2Seconds) {
  connect();
  broker_.pause();
  client_->publish("out", "x", 1);
  const auto start = std::chrono::steady_clock::now();

  client_->disconnect();

  EXPECT_GE(std::chrono::steady_clock::now() - start, 1900ms);
  EXPECT_LE(std::chrono::steady_clock::now() - start, 5s);
}

TEST_F(BusClient, disconnectsWhileTheBrokerIsAway) {
  connect();
  broker_.kill();
  ASSERT_THAT(recorder_.losses(1), SizeIs(1));

  EXPECT_NO_THROW(client_->disconnect());
}

TEST_F(BusClient, tellsNothingOnceItIsDisconnected) {
  std::atomic<bool> disconnected = false;
  std::atomic<bool> toldLate = false;
  recorder_.onMessage = [&](const std::string&, const std::string&) {
    if (disconnected) {
      toldLate = true;
    }
  };
  connect();
  const auto other = makeClient("other");
  other->connect(1, 2, "localhost");
  for (const std::string& number : numbers(1000)) {
    other->publish("in/a", number, 0);
  }
  recorder_.messages(1);

  client_->disconnect();
  disconnected = true;
  other->publish("in/a", "late", 1);
  other->disconnect();

  EXPECT_FALSE(toldLate);
}

TEST_F(BusClient, waitsForACallbackThatStillRuns) {
  std::promise<void> running;
  std::promise<void> mayEnd;
  std::atomic<bool> ended = false;
  recorder_.onMessage = [&](const std::string&, const std::string&) {
    running.set_value();
    mayEnd.get_future().wait();
    ended = true;
  };
  connect();
  client_->publish("in/a", "x", 1);
  running.get_future().wait();

  std::future<void> disconnected = std::async(std::launch::async, [&] { client_->disconnect(); });
  mayEnd.set_value();
  disconnected.get();

  EXPECT_TRUE(ended);
}

TEST_F(BusClient, connectsAgainAfterADisconnection) {
  connect();
  client_->disconnect();

  client_->connect(0, 2, "localhost");
  client_->publish("in/a", "again", 1);

  EXPECT_THAT(recorder_.payloads(1), ElementsAre("again"));
}

TEST_F(BusClient, isAloneWithItsUniqueSuffix) {
  const auto first = IPCFactory::createInstanceShared("same", "localhost", true);
  const auto second = IPCFactory::createInstanceShared("same", "localhost", true);
  first->subscribe("in/#", &recorder_);
  first->connect(1, 2, "localhost");

  second->connect(1, 2, "localhost");
  second->publish("in/a", "x", 1);

  EXPECT_THAT(recorder_.payloads(1), ElementsAre("x"));
  EXPECT_THAT(recorder_.losses(0), IsEmpty());
}

}  // namespace
}  // namespace ipc
