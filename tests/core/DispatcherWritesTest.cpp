#include "support/DispatcherFixture.h"
#include "support/LogCapture.h"

namespace propertyservice {
namespace {

using test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

class DispatcherWritesTest : public test::DispatcherFixture {
 protected:
  DispatcherWritesTest() {
    database->add({{"key", "A.One"}, {"value", "1"}, {"webui", "one"}, {"defaultvalues", "d"}});
    database->add({{"key", "A.Two"}, {"value", "2"}, {"provisioning", "two"}, {"defaultvalues", "d"}});
    database->add({{"key", "B.Three"}, {"value", "3"}, {"defaultvalues", "d"}});
  }

  void refuse(const std::string& key, Status status) { database->refusals[key] = status; }

  void refuseAll(Status status) {
    for (const auto& [key, row] : database->rows) {
      refuse(key, status);
    }
  }

  void expectNothingPublished() const {
    EXPECT_THAT(messenger->notified, IsEmpty());
    EXPECT_THAT(messenger->lists, IsEmpty());
  }
};

TEST_F(DispatcherWritesTest, setVWritesAndAnswersWithoutAResult) {
  EXPECT_EQ(ask(R"({"method":"setV","param":"A.One","value":"new"})"),
            jsonOf(R"({"param":"A.One","status":"Ok"})"));

  EXPECT_EQ(database->valueOf("A.One"), "new");
}

TEST_F(DispatcherWritesTest, setVAnnouncesTheWrittenPropertyToAll) {
  ask(R"({"method":"setV","param":"A.One","value":"new"})");

  ASSERT_EQ(messenger->notified.size(), 1U);
  const auto& [property, alsoAll] = messenger->notified[0];
  EXPECT_EQ(property.text("key"), "A.One");
  EXPECT_EQ(property.text("value"), "new");
  EXPECT_EQ(property.status(), Status::Changed);
  EXPECT_TRUE(alsoAll);
}

TEST_F(DispatcherWritesTest, setVWritesByAlias) {
  EXPECT_EQ(ask(R"({"method":"setV","param":"one","field":"webui","value":"new"})"),
            jsonOf(R"({"param":"A.One","status":"Ok"})"));
  EXPECT_EQ(ask(R"({"method":"setV","param":"two","field":"provisioning","value":"new"})"),
            jsonOf(R"({"param":"A.Two","status":"Ok"})"));
}

TEST_F(DispatcherWritesTest, setVAnswersOkForAnEqualValue) {
  EXPECT_EQ(ask(R"({"method":"setV","param":"A.One","value":"1"})"),
            jsonOf(R"({"param":"A.One","status":"Ok"})"));

  EXPECT_EQ(messenger->notified.at(0).first.status(), Status::Unchanged);
}

TEST_F(DispatcherWritesTest, setVAnswersWhatAValidatorObjectedTo) {
  refuse("A.One", Status::ValueOutOfBounds);

  EXPECT_EQ(ask(R"({"method":"setV","param":"A.One","value":"new"})"),
            jsonOf(R"({"param":"A.One","status":"ValueOutOfBounds"})"));
}

TEST_F(DispatcherWritesTest, setVOfAnUnknownKeyLogsAWarning) {
  LogCapture log;

  EXPECT_EQ(ask(R"({"method":"setV","param":"A.None","value":"new"})"),
            jsonOf(R"({"param":"A.None","status":"NotFound"})"));

  EXPECT_EQ(log.linesWith("warning ").size(), 1U);
  EXPECT_EQ(log.linesWith("Property not found in database, key: A.None").size(), 1U);
}

TEST_F(DispatcherWritesTest, setVUnderAnUnknownFieldWritesNothing) {
  LogCapture log;

  EXPECT_EQ(ask(R"({"method":"setV","param":"A.One","field":"tr069","value":"new"})"),
            jsonOf(R"({"param":"","status":"NotFound"})"));

  EXPECT_EQ(database->valueOf("A.One"), "1");
  EXPECT_EQ(log.linesWith("Unknown field: tr069").size(), 1U);
}

TEST_F(DispatcherWritesTest, setVWritesAnEmptyText) {
  ask(R"({"method":"setV","param":"A.One","value":""})");

  EXPECT_EQ(messenger->notified.at(0).first.get("value"), Json::Value(""));
}

TEST_F(DispatcherWritesTest, setVHandsOnAValueAsTheJsonItIs) {
  for (const std::string value :
       {"7", "-1", "2147483648", "1e308", "true", "[1]", "{\"a\":1}", "\"a\\u0000b\"", "\"a b\""}) {
    ask("{\"method\":\"setV\",\"param\":\"A.One\",\"value\":" + value + "}");

    EXPECT_EQ(database->rows.at("A.One").get("value"), jsonOf(value)) << value;
  }
}

TEST_F(DispatcherWritesTest, setVTakesNullAndEmptyContainersForNoValue) {
  for (const std::string value : {"null", "[]", "{}"}) {
    ask("{\"method\":\"setV\",\"param\":\"A.None\",\"value\":" + value + "}");

    EXPECT_FALSE(messenger->notified.back().first.json().isMember("value")) << value;
  }
}

TEST_F(DispatcherWritesTest, setVListWritesAndAnnouncesInTheOrderOfTheNames) {
  LogCapture log;

  EXPECT_EQ(ask(R"({"method":"setVList","list":{"B.Three":"z","A.One":"x","A.Two":"y"}})"),
            jsonOf(R"({"status":"Ok"})"));

  EXPECT_THAT(database->listWrites, ElementsAre(ElementsAre(Property({{"key", "A.One"}, {"value", "x"}}),
                                                            Property({{"key", "A.Two"}, {"value", "y"}}),
                                                            Property({{"key", "B.Three"}, {"value", "z"}}))));
  ASSERT_EQ(messenger->lists.size(), 1U);
  EXPECT_EQ(messenger->lists[0].size(), 3U);
  EXPECT_EQ(messenger->lists[0][0].status(), Status::Changed);
  EXPECT_THAT(messenger->notified, IsEmpty());
  EXPECT_EQ(log.linesWith("info core/DispatcherWrites:").size(), 1U);
  EXPECT_EQ(log.linesWith("Set 3/3 properties.").size(), 1U);
}

TEST_F(DispatcherWritesTest, setVListWritesByTheColumnOfItsField) {
  ask(R"({"method":"setVList","field":"webui","list":{"one":"x"}})");

  EXPECT_THAT(database->listWrites, ElementsAre(ElementsAre(Property({{"webui", "one"}, {"value", "x"}}))));
  EXPECT_EQ(database->valueOf("A.One"), "x");
}

TEST_F(DispatcherWritesTest, setVListTakesAnEmptyFieldForTheKey) {
  ask(R"({"method":"setVList","field":"","list":{"A.One":"x"}})");

  EXPECT_EQ(database->valueOf("A.One"), "x");
}

TEST_F(DispatcherWritesTest, setVListRemovesBlanksFromNamesAndValues) {
  ask(R"({"method":"setVList","list":{" A. One ":" a b "}})");

  EXPECT_EQ(database->valueOf("A.One"), "ab");
}

TEST_F(DispatcherWritesTest, setVListWritesTheTextsOfOtherValues) {
  ask(R"({"method":"setVList","list":{"A.One":12,"A.Two":true,"B.Three":null}})");

  EXPECT_EQ(database->valueOf("A.One"), "12");
  EXPECT_EQ(database->valueOf("A.Two"), "true");
  EXPECT_EQ(database->valueOf("B.Three"), "");
}

TEST_F(DispatcherWritesTest, setVListSkipsAnEmptyName) {
  LogCapture log;

  EXPECT_EQ(ask(R"({"method":"setVList","list":{"":"x","A.One":"y"}})"), jsonOf(R"({"status":"Ok"})"));

  EXPECT_EQ(database->listWrites.at(0).size(), 1U);
  EXPECT_EQ(log.linesWith("error ").size(), 1U);
  EXPECT_EQ(log.linesWith("Invalid parameter to set.").size(), 1U);
  EXPECT_EQ(log.linesWith("Set 1/2 properties.").size(), 1U);
}

TEST_F(DispatcherWritesTest, setVListRefusesAnEmptyList) {
  LogCapture log;

  EXPECT_EQ(ask(R"({"method":"setVList","list":{}})"), jsonOf(R"({"status":"InvalidRequest"})"));

  EXPECT_THAT(database->listWrites, IsEmpty());
  expectNothingPublished();
  EXPECT_EQ(log.linesWith("Set 0/0 properties.").size(), 1U);
  EXPECT_EQ(log.linesWith("warning core/DispatcherWrites:").size(), 1U);
  EXPECT_EQ(log.linesWith("No properties provided.").size(), 1U);
}

TEST_F(DispatcherWritesTest, setVListRefusesAListThatIsNoObject) {
  for (const std::string list : {"null", "1", "-1", "1e308", "true", "\"text\"", "[]"}) {
    EXPECT_EQ(ask("{\"method\":\"setVList\",\"list\":" + list + "}"),
              jsonOf(R"({"status":"InvalidRequest"})"))
        << list;
  }
  EXPECT_EQ(ask(R"({"method":"setVList"})"), jsonOf(R"({"status":"InvalidRequest"})"));

  EXPECT_THAT(database->listWrites, IsEmpty());
  expectNothingPublished();
}

TEST_F(DispatcherWritesTest, setVListSkipsEveryElementOfAnArray) {
  LogCapture log;

  EXPECT_EQ(ask(R"({"method":"setVList","list":["A.One",[1],null]})"),
            jsonOf(R"({"status":"InvalidRequest"})"));

  EXPECT_EQ(log.linesWith("Invalid parameter to set.").size(), 3U);
  EXPECT_EQ(log.linesWith("Set 0/3 properties.").size(), 1U);
  expectNothingPublished();
}

TEST_F(DispatcherWritesTest, setVListAnswersOkWhenOneOfThreeFails) {
  LogCapture log;
  refuse("A.Two", Status::RegExpError);

  EXPECT_EQ(ask(R"({"method":"setVList","list":{"A.One":"x","A.Two":"y","B.Three":"z"}})"),
            jsonOf(R"({"status":"Ok"})"));

  EXPECT_EQ(log.linesWith("error core/DispatcherWrites:").size(), 1U);
  EXPECT_EQ(log.linesWith("Could not set property: \"A.Two\". Reason: RegExpError[2].").size(), 1U);
}

TEST_F(DispatcherWritesTest, setVListAnswersTheStatusWithWhichEveryWriteFailed) {
  LogCapture log;
  refuseAll(Status::ReadOnly);

  EXPECT_EQ(ask(R"({"method":"setVList","list":{"A.One":"x","A.Two":"y","B.Three":"z"}})"),
            jsonOf(R"({"status":"ReadOnly"})"));

  EXPECT_EQ(log.linesWith("Could not set property: ").size(), 3U);
}

TEST_F(DispatcherWritesTest, setVListAnswersTheLastOfSeveralFailures) {
  refuse("A.One", Status::ReadOnly);
  refuse("A.Two", Status::ValueError);

  EXPECT_EQ(ask(R"({"method":"setVList","list":{"A.One":"x","A.Two":"y"}})"),
            jsonOf(R"({"status":"ValueError"})"));
}

TEST_F(DispatcherWritesTest, setVListCountsAnEqualValueAsAFailure) {
  LogCapture log;

  EXPECT_EQ(ask(R"({"method":"setVList","list":{"A.One":"1"}})"), jsonOf(R"({"status":"Ok"})"));

  EXPECT_EQ(log.linesWith("Could not set property: \"A.One\". Reason: Ok[7].").size(), 1U);
}

TEST_F(DispatcherWritesTest, setVListLogsAStatusWithoutAText) {
  LogCapture log;
  refuse("A.One", static_cast<Status>(10));

  EXPECT_EQ(ask(R"({"method":"setVList","list":{"A.One":"x"}})"), jsonOf(R"({"status":""})"));

  EXPECT_EQ(log.linesWith("Could not set property: \"A.One\". Reason: [10].").size(), 1U);
  EXPECT_EQ(log.linesWith("Status conversion to string failed").size(), 2U);
}

TEST_F(DispatcherWritesTest, setVListShowsTheStartOfALongNameInTheLog) {
  LogCapture log;

  ask("{\"method\":\"setVList\",\"list\":{\"" + std::string(100'000, 'x') + "\":\"1\"}}");

  EXPECT_LT(log.text().size(), 6000U);
}

TEST_F(DispatcherWritesTest, resetValTakesAPropertyBackToItsDefault) {
  EXPECT_EQ(ask(R"({"method":"resetVal","param":"A.One"})"), jsonOf(R"({"status":"Ok"})"));

  EXPECT_EQ(database->valueOf("A.One"), "d");
  EXPECT_EQ(database->valueOf("A.Two"), "2");
  ASSERT_EQ(messenger->notified.size(), 1U);
  EXPECT_EQ(messenger->notified[0].first.status(), Status::Changed);
  EXPECT_TRUE(messenger->notified[0].second);
}

TEST_F(DispatcherWritesTest, resetValOfAnUnknownKeyAnswersNotFound) {
  EXPECT_EQ(ask(R"({"method":"resetVal","param":"A.None"})"), jsonOf(R"({"status":"NotFound"})"));
}

TEST_F(DispatcherWritesTest, resetValResetsEverythingThatMatchesAndAnnouncesItOnce) {
  EXPECT_EQ(ask(R"({"method":"resetVal","param":"A.%"})"), jsonOf(R"({"status":"Ok"})"));

  EXPECT_EQ(database->valueOf("A.One"), "d");
  EXPECT_EQ(database->valueOf("A.Two"), "d");
  EXPECT_EQ(database->valueOf("B.Three"), "3");
  ASSERT_EQ(messenger->lists.size(), 1U);
  EXPECT_EQ(messenger->lists[0].size(), 2U);
  EXPECT_THAT(messenger->notified, IsEmpty());
}

TEST_F(DispatcherWritesTest, resetValAnswersNotFoundWhenNothingMatches) {
  EXPECT_EQ(ask(R"({"method":"resetVal","param":"None.%"})"), jsonOf(R"({"status":"NotFound"})"));
}

TEST_F(DispatcherWritesTest, handsBackupRequestsOnAndAnswersTheirOutcome) {
  for (const std::string name :
       {"makeBackup", "prepareVersionChange", "prepareFactoryReset", "makeSysdump", "restore"}) {
    backup->result = Status::Ok;
    EXPECT_EQ(ask("{\"method\":\"" + name + "\"}"), jsonOf(R"({"status":"Ok"})")) << name;
    backup->result = Status::DBError;
    EXPECT_EQ(ask("{\"method\":\"" + name + "\"}"), jsonOf(R"({"status":"DBError"})")) << name;

    EXPECT_THAT(backup->calls, ElementsAre(name, name));
    backup->calls.clear();
  }
}

TEST_F(DispatcherWritesTest, makeBackupGetsTheWholeRequest) {
  const std::string request = R"({"method":"makeBackup","allSettings":true,"other":[1]})";

  ask(request);

  EXPECT_EQ(backup->lastRequest, jsonOf(request));
}

TEST_F(DispatcherWritesTest, restoreAnnouncesWhatWasRestored) {
  backup->restorable = {Property({{"key", "A.One"}, {"value", "x"}})};
  backup->restorable[0].setStatus(Status::Changed);

  ask(R"({"method":"restore"})");

  ASSERT_EQ(messenger->lists.size(), 1U);
  EXPECT_EQ(messenger->lists[0], backup->restorable);
  EXPECT_EQ(messenger->lists[0][0].status(), Status::Changed);
}

TEST_F(DispatcherWritesTest, answersOrThrowsForWhateverAMemberIs) {
  const LogCapture quiet;
  const std::vector<std::string> values = {
      "null",        "true", "7",     "-1",    "2147483648",    "1180591620717411303424",
      "1e308",       "\"\"", "\"a\"", "\"%\"", "\"a\\u0000b\"", "\"\xFF\"",
      "\"\\udc00\"", "[]",   "[[]]",  "{}",    "{\"a\":{}}",    "{\"A.One\":\"x\"}"};
  int answered = 0;

  for (const std::string method :
       {"getV", "setV", "getColsL", "setVList", "resetVal", "getProvDump", "makeBackup", "restore"}) {
    for (const std::string member : {"param", "field", "fields", "list", "value"}) {
      for (const std::string& value : values) {
        const std::string request = "{\"method\":\"" + method + "\",\"" + member + "\":" + value + "}";
        try {
          EXPECT_NE(askText(request), "") << request;
          ++answered;
        } catch (const Json::LogicError&) {
          EXPECT_TRUE(jsonOf(value).isArray() || jsonOf(value).isObject()) << request;
        }
      }
    }
  }

  EXPECT_GT(answered, 500);
  EXPECT_EQ(ask(R"({"method":"getV","param":"A.Two"})")["status"], Json::Value("Ok"));
}

}  // namespace
}  // namespace propertyservice
