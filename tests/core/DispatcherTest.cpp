#include <atomic>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <thread>
#include <unistd.h>

#include "common/Signal.h"
#include "core/Dispatcher.h"
#include "support/DispatcherFixture.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"

namespace propertyservice {
namespace {

using test::FakeIPCClient;
using test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t kMebibyte = 1024 * 1024;

/// A request for the value of "A" of exactly `size` bytes.
std::string requestOfSize(std::size_t size) {
  const std::string request = R"({"method":"getV","param":"A"})";
  return request + std::string(size - request.size(), ' ');
}

class DispatcherTest : public test::DispatcherFixture {
 protected:
  DispatcherTest() { database->add({{"key", "A"}, {"value", "x"}}); }

  void expectInvalid(const std::string& payload) {
    LogCapture log;

    EXPECT_EQ(askText(payload), "") << payload.substr(0, 80);

    EXPECT_EQ(log.linesWith("error core/Dispatcher:").size(), 1U) << payload.substr(0, 80);
    EXPECT_EQ(log.linesWith("Invalid message: ").size(), 1U) << payload.substr(0, 80);
  }
};

TEST_F(DispatcherTest, answersOnOneCompactLine) {
  EXPECT_EQ(askText(R"({ "method" : "getV", "param" : "A" })"),
            "{\"param\":\"A\",\"result\":\"x\",\"status\":\"Ok\"}\n");
}

TEST_F(DispatcherTest, swapsTheTopicAtItsFirstSlashForTheReply) {
  dispatcher.messageArrived("a/b/c", R"({"method":"getV","param":"A"})");

  EXPECT_THAT(client->published(),
              ElementsAre(FakeIPCClient::Message{
                  "b/c/a", "{\"param\":\"A\",\"result\":\"x\",\"status\":\"Ok\"}\n", 1}));
}

TEST_F(DispatcherTest, handlesWithoutAnsweringWhatComesOnATopicWithoutASlash) {
  LogCapture log;

  dispatcher.messageArrived("panel", R"({"method":"setV","param":"A","value":"y"})");
  dispatcher.messageArrived("", R"({"method":"setV","param":"A","value":"z"})");

  EXPECT_EQ(database->valueOf("A"), "z");
  EXPECT_EQ(messenger->notified.size(), 2U);
  EXPECT_THAT(client->published(), IsEmpty());
  EXPECT_EQ(log.text(), "");
}

TEST_F(DispatcherTest, dropsARequestThatWouldBeAnsweredOnItsOwnTopic) {
  LogCapture log;

  dispatcher.messageArrived("prop-service/prop-service", R"({"method":"setV","param":"A","value":"y"})");

  EXPECT_EQ(database->valueOf("A"), "x");
  EXPECT_THAT(client->published(), IsEmpty());
  EXPECT_EQ(log.linesWith("error core/Dispatcher:").size(), 1U);
  EXPECT_EQ(log.linesWith("Invalid message: {\"method\":\"setV\"").size(), 1U);
}

TEST_F(DispatcherTest, logsTextThatIsNoJsonWithoutAnswering) {
  for (const std::string payload : {"", "\xEF\xBB\xBF{}", "{", "no json", "{\"method\":\"getV\",}",
                                    "{\"method\":\"getV\",\"param\":\"A\"", "{\"a\":NaN}", "{\"a\":1e999}"}) {
    expectInvalid(payload);
  }
}

TEST_F(DispatcherTest, logsJsonThatIsNoObjectWithoutAnswering) {
  for (const std::string payload : {"null", "true", "1", "\"text\"", "[]", "[{\"method\":\"getV\"}]"}) {
    expectInvalid(payload);
  }
}

TEST_F(DispatcherTest, logsNestingThatIsTooDeepWithoutAnswering) {
  for (const int depth : {101, 100'000}) {
    std::string objects;
    for (int i = 0; i < depth; ++i) {
      objects += "{\"a\":";
    }

    expectInvalid(objects);
    expectInvalid("{\"a\":" + std::string(static_cast<std::size_t>(depth), '['));
  }
}

TEST_F(DispatcherTest, readsPayloadsUpToOneMebibyte) {
  EXPECT_EQ(ask(requestOfSize(kMebibyte))["result"], Json::Value("x"));

  expectInvalid(requestOfSize(kMebibyte + 1));
}

TEST_F(DispatcherTest, showsTheStartOfALongPayloadInTheLog) {
  LogCapture log;

  askText(std::string(1'000'000, 'x'));

  EXPECT_LT(log.text().size(), 5000U);
  EXPECT_EQ(log.linesWith("(1000000 bytes)").size(), 1U);
}

TEST_F(DispatcherTest, readsARequestFullOfComments) {
  std::string comments;
  while (comments.size() < 64 * 1024) {
    comments += "/**/";
  }

  EXPECT_EQ(ask("{\"method\":\"getV\"," + comments + "\"param\":\"A\"}")["result"], Json::Value("x"));
}

TEST_F(DispatcherTest, ignoresWhatStandsBehindTheRequest) {
  EXPECT_EQ(ask(R"({"method":"getV","param":"A"}{} rest)")["result"], Json::Value("x"));
}

TEST_F(DispatcherTest, takesTheLastOfTwoMembersOfOneName) {
  EXPECT_EQ(ask(R"({"method":"setV","method":"getV","param":"B","param":"A"})")["result"], Json::Value("x"));
}

TEST_F(DispatcherTest, answersWhetherItIsAlive) {
  LogCapture log;

  EXPECT_EQ(askText(R"({"param":"Are you alive?"})"), "{\"param\":\"Ok\"}\n");

  EXPECT_EQ(log.text(), "");
}

TEST_F(DispatcherTest, answersWhetherItIsAliveUnderAnUnknownRequestName) {
  EXPECT_EQ(askText(R"({"method":"ping","param":"Are you alive?"})"), "{\"param\":\"Ok\"}\n");
}

TEST_F(DispatcherTest, prefersAKnownRequestNameToTheQuestionWhetherItIsAlive) {
  EXPECT_EQ(ask(R"({"method":"getV","param":"Are you alive?"})"),
            jsonOf(R"({"param":"Are you alive?","status":"NotFound"})"));
}

TEST_F(DispatcherTest, refusesAnUnknownRequestName) {
  LogCapture log;

  EXPECT_EQ(askText(R"({"method":"getv","param":"A"})"), "{\"status\":\"InvalidRequest\"}\n");

  EXPECT_EQ(log.linesWith("error core/Dispatcher:").size(), 1U);
  EXPECT_EQ(log.linesWith("Unknown request: \"getv\"").size(), 1U);
}

TEST_F(DispatcherTest, refusesAMissingRequestName) {
  LogCapture log;

  EXPECT_EQ(askText("{}"), "{\"status\":\"InvalidRequest\"}\n");

  EXPECT_EQ(log.linesWith("Unknown request: null").size(), 1U);
}

TEST_F(DispatcherTest, refusesARequestNameThatIsNoText) {
  for (const std::string name : {"null", "1", "2147483648", "-1", "1e308", "true", "[]", "[\"getV\"]", "{}",
                                 "{\"getV\":\"getV\"}", "\"\"", "\"getV\\u0000\"", "\"\xFF\""}) {
    LogCapture log;

    EXPECT_EQ(askText("{\"method\":" + name + ",\"param\":\"A\"}"), "{\"status\":\"InvalidRequest\"}\n")
        << name;

    EXPECT_EQ(log.linesWith("Unknown request: ").size(), 1U) << name;
  }
}

TEST_F(DispatcherTest, showsTheStartOfALongRequestNameInTheLog) {
  LogCapture log;

  ask("{\"method\":\"" + std::string(100'000, 'x') + "\"}");

  EXPECT_LT(log.text().size(), 5000U);
}

TEST_F(DispatcherTest, takesNothingButTheTextForTheQuestionWhetherItIsAlive) {
  for (const std::string param : {"null", "1", "true", "[\"Are you alive?\"]", "{}", "\"are you alive?\""}) {
    EXPECT_EQ(ask("{\"param\":" + param + "}"), jsonOf(R"({"status":"InvalidRequest"})")) << param;
  }
}

TEST_F(DispatcherTest, knowsElevenRequests) {
  for (const std::string name :
       {"getV", "setV", "getColsL", "setVList", "resetVal", "getProvDump", "makeBackup",
        "prepareVersionChange", "prepareFactoryReset", "makeSysdump", "restore"}) {
    LogCapture log;

    EXPECT_NE(askText("{\"method\":\"" + name + "\"}"), "") << name;

    EXPECT_THAT(log.linesWith("Unknown request"), IsEmpty()) << name;
  }
}

TEST_F(DispatcherTest, letsOutWhatAHandlerThrows) {
  EXPECT_THROW(askText(R"({"method":"getV","param":[1]})"), Json::LogicError);

  EXPECT_THAT(client->published(), IsEmpty());
}

TEST_F(DispatcherTest, logsWhichRequestOfWhomAHandlerThrewAt) {
  LogCapture log;

  EXPECT_ANY_THROW(askText(R"({"method":"getV","param":[1]})"));

  EXPECT_EQ(log.linesWith("error core/Dispatcher:").size(), 1U);
  EXPECT_EQ(log.linesWith("No reply to \"getV\" of \"panel\": Type is not convertible to string").size(), 1U);
}

TEST_F(DispatcherTest, letsOutWhatTheBusThrows) {
  client->failing = "publish";

  EXPECT_THROW(askText(R"({"method":"getV","param":"A"})"), ipc::IPCException);
}

TEST_F(DispatcherTest, servesTheNextRequestAfterOneThatThrew) {
  EXPECT_THROW(askText(R"({"method":"setVList","list":{"A":[1]}})"), Json::LogicError);

  EXPECT_EQ(ask(R"({"method":"getV","param":"A"})")["result"], Json::Value("x"));
}

TEST_F(DispatcherTest, logsAStatusWithoutATextAndAnswersAnEmptyOne) {
  LogCapture log;
  backup->result = static_cast<Status>(10);

  EXPECT_EQ(askText(R"({"method":"makeSysdump"})"), "{\"status\":\"\"}\n");

  EXPECT_EQ(log.linesWith("error ").size(), 1U);
  EXPECT_EQ(log.linesWith("Status conversion to string failed").size(), 1U);
}

TEST_F(DispatcherTest, logsALostConnectionAndServesOn) {
  LogCapture log;

  dispatcher.connectionLost("broker gone");

  EXPECT_EQ(ask(R"({"method":"getV","param":"A"})")["status"], Json::Value("Ok"));
  EXPECT_EQ(log.linesWith("error core/Dispatcher:").size(), 1U);
  EXPECT_EQ(log.linesWith("Connection lost due to: broker gone").size(), 1U);
  EXPECT_THAT(client->calls, IsEmpty());
}

TEST_F(DispatcherTest, logsACompletedDelivery) {
  LogCapture log;

  dispatcher.deliveryComplete("prop-service/panel");

  EXPECT_EQ(log.linesWith("info core/Dispatcher:").size(), 1U);
  EXPECT_EQ(log.linesWith("Delivery completed on topic \"prop-service/panel\"").size(), 1U);
}

TEST_F(DispatcherTest, showsTheStartOfALongTopicInTheLog) {
  LogCapture log;

  dispatcher.deliveryComplete("prop-service/" + std::string(60'000, 'x'));

  EXPECT_EQ(log.linesWith("Delivery completed on topic \"prop-service/xxx").size(), 1U);
  EXPECT_LT(log.text().size(), 5000U);
}

/// Serves without waiting for a termination.
class BriefDispatcher : public Dispatcher {
 public:
  explicit BriefDispatcher(std::shared_ptr<FakeIPCClient> client)
      : Dispatcher(client, nullptr, nullptr, nullptr), client_(std::move(client)) {}

  void waitForShutdown() override {
    client_->calls.emplace_back("waitForShutdown");
    client_->failIf("waitForShutdown");
  }

 private:
  const std::shared_ptr<FakeIPCClient> client_;
};

class DispatcherRunTest : public testing::Test {
 protected:
  void expectFailureOf(const std::string& operation) {
    LogCapture log;
    client->failing = operation;

    EXPECT_THROW(
        {
          try {
            dispatcher.run();
          } catch (const ipc::IPCException&) {
            ADD_FAILURE() << "the bus's own exception came through";
          } catch (const std::runtime_error& error) {
            EXPECT_EQ(error.what(), operation + " failed");
            throw;
          }
        },
        std::runtime_error);

    EXPECT_EQ(log.linesWith("error core/Dispatcher:").size(), 1U);
    EXPECT_EQ(log.linesWith(operation + " failed").size(), 1U);
  }

  const std::shared_ptr<FakeIPCClient> client = std::make_shared<FakeIPCClient>();
  BriefDispatcher dispatcher{client};
};

TEST_F(DispatcherRunTest, subscribesConnectsWaitsAndDisconnects) {
  dispatcher.run();

  EXPECT_THAT(client->calls, ElementsAre("subscribe +/prop-service", "connect 0 2 localhost",
                                         "waitForShutdown", "disconnect"));
  EXPECT_EQ(client->subscriber, &dispatcher);
}

TEST_F(DispatcherRunTest, failsWithTheSubscription) {
  expectFailureOf("subscribe");

  EXPECT_THAT(client->calls, ElementsAre("subscribe +/prop-service"));
}

TEST_F(DispatcherRunTest, failsWithTheConnection) {
  expectFailureOf("connect");

  EXPECT_THAT(client->calls, ElementsAre("subscribe +/prop-service", "connect 0 2 localhost"));
}

TEST_F(DispatcherRunTest, failsWithTheWait) {
  expectFailureOf("waitForShutdown");

  EXPECT_THAT(client->calls,
              ElementsAre("subscribe +/prop-service", "connect 0 2 localhost", "waitForShutdown"));
}

TEST_F(DispatcherRunTest, failsWithTheDisconnection) {
  expectFailureOf("disconnect");
}

TEST(DispatcherStop, announcesEverythingBeforeItDisconnects) {
  /// A queue that is emptied by the stop alone.
  class SlowMessenger : public test::FakeMessenger {
   public:
    explicit SlowMessenger(FakeIPCClient& client) : client_(client) {}
    void stop() override { client_.calls.emplace_back("stop"); }

   private:
    FakeIPCClient& client_;
  };
  class Brief : public Dispatcher {
   public:
    using Dispatcher::Dispatcher;
    void waitForShutdown() override {}
  };
  const auto client = std::make_shared<FakeIPCClient>();
  Brief dispatcher(client, nullptr, nullptr, std::make_unique<SlowMessenger>(*client));

  dispatcher.run();

  EXPECT_THAT(client->calls,
              ElementsAre("subscribe +/prop-service", "connect 0 2 localhost", "stop", "disconnect"));
}

/// A broker that never answers: only a disconnect ends the connect.
class SilentBus : public FakeIPCClient {
 public:
  void connect(int /*cleanSession*/, int /*maxQos*/, const std::string& /*host*/) override {
    connecting = true;
    test::eventually([this] { return disconnected.load(); }, std::chrono::minutes(1));
    throw ipc::IPCException("connect: cancelled");
  }
  void disconnect() override { disconnected = true; }

  std::atomic<bool> connecting = false;
  std::atomic<bool> disconnected = false;
};

TEST(DispatcherStop, cancelsAConnectThatWaits) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // signals belong to a process
  EXPECT_EXIT(
      {
        const auto bus = std::make_shared<SilentBus>();
        Dispatcher dispatcher(bus, nullptr, nullptr, nullptr);
        common::signal::registerHandler();
        common::signal::registerCustomHandler(SIGTERM, terminate);
        std::thread main([&dispatcher] { dispatcher.run(); });
        test::eventually([&bus] { return bus->connecting.load(); });

        kill(getpid(), SIGTERM);

        main.join();
        _exit(0);
      },
      testing::ExitedWithCode(0), "Ending: connect: cancelled");
}

TEST_F(DispatcherTest, waitsUntilItIsTerminated) {
  std::atomic<bool> ended = false;
  std::thread waiter([&] {
    dispatcher.waitForShutdown();
    ended = true;
  });

  // A termination is announced again and again: one that comes before the wait is lost.
  const bool terminated = test::eventually([&] {
    terminate(15);
    return ended.load();
  });

  ASSERT_TRUE(terminated);
  waiter.join();
}

}  // namespace
}  // namespace propertyservice
