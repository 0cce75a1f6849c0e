#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <future>
#include <mutex>
#include <thread>

#include "client/propclient/Told.h"
#include "propclient/Client.h"
#include "support/Device.h"
#include "support/TcpProxy.h"

// The client with a real broker and the daemon.

namespace propclient {
namespace {

using namespace std::chrono_literals;
using propertyservice::test::Broker;
using propertyservice::test::Device;
using propertyservice::test::eventually;
using propertyservice::test::TcpProxy;
using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;

/// For answers that are to come, however slow the machine.
constexpr auto kPatience = 20s;

/// For answers that never come.
constexpr auto kShortly = 300ms;

constexpr std::uint16_t kProxyPort = 1884;

Options options(std::chrono::milliseconds timeout = kPatience, std::uint16_t port = 1883) {
  return {.port = port, .name = "editor", .timeout = timeout};
}

class ClientTest : public testing::Test {
 protected:
  ClientTest() {
    device_.start();
    client_.connect();
  }

  /// Returns when the daemon does nothing any more.
  void pauseDaemon() {
    device_.daemon().signal(SIGSTOP);
    ASSERT_TRUE(eventually([&] {
      const std::filesystem::directory_iterator threads("/proc/" + std::to_string(device_.daemon().pid()) +
                                                        "/task");
      return std::all_of(begin(threads), end(threads), [](const auto& thread) {
        return Device::readFile(thread.path() / "stat").find(") T ") != std::string::npos;
      });
    }));
  }

  void resumeDaemon() { device_.daemon().signal(SIGCONT); }

