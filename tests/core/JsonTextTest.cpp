#include "core/JsonText.h"

namespace propertyservice {
namespace {

TEST(JsonText, readsAnObjectWithComments) {
  Json::Value value;

  EXPECT_TRUE(json::parse("/* a */ {\"a\": 1} // b", value));

  EXPECT_EQ(value["a"], Json::Value(1));
}

TEST(JsonText, refusesNestingThatTheReaderThrowsOn) {
  Json::Value value;

  EXPECT_FALSE(json::parse(std::string(1001, '['), value));
  EXPECT_FALSE(json::parse(std::string(100'000, '['), value));
}

TEST(JsonText, refusesTextThatIsNoJson) {
  for (const std::string text : {"", "{", "\xEF\xBB\xBF{}", "{\"a\":1,}", "NaN"}) {
    Json::Value value;

    EXPECT_FALSE(json::parse(text, value)) << text;
  }
}

TEST(JsonText, writesOneLineWithItsEnd) {
  Json::Value value;
  value["b"] = "x";
  value["a"] = 1;

  EXPECT_EQ(json::write(value), "{\"a\":1,\"b\":\"x\"}\n");
}

TEST(JsonText, writesNullForTheEmptyValue) {
  EXPECT_EQ(json::write(Json::Value()), "null\n");
}

TEST(JsonText, escapesEverythingOutsideAscii) {
  EXPECT_EQ(json::write(Json::Value("\xC3\xA9")), "\"\\u00e9\"\n");
  EXPECT_EQ(json::write(Json::Value("\xFF")), "\"\\ufffd\"\n");
}

}  // namespace
}  // namespace propertyservice
