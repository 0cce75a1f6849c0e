#include "propclient/Conversation.h"
#include "propclient/Json.h"

namespace propclient {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ConversationTest : public testing::Test {
 protected:
  static constexpr auto kTimeout = 5s;

  /// Asks for a property; the answer goes to `answers_`, as "KEY=VALUE" or "KEY: STATUS".
  void get(const std::string& key, const std::function<void()>& then = {}) {
    conversation_.ask(request::get(key, Field::key,
                                   [this, key, then](const Answer<std::string>& answer) {
                                     answers_.push_back(answer.ok() ? key + '=' + answer.value
                                                                    : key + ": " + toText(answer.status));
                                     if (then) {
                                       then();
                                     }
                                   }),
                      now_ + kTimeout);
  }

  void receiveValue(const std::string& key, const std::string& value) {
    conversation_.received(R"({"param":")" + key + R"(","result":")" + value + R"(","status":"Ok"})");
  }

  /// The reply to a request of that text, as the daemon without any property gives it.
  void receiveReplyToMarker(const std::string& text) {
    Json::Value reply;
    reply["param"] = (*json::parse(text))["param"];
    reply["status"] = Json::nullValue;
    conversation_.received(json::write(reply));
  }

  /// A connection on which no marker is outstanding and none needed.
  void openAndSettle() {
    conversation_.opened();
    get("First");
    receiveReplyToMarker(sent_.at(0));
    receiveValue("First", "1");
    sent_.clear();
    answers_.clear();
  }

  void pass(Clock::duration time) {
    now_ += time;
    conversation_.keepTime(now_);
  }

  static bool isMarker(const std::string& text) { return text.find("getColsL") != std::string::npos; }