  Device device_;
  Client client_{options()};
};

TEST_F(ClientTest, pings) {
  EXPECT_TRUE(client_.ping().ok());
}

TEST_F(ClientTest, getsAValue) {
  const auto answer = client_.get("Audio.Volume");

  EXPECT_EQ(answer.status, Status::ok);
  EXPECT_EQ(answer.value, "5");
}

TEST_F(ClientTest, getsAValueByItsAliases) {
  EXPECT_EQ(client_.get("volume", Field::web).value, "5");
  EXPECT_EQ(client_.get("P_VOLUME", Field::provisioning).value, "5");
}

TEST_F(ClientTest, findsNoPropertyOfThatName) {
  EXPECT_EQ(client_.get("Audio.Loudness").status, Status::notFound);
  EXPECT_EQ(client_.get("loudness", Field::web).status, Status::notFound);
  EXPECT_EQ(client_.get("A\xff").status, Status::notFound);
  EXPECT_EQ(client_.get("State.Nothing").status, Status::notFound);
}

TEST_F(ClientTest, setsAValueWithItsBlanks) {
  EXPECT_TRUE(client_.set("Audio.Ringtone", " two  words ").ok());

  EXPECT_EQ(device_.getValue("Audio.Ringtone"), " two  words ");
}

TEST_F(ClientTest, setsAValueByItsAlias) {
  EXPECT_TRUE(client_.set("volume", "7", Field::web).ok());

  EXPECT_EQ(device_.getValue("Audio.Volume"), "7");
}

TEST_F(ClientTest, setsAnEmptyValue) {
  EXPECT_TRUE(client_.set("Audio.Ringtone", "").ok());

  EXPECT_EQ(client_.get("Audio.Ringtone").value, "");
}

TEST_F(ClientTest, tellsWhyAValueIsRefused) {
  EXPECT_EQ(client_.set("Audio.Volume", "11").status, Status::valueOutOfBounds);
  EXPECT_EQ(client_.set("Audio.Codec", "mp3").status, Status::valueError);
  EXPECT_EQ(client_.set("Audio.Ringtone", "\xff").status, Status::valueError);
  EXPECT_EQ(client_.set("NET.General.Hostname", "No Name").status, Status::regExpError);
  EXPECT_EQ(client_.set("System.ReadOnly", "x").status, Status::readOnly);
  EXPECT_EQ(client_.set("Audio.Loudness", "x").status, Status::notFound);
}

TEST_F(ClientTest, keepsTextOutsideAscii) {
  ASSERT_TRUE(client_.set("Audio.Ringtone", "Gr\u00fc\u00dfe \u266b").ok());

  EXPECT_EQ(client_.get("Audio.Ringtone").value, "Gr\u00fc\u00dfe \u266b");
}

TEST_F(ClientTest, writesReadsAndRemovesAVolatileKey) {
  EXPECT_TRUE(client_.set("State.Call", "ringing").ok());
  EXPECT_EQ(client_.get("State.Call").value, "ringing");

  EXPECT_TRUE(client_.reset("State.Call").ok());

  EXPECT_EQ(client_.get("State.Call").status, Status::notFound);
}

TEST_F(ClientTest, listsChosenColumns) {
  const auto answer = client_.list("Audio.V%", {"key", "value", "flags", "range_max"});

  ASSERT_EQ(answer.status, Status::ok);
  ASSERT_EQ(answer.value.size(), 1U);
  EXPECT_THAT(answer.value[0], UnorderedElementsAre(Pair("key", "Audio.Volume"), Pair("value", "5"),
                                                    Pair("flags", "8"), Pair("range_max", "10")));
}

TEST_F(ClientTest, listsAllColumnsByDefault) {
  const auto answer = client_.list("vol%", {}, Field::web);

  ASSERT_EQ(answer.value.size(), 1U);
  EXPECT_EQ(answer.value[0].at("provisioning"), "P_VOLUME");
  EXPECT_EQ(answer.value[0].count("regexp"), 0U);
}

TEST_F(ClientTest, findsNothingThatMatches) {
  EXPECT_EQ(client_.list("Nothing.%").status, Status::notFound);
  EXPECT_EQ(client_.list("State.%").status, Status::notFound);
}

TEST_F(ClientTest, setsAListAsTheDaemonDoes) {
  EXPECT_TRUE(client_.setList({{"Audio.Ringtone", "two words"}, {"Audio.Volume", "99"}}).ok());

  EXPECT_EQ(client_.get("Audio.Ringtone").value, "twowords");
  EXPECT_EQ(client_.get("Audio.Volume").value, "5");
}

TEST_F(ClientTest, tellsWhyAListIsRefused) {
  EXPECT_EQ(client_.setList({{"Audio.Volume", "99"}}).status, Status::valueOutOfBounds);
  EXPECT_EQ(client_.setList({}).status, Status::invalidRequest);
}

TEST_F(ClientTest, setsEachByItself) {
  const auto statuses = client_.setEach(
      {{"Audio.Ringtone", "two words"}, {"Audio.Volume", "99"}, {"State.Call", "x"}, {"Nothing", "x"}});

  EXPECT_THAT(
      statuses,
      UnorderedElementsAre(Pair("Audio.Ringtone", Status::ok), Pair("Audio.Volume", Status::valueOutOfBounds),
                           Pair("State.Call", Status::ok), Pair("Nothing", Status::notFound)));
  EXPECT_EQ(client_.get("Audio.Ringtone").value, "two words");
}

TEST_F(ClientTest, resetsOneOrAllThatMatch) {
  ASSERT_TRUE(client_.set("Audio.Ringtone", "x").ok());

  EXPECT_TRUE(client_.reset("Audio.%").ok());

  EXPECT_EQ(client_.get("Audio.Ringtone").value, "bell");
  EXPECT_EQ(client_.get("Audio.Volume").value, "4");
  EXPECT_EQ(client_.reset("Nothing").status, Status::notFound);
  EXPECT_EQ(client_.reset("Nothing.%").status, Status::notFound);
}

TEST_F(ClientTest, dumpsForProvisioning) {
  EXPECT_THAT(client_.provisioningDump().value,
              UnorderedElementsAre(Pair("P_VOLUME", "5"), Pair("P_HOSTNAME", "desk")));
}

TEST_F(ClientTest, makesABackupAndRestoresIt) {
  ASSERT_TRUE(client_.makeBackup().ok());
  ASSERT_TRUE(Device::exists(Device::kUserBackup));
  ASSERT_TRUE(client_.set("Audio.Volume", "9").ok());

  EXPECT_TRUE(client_.restore().ok());

  EXPECT_EQ(client_.get("Audio.Volume").value, "5");
  EXPECT_FALSE(Device::exists(Device::kUserBackup));
}

TEST_F(ClientTest, makesABackupOfAllSettings) {
  ASSERT_TRUE(client_.makeBackup(false).ok());
  const std::string user = Device::readFile(Device::kUserBackup);

  ASSERT_TRUE(client_.makeBackup(true).ok());

  EXPECT_GT(Device::readFile(Device::kUserBackup).size(), user.size());
}

TEST_F(ClientTest, preparesAndDumps) {
  EXPECT_TRUE(client_.prepareVersionChange().ok());
  EXPECT_TRUE(Device::exists(Device::kVersionChangeBackup));
  EXPECT_TRUE(client_.prepareFactoryReset().ok());
  EXPECT_TRUE(Device::exists(Device::kFactoryResetBackup));
  EXPECT_TRUE(client_.makeSysdump().ok());
  EXPECT_TRUE(Device::exists(Device::kSysdump));
}

TEST_F(ClientTest, answersAThousandRequestsInTheirOrder) {
  constexpr int kRequests = 1000;
  std::vector<std::string> answers;
  std::promise<void> done;

  for (int i = 0; i < kRequests; ++i) {
    const std::string key = "State." + std::to_string(i);
    client_.set(key, std::to_string(i), Field::key, [](const auto&) {});
    client_.get(key, Field::key, [&](const Answer<std::string>& answer) {
      answers.push_back(answer.value);
      if (answers.size() == kRequests) {
        done.set_value();
      }
    });
  }
  ASSERT_EQ(done.get_future().wait_for(kPatience), std::future_status::ready);

  for (int i = 0; i < kRequests; ++i) {
    EXPECT_EQ(answers[static_cast<std::size_t>(i)], std::to_string(i));
  }
}

TEST_F(ClientTest, servesManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  std::atomic<int> right = 0;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      const std::string key = "State.Thread" + std::to_string(i);
      for (int n = 0; n < 20; ++n) {
        client_.set(key, std::to_string(n));
        right += client_.get(key).value == std::to_string(n) ? 1 : 0;
      }
    });
  }

  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(right, 8 * 20);
}

