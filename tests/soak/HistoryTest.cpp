#include <gmock/gmock.h>

#include "soak/History.h"

namespace propertyservice::soak {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

using Announcement = History::Watch::Announcement;

constexpr const char* kKey = "A.Key";

/// A key with the default "0", which is set to "1" from 10 s to 11 s and to "2" from 20 s to 21 s.
History history() {
  return {.defaults = {{kKey, "0"}},
          .writes = {{.key = kKey, .value = "1", .sent = 10, .answered = 11},
                     {.key = kKey, .value = "2", .sent = 20, .answered = 21}},
          .reads = {},
          .watches = {},
          .kills = {}};
}

History withRead(const std::string& value, Seconds sent, Seconds answered) {
  History read = history();
  read.reads = {{kKey, value, sent, answered}};
  return read;
}

History withWatch(const std::vector<Announcement>& announcements, Seconds begin = 0, Seconds end = 100) {
  History watched = history();
  watched.watches = {{.group = "A.", .begin = begin, .end = end, .announcements = announcements}};
  return watched;
}

History killedAt(Seconds time, History history) {
  history.kills = {{time, time}};
  return history;
}

History withReset(Seconds sent, Seconds answered, History history) {
  history.writes.push_back({.key = kKey, .value = "0", .sent = sent, .answered = answered, .reset = true});
  return history;
}

struct Case {
  std::string name;
  History history;
  std::string contradiction;  ///< Empty where all is right.
};

void PrintTo(const Case& tested, std::ostream* out) {
  *out << tested.name;
}

class HistoryTest : public testing::TestWithParam<Case> {};

TEST_P(HistoryTest, judgesTheCase) {
  const auto found = contradictions(GetParam().history);

  if (GetParam().contradiction.empty()) {
    EXPECT_THAT(found, IsEmpty());
  } else {
    EXPECT_THAT(found, Contains(HasSubstr(GetParam().contradiction)));
  }
}

const Case kCases[] = {
    {"aReadGivesTheLastValue", withRead("1", 12, 13), ""},
    {"aReadGivesTheDefaultBeforeAnyWrite", withRead("0", 5, 6), ""},
    {"aReadGivesTheOldValueDuringAWrite", withRead("1", 20.2, 20.5), ""},
    {"aReadGivesTheNewValueDuringAWrite", withRead("2", 20.2, 20.5), ""},
    {"aReadAfterAWriteGivesTheOldValue", withRead("1", 22, 23), "overwritten"},
    {"aReadAfterAWriteGivesTheDefault", withRead("0", 12, 13), "overwritten"},
    {"aReadGivesAValueOfTheFuture", withRead("2", 12, 13), "overwritten"},
    {"aReadGivesAForeignValue", withRead("3", 12, 13), "nobody has written"},
    {"aReadGivesTheDefaultAfterAReset", withReset(30, 31, withRead("0", 32, 33)), ""},
    {"aReadGivesAValueThatWasReset", withReset(30, 31, withRead("2", 32, 33)), "overwritten"},
    {"aKillForgetsTheLastSecond", killedAt(21.5, withRead("1", 25, 26)), ""},
    {"aKillForgetsMoreThanTheLastSecond", killedAt(22.5, withRead("1", 25, 26)), "overwritten"},
    {"aReadBeforeAKillGivesAnOldValue", killedAt(21.5, withRead("1", 21.2, 21.3)), "overwritten"},
    {"aWatchHearsAllInOrder", withWatch({{kKey, "1", 11}, {kKey, "2", 21}}), ""},
    {"aWatchBeginsLate", withWatch({{kKey, "2", 21}}, 15), ""},
    {"aWatchHearsAForeignValue", withWatch({{kKey, "1", 11}, {kKey, "3", 12}, {kKey, "2", 21}}),
     "nobody has written"},
    {"aWatchHearsAValueOfTheFuture", withWatch({{kKey, "1", 11}, {kKey, "2", 12}}), "nobody has written"},
    {"aWatchHearsAValueTwice", withWatch({{kKey, "1", 11}, {kKey, "2", 21}, {kKey, "1", 22}}), "twice"},
    {"aWatchHearsTheDefaultTwiceInARow",
     withReset(30, 31, withWatch({{kKey, "1", 11}, {kKey, "2", 21}, {kKey, "0", 31}, {kKey, "0", 32}})),
     "in a row"},
    {"aWatchHearsTheWrongOrder", withWatch({{kKey, "2", 21}, {kKey, "1", 22}}), "after a later value"},
    {"aWatchMissesAValue", withWatch({{kKey, "2", 21}}), "\"1\" was not announced"},
    {"aWatchMissesAReset", withReset(30, 31, withWatch({{kKey, "1", 11}, {kKey, "2", 21}})),
     "a reset was not"},
    {"aResetOfTheDefaultIsNotAnnounced",
     withReset(32, 33, withReset(30, 31, withWatch({{kKey, "1", 11}, {kKey, "2", 21}, {kKey, "0", 31}}))),
     ""},
    {"aKillTakesAnAnnouncement", killedAt(21.5, withWatch({{kKey, "1", 11}})), ""},
    {"aKillTakesAnEarlierAnnouncement", killedAt(23, withWatch({{kKey, "1", 11}})),
     "\"2\" was not announced"},
};

INSTANTIATE_TEST_SUITE_P(Histories, HistoryTest, testing::ValuesIn(kCases),
                         [](const auto& tested) { return tested.param.name; });

}  // namespace
}  // namespace propertyservice::soak
