#include <gmock/gmock.h>

#include "client/propctl/ExitStatus.h"
#include "client/propctl/Text.h"

namespace propctl {
namespace {

using ::testing::ElementsAre;

TEST(Text, escapesWhatWouldBreakALine) {
  EXPECT_EQ(escaped("a\nb\rc\td\\e\x1b\x7f"), "a\\nb\\rc\\td\\\\e\\x1b\\x7f");
}

TEST(Text, escapesControlCharactersOfTwoBytes) {
  EXPECT_EQ(escaped("a\xc2\x80z\xc2\x9b\xc2\xa0"), "a\\xc2\\x80z\\xc2\\x9b\xc2\xa0");
  EXPECT_EQ(unescaped(escaped("\xc2\x9b")), "\xc2\x9b");
}

TEST(Text, leavesUtf8AsItIs) {
  EXPECT_EQ(escaped("Gr\xc3\xbc\xc3\x9f"), "Gr\xc3\xbc\xc3\x9f");
}

TEST(Text, takesBackEveryCharacter) {
  std::string all;
  for (int code = 0; code < 256; ++code) {
    all += static_cast<char>(code);
  }

  EXPECT_EQ(unescaped(escaped(all)), all);
}

TEST(Text, leavesABackslashThatBeginsNoEscape) {
  EXPECT_EQ(unescaped("a\\q\\x1\\xzz\\"), "a\\q\\x1\\xzz\\");
}

TEST(Line, isReadAsTheSameAssignment) {
  for (const std::string name : {"a", "a=b", "#a", "{a", "a\\n", "a\nb", "a{#"}) {
    const Assignment assignment{name, "b=c\n"};

    EXPECT_THAT(readDump(toLine(assignment), "file"), ElementsAre(assignment)) << toLine(assignment);
  }
}

TEST(Assignments, endTheNameAtTheFirstEqualSign) {
  EXPECT_THAT(toAssignments({"a=b=c"}), ElementsAre(Assignment{"a", "b=c"}));
}

TEST(Assignments, takeTwoArgumentsWithoutEqualSignInTheFirstAsNameAndValue) {
  EXPECT_THAT(toAssignments({"a", "b=c"}), ElementsAre(Assignment{"a", "b=c"}));
}

TEST(Assignments, takeTwoArgumentsWithEqualSigns) {
  EXPECT_THAT(toAssignments({"a=1", "b=2"}), ElementsAre(Assignment{"a", "1"}, Assignment{"b", "2"}));
}

TEST(Assignments, needAName) {
  EXPECT_THROW(toAssignments({"=1"}), Failure);
}

TEST(Dump, skipsEmptyLinesAndComments) {
  EXPECT_THAT(readDump("# all\n\na=1\r\nb=\n", "file"),
              ElementsAre(Assignment{"a", "1"}, Assignment{"b", ""}));
}

TEST(Dump, takesTheLastLineWithoutALineFeed) {
  EXPECT_THAT(readDump("a=1", "file"), ElementsAre(Assignment{"a", "1"}));
}

TEST(Dump, takesIntegersAndBooleansOfAnObject) {
  EXPECT_THAT(
      readDump(R"({"a":-1,"b":true,"c":18446744073709551615})", "file"),
      ElementsAre(Assignment{"a", "-1"}, Assignment{"b", "true"}, Assignment{"c", "18446744073709551615"}));
}

TEST(Dump, refusesAFractionWhoseTextWouldBeAnother) {
  EXPECT_THROW(readDump(R"({"a":0.1})", "file"), Failure);
}

TEST(Dump, refusesNull) {
  EXPECT_THROW(readDump(R"({"a":null})", "file"), Failure);
}

TEST(Dump, refusesAMemberThatIsThereTwice) {
  EXPECT_THROW(readDump(R"({"a":"1","a":"2"})", "file"), Failure);
}

TEST(Dump, refusesASecondObject) {
  EXPECT_THROW(readDump("{\"a\":\"1\"}\n{\"b\":\"2\"}\n", "file"), Failure);
}

TEST(Dump, namesTheLineOfWhatIsNoJson) {
  try {
    readDump("{\"a\":\"1\",\n\"b\":}", "file");
    FAIL();
  } catch (const Failure& failure) {
    EXPECT_THAT(failure.what(), ::testing::StartsWith("file:2: is no JSON: "));
  }
}

TEST(Dump, showsTheBeginningOfALineThatIsTooLongToRead) {
  try {
    readDump(std::string(10'000, 'a'), "file");
    FAIL();
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.what(), "file:1: NAME=VALUE expected: " + std::string(80, 'a'));
  }
}

TEST(Dump, refusesANameThatIsThereTwice) {
  EXPECT_THROW(readDump("a=1\na=2\n", "file"), Failure);
}

TEST(Dump, takesNumbersAndBooleansOfJsonAsText) {
  EXPECT_THAT(readDump(" {\"a\":1,\"b\":true,\"c\":\"x\"}", "file"),
              ElementsAre(Assignment{"a", "1"}, Assignment{"b", "true"}, Assignment{"c", "x"}));
}

TEST(Dump, refusesJsonThatHoldsMoreThanValues) {
  EXPECT_THROW(readDump("{\"a\":[1]}", "file"), Failure);
}

TEST(Dump, refusesJsonThatEndsEarly) {
  EXPECT_THROW(readDump("{\"a\":1", "file"), Failure);
}

}  // namespace
}  // namespace propctl
