#include "common/Quote.h"

namespace common {
namespace {

TEST(Quote, putsTextBetweenDoubleQuotes) {
  EXPECT_EQ(quote("a b"), "\"a b\"");
}

TEST(Quote, leavesTheTextAlone) {
  EXPECT_EQ(quote("a\"b\\"), "\"a\"b\\\"");
}

TEST(Quote, showsEmptyText) {
  EXPECT_EQ(quote(""), "\"\"");
}

}  // namespace
}  // namespace common
