#include "core/JsonText.h"

namespace propertyservice {
namespace {

TEST(JsonText, readsAnObjectWithComments) {
  Json::Value value;

  EXPECT_TRUE(json::parse("/* a */ {\"a\": 1} // b", value));

  EXPECT_EQ(value["a"], Json::Value(1));
}

std::string nested(const std::string& open, const std::string& inner, const std::string& close, int levels) {
  std::string text = inner;
  for (int i = 0; i < levels; ++i) {
    text.insert(0, open);
    text += close;
  }
  return text;
}

TEST(JsonText, refusesNestingDeeperThan100Levels) {
  Json::Value value;
  for (const auto& [open, close] : std::vector<std::pair<std::string, std::string>>{
           {"[", "]"}, {"{\"a\":", "}"}, {"[0,{\"[\":", "}]"}, {"[/* ] */", "]"}, {"[ // ]\n", "]"}}) {
    const int levels = open.find('{') != std::string::npos && open.front() == '[' ? 50 : 100;

    EXPECT_TRUE(json::parse(nested(open, "1", close, levels), value)) << open;
    EXPECT_FALSE(json::parse(nested(open, "1", close, levels + 1), value)) << open;
  }
  EXPECT_FALSE(json::parse(std::string(101, '['), value));
  EXPECT_FALSE(json::parse(std::string(100'000, '['), value));
}

TEST(JsonText, countsNoNestingInStringsAndCommentsAndAfterTheValue) {
  Json::Value value;
  const std::string brackets(1000, '[');

  for (const std::string& text :
       {"[\"" + brackets + "\"]", "[\"\\\"" + brackets + "\"]", "[\"\\\\\", \"" + brackets + "\"]",
        "/*" + brackets + "*/[]", "//" + brackets + "\n[]", "//" + brackets + "\r[]",
        "[/*/" + brackets + "*/1]", "{}" + brackets, "[[], [], [[]]]" + brackets}) {
    EXPECT_TRUE(json::parse(text, value)) << text;
  }
}

TEST(JsonText, countsNestingAfterWhatOnlyLooksLikeAStringOrAComment) {
  Json::Value value;
  const std::string tooDeep = nested("[", "", "]", 100);

  for (const std::string text : {"\"\\\\\",", "\"/*\",", "\"//\",", "/**/", "/***/", "//\r", "/* // */"}) {
    EXPECT_FALSE(json::parse("[" + text + tooDeep + "]", value)) << text;
  }
}

TEST(JsonText, refusesABracketThatTheReaderTakesForAComma) {
  Json::Value value;

  EXPECT_TRUE(json::parse("{\"a\":0/**/,\"b\":[]}", value));
  for (const std::string text :
       {"{\"a\":0/**/]\"b\":[]}", "{\"a\":0/**/[\"b\":[]}", "[{\"a\":0/**/]\"b\":[]}]"}) {
    EXPECT_FALSE(json::parse(text, value)) << text;
  }
}

TEST(JsonText, refusesMoreThan262144Values) {
  const auto arrayOf = [](std::size_t values) {
    std::string text;
    while (text.size() < 2 * values) {
      text += "0,";
    }
    text.back() = ']';
    return "[" + text;
  };
  Json::Value value;

  EXPECT_TRUE(json::parse(arrayOf(1 << 18), value));
  EXPECT_FALSE(json::parse(arrayOf((1 << 18) + 1), value));
}

TEST(JsonText, readsAnyObjectOf1MiBWithoutNesting) {
  std::string text = "{\"\":0";
  while (text.size() < (1 << 20) - 6) {
    text += ",\"\":0";
  }
  Json::Value value;

  EXPECT_TRUE(json::parse(text + "}", value));
}

TEST(JsonText, refusesNumbersBeyondADouble) {
  const std::string digits(310, '9');
  for (const std::string& number : {std::string("1e999"), std::string("-1E999"), std::string("1.5e+309"),
                                    digits, "-" + digits, digits + ".0"}) {
    Json::Value value;

    EXPECT_FALSE(json::parse("[" + number + "]", value)) << number;
    EXPECT_FALSE(json::parse("{\"a\":" + number + ",\"a\":1}", value)) << number;
  }
  for (const std::string& number :
       {std::string("1e308"), std::string("-1E+308"), std::string("1e-999"), std::string(300, '9'),
        "0." + digits, std::string("\"1e999\""), std::string("1/*1e999*/")}) {
    Json::Value value;

    EXPECT_TRUE(json::parse("[" + number + "]", value)) << number;
  }
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
