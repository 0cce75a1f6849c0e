#include <random>

#include "client/propclient/FakeDaemon.h"
#include "propclient/Session.h"
#include "propclient/Watch.h"

// A watch in a session, against a daemon whose replies and announcements the test may delay as it likes.

namespace propclient {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

using Value = std::optional<std::string>;

class WatchTest : public testing::Test {
 protected:
  WatchTest() {
    daemon_.values = {{"Audio.Codec", "opus"}, {"Audio.Volume", "5"}, {"Net.Name", ""}, {"Pointless", "a"}};
    session_.opened();
  }

  void watch(const std::set<std::string>& groups = {}) {
    session_.watch(
        groups, [this](const Change& change) { told_.push_back(text(change)); },
        [this](const Value& failure) { outcome_ = failure.value_or("done"); });
    session_.subscribed({});
  }

  static std::string text(const Change& change) {
    return change.key + ' ' + change.old.value_or("-") + ">" + change.value.value_or("-");
  }

  void arriveAll() {
    while (daemon_.hasSent()) {
      if (const auto message = daemon_.arrive()) {
        session_.received(message->topic, message->payload);
      }
    }
  }

  void serveAll() {
    while (daemon_.hasRequests()) {
      daemon_.serve();
      arriveAll();
    }
  }

  void announceAll() {
    while (daemon_.hasAnnouncements()) {
      daemon_.announce();
    }
    arriveAll();
  }

  /// All is served, announced and told.
  void settle() {
    announceAll();
    serveAll();
  }

  void watchAndSettle(const std::set<std::string>& groups = {}) {
    watch(groups);
    settle();
  }

  void breakConnection() {
    daemon_.breakConnection();
    session_.lost();
  }

  void restoreConnection() {
    daemon_.restoreConnection();
    session_.opened();
  }

  void presence(const std::string& payload) { session_.received("services/prop-service/online", payload); }

