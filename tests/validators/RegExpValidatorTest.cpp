#include <algorithm>
#include <atomic>
#include <functional>
#include <malloc.h>
#include <random>
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

/// Different texts that "^.*[A-Z].{16}[0-9]$" matches.
std::vector<std::string> textsOf218Bytes(int count) {
  std::mt19937 random(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same texts in every run
  std::vector<std::string> texts;
  for (int i = 0; i < count; ++i) {
    std::string text(218, 'A');
    for (char& character : text) {
      character = static_cast<char>((random() % 2 == 0 ? 'A' : 'a') + random() % 26);
    }
    text[200] = 'A';
    text[217] = '1';
    texts.push_back(text);
  }
  return texts;
}

constexpr int kTexts = 150;  // the library alone takes 90 MB for as many

/// By how much the memory in use grows at most while each text is judged under its pattern, in a thread that
/// keeps no expressions yet.
std::size_t mostGrowth(const std::vector<std::string>& texts,
                       const std::function<std::string(std::size_t)>& pattern) {
  const auto allocated = [] {
    const auto heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
  };
  std::size_t growth = 0;
  std::thread([&] {
    const std::size_t before = allocated();
    for (std::size_t i = 0; i < texts.size(); ++i) {
      EXPECT_EQ(verdict(pattern(i), texts[i]), Status::Ok);
      growth = std::max(growth, allocated() - std::min(before, allocated()));
    }
  }).join();
  return growth;
}

constexpr std::size_t kMostGrowth = std::size_t{8} * 1024 * 1024;

TEST(RegExpValidator, boundsTheMemoryThatDifferentTextsTake) {
  EXPECT_LT(mostGrowth(textsOf218Bytes(kTexts), [](std::size_t) { return "^.*[A-Z].{16}[0-9]$"; }),
            kMostGrowth);
}

TEST(RegExpValidator, boundsTheMemoryThatTextsUnder256PatternsTake) {
  const auto pattern = [](std::size_t i) { return "^(.*[A-Z].{16}[0-9]|" + std::to_string(i % 256) + ")$"; };

  EXPECT_LT(mostGrowth(textsOf218Bytes(300), pattern), kMostGrowth);
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
