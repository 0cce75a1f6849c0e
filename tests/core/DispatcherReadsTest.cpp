#include "support/DispatcherFixture.h"
#include "support/LogCapture.h"

namespace propertyservice {
namespace {

using test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

class DispatcherReadsTest : public test::DispatcherFixture {
 protected:
  DispatcherReadsTest() {
    database->add({{"key", "Web.Port"}, {"value", "80"}, {"webui", "port"}, {"provisioning", "WebPort"}});
    database->add({{"key", "Web.Empty"}, {"value", ""}});
    database->add({{"key", "Web.None"}, {"flags", "1"}});
  }
};

TEST_F(DispatcherReadsTest, getVAnswersTheValue) {
  EXPECT_EQ(ask(R"({"method":"getV","param":"Web.Port"})"),
            jsonOf(R"({"param":"Web.Port","result":"80","status":"Ok"})"));
}

TEST_F(DispatcherReadsTest, getVTakesAnEmptyFieldForTheKey) {
  EXPECT_EQ(ask(R"({"method":"getV","param":"Web.Port","field":""})")["result"], Json::Value("80"));
}

TEST_F(DispatcherReadsTest, getVAnswersTheKeyOfAnAlias) {
  EXPECT_EQ(ask(R"({"method":"getV","param":"port","field":"webui"})"),
            jsonOf(R"({"param":"Web.Port","result":"80","status":"Ok"})"));
  EXPECT_EQ(ask(R"({"method":"getV","param":"WebPort","field":"provisioning"})"),
            jsonOf(R"({"param":"Web.Port","result":"80","status":"Ok"})"));
}

TEST_F(DispatcherReadsTest, getVAnswersTheEmptyTextForANullValue) {
  EXPECT_EQ(ask(R"({"method":"getV","param":"Web.None"})"),
            jsonOf(R"({"param":"Web.None","result":"","status":"Ok"})"));
}

TEST_F(DispatcherReadsTest, getVAnswersNoResultForAMissingKey) {
  LogCapture log;

  EXPECT_EQ(ask(R"({"method":"getV","param":"Web.Other"})"),
            jsonOf(R"({"param":"Web.Other","status":"NotFound"})"));

  EXPECT_EQ(log.linesWith("warning ").size(), 1U);
  EXPECT_EQ(log.linesWith("Property not found in database, key: Web.Other").size(), 1U);
}

TEST_F(DispatcherReadsTest, getVAnswersTheEmptyKeyForAMissingAlias) {
  LogCapture log;

  EXPECT_EQ(ask(R"({"method":"getV","param":"other","field":"webui"})"),
            jsonOf(R"({"param":"","status":"NotFound"})"));

  EXPECT_EQ(log.linesWith("Property not found in database, key: ").size(), 1U);
}

TEST_F(DispatcherReadsTest, getVLooksForNothingUnderAnUnknownField) {
  LogCapture log;

  EXPECT_EQ(ask(R"({"method":"getV","param":"Web.Port","field":"tr069"})"),
            jsonOf(R"({"param":"","status":"NotFound"})"));

  EXPECT_EQ(log.linesWith("warning core/DispatcherReads:").size(), 1U);
  EXPECT_EQ(log.linesWith("Unknown field: tr069").size(), 1U);
}

TEST_F(DispatcherReadsTest, getVAnswersTheValueTogetherWithAnErrorOtherThanNotFound) {
  database->rows.at("Web.Port").setStatus(Status::DBError);

  EXPECT_EQ(ask(R"({"method":"getV","param":"Web.Port"})"),
            jsonOf(R"({"param":"Web.Port","result":"80","status":"DBError"})"));
}

TEST_F(DispatcherReadsTest, getVLogsAStatusWithoutAText) {
  LogCapture log;
  database->rows.at("Web.Port").setStatus(static_cast<Status>(10));

  EXPECT_EQ(ask(R"({"method":"getV","param":"Web.Port"})")["status"], Json::Value(""));

  EXPECT_EQ(log.linesWith("Status conversion to string failed").size(), 1U);
}

TEST_F(DispatcherReadsTest, getVTakesTheTextOfAName) {
  database->add({{"key", "7"}, {"value", "seven"}});
  database->add({{"key", "true"}, {"value", "yes"}});
  database->add({{"key", ""}, {"value", "nameless"}});

  EXPECT_EQ(ask(R"({"method":"getV","param":7})")["result"], Json::Value("seven"));
  EXPECT_EQ(ask(R"({"method":"getV","param":true})")["result"], Json::Value("yes"));
  EXPECT_EQ(ask(R"({"method":"getV","param":null})")["result"], Json::Value("nameless"));
  EXPECT_EQ(ask(R"({"method":"getV"})")["result"], Json::Value("nameless"));
}

TEST_F(DispatcherReadsTest, getVThrowsForANameWithoutAText) {
  EXPECT_THROW(ask(R"({"method":"getV","param":["Web.Port"]})"), Json::LogicError);
  EXPECT_THROW(ask(R"({"method":"getV","param":["Web.Port"],"field":"tr069"})"), Json::LogicError);
}

TEST_F(DispatcherReadsTest, getVPublishesNoNotification) {
  ask(R"({"method":"getV","param":"Web.Port"})");

  EXPECT_THAT(messenger->notified, IsEmpty());
  EXPECT_THAT(messenger->lists, IsEmpty());
}

TEST_F(DispatcherReadsTest, getColsLAnswersAnObjectPerProperty) {
  EXPECT_EQ(ask(R"({"method":"getColsL","param":"Web.P%","fields":"key,value"})"), jsonOf(R"({
              "param":"Web.P%",
              "result":[{"key":"Web.Port","value":"80","webui":"port","provisioning":"WebPort"}],
              "status":"Ok"})"));
}

TEST_F(DispatcherReadsTest, getColsLKeepsTheOrderOfTheService) {
  const Json::Value reply = ask(R"({"method":"getColsL","param":"Web.%","fields":""})");

  ASSERT_EQ(reply["result"].size(), 3U);
  EXPECT_EQ(reply["result"][0]["key"], Json::Value("Web.Empty"));
  EXPECT_EQ(reply["result"][1]["key"], Json::Value("Web.None"));
  EXPECT_EQ(reply["result"][2]["key"], Json::Value("Web.Port"));
}

TEST_F(DispatcherReadsTest, getColsLHandsPatternAndFieldOn) {
  const Json::Value reply = ask(R"({"method":"getColsL","param":"po%","fields":"key","field":"webui"})");

  EXPECT_EQ(database->lastSelector, "webui");
  ASSERT_EQ(reply["result"].size(), 1U);
  EXPECT_EQ(reply["result"][0]["key"], Json::Value("Web.Port"));
}

TEST_F(DispatcherReadsTest, getColsLRemovesBlanksFromTheColumns) {
  ask(R"({"method":"getColsL","param":"Web.%","fields":"key, value ,flags"})");

  EXPECT_THAT(database->lastColumns, ElementsAre("key", "value", "flags"));
}

TEST_F(DispatcherReadsTest, getColsLTakesOneEmptyColumnForAllThatDoNotExist) {
  for (const std::string fields : {",key,,value", "keys,key,Key,value,Value", ",key,key,value, ,key"}) {
    ask(R"({"method":"getColsL","param":"Web.%","fields":")" + fields + "\"}");

    EXPECT_THAT(database->lastColumns, ElementsAre("", "key", "value")) << fields;
  }
  for (const std::string fields : {",", ",,,", "keys", "keys,keys,"}) {
    ask(R"({"method":"getColsL","param":"Web.%","fields":")" + fields + "\"}");