  FakeDaemon daemon_;
  std::vector<std::string> told_;
  std::string outcome_;
  Session session_{Topics("panel", ""), daemon_, 5s, "?unique-"};
};

TEST_F(WatchTest, listensToTheTopicsOfAllGroupsForAllProperties) {
  watch();

  EXPECT_THAT(daemon_.subscriptions,
              ElementsAre("+/any", "prop-service/panel", "services/prop-service/online"));
}

TEST_F(WatchTest, listensToTheTopicsOfItsGroups) {
  watch({"audio", "net"});

  EXPECT_THAT(daemon_.subscriptions, ElementsAre("prop-service-audio/any", "prop-service-net/any",
                                                 "prop-service/panel", "services/prop-service/online"));
}

TEST_F(WatchTest, listensToNothingAnyMoreAfterItsEnd) {
  watchAndSettle({"audio"});

  session_.unwatch();

  EXPECT_THAT(daemon_.subscriptions, ElementsAre("prop-service/panel", "services/prop-service/online"));
}

TEST_F(WatchTest, isDoneWhenThePresentValuesAreKnown) {
  watch();
  EXPECT_EQ(outcome_, "");

  serveAll();

  EXPECT_EQ(outcome_, "done");
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(WatchTest, readsNothingBeforeTheSubscriptionIsAccepted) {
  session_.watch(
      {}, [](const Change&) {}, [](const Value&) {});

  EXPECT_THAT(daemon_.requests, IsEmpty());
}

TEST_F(WatchTest, failsWhereTheBrokerRefusesTheSubscription) {
  session_.watch(
      {}, [](const Change&) {}, [this](const Value& failure) { outcome_ = failure.value_or("done"); });

  session_.subscribed({"prop-service-groupnotify/any"});

  EXPECT_EQ(outcome_, "the broker refuses the subscription to prop-service-groupnotify/any");
  EXPECT_THAT(daemon_.subscriptions, testing::Not(testing::Contains("prop-service-groupnotify/any")));
  EXPECT_THAT(daemon_.requests, IsEmpty());
}

TEST_F(WatchTest, tellsAChangeWithItsOldValue) {
  watchAndSettle();

  daemon_.change("Audio.Volume", "7");
  settle();

  EXPECT_THAT(told_, ElementsAre("Audio.Volume 5>7"));
}

TEST_F(WatchTest, tellsEachOfSeveralChanges) {
  watchAndSettle();

  daemon_.change("Audio.Volume", "7");
  daemon_.change("Audio.Codec", "g722");
  daemon_.change("Audio.Volume", "8");
  settle();

  EXPECT_THAT(told_,
              testing::UnorderedElementsAre("Audio.Volume 5>7", "Audio.Volume 7>8", "Audio.Codec opus>g722"));
}

TEST_F(WatchTest, tellsAnEmptyValueAsText) {
  watchAndSettle();

  daemon_.change("Net.Name", "desk");
  settle();
  daemon_.change("Net.Name", "");
  settle();

  EXPECT_THAT(told_, ElementsAre("Net.Name >desk", "Net.Name desk>"));
}

TEST_F(WatchTest, readsAPropertyAgainForItsFirstChangeAlone) {
  watchAndSettle();
  daemon_.change("Audio.Volume", "7");
  settle();

  daemon_.change("Audio.Volume", "8");
  announceAll();

  EXPECT_THAT(told_, ElementsAre("Audio.Volume 5>7", "Audio.Volume 7>8"));
  EXPECT_FALSE(daemon_.hasRequests());
}

TEST_F(WatchTest, tellsAnAnnouncedValueThatIsKnownOnlyOnce) {
  watchAndSettle();
  daemon_.change("Audio.Volume", "7");
  settle();

  daemon_.change("Audio.Volume", "7");
  settle();

  EXPECT_THAT(told_, ElementsAre("Audio.Volume 5>7"));
}

TEST_F(WatchTest, takesANumberForItsText) {
  watchAndSettle();

  daemon_.change("Audio.Volume", 7);
  settle();
  daemon_.change("Audio.Volume", "7");
  settle();

  EXPECT_THAT(told_, ElementsAre("Audio.Volume 5>7"));
}

TEST_F(WatchTest, keepsToItsGroupsInAnyCaseOfTheKey) {
  daemon_.values["AUDIO.Gain"] = "1";
  watchAndSettle({"audio"});

  daemon_.change("AUDIO.Gain", "2");
  daemon_.change("Net.Name", "desk");
  settle();

  EXPECT_THAT(told_, ElementsAre("AUDIO.Gain 1>2"));
}

TEST_F(WatchTest, keepsToTheKeysThatItIsGiven) {
  daemon_.values["State.Call"] = "idle";
  watchAndSettle({"Audio.Volume", "State.Call"});
  EXPECT_THAT(told_, IsEmpty());

  daemon_.change("Audio.Codec", "g722");
  daemon_.change("Audio.Volume", "7");
  daemon_.change("State.Call", "busy");
  settle();

  EXPECT_THAT(told_, testing::UnorderedElementsAre("Audio.Volume 5>7", "State.Call idle>busy"));
}

TEST_F(WatchTest, makesAMissedChangeOfAVolatileKeyGoodThatItIsGiven) {
  watchAndSettle({"%", "State.Call"});
  breakConnection();
  daemon_.values["State.Call"] = "ringing";

  restoreConnection();
  serveAll();

  EXPECT_THAT(told_, ElementsAre("State.Call ->ringing"));
}

TEST_F(WatchTest, hearsNoAnnouncementOfOtherServices) {
  watchAndSettle();

  session_.received("other-service-audio/any", R"({"param":"State.Call","value":"9"})");
  settle();

  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(WatchTest, tellsAKeyWithoutAPointToThoseWhoWatchAll) {
  watchAndSettle();

  daemon_.change("Pointless", "b");
  settle();

  EXPECT_THAT(told_, ElementsAre("Pointless a>b"));
}

TEST_F(WatchTest, tellsAChangeOfTheGroupGroupnotifyOnceThoughBothMessagesShareATopic) {
  daemon_.values["GroupNotify.X"] = "1";
  watchAndSettle({"groupnotify"});

  daemon_.change("GroupNotify.X", "2");
  daemon_.change("Audio.Volume", "7");
  settle();

  EXPECT_THAT(told_, ElementsAre("GroupNotify.X 1>2"));
}

TEST_F(WatchTest, takesNoMessageOfTheGroupGroupnotifyForPropertiesCalledParamAndValue) {
  daemon_.values["GroupNotify.X"] = "1";
  watchAndSettle();

  daemon_.change("GroupNotify.X", "2");
  settle();

  EXPECT_THAT(told_, ElementsAre("GroupNotify.X 1>2"));
}

TEST_F(WatchTest, overlooksMessagesThatAnnounceNothing) {
  watchAndSettle({"audio"});

  for (const char* payload :
       {"", "[]", "7", "null", "{}", R"({"param":7,"value":1})", R"({"param":"Audio.X"})"}) {
    session_.received("prop-service-audio/any", payload);
  }
  settle();

  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(WatchTest, tellsOfVolatileKeysFromTheirFirstAnnouncementOn) {
  daemon_.values["State.Call"] = "idle";
  watchAndSettle();

  daemon_.change("State.Call", "ringing");
  daemon_.change("State.Call", "busy");
  daemon_.change("State.Call", Json::nullValue);
  settle();

  EXPECT_THAT(told_, ElementsAre("State.Call ->ringing", "State.Call ringing>busy", "State.Call busy>-"));
}

// Messages that overtake others.

TEST_F(WatchTest, countsAChangeBeforeTheFirstReadingToThePresentValues) {
  watch();
  daemon_.change("Audio.Volume", "7");
  settle();

  daemon_.change("Audio.Volume", "8");
  settle();

  EXPECT_THAT(told_, ElementsAre("Audio.Volume 7>8"));
}

TEST_F(WatchTest, doesNotGoBackToOlderValuesThatAreAnnouncedAfterTheReading) {
  daemon_.change("Audio.Volume", "6");
  daemon_.change("Audio.Volume", "7");
  watch();
  serveAll();
  ASSERT_EQ(outcome_, "done");

  settle();

  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(WatchTest, tellsAChangeThatFollowsOlderAnnouncements) {
  daemon_.change("Audio.Volume", "6");
  daemon_.change("Audio.Volume", "7");
  watch();
  serveAll();

  daemon_.change("Audio.Volume", "8");
  settle();

  EXPECT_THAT(told_, ElementsAre("Audio.Volume 7>8"));
}

TEST_F(WatchTest, tellsChangesThatComeWhileAPropertyIsReadAgain) {
  watchAndSettle();

  daemon_.change("Audio.Volume", "6");
  announceAll();
  daemon_.change("Audio.Volume", "7");
  announceAll();
  serveAll();

  EXPECT_THAT(told_, ElementsAre("Audio.Volume 5>6", "Audio.Volume 6>7"));
}

TEST_F(WatchTest, readsNoPropertyAgainOnceTheValueReadWasAnnounced) {
  daemon_.change("Audio.Volume", "6");
  watch();
  serveAll();
  announceAll();

  daemon_.change("Audio.Volume", "7");
  announceAll();

  EXPECT_FALSE(daemon_.hasRequests());
  EXPECT_THAT(told_, ElementsAre("Audio.Volume 6>7"));
}

TEST_F(WatchTest, doesNotBringARemovedKeyBackThatIsAnnouncedLate) {
  watchAndSettle();
  daemon_.change("State.Call", "ringing");
  settle();
  breakConnection();
  restoreConnection();
  daemon_.change("State.Call", "busy");
  daemon_.change("State.Call", Json::nullValue);
  serveAll();

  settle();

  EXPECT_THAT(told_, ElementsAre("State.Call ->ringing", "State.Call ringing>-"));
}

TEST_F(WatchTest, tellsAChangeOnceWhenItsAnnouncementFollowsTheReading) {
  watchAndSettle();
  daemon_.change("Audio.Volume", "6");
  announceAll();
  daemon_.change("Audio.Volume", "7");
  serveAll();

  announceAll();

  EXPECT_THAT(told_, ElementsAre("Audio.Volume 5>7"));
}

// The connection breaks.

TEST_F(WatchTest, makesMissedChangesGood) {
  watchAndSettle();
  breakConnection();
  daemon_.change("Audio.Volume", "6");
  daemon_.change("Audio.Volume", "7");
  daemon_.change("Audio.Codec", "g722");
  announceAll();

  restoreConnection();
  serveAll();

  EXPECT_THAT(told_, ElementsAre("Audio.Codec opus>g722", "Audio.Volume 5>7"));
}

TEST_F(WatchTest, tellsOfPropertiesThatCameAndWentMeanwhile) {
  watchAndSettle();
  breakConnection();
  daemon_.values.erase("Audio.Codec");
  daemon_.values["Audio.Gain"] = "1";

  restoreConnection();
  serveAll();

  EXPECT_THAT(told_, ElementsAre("Audio.Gain ->1", "Audio.Codec opus>-"));
}

TEST_F(WatchTest, readsVolatileKeysThatItKnowsAgain) {
  watchAndSettle();
  daemon_.change("State.Call", "ringing");
  daemon_.change("State.Gone", "1");
  settle();
  told_.clear();
  breakConnection();
  daemon_.values["State.Call"] = "busy";
  daemon_.values.erase("State.Gone");

  restoreConnection();
  serveAll();

  EXPECT_THAT(told_, ElementsAre("State.Call ringing>busy", "State.Gone 1>-"));
}

TEST_F(WatchTest, tellsNothingWhereNothingWasMissed) {
  watchAndSettle();
  breakConnection();

  restoreConnection();
  serveAll();

  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(WatchTest, readsAgainUntilTheDaemonAnswers) {
  watchAndSettle();
  breakConnection();
  daemon_.values["Audio.Volume"] = "7";
  restoreConnection();
  daemon_.requests.clear();  // the daemon is away

  session_.keepTime(Clock::now() + 5s);
  daemon_.requests.clear();
  session_.keepTime(Clock::now() + 10s);
  ASSERT_TRUE(daemon_.hasRequests());
  serveAll();

  EXPECT_THAT(told_, ElementsAre("Audio.Volume 5>7"));
}

TEST_F(WatchTest, becomesDoneOverANewConnectionWhenTheFirstBreaks) {
  watch();
  breakConnection();
  daemon_.requests.clear();

  restoreConnection();
  serveAll();

  EXPECT_EQ(outcome_, "done");
}

TEST_F(WatchTest, triesNothingAgainWithoutAConnection) {
  watchAndSettle();
  breakConnection();
  restoreConnection();

  breakConnection();

  EXPECT_EQ(session_.nextDeadline(), std::nullopt);
}

/// A watch whose first reading has failed.
class FailedReading : public testing::Test {
 protected:
  FailedReading() {
    watch_->opened();
    asked_.at(0).giveUp();
  }

  std::vector<Request> asked_;
  const std::shared_ptr<Watch> watch_ = std::make_shared<Watch>(
      std::set<std::string>{}, [](const Change&) {},
      [this](Request request) { asked_.push_back(std::move(request)); }, [] {});
};

TEST_F(FailedReading, isTriedAgainAfterASecond) {
  const auto next = watch_->nextDeadline();

  ASSERT_TRUE(next);
  EXPECT_LT(*next, Clock::now() + 2s);
  watch_->keepTime(*next);
  EXPECT_EQ(asked_.size(), 2U);
}

TEST_F(FailedReading, isNotTriedAgainWithoutAConnection) {
  watch_->lost();

  EXPECT_EQ(watch_->nextDeadline(), std::nullopt);
}

TEST_F(WatchTest, readsAValueAgainUntilTheDaemonAnswers) {
  watchAndSettle();
  daemon_.change("State.Call", "ringing");
  settle();
  breakConnection();
  daemon_.values["State.Call"] = "busy";
  told_.clear();
  restoreConnection();
  while (daemon_.requests.front().payload.find("State.Call") == std::string::npos) {
    daemon_.serve();
    arriveAll();
  }
  daemon_.requests.clear();  // the daemon is away
  session_.keepTime(Clock::now() + 5s);

  session_.keepTime(Clock::now() + 10s);
  serveAll();

  EXPECT_THAT(told_, ElementsAre("State.Call ringing>busy"));
}

TEST_F(WatchTest, isDoneThoughThereIsNoProperty) {
  daemon_.values.clear();

  watch();
  serveAll();

  EXPECT_EQ(outcome_, "done");
}

TEST_F(WatchTest, asksNoMoreForAVolatileKeyThatWasRemoved) {
  watchAndSettle();
  daemon_.change("State.Gone", "1");
  daemon_.change("State.Gone", Json::nullValue);
  settle();
  breakConnection();

  restoreConnection();

  for (const FakeDaemon::Message& request : daemon_.requests) {
    EXPECT_EQ(request.payload.find("State.Gone"), std::string::npos);
  }
}

TEST_F(WatchTest, tellsTheWayToAValueOnlySoFarBack) {
  watchAndSettle();
  daemon_.change("State.Count", "0");
  settle();
  breakConnection();
  restoreConnection();
  told_.clear();
  for (int i = 1; i <= 1000; ++i) {
    daemon_.change("State.Count", std::to_string(i));
  }
  announceAll();

  serveAll();

  EXPECT_LE(told_.size(), 100U);
  EXPECT_THAT(told_.back(), testing::EndsWith(">1000"));
}

TEST_F(WatchTest, forgetsWhatItHeardWithTheConnection) {
  watchAndSettle();
  daemon_.change("Audio.Volume", "6");
  daemon_.change("Audio.Volume", "7");
  announceAll();  // heard while the property is read again
  breakConnection();
  daemon_.requests.clear();
  told_.clear();

  restoreConnection();
  serveAll();

  EXPECT_THAT(told_, ElementsAre("Audio.Volume 5>7"));
}

TEST_F(WatchTest, believesNoOlderAnnouncementAfterALoss) {
  watchAndSettle();
  daemon_.change("Audio.Volume", "6");
  settle();
  daemon_.change("Audio.Volume", "7");
  settle();  // settled by now
  breakConnection();
  restoreConnection();
  daemon_.change("Audio.Volume", "8");
  daemon_.change("Audio.Volume", "9");
  serveAll();
  told_.clear();

  announceAll();
  serveAll();

  EXPECT_THAT(told_, IsEmpty());
}

// The daemon is restarted.

TEST_F(WatchTest, readsAgainWhatItWatchesWheneverTheDaemonComesBack) {
  daemon_.values["State.Call"] = "idle";
  watchAndSettle({"audio", "State.Call"});
  presence("1");
  settle();
  EXPECT_THAT(told_, IsEmpty());

  for (const auto& [restart, volume] : std::map<std::string, std::string>{{"01", "7"}, {"1", "8"}}) {
    daemon_.values["Audio.Volume"] = volume;
    daemon_.values["State.Call"] = "call " + volume;
    for (const char announced : restart) {
      presence(std::string(1, announced));
    }
    serveAll();
  }

  EXPECT_THAT(told_, testing::UnorderedElementsAre("State.Call idle>call 7", "Audio.Volume 5>7",
                                                   "State.Call call 7>call 8", "Audio.Volume 7>8"));
}

TEST_F(WatchTest, isNotDoneByADaemonThatComesBackBeforeTheSubscriptionIsAccepted) {
  session_.watch(
      {}, [](const Change&) {}, [this](const Value& failure) { outcome_ = failure.value_or("done"); });

  presence("1");
  serveAll();

  EXPECT_EQ(outcome_, "");
}

// Many properties.

class WatchOfMany : public WatchTest {
 protected:
  WatchOfMany() {
    for (int i = 0; i < 200; ++i) {
      daemon_.values["Many.Property" + std::to_string(i)] = "0";
    }
  }

  void serve(int requests) {
    for (int i = 0; i < requests && daemon_.hasRequests(); ++i) {
      daemon_.serve();
      arriveAll();
    }
  }
};

TEST_F(WatchOfMany, tellsEachChangeBetweenThePiecesOfAReading) {
  watchAndSettle();
  breakConnection();
  restoreConnection();

  std::vector<std::string> expected;
  for (int i = 1; i <= 40; ++i) {
    for (const std::string key : {"Many.Property7", "Many.Property199"}) {
      daemon_.change(key, std::to_string(i));
      expected.push_back(key + ' ' + std::to_string(i - 1) + '>' + std::to_string(i));
    }
    announceAll();
    serve(1);
  }
  settle();

  EXPECT_THAT(told_, testing::UnorderedElementsAreArray(expected));
}

TEST_F(WatchOfMany, waitsForThePresentValuesAsLongAsTheyCome) {
  watch();
  serve(3);

  session_.keepTime(Clock::now() + 6s);
  EXPECT_EQ(outcome_, "");
  session_.keepTime(Clock::now() + 12s);

  EXPECT_EQ(outcome_, "the daemon does not answer");
}

// Its end.

TEST_F(WatchTest, tellsNothingAfterItsEndInACallback) {
  std::vector<std::string> told;
  session_.watch(
      {},
      [&](const Change& change) {
        told.push_back(text(change));
        session_.unwatch();
      },
      [](const Value&) {});
  session_.subscribed({});
  settle();
  daemon_.change("State.A", "1");
  daemon_.change("State.B", "1");

  settle();

  EXPECT_THAT(told, ElementsAre("State.A ->1"));
}

TEST_F(WatchTest, givesWayToAnotherWatch) {
  watchAndSettle({"audio"});
  told_.clear();
  std::vector<std::string> toldOther;
  session_.watch(
      {"net"}, [&](const Change& change) { toldOther.push_back(text(change)); }, [](const Value&) {});
  session_.subscribed({});
  settle();

  daemon_.change("Audio.Volume", "7");
  daemon_.change("Net.Name", "desk");
  settle();

  EXPECT_THAT(told_, IsEmpty());
  EXPECT_THAT(toldOther, ElementsAre("Net.Name >desk"));
  EXPECT_THAT(daemon_.subscriptions,
              ElementsAre("prop-service-net/any", "prop-service/panel", "services/prop-service/online"));
}

TEST_F(WatchTest, isRefusedBeforeTheFirstConnection) {
  Session fresh(Topics("panel", ""), daemon_, 5s, "?unique-");

  fresh.watch(
      {}, [](const Change&) {}, [this](const Value& failure) { outcome_ = failure.value_or("done"); });

  EXPECT_EQ(outcome_, "not connected");
}

// Any order of events.
class WatchRaces : public testing::TestWithParam<unsigned> {
 protected:
  static constexpr const char* kKeys[] = {"Audio.Volume", "Audio.Codec", "State.Call"};

  void watch() {
    for (int i = 0; i < 100; ++i) {  // so that the keys are read in different pieces
      daemon_.values["Audio.Filler" + std::to_string(i)] = "0";
    }
    session_.opened();
    session_.watch(
        {}, [this](const Change& change) { told_[change.key].push_back(change); }, [](const Value&) {});
    session_.subscribed({});
  }

  /// Something happens; `makeChange` changes a property.
  void step(const std::function<void()>& makeChange) {
    switch (random_() % 9) {
      case 8:
        if (random_() % 40 == 0) {
          daemon_.restart();
        }
        break;
      case 0:
      case 1:
        makeChange();
        break;
      case 2:
      case 3:
        if (daemon_.hasRequests()) {
          daemon_.serve();
        }
        break;
      case 4:
      case 5:
        if (daemon_.hasAnnouncements()) {
          daemon_.announce();
        }
        break;
      case 6:
        arrive();
        break;
      default:
        if (random_() % 20 == 0) {
          connected_ ? breakConnection() : restoreConnection();
        }
    }
  }

  void breakConnection() {
    connected_ = false;
    daemon_.breakConnection();
    session_.lost();
  }

  void restoreConnection() {
    connected_ = true;
    daemon_.restoreConnection();
    session_.opened();
  }

  const char* anyKey() { return kKeys[random_() % std::size(kKeys)]; }

  void change(const std::string& key, const std::string& value) {
    history_[key].push_back(value);
    daemon_.change(key, value);
  }

  void arrive() {
    if (daemon_.hasSent()) {
      if (const auto message = daemon_.arrive()) {
        session_.received(message->topic, message->payload);
      }
    }
  }

  /// The connection is there, and all is served, announced and told.
  void settle() {
    if (!connected_) {
      restoreConnection();
    }
    while (daemon_.hasRequests() || daemon_.hasAnnouncements() || daemon_.hasSent()) {
      daemon_.hasAnnouncements() ? daemon_.announce() : void();
      daemon_.hasRequests() ? daemon_.serve() : void();
      arrive();
    }
  }

  void expectThatEachOldValueIsTheOneBefore() {
    for (const auto& [key, changes] : told_) {
      Value known = changes.front().old;
      for (const Change& change : changes) {
        EXPECT_EQ(change.old, known) << key;
        known = change.value;
      }
    }
  }

  void expectThatTheLastValuesAreTheTruth() {
    for (const auto& [key, changes] : told_) {
      const auto truth = daemon_.values.find(key);
      EXPECT_EQ(changes.back().value, truth == daemon_.values.end() ? std::nullopt : Value(truth->second))
          << key;
    }
  }

  /// Where each value is used once.
  void expectThatNothingLedBack() {
    for (const auto& [key, changes] : told_) {
      auto position = history_[key].begin();
      for (const Change& change : changes) {
        position = std::find(position, history_[key].end(), change.value);
        ASSERT_NE(position, history_[key].end()) << key << " went back to " << *change.value;
      }
    }
  }

  std::mt19937 random_{GetParam()};
  FakeDaemon daemon_;
  bool connected_ = true;
  std::map<std::string, std::vector<std::string>> history_;
  std::map<std::string, std::vector<Change>> told_;
  Session session_{Topics("panel", ""), daemon_, std::chrono::hours(1), "?unique-"};
};

TEST_P(WatchRaces, neverLeadBackToAnOlderValue) {
  int last = 0;
  for (const char* key : kKeys) {
    change(key, std::to_string(++last));
  }
  watch();

  for (int i = 0; i < 2000; ++i) {
    step([&] { change(anyKey(), std::to_string(++last)); });
  }
  settle();
  change("Audio.Volume", "end");  // so that something is told in any case
  settle();

  EXPECT_EQ(told_["Audio.Volume"].back().value, "end");
  expectThatEachOldValueIsTheOneBefore();
  expectThatTheLastValuesAreTheTruth();
  expectThatNothingLedBack();
}

TEST_P(WatchRaces, endAtTheTruthWhereValuesReturnAndKeysAreRemoved) {
  for (const char* key : kKeys) {
    change(key, "0");
  }
  watch();

  for (int i = 0; i < 2000; ++i) {
    step([&] {
      const std::string key = anyKey();
      const std::string value = std::to_string(random_() % 3);
      const auto present = daemon_.values.find(key);
      if (present == daemon_.values.end() || present->second != value) {
        change(key, value);
      } else if (key.starts_with("State.")) {
        daemon_.change(key, Json::nullValue);
      }
    });
  }
  settle();
  change("Audio.Volume", "end");
  settle();

  EXPECT_EQ(told_["Audio.Volume"].back().value, "end");
  expectThatEachOldValueIsTheOneBefore();
  expectThatTheLastValuesAreTheTruth();
}

INSTANTIATE_TEST_SUITE_P(Seeds, WatchRaces, testing::Range(0U, 50U));

}  // namespace
}  // namespace propclient