  std::vector<std::string> sent_;
  std::vector<std::string> answers_;
  Clock::time_point now_{};
  Conversation conversation_{[this](const std::string& text) { sent_.push_back(text); }, "?unique-"};
};

TEST_F(ConversationTest, givesUpAtOnceBeforeTheFirstConnection) {
  get("A");

  EXPECT_THAT(answers_, ElementsAre("A: NoAnswer"));
  EXPECT_THAT(sent_, IsEmpty());
}

TEST_F(ConversationTest, givesAReplyToItsRequest) {
  openAndSettle();

  get("A");
  receiveValue("A", "1");

  EXPECT_THAT(sent_, ElementsAre(HasSubstr("\"A\"")));
  EXPECT_THAT(answers_, ElementsAre("A=1"));
}

TEST_F(ConversationTest, givesRepliesOfOneShapeInTheOrderOfTheRequests) {
  openAndSettle();

  get("A");
  get("A");
  receiveValue("A", "1");
  receiveValue("A", "2");

  EXPECT_THAT(answers_, ElementsAre("A=1", "A=2"));
}

TEST_F(ConversationTest, givesUpARequestWhenALaterOneIsAnswered) {
  openAndSettle();

  get("A");
  get("B");
  get("C");
  receiveValue("C", "3");

  EXPECT_THAT(answers_, ElementsAre("A: NoAnswer", "B: NoAnswer", "C=3"));
}

TEST_F(ConversationTest, dropsAReplyThatFitsNothing) {
  openAndSettle();

  get("A");
  receiveValue("B", "2");
  conversation_.received("no JSON");
  receiveValue("A", "1");

  EXPECT_THAT(answers_, ElementsAre("A=1"));
}

TEST_F(ConversationTest, givesAReplyThatComesTwiceOnce) {
  openAndSettle();

  get("A");
  receiveValue("A", "1");
  receiveValue("A", "1");

  EXPECT_THAT(answers_, ElementsAre("A=1"));
}

TEST_F(ConversationTest, asksBehindAMarkerAfterAReplyThatFittedNothing) {
  openAndSettle();
  receiveValue("A", "stale");

  get("A");

  ASSERT_EQ(sent_.size(), 2U);
  EXPECT_TRUE(isMarker(sent_.at(0)));
  receiveValue("A", "stale");
  receiveReplyToMarker(sent_.at(0));
  receiveValue("A", "fresh");
  EXPECT_THAT(answers_, ElementsAre("A=fresh"));
}

TEST_F(ConversationTest, asksBehindAMarkerOnANewConnection) {
  conversation_.opened();

  get("A");
  get("B");

  ASSERT_EQ(sent_.size(), 3U);
  EXPECT_TRUE(isMarker(sent_.at(0)));
  EXPECT_FALSE(isMarker(sent_.at(1)));
  EXPECT_FALSE(isMarker(sent_.at(2)));
}

TEST_F(ConversationTest, sendsNothingOnANewConnectionBeforeItIsAsked) {
  conversation_.opened();

  EXPECT_THAT(sent_, IsEmpty());
}

TEST_F(ConversationTest, takesNoReplyOfAnEarlierConnectionForALaterRequest) {
  openAndSettle();
  get("A");
  conversation_.lost();
  conversation_.opened();
  get("A");

  receiveValue("A", "of the first");
  receiveReplyToMarker(sent_.at(1));
  receiveValue("A", "of the second");

  EXPECT_THAT(answers_, ElementsAre("A: NoAnswer", "A=of the second"));
}

TEST_F(ConversationTest, takesNoMarkerOfAnEarlierConnectionForALaterOne) {
  conversation_.opened();
  get("A");
  conversation_.lost();
  conversation_.opened();
  get("A");

  receiveReplyToMarker(sent_.at(0));
  receiveValue("A", "of the first");
  receiveReplyToMarker(sent_.at(2));
  receiveValue("A", "of the second");

  EXPECT_THAT(answers_, ElementsAre("A: NoAnswer", "A=of the second"));
}

TEST_F(ConversationTest, givesUpAtTheDeadline) {
  openAndSettle();
  get("A");

  pass(kTimeout - 1ms);
  EXPECT_THAT(answers_, IsEmpty());
  pass(1ms);

  EXPECT_THAT(answers_, ElementsAre("A: NoAnswer"));
}

TEST_F(ConversationTest, answersARequestOnlyOnceThoughItsReplyComesLate) {
  openAndSettle();
  get("A");
  pass(kTimeout);

  receiveValue("A", "late");

  EXPECT_THAT(answers_, ElementsAre("A: NoAnswer"));
}

TEST_F(ConversationTest, takesNoLateReplyForALaterRequest) {
  openAndSettle();
  get("A");
  pass(kTimeout);
  get("A");

  receiveValue("A", "late");
  receiveReplyToMarker(sent_.at(1));
  receiveValue("A", "in time");

  EXPECT_THAT(answers_, ElementsAre("A: NoAnswer", "A=in time"));
}

TEST_F(ConversationTest, takesNoLateReplyForANeighbourThatStillWaits) {
  openAndSettle();
  get("A");
  pass(1s);
  get("A");
  pass(kTimeout - 1s);

  receiveValue("A", "late");
  receiveValue("A", "in time");

  EXPECT_THAT(answers_, ElementsAre("A: NoAnswer", "A=in time"));
}

TEST_F(ConversationTest, isNotLedAstrayByARequestThatIsNeverAnswered) {
  openAndSettle();
  get("A");
  pass(kTimeout);

  for (const std::string value : {"1", "2", "3"}) {
    sent_.clear();
    get("A");
    if (isMarker(sent_.front())) {
      receiveReplyToMarker(sent_.front());
    }
    receiveValue("A", value);
  }

  EXPECT_THAT(answers_, ElementsAre("A: NoAnswer", "A=1", "A=2", "A=3"));
}

TEST_F(ConversationTest, neverSendsWhatTimedOutWhileItWaited) {
  openAndSettle();
  for (std::size_t i = 0; i < Conversation::kMostUnanswered; ++i) {
    get("Early");
  }
  get("Late");
  sent_.clear();

  pass(kTimeout);

  EXPECT_THAT(sent_, IsEmpty());
  EXPECT_EQ(answers_.back(), "Late: NoAnswer");
}

TEST_F(ConversationTest, sendsOnlySoManyAheadOfTheirReplies) {
  openAndSettle();
  for (std::size_t i = 0; i < Conversation::kMostUnanswered + 2; ++i) {
    get(std::to_string(i));
  }
  ASSERT_EQ(sent_.size(), Conversation::kMostUnanswered);

  receiveValue("0", "x");

  EXPECT_EQ(sent_.size(), Conversation::kMostUnanswered + 1);
}

TEST_F(ConversationTest, goesOnThoughNothingIsAnswered) {
  openAndSettle();
  for (std::size_t i = 0; i < 100 * Conversation::kMostUnanswered; ++i) {
    get("A");
    pass(kTimeout / 10);
  }
  pass(kTimeout);
  answers_.clear();
  sent_.clear();

  get("B");
  receiveReplyToMarker(sent_.at(0));
  receiveValue("B", "1");

  EXPECT_THAT(answers_, ElementsAre("B=1"));
}

TEST_F(ConversationTest, givesUpEverythingOutstandingWhenTheConnectionBreaks) {
  openAndSettle();
  for (std::size_t i = 0; i < Conversation::kMostUnanswered + 3; ++i) {
    get("A");
  }

  conversation_.lost();

  EXPECT_EQ(answers_, std::vector<std::string>(Conversation::kMostUnanswered + 3, "A: NoAnswer"));
}

TEST_F(ConversationTest, keepsWhatIsAskedWhileTheConnectionIsAwayUntilItIsBack) {
  openAndSettle();
  conversation_.lost();
  get("A");
  ASSERT_THAT(sent_, IsEmpty());

  conversation_.opened();
  receiveReplyToMarker(sent_.at(0));
  receiveValue("A", "1");

  EXPECT_THAT(answers_, ElementsAre("A=1"));
}

TEST_F(ConversationTest, givesUpWhatIsAskedWhileTheConnectionIsAwayAtTheDeadline) {
  openAndSettle();
  conversation_.lost();
  get("A");

  pass(kTimeout);

  EXPECT_THAT(answers_, ElementsAre("A: NoAnswer"));
}

TEST_F(ConversationTest, givesUpARequestTooLongForTheDaemon) {
  openAndSettle();

  get(std::string(Conversation::kLongestText, 'x'));

  EXPECT_EQ(answers_.size(), 1U);
  EXPECT_THAT(sent_, IsEmpty());
}

TEST_F(ConversationTest, givesUpWhatIsTooMuchToKeep) {
  openAndSettle();
  conversation_.lost();
  const std::string key(Conversation::kLongestText - 100, 'x');
  for (std::size_t i = 0; i < Conversation::kMostBytes / Conversation::kLongestText; ++i) {
    get(key);
  }
  ASSERT_THAT(answers_, IsEmpty());

  get(key);

  EXPECT_EQ(answers_.size(), 1U);
}

TEST_F(ConversationTest, hasRoomAgainForWhatWasGivenUpAtTheDeadline) {
  openAndSettle();
  conversation_.lost();
  const std::string key(Conversation::kLongestText - 100, 'x');
  for (std::size_t i = 0; i < Conversation::kMostBytes / Conversation::kLongestText; ++i) {
    get(key);
  }
  pass(kTimeout);
  answers_.clear();

  get(key);

  EXPECT_THAT(answers_, IsEmpty());
}

TEST_F(ConversationTest, asksBehindAMarkerAfterAReplyThatCannotBeRead) {
  openAndSettle();

  conversation_.received("{");
  get("A");

  ASSERT_EQ(sent_.size(), 2U);
  EXPECT_TRUE(isMarker(sent_[0]));
}

TEST_F(ConversationTest, sendsWhatWaitsBeforeItCallsBack) {
  openAndSettle();
  std::size_t sentBefore = 0;
  get("A", [&] { sentBefore = sent_.size(); });
  for (std::size_t i = 0; i < Conversation::kMostUnanswered; ++i) {
    get("B");
  }

  receiveValue("A", "1");

  EXPECT_EQ(sentBefore, Conversation::kMostUnanswered + 1);
}

TEST_F(ConversationTest, namesTheDeadlineOfWhatWaits) {
  openAndSettle();
  conversation_.lost();

  get("A");

  EXPECT_EQ(conversation_.nextDeadline(), now_ + kTimeout);
}

TEST_F(ConversationTest, letsACallbackAsk) {
  openAndSettle();

  get("A", [this] { get("B"); });
  receiveValue("A", "1");
  receiveValue("B", "2");

  EXPECT_THAT(answers_, ElementsAre("A=1", "B=2"));
}

TEST_F(ConversationTest, namesTheEarliestDeadline) {
  openAndSettle();
  EXPECT_EQ(conversation_.nextDeadline(), std::nullopt);
  get("A");
  pass(1s);
  get("B");

  EXPECT_EQ(conversation_.nextDeadline(), now_ - 1s + kTimeout);
}

}  // namespace
}  // namespace propclient
