#include <string>

#include <gtest/gtest.h>

#include "client/check/ExpressionCost.h"

namespace check {
namespace {

std::string times(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; ++i) {
    all += text;
  }
  return all;
}

class AffordableTest : public testing::TestWithParam<std::string> {};

TEST_P(AffordableTest, isGivenToTheLibrary) {
  EXPECT_TRUE(isAffordable(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(
    Expressions, AffordableTest,
    testing::Values("", "^[0-9]+$", "(", ")", "[", "[]", "{", "a{", "a{,", "\\", "^.{0,255}$", "[(+{9999}]",
                    "^(((25[0-5]|2[0-4][0-9]|1?[0-9]?[0-9])\\.){3}(25[0-5]|2[0-4][0-9]|1?[0-9]?[0-9]))?$",
                    "^([0-9a-f]{2}:){5}[0-9a-f]{2}$", "\\{9999\\}"));

class CostlyTest : public testing::TestWithParam<std::string> {};

TEST_P(CostlyTest, isNotGivenToTheLibrary) {
  EXPECT_FALSE(isAffordable(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Expressions, CostlyTest,
                         testing::Values("a{9999}", "a{,9999}", "a{9999,}", "a{99999999999999999999}",
                                         "(a{1,255}){1,255}", "a" + times(22, "+"),
                                         times(16, "(a") + times(16, ")+"), "(.*)*\\1", times(17, "()*"),
                                         times(60, "\\b"), times(733, "(") + times(733, ")"),
                                         times(2001, "a")));

class AnchoredTest : public testing::TestWithParam<std::pair<std::string, bool>> {};

TEST_P(AnchoredTest, isSeenInEachAlternative) {
  EXPECT_EQ(isAnchored(GetParam().first), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(Expressions, AnchoredTest,
                         testing::Values(std::pair("^a$", true), std::pair("a$", false),
                                         std::pair("^a", false), std::pair("^a|b$", false),
                                         std::pair("^a$|^b$", true), std::pair("^(a|b)$", true),
                                         std::pair("(^a$|^b$)", true), std::pair("^[|]$", true),
                                         std::pair("^a\\|$", true), std::pair("^a\\$", false)));

class ForeignEscapeTest : public testing::TestWithParam<std::pair<std::string, std::string>> {};

TEST_P(ForeignEscapeTest, isTheFirstOne) {
  EXPECT_EQ(foreignEscape(GetParam().first), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(Expressions, ForeignEscapeTest,
                         testing::Values(std::pair("^\\d+$", "\\d"), std::pair("a\\n\\t", "\\n"),
                                         std::pair("[A-Z\\.]", "\\."), std::pair("^a\\.b$", ""),
                                         std::pair("^\\w+$", ""), std::pair("\\", ""), std::pair("[", ""),
                                         std::pair("[a]\\.[b]", "")));

}  // namespace
}  // namespace check