TEST_F(ClientTest, callsBackOnAThreadOfItsOwnFromWhichItMayBeAskedAgain) {
  std::promise<std::thread::id> first;
  std::promise<std::thread::id> second;

  client_.ping([&](const auto&) {
    first.set_value(std::this_thread::get_id());
    client_.ping([&](const auto&) { second.set_value(std::this_thread::get_id()); });
  });

  const std::thread::id own = first.get_future().get();
  EXPECT_NE(own, std::this_thread::get_id());
  EXPECT_EQ(second.get_future().get(), own);
}

TEST_F(ClientTest, throwsWhenACallbackWouldWaitForItself) {
  std::promise<int> thrown;

  client_.ping([&](const auto&) {
    const std::function<void()> calls[] = {[&] { client_.ping(); }, [&] { client_.get("Audio.Volume"); },
                                           [&] { client_.setEach({}); }, [&] { client_.connect(); },
                                           [&] { client_.watch({}, [](const Change&) {}); }};
    int count = 0;
    for (const auto& call : calls) {
      try {
        call();
      } catch (const std::logic_error&) {
        ++count;
      }
    }
    thrown.set_value(count);
  });

  EXPECT_EQ(thrown.get_future().get(), 5);
}

TEST_F(ClientTest, staysConnectedThoughAnotherProgramHasItsName) {
  Client other(options());

  other.connect();

  EXPECT_TRUE(client_.ping().ok());
  EXPECT_TRUE(other.ping().ok());
  EXPECT_TRUE(client_.ping().ok());
}

TEST_F(ClientTest, hasANameOfItsOwnWhereNoneIsGiven) {
  Client one(Options{});
  Client two(Options{});
  one.connect();
  two.connect();

  EXPECT_EQ(one.get("Audio.Volume").value, "5");
  EXPECT_EQ(two.get("Audio.Codec").value, "opus");
}

TEST_F(ClientTest, mayConnectTwice) {
  client_.connect();

  EXPECT_TRUE(client_.ping().ok());
}

TEST_F(ClientTest, endsWhatIsOutstandingWithItself) {
  pauseDaemon();
  std::vector<Status> statuses;
  {
    Client client(Options{.name = "short-lived"});
    client.connect();
    for (int i = 0; i < 50; ++i) {
      client.ping([&](const auto& answer) { statuses.push_back(answer.status); });
    }
  }
  resumeDaemon();

  EXPECT_EQ(statuses, std::vector<Status>(50, Status::noAnswer));
}

