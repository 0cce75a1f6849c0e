#include <algorithm>
#include <regex.h>

#include "core/JsonText.h"
#include "support/Device.h"

// Bad input harms nobody: a client gets the answer below, the daemon lives, and
// the next request of another client is served at once.

namespace propertyservice::test {
namespace {

constexpr auto kAtOnce = std::chrono::seconds(1);

/// The outcome of a request: this reply, or no reply but this text in the log.
struct Outcome {
  std::string reply;
  std::string logged;
};

Outcome answered(const std::string& reply) {
  return {reply + "\n", ""};
}
Outcome refused(const std::string& logged) {
  return {"", logged};
}

struct Case {
  std::string name;
  std::string payload;
  Outcome outcome;

  friend std::ostream& operator<<(std::ostream& stream, const Case& shown) { return stream << shown.name; }
};

std::string repeat(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) {
    all += text;
  }
  return all;
}

std::string setRequest(const std::string& key, const std::string& jsonValue) {
  return R"({"method":"setV","param":")" + key + R"(","value":)" + jsonValue + "}";
}

std::string quoted(const std::string& text) {
  return "\"" + text + "\"";
}

const Outcome kInvalid = refused("error core/Dispatcher:");
const Outcome kNoText = refused("No reply to ");
const Outcome kNotFound = answered(R"({"status":"NotFound"})");
const Outcome kInvalidRequest = answered(R"({"status":"InvalidRequest"})");

Outcome setAnswer(const std::string& key, const std::string& status) {
  return answered(R"({"param":")" + key + R"(","status":")" + status + R"("})");
}

std::vector<Case> noObjects() {
  return {
      {"Empty", "", kInvalid},
      {"ByteOrderMark", "\xEF\xBB\xBF{\"method\":\"getProvDump\"}", kInvalid},
      {"OpenBrace", "{", kInvalid},
      {"TrailingComma", R"({"method":"getProvDump",})", kInvalid},
      {"TopLevelNumber", "17", kInvalid},
      {"TopLevelString", "\"getV\"", kInvalid},
      {"TopLevelTrue", "true", kInvalid},
      {"TopLevelNull", "null", kInvalid},
      {"TopLevelArray", R"([{"method":"getProvDump"}])", kInvalid},
      {"ObjectWithArraysNested101Deep", "{\"a\":" + repeat("[", 100) + repeat("]", 100) + "}", kInvalid},
      {"ArraysNested100000Deep", repeat("[", 100'000), kInvalid},
      {"ObjectsNested101Deep", repeat("{\"a\":", 101) + "1" + repeat("}", 101), kInvalid},
      {"ObjectsNested100000Deep", repeat("{\"a\":", 100'000), kInvalid},
      {"PayloadOver1MiB", R"({"method":"getProvDump","x":")" + repeat("x", 1 << 20) + "\"}", kInvalid},
      {"NotANumber", R"({"method":NaN})", kInvalid},
      {"NumberBeyondDouble", R"({"method":1e999})", kInvalid},
      {"LoneHighSurrogate", R"({"method":"\ud800"})", kInvalid},
  };
}

std::vector<Case> oddObjects() {
  return {
      {"ManyComments", R"({"method":"getV","param":"Pointless")" + repeat("/**/", 16'384) + "}",
       answered(R"({"param":"Pointless","result":"a","status":"Ok"})")},
      {"TwoObjects", "{}{}", kInvalidRequest},
      {"ObjectWithArraysNested100Deep", "{\"a\":" + repeat("[", 99) + repeat("]", 99) + "}", kInvalidRequest},
      {"ObjectsNested100Deep", repeat("{\"a\":", 100) + "1" + repeat("}", 100), kInvalidRequest},
      {"TrailingGarbage", R"({"method":"getV","param":"Pointless"} and more)",
       answered(R"({"param":"Pointless","result":"a","status":"Ok"})")},
      {"DuplicateMembers", R"({"method":"getV","param":"Nothing","param":"Pointless"})",
       answered(R"({"param":"Pointless","result":"a","status":"Ok"})")},
      {"LoneLowSurrogate", R"({"method":"\udc00"})", kInvalidRequest},
  };
}

std::vector<Case> membersOfEveryType() {
  return {
      {"MethodNull", R"({"method":null})", kInvalidRequest},
      {"MethodNumber", R"({"method":1})", kInvalidRequest},
      {"MethodBool", R"({"method":true})", kInvalidRequest},
      {"MethodArray", R"({"method":["getV"]})", kInvalidRequest},
      {"MethodObject", R"({"method":{"getV":1}})", kInvalidRequest},
      {"ParamMissing", R"({"method":"getV"})", answered(R"({"param":"","status":"NotFound"})")},
      {"ParamNull", R"({"method":"getV","param":null})", answered(R"({"param":"","status":"NotFound"})")},
      {"ParamNumber", R"({"method":"getV","param":7})", answered(R"({"param":"7","status":"NotFound"})")},
      {"ParamBool", R"({"method":"getV","param":true})", answered(R"({"param":"true","status":"NotFound"})")},
      {"ParamArray", R"({"method":"getV","param":["Pointless"]})", kNoText},
      {"ParamObject", R"({"method":"getV","param":{"key":"Pointless"}})", kNoText},
      {"ResetParamArray", R"({"method":"resetVal","param":[]})", kNoText},
      {"ColumnsParamObject", R"({"method":"getColsL","param":{},"fields":"key"})", kNoText},
      {"FieldNumber", R"({"method":"getV","param":"volume","field":1})",
       answered(R"({"param":"","status":"NotFound"})")},
      {"FieldArray", R"({"method":"getV","param":"volume","field":["webui"]})", kNoText},
      {"FieldsArray", R"({"method":"getColsL","param":"Pointless","fields":["key"]})", kNoText},
      {"FieldsNumber", R"({"method":"getColsL","param":"Pointless","fields":1})",
       answered(R"({"param":"Pointless","result":[{}],"status":"Ok"})")},
      {"ValueNumber", setRequest("Audio.Volume", "7"), setAnswer("Audio.Volume", "Ok")},
      {"ValueBool", setRequest("Audio.Codec", "true"), setAnswer("Audio.Codec", "ValueError")},
      {"ValueArray", setRequest("Pointless", "[1]"), setAnswer("Pointless", "ValueError")},
      {"ValueObject", setRequest("Pointless", "{\"a\":1}"), setAnswer("Pointless", "ValueError")},
      {"VolatileValueArray", setRequest("State.A", "[1]"), kNoText},
      {"ListMissing", R"({"method":"setVList"})", kInvalidRequest},
      {"ListNull", R"({"method":"setVList","list":null})", kInvalidRequest},
      {"ListNumber", R"({"method":"setVList","list":1})", kInvalidRequest},
      {"ListText", R"({"method":"setVList","list":"Pointless"})", kInvalidRequest},
      {"ListArray", R"({"method":"setVList","list":["Pointless"]})", kInvalidRequest},
      {"ListOfArrays", R"({"method":"setVList","list":{"Pointless":["b"]}})", kNoText},
      {"AllSettingsArray", R"({"method":"makeBackup","allSettings":[]})", answered(R"({"status":"Ok"})")},
  };
}

std::vector<Case> hostileValues() {
  return {
      {"NumberOver31Bits", setRequest("Audio.Volume", "2147483648"),
       setAnswer("Audio.Volume", "ValueOutOfBounds")},
      {"NumberOver64Bits", setRequest("Audio.Volume", quoted("1180591620717411303424")),
       setAnswer("Audio.Volume", "ValueOutOfBounds")},
      // Its text is "1.1805916207174113e+21", of which the range sees the 1.
      {"JsonNumberOver64Bits", setRequest("Audio.Volume", "1180591620717411303424"),
       setAnswer("Audio.Volume", "Ok")},
      {"NegativeNumber", setRequest("Audio.Volume", "-1"), setAnswer("Audio.Volume", "ValueOutOfBounds")},
      {"HugeNumber", setRequest("Audio.Codec", "1e308"), setAnswer("Audio.Codec", "ValueError")},
      {"NulInKey", R"({"method":"setV","param":"Pointless\u0000","value":"b"})",
       setAnswer("Pointless\\u0000", "NotFound")},
      {"NulInValue", setRequest("Pointless", R"("1\u0000x")"), setAnswer("Pointless", "ValueError")},
      {"InvalidUtf8InKey", "{\"method\":\"getV\",\"param\":\"Point\xFFless\"}",
       answered(R"({"param":"Point\ufffdless","status":"NotFound"})")},
      {"InvalidUtf8InValue",
       setRequest("Pointless", quoted("a\xFF"
                                      "b")),
       setAnswer("Pointless", "ValueError")},
      {"TruncatedUtf8InValue", setRequest("Pointless", quoted("a\xE2\x82")),
       setAnswer("Pointless", "ValueError")},
      {"ValueOf256Characters", setRequest("Pointless", quoted(repeat("\xC3\xA4", 256))),
       setAnswer("Pointless", "Ok")},
      {"ValueOf257Characters", setRequest("Pointless", quoted(repeat("x", 257))),
       setAnswer("Pointless", "ValueError")},
      {"LongValueAmongGoodNeighbours",
       R"({"method":"setVList","list":{"Audio.Ringtone":"gong","Pointless":")" + repeat("x", 257) + "\"}}",
       answered(R"({"status":"Ok"})")},
      {"ManyDigitsAgainstAnUnanchoredExpression",
       setRequest("Test.Digits", quoted(repeat("1", 100'000) + "x")), setAnswer("Test.Digits", "ValueError")},
      {"UnknownKeyInAList", R"({"method":"setVList","list":{"Audio.Ringtone":"gong","Audio.Nothing":"x"}})",
       answered(R"({"status":"Ok"})")},
  };
}

std::vector<Case> hostilePatterns() {
  const std::vector<std::pair<std::string, std::string>> patterns = {
      {"StarredGroupAndBackReference", R"(\(.*\)*\1%)"},
      {"NineBackReferences", repeat(R"(\(.*\))", 9) + R"(\1\2\3\4\5\6\7\8\9x%)"},
      {"Interval", R"(a\{,9999\}%)"},
      {"NestedIntervals", R"(\(a\{1,255\}\)\{1,255\}%)"},
      {"ManyPluses", "a" + repeat(R"(\+)", 22) + "%"},
      {"ManyStarredGroups", repeat(R"(\(\)*)", 16) + "%"},
      {"ManyWordBoundaries", repeat(R"(\b)", 60) + "%"},
      {"DeepGroups", repeat(R"(\()", 12'451) + "%"},
      {"ManyStars", repeat("a*", 20'000) + "%"},
      {"ManyAnchors", repeat("$", 65'535) + "%"},
      {"Nul", std::string("Audio\0%", 7)},
  };

  std::vector<Case> cases;
  for (const auto& [name, pattern] : patterns) {
    const std::string text = json::write(pattern).substr(0, json::write(pattern).size() - 1);
    cases.push_back({name + "Read", R"({"method":"getColsL","fields":"key","param":)" + text + "}",
                     answered(R"({"param":)" + text + R"(,"status":null})")});
    cases.push_back({name + "Reset", R"({"method":"resetVal","param":)" + text + "}", kNotFound});
  }
  return cases;
}

std::vector<Case> allCases() {
  std::vector<Case> all;
  for (const auto& cases :
       {noObjects(), oddObjects(), membersOfEveryType(), hostileValues(), hostilePatterns()}) {
    all.insert(all.end(), cases.begin(), cases.end());
  }
  return all;
}

std::vector<Row> rowsWithAnExpensiveExpression() {
  std::vector<Row> rows = Device::defaultRows();
  rows.push_back({.key = "Test.Digits", .value = "1", .defaultValue = "1", .regexp = "[0-9]+$"});
  return rows;
}

/// One daemon for all cases: what one of them does to it, the next would see.
class BadInput : public testing::Test {
 protected:
  BadInput() : device_(rowsWithAnExpensiveExpression()) {
    device_.start();
    victim_.emplace("victim");
  }

  /// Sends the request, waits for its reply if it has one, and tells how it differs from what is expected.
  void expectOutcome(const Case& bad) {
    BusClient& panel = device_.panel();
    const std::size_t logBefore = device_.logLines(bad.outcome.logged).size();
    panel.forget();

    panel.send(bad.payload);
    EXPECT_TRUE(victim_->serviceIsAlive(kAtOnce)) << "another client waits";
    panel.settle();

    std::vector<std::string> replies = panel.received(panel.replyTopic());
    replies.pop_back();  // the answer to settle()
    if (bad.outcome.reply.empty()) {
      EXPECT_EQ(replies, std::vector<std::string>{});
      EXPECT_EQ(device_.logLines(bad.outcome.logged).size(), logBefore + 1) << bad.outcome.logged;
    } else {
      EXPECT_EQ(replies, std::vector<std::string>{bad.outcome.reply});
    }
    EXPECT_TRUE(device_.daemon().running());
  }

  Device device_;
  std::optional<BusClient> victim_;
};

TEST_F(BadInput, getsItsAnswerAndHarmsNobody) {
  for (const Case& bad : allCases()) {
    SCOPED_TRACE(bad.name);
    expectOutcome(bad);
  }
}

TEST_F(BadInput, ofMembersLeavesNothingBehind) {
  const auto before = Device::valuesInFile();

  device_.panel().requestText(setRequest("Pointless", R"("1\u0000x")"));
  device_.panel().requestText(setRequest("Pointless", quoted(repeat("x", 257))));
  device_.panel().requestText(setRequest("Pointless", "[1]"));
  device_.set("Audio.Ringtone", "gong");

  ASSERT_TRUE(Device::waitForValueInFile("Audio.Ringtone", "gong"));
  EXPECT_EQ(Device::valueInFile("Pointless"), before.at("Pointless"));
  EXPECT_EQ(device_.getValue("Pointless"), before.at("Pointless"));
}

TEST_F(BadInput, shortensALongPayloadInTheLog) {
  device_.panel().send(repeat("x", 100'000));
  device_.panel().settle();

  const std::vector<std::string> lines = device_.logLines("Invalid message: xxx");
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_LT(lines.front().size(), 4400U);
  EXPECT_NE(lines.front().find("(100000 bytes)"), std::string::npos);
}

TEST_F(BadInput, cannotForgeALogEntry) {
  device_.panel().send("x\n2026-01-01T00:00:00.000 PROP-SRV error core/Init:1 forged");
  device_.panel().settle();

  EXPECT_EQ(device_.logLines("forged").size(), 1U);
  EXPECT_NE(device_.logLines("forged").front().find("Invalid message: x\\n"), std::string::npos);
}

TEST_F(BadInput, cannotHaveTheServiceAnswerItself) {
  device_.panel().publish("prop-service/prop-service", R"({"method":"getProvDump"})");
  device_.panel().settle();

  EXPECT_EQ(device_.logLines("Invalid message: ").size(), 1U);
  EXPECT_TRUE(victim_->serviceIsAlive(kAtOnce));
}

/// The C library's own answer to a pattern, for keys: what an unguarded client request would get.
std::vector<std::string> libraryAnswer(const std::string& pattern, const std::vector<Row>& rows) {
  std::string text = pattern;
  text.replace(text.find('%'), 1, ".*");
  regex_t expression;
  std::vector<std::string> keys;
  if (regcomp(&expression, ("^" + text).c_str(), 0) != 0) {
    return keys;
  }
  for (const Row& row : rows) {
    if (regexec(&expression, row.key.c_str(), 0, nullptr, 0) == 0) {
      keys.push_back(row.key);
    }
  }
  regfree(&expression);
  std::sort(keys.begin(), keys.end());
  return keys;
}

TEST_F(BadInput, ofOddPatternsGetsTheLibrarysOwnAnswer) {
  for (const std::string pattern : {"[%", "a%\\", "a**%", "%*", "%", "%%", "*%", "%e$", "[AN]%", "\\%",
                                    "Audio.%", "S.*em%", "%ReadOnly", "^%", "%\\.*"}) {
    SCOPED_TRACE(pattern);
    Json::Value request = makeRequest("getColsL", pattern);
    request["fields"] = "key";

    const Json::Value reply = device_.panel().request(request);

    std::vector<std::string> keys;
    for (const Json::Value& property : reply["result"]) {
      keys.push_back(property["key"].asString());
    }
    std::sort(keys.begin(), keys.end());
    EXPECT_EQ(keys, libraryAnswer(pattern, rowsWithAnExpensiveExpression()));
  }
}

}  // namespace
}  // namespace propertyservice::test
