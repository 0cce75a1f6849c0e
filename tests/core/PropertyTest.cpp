#include <exception>

#include "core/Constants.h"
#include "core/Property.h"
#include "support/LogCapture.h"

namespace propertyservice {
namespace {

using test::LogCapture;

/// The standard library's own words.
std::string reasonAgainst(const std::string& text) {
  try {
    std::stoi(text);
  } catch (const std::exception& error) {
    return error.what();
  }
  return "";
}

TEST(Property, startsAsNullWithStatusOk) {
  const Property property;

  EXPECT_TRUE(property.json().isNull());
  EXPECT_EQ(property.status(), Status::Ok);
}

TEST(Property, keepsTextColumnsAsStringsAndIntegerColumnsAsIntegers) {
  const Property property({{"key", "A"}, {"flags", "3"}, {"value", "x"}});

  EXPECT_EQ(property.json().size(), 3U);
  EXPECT_EQ(property.get("key"), Json::Value("A"));
  EXPECT_EQ(property.get("flags"), Json::Value(3));
  EXPECT_EQ(property.get("value"), Json::Value("x"));
}

TEST(Property, leavesOutEverythingFromATextThatIsNoIntegerOn) {
  LogCapture log;

  const Property property({{"key", "A"}, {"range_min", "abc"}, {"value", "x"}});

  EXPECT_EQ(property.json().getMemberNames(), std::vector<std::string>{"key"});
  EXPECT_EQ(log.linesWith("warning core/Property:").size(), 1U);
  EXPECT_EQ(log.linesWith(reasonAgainst("abc")).size(), 1U);
}

TEST(Property, leavesOutAnEmptyInteger) {
  LogCapture log;

  const Property property({{"flags", ""}});

  EXPECT_TRUE(property.json().isNull());
  EXPECT_EQ(log.linesWith("warning").size(), 1U);
}

TEST(Property, leavesOutAnIntegerBeyond32Bits) {
  LogCapture log;

  const Property property({{"flags", "2147483648"}});

  EXPECT_TRUE(property.json().isNull());
  EXPECT_EQ(log.linesWith("warning").size(), 1U);
}

TEST(Property, acceptsLeadingBlanksAndASignBeforeAnInteger) {
  const Property property({{"range_max", "  -5"}});

  EXPECT_EQ(property.get("range_max"), Json::Value(-5));
}

TEST(Property, readsAnIntegerUpToTheFirstOtherCharacter) {
  const Property property({{"flags", "7z"}});

  EXPECT_EQ(property.get("flags"), Json::Value(7));
}

TEST(Property, keepsTheZeroAtTheStartOfAValue) {
  const Property property({{"value", "0123"}});

  EXPECT_EQ(property.get("value"), Json::Value("0123"));
}

TEST(Property, lastOfTwoColumnsOfOneNameWins) {
  const Property property({{"value", "first"}, {"value", "second"}});

  EXPECT_EQ(property.get("value"), Json::Value("second"));
}

TEST(Property, equalsOneBuiltInAnotherOrder) {
  const Property one({{"key", "A"}, {"value", "x"}, {"flags", "1"}});
  const Property other({{"flags", "1"}, {"value", "x"}, {"key", "A"}});

  EXPECT_EQ(one, other);
}

TEST(Property, comparesTypesAsWellAsTexts) {
  Property number;
  number.set(column::kValue, 1);
  Property string;
  string.set(column::kValue, "1");

  EXPECT_FALSE(number == string);
}

TEST(Property, leavesTheStatusOutOfEquality) {
  Property one({{"key", "A"}});
  const Property other({{"key", "A"}});

  one.setStatus(Status::Changed);

  EXPECT_EQ(one, other);
}

TEST(Property, tellsAMissingMemberANullAndAnEmptyTextApart) {
  Property property({{"value", ""}});
  property.set(column::kWebui, Json::nullValue);

  EXPECT_EQ(property.get("value"), Json::Value(""));
  EXPECT_TRUE(property.json().isMember("webui"));
  EXPECT_FALSE(property.json().isMember("tr069"));
  EXPECT_TRUE(property.get("tr069").isNull());
}

TEST(Property, isUnaffectedByChangesToItsJson) {
  const Property property({{"key", "A"}});

  Json::Value copy = property.json();
  copy["key"] = "B";

  EXPECT_EQ(property.text("key"), "A");
}

TEST(Property, losesARemovedMember) {
  Property property({{"key", "A"}, {"value", "x"}});

  property.remove(column::kValue);

  EXPECT_FALSE(property.json().isMember("value"));
}

TEST(Property, keepsOnlyTheNamedMembers) {
  Property property({{"key", "A"}, {"value", "x"}, {"flags", "1"}});

  property.keepOnly({"value", "webui"});

  EXPECT_EQ(property, Property({{"value", "x"}}));
}

TEST(Property, listsItsMembersInTheOrderOfTheirNames) {
  const Property property({{"value", "x"}, {"key", "A"}, {"webui", "W"}, {"flags", "1"}});

  std::vector<std::string> names;
  for (const auto& [name, value] : property.members()) {
    names.push_back(name);
  }

  EXPECT_EQ(names, (std::vector<std::string>{"flags", "key", "value", "webui"}));
}

TEST(Property, staysAnObjectWithoutItsLastMember) {
  Property property({{"key", "A"}});

  property.remove(column::kKey);

  EXPECT_EQ(property.json(), Json::Value(Json::objectValue));
}

TEST(Property, keepsTheMembersOfTheObjectItIsBuiltFrom) {
  Json::Value object;
  object["key"] = "A";
  object["flags"] = 3;
  object["remark"] = "no column";

  EXPECT_EQ(Property::fromJson(object).json(), object);
}

TEST(Property, hasNoMembersWhenBuiltFromAnythingButAnObject) {
  EXPECT_TRUE(Property::fromJson(Json::Value(Json::arrayValue)).json().isNull());
  EXPECT_TRUE(Property::fromJson(Json::Value("text")).json().isNull());
}

}  // namespace
}  // namespace propertyservice