TEST_F(ClientTest, endsThoughEachAnswerAsksAgain) {
  std::function<void(const Answer<Client::Nothing>&)> again;
  std::atomic<int> count = 0;
  {
    Client client(Options{.name = "poller"});
    again = [&](const auto&) {
      ++count;
      client.ping(again);
    };
    client.connect();
    client.ping(again);
    ASSERT_TRUE(eventually([&] { return count > 3; }));
  }

  SUCCEED();
}

TEST_F(ClientTest, getsNoAnswerFromADaemonThatHangs) {
  Client hasty(Options{.name = "hasty", .timeout = kShortly});
  hasty.connect();
  pauseDaemon();

  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(hasty.get("Audio.Volume").status, Status::noAnswer);

  EXPECT_GE(std::chrono::steady_clock::now() - before, kShortly);
  resumeDaemon();
}

TEST_F(ClientTest, knowsWhetherTheDaemonIsThere) {
  std::mutex mutex;
  std::vector<std::optional<bool>> told;
  Client client(Options{.name = "observer"});
  client.connect();
  client.onPresence([&](std::optional<bool> present) {
    const std::lock_guard lock(mutex);
    told.push_back(present);
  });
  EXPECT_EQ(client.present(), true);

  device_.stop();
  ASSERT_TRUE(eventually([&] { return client.present() == false; }));
  device_.launch();
  ASSERT_TRUE(eventually([&] {
    const std::lock_guard lock(mutex);
    return told.size() == 3;
  }));

  const std::lock_guard lock(mutex);
  EXPECT_THAT(told, ElementsAre(true, false, true));
}

TEST_F(ClientTest, knowsOfADaemonThatWasKilled) {
  device_.daemon().signal(SIGKILL);

  EXPECT_TRUE(eventually([&] { return client_.present() == false; }));
}

TEST_F(ClientTest, sendsNothingToADaemonThatWasAwayBeforeItConnected) {
  device_.stop();
  Client client(Options{.name = "late", .timeout = kPatience});

  client.connect();

  EXPECT_EQ(client.present(), false);
  EXPECT_EQ(client.set("Audio.Volume", "7").status, Status::away);
}

TEST_F(ClientTest, takesNoLateAnswerForALaterRequest) {
  Client hasty(Options{.name = "hasty", .timeout = kShortly});
  hasty.connect();
  pauseDaemon();
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(hasty.get("Audio.Volume").status, Status::noAnswer);
  }
  hasty.set("Audio.Volume", "7", Field::key, [](const auto&) {});
  resumeDaemon();

  // The late answers are 5.
  Answer<std::string> answer;
  ASSERT_TRUE(eventually([&] {
    answer = hasty.get("Audio.Volume");
    return answer.ok();
  }));

  EXPECT_EQ(answer.value, "7");
}

TEST_F(ClientTest, getsNoAnswerToWhatIsOutstandingWhenTheConnectionBreaks) {
  TcpProxy proxy(kProxyPort, 1883);
  Client client({.port = kProxyPort, .name = "cut", .timeout = kPatience});
  client.connect();
  pauseDaemon();
  std::promise<Status> status;
  client.ping([&](const auto& answer) { status.set_value(answer.status); });

  proxy.cutAfter(0);
  auto outcome = status.get_future();

  ASSERT_EQ(outcome.wait_for(kPatience / 2), std::future_status::ready);
  EXPECT_EQ(outcome.get(), Status::noAnswer);
  resumeDaemon();
}

TEST_F(ClientTest, comesBackWhenTheBrokerDoes) {
  device_.broker().restart();

  EXPECT_TRUE(eventually([&] { return client_.get("Audio.Volume").value == "5"; }));
}

TEST_F(ClientTest, reachesADeviceThroughACentralBroker) {
  const Broker centre(
      "allow_anonymous true\n"
      "connection device\n"
      "address 127.0.0.1:1883\n"
      "bridge_protocol_version mqttv311\n"
      "topic +/prop-service out 2 devices/0815/ \"\"\n"
      "topic prop-service/+ in 1 devices/0815/ \"\"\n"
      "topic +/any in 1 devices/0815/ \"\"\n",
      1885);
  Client controller({.port = 1885, .name = "centre", .device = "0815", .timeout = 1s});
  controller.connect();
  ASSERT_TRUE(eventually([&] { return controller.ping().ok(); }));  // once the bridge is up
  Told told;
  controller.watch({}, told.callback());

  EXPECT_TRUE(controller.set("Audio.Volume", "7").ok());

  ASSERT_TRUE(told.waitFor(1));
  EXPECT_THAT(told.all(), ElementsAre("Audio.Volume 5>7"));
}

