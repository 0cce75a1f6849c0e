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

TEST(JsonText, writesAnObjectMemberByMemberAsIfItWereBuilt) {
  for (const std::string& text : {std::string(), std::string("plain / text"), std::string("\"\\\n\t\x01\x7f"),
                                  std::string("a\0b", 3), std::string("\xC3\xA9"), std::string("\xFF")}) {
    Json::Value value;
    value["name"] = text;
    value["number"] = -5;
    value["other"][0] = Json::nullValue;
    value["z" + text] = text;

    const std::string written = json::ObjectText()
                                    .addText("name", text)
                                    .add("number", value["number"])
                                    .add("other", value["other"])
                                    .add("z" + text, value["z" + text])
                                    .finish();

    EXPECT_EQ(written, json::write(value));
  }
}

TEST(JsonText, takesOverTextThatIsJsonAlready) {
  EXPECT_EQ(json::ObjectText().addWritten("list", "[1,{}]").addText("status", "Ok").finish(),
            "{\"list\":[1,{}],\"status\":\"Ok\"}\n");
}

TEST(JsonText, writesAnObjectWithoutMembers) {
  EXPECT_EQ(json::ObjectText().finish(), json::write(Json::objectValue));
}

TEST(JsonText, readsOnAfterATextThatTheReaderThrewOn) {
  Json::Value value;
  json::parse(std::string(5000, '['), value);

  EXPECT_TRUE(json::parse("{\"key\":\"A\"}", value));

  EXPECT_EQ(value["key"], Json::Value("A"));
}

}  // namespace
}  // namespace propertyservice