    EXPECT_THAT(database->lastColumns, ElementsAre("")) << fields;
  }
}

TEST_F(DispatcherReadsTest, getColsLTakesNoColumnFromBehindTheLastComma) {
  ask(R"({"method":"getColsL","param":"Web.%","fields":"key,"})");

  EXPECT_THAT(database->lastColumns, ElementsAre("key"));
}

TEST_F(DispatcherReadsTest, getColsLNamesNoColumnWhenThereAreNoFields) {
  for (const std::string fields :
       {R"("fields":"")", R"("fields":"  ")", R"("fields":null)", R"("other":1)"}) {
    ask(R"({"method":"getColsL","param":"Web.%",)" + fields + "}");

    EXPECT_THAT(database->lastColumns, IsEmpty()) << fields;
  }
}

TEST_F(DispatcherReadsTest, getColsLLeavesOutANullOrEmptyValue) {
  database->rows.at("Web.None").set("value", Json::nullValue);

  const Json::Value reply = ask(R"({"method":"getColsL","param":"Web.%"})");

  EXPECT_EQ(reply["result"][0], jsonOf(R"({"key":"Web.Empty"})"));
  EXPECT_EQ(reply["result"][1], jsonOf(R"({"key":"Web.None","flags":1})"));
}

TEST_F(DispatcherReadsTest, getColsLKeepsAValueThatIsANumber) {
  database->rows.at("Web.None").set("value", 0);

  EXPECT_EQ(ask(R"({"method":"getColsL","param":"Web.None"})")["result"][0],
            jsonOf(R"({"key":"Web.None","flags":1,"value":0})"));
}

TEST_F(DispatcherReadsTest, getColsLAnswersTheStatusOfTheLastProperty) {
  LogCapture log;
  database->rows.at("Web.Empty").setStatus(Status::NotFound);
  database->rows.at("Web.Port").setStatus(Status::DBError);

  EXPECT_EQ(ask(R"({"method":"getColsL","param":"Web.%"})")["status"], Json::Value("DBError"));

  EXPECT_EQ(log.linesWith("warning ").size(), 1U);
  EXPECT_EQ(log.linesWith("Property not found in database, key: Web.Empty").size(), 1U);
}

TEST_F(DispatcherReadsTest, getColsLLogsAStatusWithoutAText) {
  LogCapture log;
  database->rows.at("Web.Port").setStatus(static_cast<Status>(10));

  EXPECT_EQ(ask(R"({"method":"getColsL","param":"Web.Port"})")["status"], Json::Value(""));

  EXPECT_EQ(log.linesWith("Status conversion to string failed").size(), 1U);
}

TEST_F(DispatcherReadsTest, getColsLAnswersANullStatusWhenNothingMatches) {
  EXPECT_EQ(askText(R"({"method":"getColsL","param":"None.%","fields":"key"})"),
            "{\"param\":\"None.%\",\"status\":null}\n");
}

TEST_F(DispatcherReadsTest, getProvDumpAnswersValuesByProvisioningName) {
  database->add({{"key", "Web.Name"}, {"value", "phone"}, {"provisioning", "Name"}});

  EXPECT_EQ(ask(R"({"method":"getProvDump"})"), jsonOf(R"({"WebPort":"80","Name":"phone"})"));
}

TEST_F(DispatcherReadsTest, getProvDumpAnswersTheLastOfTwoValuesOfOneName) {
  database->add({{"key", "Web.Z"}, {"value", "81"}, {"provisioning", "WebPort"}});

  EXPECT_EQ(ask(R"({"method":"getProvDump"})"), jsonOf(R"({"WebPort":"81"})"));
}

TEST_F(DispatcherReadsTest, getProvDumpAnswersNullForAnEmptyDatabase) {
  database->rows.clear();

  EXPECT_EQ(askText(R"({"method":"getProvDump"})"), "null\n");
}

}  // namespace
}  // namespace propertyservice
