#include <gmock/gmock.h>

#include "client/propctl/Rules.h"

namespace propctl {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(Rules, acceptThePresentValueWithoutBeingAsked) {
  EXPECT_EQ(judge("x", {{"value", "x"}, {"flags", "1"}, {"regexp", "^y$"}}), Status::ok);
}

TEST(Rules, areAskedInTheDaemonsOrder) {
  const Columns property = {{"value", "a"}, {"regexp", "^[0-9]+$"}, {"range_max", "5"}, {"enum", "1,2"}};
  Columns readOnly = property;
  readOnly["flags"] = "1";

  EXPECT_EQ(judge("x", readOnly), Status::readOnly);
  EXPECT_EQ(judge("x", property), Status::regExpError);
  EXPECT_EQ(judge("7", property), Status::valueOutOfBounds);
  EXPECT_EQ(judge("3", property), Status::valueError);
  EXPECT_EQ(judge("2", property), Status::ok);
}

TEST(Rules, refuseAValueThatCannotBeStoredFirst) {
  EXPECT_EQ(judge(std::string(257, 'x'), {{"flags", "1"}}), Status::valueError);
}

TEST(Rules, areToldInWords) {
  EXPECT_THAT(
      rulesOf({{"flags", "1"}, {"regexp", "^a$"}, {"range_min", "1"}, {"range_max", "9"}, {"enum", "a,b"}}),
      ElementsAre("read-only", "matches ^a$", "a number from 1 to 9", "one of a, b"));
}

TEST(Rules, tellARangeWithOneEnd) {
  EXPECT_THAT(rulesOf({{"range_min", "1"}}), ElementsAre("a number from 1 on"));
  EXPECT_THAT(rulesOf({{"range_max", "9"}}), ElementsAre("a number up to 9"));
}

TEST(Rules, areNoneWithoutColumns) {
  EXPECT_THAT(rulesOf({{"key", "A"}}), IsEmpty());
}

TEST(Flags, areWords) {
  EXPECT_EQ(flagsInWords({{"flags", "31"}}), "read-only,setting,dump,user,kept");
}

TEST(Flags, areNumbersWhereTheyHaveNoWord) {
  EXPECT_EQ(flagsInWords({{"flags", "40"}}), "user,32");
}

TEST(Flags, areNoneWithoutAny) {
  EXPECT_EQ(flagsInWords({}), "none");
}

}  // namespace
}  // namespace propctl