// Watches.

TEST_F(ClientTest, tellsAChangeThatAnotherMakes) {
  Told told;
  client_.watch({}, told.callback());

  device_.set("Audio.Volume", "7");

  ASSERT_TRUE(told.waitFor(1));
  EXPECT_THAT(told.all(), ElementsAre("Audio.Volume 5>7"));
}

TEST_F(ClientTest, tellsChangesOfTheWatchedGroupsAlone) {
  Told told;
  client_.watch({"Audio", "state"}, told.callback());

  device_.set("NET.General.Hostname", "other");
  device_.set("Audio.Volume", "7");
  device_.set("State.Call", "busy");
  device_.panel().request(propertyservice::test::makeRequest("resetVal", "State.Call"));

  ASSERT_TRUE(told.waitFor(3));
  EXPECT_THAT(told.all(), UnorderedElementsAre("Audio.Volume 5>7", "State.Call ->busy", "State.Call busy>-"));
}

TEST_F(ClientTest, tellsAllThatARestoreChanges) {
  ASSERT_TRUE(client_.makeBackup().ok());
  ASSERT_THAT(client_.setEach({{"Audio.Volume", "9"}, {"Audio.Codec", "g711"}}),
              UnorderedElementsAre(Pair("Audio.Volume", Status::ok), Pair("Audio.Codec", Status::ok)));
  Told told;
  client_.watch({}, told.callback());

  ASSERT_TRUE(client_.restore().ok());

  ASSERT_TRUE(told.waitFor(2));
  EXPECT_THAT(told.all(), UnorderedElementsAre("Audio.Codec g711>opus", "Audio.Volume 9>5"));
}

TEST_F(ClientTest, tellsEveryOfManyChangesInOrder) {
  Told told;
  client_.watch({"state"}, told.callback());

  std::vector<std::string> expected;
  for (int i = 0; i < 300; ++i) {
    device_.panel().sendRequest(propertyservice::test::makeRequest("setV", "State.Count", std::to_string(i)));
    expected.push_back("State.Count " + (i == 0 ? "-" : std::to_string(i - 1)) + ">" + std::to_string(i));
  }

  ASSERT_TRUE(told.waitFor(expected.size()));
  EXPECT_EQ(told.all(), expected);
}

TEST_F(ClientTest, makesGoodWhatChangesWhileTheConnectionIsAway) {
  TcpProxy proxy(kProxyPort, 1883);
  Client watcher({.port = kProxyPort, .name = "watcher", .timeout = kPatience});
  watcher.connect();
  Told told;
  watcher.watch({}, told.callback());
  device_.set("State.Call", "ringing");
  device_.set("State.Gone", "x");
  ASSERT_TRUE(told.waitFor(2));

  proxy.silence(true);
  proxy.cutAfter(0);
  device_.set("Audio.Volume", "6");
  device_.set("Audio.Volume", "7");
  device_.set("State.Call", "busy");
  device_.panel().request(propertyservice::test::makeRequest("resetVal", "State.Gone"));
  proxy.silence(false);

  ASSERT_TRUE(told.waitFor(5));
  EXPECT_THAT(told.all(), UnorderedElementsAre("State.Call ->ringing", "State.Gone ->x", "Audio.Volume 5>7",
                                               "State.Call ringing>busy", "State.Gone x>-"));
}

TEST_F(ClientTest, watchesOnAfterARestartOfTheBroker) {
  Told told;
  client_.watch({}, told.callback());
  std::mutex mutex;
  std::vector<bool> connected;
  client_.onConnection([&](bool isConnected) {
    const std::lock_guard lock(mutex);
    connected.push_back(isConnected);
  });

  device_.broker().restart();
  ASSERT_TRUE(eventually([&] { return client_.set("Audio.Volume", "7").ok(); }));

  ASSERT_TRUE(told.waitFor(1));
  EXPECT_THAT(told.all(), ElementsAre("Audio.Volume 5>7"));
  const std::lock_guard lock(mutex);
  EXPECT_THAT(connected, ElementsAre(true, false, true));
}

