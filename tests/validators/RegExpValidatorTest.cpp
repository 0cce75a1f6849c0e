#include <atomic>
#include <malloc.h>
#include <thread>

#include "core/Constants.h"
#include "support/LogCapture.h"
#include "validators/RegExpValidator.h"

namespace propertyservice {
namespace {

using test::LogCapture;

Status verdict(Property property) {
  property.setStatus(Status::DBError);
  const bool accepted = RegExpValidator().validate(property);
  EXPECT_EQ(accepted, property.status() == Status::Ok);
  return property.status();
}

Status verdict(const std::string& pattern, const std::string& value) {
  return verdict(Property({{"value", value}, {"regexp", pattern}}));
}

TEST(RegExpValidator, acceptsAnythingWithoutAPattern) {
  EXPECT_EQ(verdict(Property({{"value", "x"}})), Status::Ok);
}

TEST(RegExpValidator, acceptsAMatchAnywhereInTheValue) {
  EXPECT_EQ(verdict("[0-9]+", "a1b"), Status::Ok);
  EXPECT_EQ(verdict("", "x"), Status::Ok);
}

TEST(RegExpValidator, heedsTheAnchorsOfThePattern) {
  EXPECT_EQ(verdict("^[0-9]+$", "12"), Status::Ok);
  EXPECT_EQ(verdict("^[0-9]+$", "a1b"), Status::RegExpError);
}

TEST(RegExpValidator, tellsCapitalsFromSmallLetters) {
  EXPECT_EQ(verdict("abc", "ABC"), Status::RegExpError);
}

TEST(RegExpValidator, takesThePatternForAnExtendedExpression) {
  EXPECT_EQ(verdict("^(on|off){1}$", "off"), Status::Ok);
}

TEST(RegExpValidator, takesALineBreakForAnOrdinaryCharacter) {
  EXPECT_EQ(verdict("^b$", "a\nb"), Status::RegExpError);
  EXPECT_EQ(verdict("^a.b$", "a\nb"), Status::Ok);
}

TEST(RegExpValidator, logsPatternAndValueOfAMismatch) {
  LogCapture log;

  EXPECT_EQ(verdict("^[0-9]+$", "abc"), Status::RegExpError);

  EXPECT_EQ(log.linesWith("Regexp: ^[0-9]+$ comparison failed for value:abc").size(), 1U);
  EXPECT_EQ(log.linesWith("info validators/RegExpValidator:").size(), 1U);
}

TEST(RegExpValidator, refusesAndLogsAPatternThatDoesNotCompile) {
  LogCapture log;

  EXPECT_EQ(verdict("(", "x"), Status::RegExpError);
  EXPECT_EQ(verdict("(", "x"), Status::RegExpError);

  EXPECT_EQ(log.linesWith("info validators/RegExpValidator:").size(), 2U);
  EXPECT_EQ(log.linesWith(" Regexp compilation failed").size(), 2U);
}

TEST(RegExpValidator, judgesAMissingValueAsTheEmptyText) {
  EXPECT_EQ(verdict(Property({{"regexp", "^$"}})), Status::Ok);
  EXPECT_EQ(verdict(Property({{"regexp", "."}})), Status::RegExpError);
}

TEST(RegExpValidator, judgesTheTextOfANumber) {
  Property property({{"regexp", "^[0-9]+$"}});
  property.set(column::kValue, 12);

  EXPECT_EQ(verdict(property), Status::Ok);
}

TEST(RegExpValidator, refusesAValueThatIsNoText) {
  Property property({{"regexp", ".*"}});
  property.set(column::kValue, Json::Value(Json::arrayValue));

  EXPECT_EQ(verdict(property), Status::RegExpError);
}

TEST(RegExpValidator, judgesAlikeWhateverCameBeforeUnderThePattern) {
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(verdict("^[a-c]+$", "abc"), Status::Ok);
    EXPECT_EQ(verdict("^[a-c]+$", "abd"), Status::RegExpError);
    EXPECT_EQ(verdict("^[a-c]+$", "c"), Status::Ok);
    EXPECT_EQ(verdict("^[a-c]+$", "b"), Status::Ok);
  }
}

TEST(RegExpValidator, judgesByMorePatternsThanItKeeps) {
  const LogCapture quiet;

  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 600; ++i) {
      const std::string number = std::to_string(i);

      EXPECT_EQ(verdict("^" + number + "$", number), Status::Ok);
      EXPECT_EQ(verdict("^" + number + "$", number + "x"), Status::RegExpError);
      EXPECT_EQ(verdict("^" + number + "$", number), Status::Ok);
    }
  }
}

TEST(RegExpValidator, boundsTheMemoryThatItsPatternsTake) {
  constexpr std::size_t kMostBytes = 10'000'000;  // 4096 of them take 35 MB, 256 a sixteenth of that
  const std::size_t before = mallinfo2().uordblks;

  for (int i = 0; i < 4096; ++i) {
    const std::string number = std::to_string(i);
    EXPECT_EQ(verdict("^" + number + "[a-z]{1,3}$", number + "abc"), Status::Ok);
  }

  EXPECT_LT(mallinfo2().uordblks, before + kMostBytes);
}

TEST(RegExpValidator, judgesInSeveralThreadsAtOnce) {
  const LogCapture quiet;
  RegExpValidator validator;
  std::atomic<int> wrong = 0;
  const auto judge = [&] {
    for (int i = 0; i < 2000; ++i) {
      Property good(
          {{"value", "192.168.0." + std::to_string(i % 256)}, {"regexp", "^([0-9]{1,3}\\.){3}[0-9]{1,3}$"}});
      Property bad({{"value", "192.168.0"}, {"regexp", "^([0-9]{1,3}\\.){3}[0-9]{1,3}$"}});
      wrong += !validator.validate(good);
      wrong += i % 100 == 0 && validator.validate(bad);
    }
  };

  std::thread one(judge);
  std::thread other(judge);
  one.join();
  other.join();

  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace propertyservice
