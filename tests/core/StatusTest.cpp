#include "core/Status.h"

namespace propertyservice {
namespace {

TEST(Status, hasATextForEachOfItsTenCodes) {
  const std::vector<std::string> expected = {
      "Ok",       "NotFound", "RegExpError", "ValueError", "ValueOutOfBounds",
      "ReadOnly", "Ok",       "Ok",          "DBError",    "InvalidRequest"};

  std::vector<std::string> texts;
  for (int code = 0; code < 10; ++code) {
    texts.emplace_back(toText(static_cast<Status>(code)).value());
  }

  EXPECT_EQ(texts, expected);
}

TEST(Status, hasNoTextForOtherNumbers) {
  EXPECT_FALSE(toText(static_cast<Status>(10)).has_value());
  EXPECT_FALSE(toText(static_cast<Status>(-1)).has_value());
}

}  // namespace
}  // namespace propertyservice