TEST_F(ClientTest, readsAgainWhatItWatchesAfterARestartOfTheDaemon) {
  Told told;
  client_.watch({"audio", "State.Call"}, told.callback());
  auto rows = Device::defaultRows();
  rows.front().value = "8";
  device_.writeScript(rows);

  device_.restart({"--force-db-init"});

  ASSERT_TRUE(told.waitFor(1));
  EXPECT_THAT(told.all(), ElementsAre("Audio.Volume 5>8"));
}

TEST_F(ClientTest, readsAgainWhatItWatchesUntilTheDaemonIsBack) {
  TcpProxy proxy(kProxyPort, 1883);
  Client watcher({.port = kProxyPort, .name = "watcher", .timeout = kShortly});
  watcher.connect();
  Told told;
  ASSERT_TRUE(eventually([&] {
    try {
      watcher.watch({"audio"}, told.callback());
      return true;
    } catch (const ConnectionError&) {
      return false;  // slower than this client waits
    }
  }));
  device_.stop();
  const int accepted = proxy.accepted();
  proxy.cutAfter(0);
  ASSERT_TRUE(eventually([&] { return proxy.accepted() > accepted; }));
  ASSERT_NE(watcher.ping().status, Status::ok);

  auto rows = Device::defaultRows();
  rows.front().value = "8";
  device_.writeScript(rows);
  device_.start({"--force-db-init"});

  ASSERT_TRUE(told.waitFor(1));
  EXPECT_THAT(told.all(), ElementsAre("Audio.Volume 5>8"));
}

TEST_F(ClientTest, tellsNothingOnceItWatchesNoMore) {
  std::atomic<int> calls = 0;
  client_.watch({}, [&](const Change&) { ++calls; });
  device_.set("Audio.Volume", "7");
  ASSERT_TRUE(eventually([&] { return calls == 1; }));

  client_.unwatch();
  device_.set("Audio.Volume", "8");
  Told told;
  client_.watch({}, told.callback());
  device_.set("Audio.Volume", "9");

  ASSERT_TRUE(told.waitFor(1));
  EXPECT_EQ(calls, 1);
}

TEST_F(ClientTest, watchesNoMoreWhenACallbackSaysSo) {
  std::atomic<int> calls = 0;
  client_.watch({}, [&](const Change&) {
    ++calls;
    client_.unwatch();
  });

  device_.set("Audio.Volume", "7");
  device_.set("Audio.Volume", "8");
  ASSERT_TRUE(eventually([&] { return calls > 0; }));
  ASSERT_TRUE(client_.ping().ok());

  EXPECT_EQ(calls, 1);
}

TEST_F(ClientTest, cannotWatchWhileTheDaemonHangs) {
  Client hasty({.name = "hasty", .timeout = kShortly});
  hasty.connect();
  pauseDaemon();

  try {
    hasty.watch({}, [](const Change&) {});
    FAIL();
  } catch (const ConnectionError& error) {
    resumeDaemon();
    EXPECT_STREQ(error.what(), "no watch over the broker at localhost:1883: the daemon does not answer");
  }
}

TEST_F(ClientTest, cannotWatchWhatIsNoGroup) {
  for (const char* group : {"", "a/b", "+", "#", "\xff"}) {
    EXPECT_THROW(client_.watch({group}, [](const Change&) {}), std::invalid_argument) << group;
  }
}

// Without a connection.

TEST(Client, refusesNamesThatAreNoTopicLevel) {
  for (const char* name : {"a/b", "+", "#", "a#", "$SYS", "\xff", "prop-service"}) {
    EXPECT_THROW(Client({.name = name}), std::invalid_argument) << name;
    EXPECT_THROW(Client({.user = name}), std::invalid_argument) << name;
  }
  EXPECT_THROW(Client({.device = "a/b"}), std::invalid_argument);
}

TEST(Client, getsNoAnswerBeforeItIsConnected) {
  Client client({.timeout = kPatience});
  const auto before = std::chrono::steady_clock::now();

  EXPECT_EQ(client.ping().status, Status::noAnswer);

  EXPECT_LT(std::chrono::steady_clock::now() - before, kPatience);
}

TEST(Client, cannotWatchBeforeItIsConnected) {
  Client client({.timeout = kPatience});

  EXPECT_THROW(client.watch({}, [](const Change&) {}), ConnectionError);
}

}  // namespace
}  // namespace propclient
