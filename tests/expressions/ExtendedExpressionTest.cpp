#include <array>
#include <optional>
#include <random>
#include <regex.h>
#include <string>

#include <gtest/gtest.h>

#include "expressions/ExtendedExpression.h"

namespace propertyservice {
namespace {

/// The decision of the C library; nothing when it does not compile the expression.
std::optional<bool> libraryMatches(const std::string& expression, const std::string& text) {
  regex_t compiled;
  if (regcomp(&compiled, expression.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
    return std::nullopt;
  }
  const bool matches = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
  regfree(&compiled);
  return matches;
}

std::optional<bool> matches(const std::string& expression, const std::string& text) {
  const auto compiled = ExtendedExpression::compile(expression);
  return compiled ? std::optional(compiled->matches(text)) : std::nullopt;
}

struct Match {
  const char* expression;
  const char* text;
  bool isMatch;
};

TEST(ExtendedExpression, matchesWhatItsPartsDescribe) {
  for (const auto& [expression, text, isMatch] : {
           Match{"b", "abc", true},
           {"^b", "abc", false},
           {"^a", "abc", true},
           {"b$", "abc", false},
           {"c$", "abc", true},
           {"^$", "", true},
           {"^$", "a", false},
           {".", "", false},
           {"x*$", "abc", true},
           {"a.c", "a\nc", true},
           {"a.c",
            "a\xff"
            "c",
            true},
           {"^[0-9]{1,3}$", "1234", false},
           {"^[0-9]{1,3}$", "123", true},
           {"^[0-9]{2}$", "1", false},
           {"^a{2,}$", "a", false},
           {"^a{2,}$", "aaaaa", true},
           {"^a{0,2}$", "", true},
           {"^a{0,2}$", "aaa", false},
           {"^(on|off)$", "off", true},
           {"^(on|off)$", "of", false},
           {"^(ab){2,3}$", "abab", true},
           {"^(ab){2,3}$", "ababa", false},
           {"^([0-9]{1,3}\\.){3}[0-9]{1,3}$", "192.168.0.1", true},
           {"^([0-9]{1,3}\\.){3}[0-9]{1,3}$", "192.168.0", false},
           {"^(a|^b)c", "bc", true},
           {"a|b$", "bx", false},
           {"a|b$", "xb", true},
           {"^a+b?c*$", "aacc", true},
           {"^[^a-c]+$", "xyz", true},
           {"^[^a-c]+$", "xbz", false},
           {"^[[:alpha:]_]+$", "a_B", true},
           {"a\\d", "ad", true},
           {"\\(", "(", true},
           {"a}", "a}", true},
           {"^.*[A-Z].{16}[0-9]$", "xxA01234567890123", false},
           {"^.*[A-Z].{16}[0-9]$", "xxa0123456789abcdef9", false},
           {"^.*[A-Z].{16}[0-9]$", "xxA0123456789abcdef9", true},
       }) {
    EXPECT_EQ(matches(expression, text), std::optional(isMatch)) << expression << " on " << text;
    EXPECT_EQ(libraryMatches(expression, text), std::optional(isMatch)) << expression << " on " << text;
  }
}

TEST(ExtendedExpression, matchesTextsOfAnyLengthAtEachOfItsWords) {
  for (const std::size_t positions : {1U, 63U, 64U, 65U, 127U, 128U, 129U, 255U, 256U}) {
    const auto compiled = ExtendedExpression::compile(std::string(positions, 'a'));
    ASSERT_TRUE(compiled) << positions;
    EXPECT_TRUE(compiled->matches(std::string(positions, 'a'))) << positions;
    EXPECT_TRUE(compiled->matches("b" + std::string(positions + 100, 'a'))) << positions;
    EXPECT_FALSE(compiled->matches(std::string(positions - 1, 'a') + "b" + std::string(positions - 1, 'a')))
        << positions;
  }
}

TEST(ExtendedExpression, endsTheTextAtItsFirstNul) {
  EXPECT_EQ(matches("^a$", std::string("a\0b", 3)), std::optional(true));
}

TEST(ExtendedExpression, leavesRareExpressionsToTheLibrary) {
  for (const char* const expression : {"",
                                       "()",
                                       "a|",
                                       "|a",
                                       "(|a)",
                                       "(a)\\1",
                                       "\\w",
                                       "\\<a",
                                       "a**",
                                       "a+*",
                                       "a{2}{3}",
                                       "^*",
                                       "(^a)*(^*)",
                                       "a{0}",
                                       "a{0,0}",
                                       "a{,2}",
                                       "a{257}",
                                       "(a{20}){20}",
                                       "a{1",
                                       "a{1,2",
                                       "a{x}",
                                       "{1}",
                                       "a{99999999999999999999}",
                                       "a{1,99999999999999999999}"}) {
    EXPECT_FALSE(ExtendedExpression::compile(expression)) << expression;
  }
  EXPECT_FALSE(ExtendedExpression::compile(std::string("a\0b", 3)));
  EXPECT_FALSE(ExtendedExpression::compile(std::string(257, 'a')));
  EXPECT_FALSE(ExtendedExpression::compile(std::string(1000, '(') + "a" + std::string(1000, ')')));
}

TEST(ExtendedExpression, compilesNothingThatTheLibraryRefuses) {
  for (const char* const expression :
       {"(", "a)", "[", "[a", "[]", "[z-a]", "[[:foo:]]", "*a", "(*a)", "a|*b", "+", "?", "\\", "a{2,1}"}) {
    EXPECT_FALSE(ExtendedExpression::compile(expression)) << expression;
  }
}

TEST(ExtendedExpression, decidesAsTheLibraryUnderRandomExpressions) {
  constexpr std::array kPieces = {"a", "b",     "c",  "a",  ".",     "[ab]",  "[^a]", "(",     ")",
                                  "|", "*",     "+",  "?",  "{2}",   "{1,2}", "{2,}", "{0,1}", "^",
                                  "$", "(a|b)", "(b", "c)", "[a-c]", "\\.",   "\\$"};
  std::mt19937 random(20261121);
  const auto pick = [&](std::size_t count) { return random() % count; };
  std::size_t compared = 0;

  for (int round = 0; round < 30'000; ++round) {
    std::string expression;
    for (std::size_t pieces = 1 + pick(8); pieces > 0; --pieces) {
      expression += kPieces[pick(kPieces.size())];
    }
    for (int texts = 0; texts < 4; ++texts) {
      std::string text;
      for (std::size_t bytes = pick(9); bytes > 0; --bytes) {
        text += "abc.$"[pick(5)];
      }
      if (const auto decision = matches(expression, text)) {
        ++compared;
        ASSERT_EQ(decision, libraryMatches(expression, text)) << expression << " on " << text;
      }
    }
  }

  EXPECT_GT(compared, 20'000U);
}

}  // namespace
}  // namespace propertyservice
