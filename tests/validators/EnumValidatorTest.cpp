#include "core/Constants.h"
#include "validators/EnumValidator.h"

namespace propertyservice {
namespace {

Status verdict(Property property) {
  property.setStatus(Status::DBError);
  const bool accepted = EnumValidator().validate(property);
  EXPECT_EQ(accepted, property.status() == Status::Ok);
  return property.status();
}

Status verdict(const std::string& value, const std::string& list) {
  return verdict(Property({{"value", value}, {"enum", list}}));
}

TEST(EnumValidator, leavesTheStatusWithoutAList) {
  Property property({{"value", "x"}});
  property.set(column::kEnum, Json::nullValue);
  property.setStatus(Status::DBError);

  EXPECT_TRUE(EnumValidator().validate(property));

  EXPECT_EQ(property.status(), Status::DBError);
}

TEST(EnumValidator, acceptsEveryListedValue) {
  EXPECT_EQ(verdict("on", "on,off,auto"), Status::Ok);
  EXPECT_EQ(verdict("off", "on,off,auto"), Status::Ok);
  EXPECT_EQ(verdict("auto", "on,off,auto"), Status::Ok);
  EXPECT_EQ(verdict("on", "on"), Status::Ok);
}

TEST(EnumValidator, refusesAValueThatIsNotListed) {
  EXPECT_EQ(verdict("of", "on,off"), Status::ValueError);
  EXPECT_EQ(verdict("offf", "on,off"), Status::ValueError);
  EXPECT_EQ(verdict("on,off", "on,off"), Status::ValueError);
}

TEST(EnumValidator, tellsCapitalsFromSmallLetters) {
  EXPECT_EQ(verdict("On", "on,off"), Status::ValueError);
}

TEST(EnumValidator, trimsNothing) {
  EXPECT_EQ(verdict("off", "on, off"), Status::ValueError);
  EXPECT_EQ(verdict(" off", "on, off"), Status::Ok);
}

TEST(EnumValidator, neverAcceptsTheEmptyValue) {
  for (const std::string list : {"on,off", "on,,off", ",on", "on,", ",", ""}) {
    EXPECT_EQ(verdict("", list), Status::ValueError) << list;
  }
}

TEST(EnumValidator, findsAValueBehindEmptyPieces) {
  EXPECT_EQ(verdict("off", "on,,off"), Status::Ok);
  EXPECT_EQ(verdict("on", ",on"), Status::Ok);
  EXPECT_EQ(verdict("on", "on,"), Status::Ok);
}

TEST(EnumValidator, refusesEverythingUnderAnEmptyList) {
  EXPECT_EQ(verdict("on", ""), Status::ValueError);
}

TEST(EnumValidator, refusesAValueThatIsNoText) {
  Property property({{"enum", "on,off"}});
  property.set(column::kValue, Json::Value(Json::objectValue));

  EXPECT_EQ(verdict(property), Status::ValueError);
}

}  // namespace
}  // namespace propertyservice
