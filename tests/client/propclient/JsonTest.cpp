#include "propclient/Json.h"

namespace propclient::json {
namespace {

TEST(Json, readsNoTextThatDoesNotParse) {
  EXPECT_EQ(parse("{\"a\":"), std::nullopt);
  EXPECT_EQ(parse(""), std::nullopt);
}

TEST(Json, readsNoTextThatIsNestedTooDeeply) {
  EXPECT_EQ(parse(std::string(100'000, '[')), std::nullopt);
}

TEST(Json, writesOneLineWithAllBytesAsTheyAre) {
  Json::Value value;
  value["a"] = "\u00e4\n\xff";
  value["b"] = std::string("x\0y", 3);

  EXPECT_EQ(write(value), "{\"a\":\"\u00e4\\n\xff\",\"b\":\"x\\u0000y\"}");
}

TEST(Json, givesTheTextOfEveryKindOfValue) {
  EXPECT_EQ(textOf("x"), "x");
  EXPECT_EQ(textOf(7), "7");
  EXPECT_EQ(textOf(1.5), "1.5");
  EXPECT_EQ(textOf(true), "true");
  EXPECT_EQ(textOf(Json::nullValue), "");
  EXPECT_EQ(textOf(parse(R"({"a":[1,2]})").value()), R"({"a":[1,2]})");
}

TEST(Json, knowsAnEchoWhoseBytesWereReplaced) {
  EXPECT_TRUE(isEchoOf("a", "a"));
  EXPECT_TRUE(isEchoOf("a\xff", "a\ufffd"));
  EXPECT_FALSE(isEchoOf("a", "b"));
  EXPECT_FALSE(isEchoOf("", Json::nullValue));
}

}  // namespace
}  // namespace propclient::json
