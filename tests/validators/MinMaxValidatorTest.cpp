#include "core/Constants.h"
#include "support/LogCapture.h"
#include "validators/MinMaxValidator.h"

namespace propertyservice {
namespace {

using test::LogCapture;

Status verdict(Property property) {
  property.setStatus(Status::DBError);
  const bool accepted = MinMaxValidator().validate(property);
  EXPECT_EQ(accepted, property.status() == Status::Ok);
  return property.status();
}

Status between1And10(const std::string& value) {
  return verdict(Property({{"value", value}, {"range_min", "1"}, {"range_max", "10"}}));
}

TEST(MinMaxValidator, acceptsAnythingWithoutARange) {
  EXPECT_EQ(verdict(Property({{"value", "abc"}})), Status::Ok);
}

TEST(MinMaxValidator, takesNullBoundsForNone) {
  Property property({{"value", "abc"}});
  property.set(column::kRangeMin, Json::nullValue);
  property.set(column::kRangeMax, Json::nullValue);

  EXPECT_EQ(verdict(property), Status::Ok);
}

TEST(MinMaxValidator, countsBothBoundsIn) {
  EXPECT_EQ(between1And10("1"), Status::Ok);
  EXPECT_EQ(between1And10("10"), Status::Ok);
}

TEST(MinMaxValidator, refusesWhatIsBeyondABound) {
  EXPECT_EQ(between1And10("0"), Status::ValueOutOfBounds);
  EXPECT_EQ(between1And10("11"), Status::ValueOutOfBounds);
  EXPECT_EQ(between1And10("-5"), Status::ValueOutOfBounds);
}

TEST(MinMaxValidator, knowsAMinimumAlone) {
  EXPECT_EQ(verdict(Property({{"value", "-3"}, {"range_min", "-3"}})), Status::Ok);
  EXPECT_EQ(verdict(Property({{"value", "-4"}, {"range_min", "-3"}})), Status::ValueOutOfBounds);
}

TEST(MinMaxValidator, knowsAMaximumAlone) {
  EXPECT_EQ(verdict(Property({{"value", "7"}, {"range_max", "7"}})), Status::Ok);
  EXPECT_EQ(verdict(Property({{"value", "8"}, {"range_max", "7"}})), Status::ValueOutOfBounds);
}

TEST(MinMaxValidator, readsANumberUpToTheFirstOtherCharacter) {
  EXPECT_EQ(between1And10("7xyz"), Status::Ok);
  EXPECT_EQ(between1And10(" 7xyz"), Status::Ok);
  EXPECT_EQ(between1And10("3.9"), Status::Ok);
  EXPECT_EQ(between1And10("+4"), Status::Ok);
  EXPECT_EQ(between1And10("0x10"), Status::ValueOutOfBounds);
}

TEST(MinMaxValidator, refusesAndLogsWhatIsNoNumber) {
  for (const std::string value : {"abc", "", "2147483648", "-99999999999999999999"}) {
    LogCapture log;

    EXPECT_EQ(between1And10(value), Status::ValueOutOfBounds) << value;

    EXPECT_EQ(log.linesWith("info validators/MinMaxValidator:").size(), 1U) << value;
    EXPECT_EQ(log.linesWith("Cannot validate value with range: stoi").size(), 1U) << value;
  }
}

TEST(MinMaxValidator, refusesAndLogsAValueThatIsNoText) {
  LogCapture log;
  Property property({{"range_min", "1"}});
  property.set(column::kValue, Json::Value(Json::arrayValue));

  EXPECT_EQ(verdict(property), Status::ValueOutOfBounds);

  EXPECT_EQ(log.linesWith("Cannot validate value with range: ").size(), 1U);
}

TEST(MinMaxValidator, judgesTheTextOfANumber) {
  Property property({{"range_min", "1"}, {"range_max", "10"}});
  property.set(column::kValue, 7);

  EXPECT_EQ(verdict(property), Status::Ok);
}

}  // namespace
}  // namespace propertyservice
