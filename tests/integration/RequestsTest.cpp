#include <csignal>

#include "support/Device.h"
#include "support/FirstInPath.h"

// Each request and its reply, word for word, as a client on the bus sees them.

namespace propertyservice::test {
namespace {

class Requests : public testing::Test {
 protected:
  Requests() { device_.start(); }

  std::string ask(const std::string& request) { return device_.panel().requestText(request); }

  Device device_;
};

TEST_F(Requests, answersTheQuestionWhetherItIsAlive) {
  EXPECT_EQ(ask(R"({"param":"Are you alive?"})"), "{\"param\":\"Ok\"}\n");
}

TEST_F(Requests, answersTheSameQuestionUnderAnUnknownName) {
  EXPECT_EQ(ask(R"({"method":"ping","param":"Are you alive?"})"), "{\"param\":\"Ok\"}\n");
}

TEST_F(Requests, prefersAKnownNameToTheQuestion) {
  EXPECT_EQ(ask(R"({"method":"getV","param":"Are you alive?"})"),
            "{\"param\":\"Are you alive?\",\"status\":\"NotFound\"}\n");
}

TEST_F(Requests, refusesAnUnknownName) {
  EXPECT_EQ(ask(R"({"method":"getv","param":"Audio.Volume"})"), "{\"status\":\"InvalidRequest\"}\n");

  EXPECT_EQ(device_.logLines("Unknown request: \"getv\"").size(), 1U);
}

TEST_F(Requests, getVGivesTheValue) {
  EXPECT_EQ(ask(R"({"method":"getV","param":"Audio.Volume"})"),
            "{\"param\":\"Audio.Volume\",\"result\":\"5\",\"status\":\"Ok\"}\n");
}

TEST_F(Requests, getVFindsAWebName) {
  EXPECT_EQ(ask(R"({"method":"getV","param":"volume","field":"webui"})"),
            "{\"param\":\"Audio.Volume\",\"result\":\"5\",\"status\":\"Ok\"}\n");
}

TEST_F(Requests, getVFindsAProvisioningName) {
  EXPECT_EQ(ask(R"({"method":"getV","param":"P_HOSTNAME","field":"provisioning"})"),
            "{\"param\":\"NET.General.Hostname\",\"result\":\"desk\",\"status\":\"Ok\"}\n");
}

TEST_F(Requests, getVOfAnUnknownKeyIsNotFound) {
  EXPECT_EQ(ask(R"({"method":"getV","param":"Audio.Nothing"})"),
            "{\"param\":\"Audio.Nothing\",\"status\":\"NotFound\"}\n");

  EXPECT_EQ(device_.logLines("Property not found in database, key: Audio.Nothing").size(), 1U);
}

TEST_F(Requests, getVByAnUnknownFieldFindsNothing) {
  EXPECT_EQ(ask(R"({"method":"getV","param":"volume","field":"tr069"})"),
            "{\"param\":\"\",\"status\":\"NotFound\"}\n");

  EXPECT_EQ(device_.logLines("Unknown field: tr069").size(), 1U);
}

TEST_F(Requests, setVChangesTheValue) {
  EXPECT_EQ(ask(R"({"method":"setV","param":"Audio.Volume","value":"7"})"),
            "{\"param\":\"Audio.Volume\",\"status\":\"Ok\"}\n");

  EXPECT_EQ(device_.getValue("Audio.Volume"), "7");
  EXPECT_TRUE(Device::waitForValueInFile("Audio.Volume", "7"));
}

TEST_F(Requests, setVByAWebNameAnswersWithTheKey) {
  EXPECT_EQ(ask(R"({"method":"setV","param":"volume","field":"webui","value":"7"})"),
            "{\"param\":\"Audio.Volume\",\"status\":\"Ok\"}\n");
}

TEST_F(Requests, setVOfAnUnknownKeyIsNotFound) {
  EXPECT_EQ(ask(R"({"method":"setV","param":"Audio.Nothing","value":"7"})"),
            "{\"param\":\"Audio.Nothing\",\"status\":\"NotFound\"}\n");
}

TEST_F(Requests, setVIsRefusedByEachRule) {
  EXPECT_EQ(device_.set("Audio.Volume", "11")["status"], "ValueOutOfBounds");
  EXPECT_EQ(device_.set("Audio.Codec", "mp3")["status"], "ValueError");
  EXPECT_EQ(device_.set("NET.General.Hostname", "no blanks")["status"], "RegExpError");
  EXPECT_EQ(device_.set("System.ReadOnly", "other")["status"], "ReadOnly");

  EXPECT_EQ(device_.getValue("Audio.Volume"), "5");
  EXPECT_EQ(device_.getValue("System.ReadOnly"), "fixed");
}

TEST_F(Requests, setVOfThePresentValueIsOkEvenWhenReadOnly) {
  EXPECT_EQ(device_.set("System.ReadOnly", "fixed")["status"], "Ok");
}

TEST_F(Requests, setVWritesAndGetVReadsAVolatileKey) {
  EXPECT_EQ(device_.set("State.Call.Active", "yes")["status"], "Ok");

  EXPECT_EQ(ask(R"({"method":"getV","param":"State.Call.Active"})"),
            "{\"param\":\"State.Call.Active\",\"result\":\"yes\",\"status\":\"Ok\"}\n");
}

TEST_F(Requests, getColsLGivesTheChosenColumns) {
  EXPECT_EQ(ask(R"({"method":"getColsL","param":"Audio.Volume","fields":"key, value ,flags"})"),
            "{\"param\":\"Audio.Volume\",\"result\":[{\"flags\":8,\"key\":\"Audio.Volume\",\"value\":\"5\"}],"
            "\"status\":\"Ok\"}\n");
}

TEST_F(Requests, getColsLGivesEveryPropertyThatMatches) {
  const Json::Value reply = device_.panel().request([] {
    Json::Value request = makeRequest("getColsL", "Audio.%");
    request["fields"] = "key";
    return request;
  }());

  EXPECT_EQ(reply["result"].size(), 3U);
  EXPECT_EQ(reply["status"], "Ok");
}

TEST_F(Requests, getColsLMatchesWebNames) {
  EXPECT_EQ(ask(R"({"method":"getColsL","param":"vol%","field":"webui","fields":"key"})"),
            "{\"param\":\"vol%\",\"result\":[{\"key\":\"Audio.Volume\"}],\"status\":\"Ok\"}\n");
}

TEST_F(Requests, getColsLLeavesOutAnEmptyValue) {
  device_.set("Audio.Ringtone", "");

  EXPECT_EQ(ask(R"({"method":"getColsL","param":"Audio.Ringtone","fields":"value,webui"})"),
            "{\"param\":\"Audio.Ringtone\",\"result\":[{\"webui\":\"ringtone\"}],\"status\":\"Ok\"}\n");
}

TEST_F(Requests, getColsLMatchingNothingHasANullStatusAndNoResult) {
  EXPECT_EQ(ask(R"({"method":"getColsL","param":"Nothing.%","fields":"key"})"),
            "{\"param\":\"Nothing.%\",\"status\":null}\n");
}

TEST_F(Requests, getColsLRefusesVolatileKeys) {
  EXPECT_EQ(ask(R"({"method":"getColsL","param":"State.%","fields":"key"})"),
            "{\"param\":\"State.%\",\"status\":null}\n");

  EXPECT_EQ(device_.logLines("Cannot get multiple State properties in single query").size(), 1U);
}

TEST_F(Requests, setVListWritesEveryPair) {
  EXPECT_EQ(ask(R"({"method":"setVList","list":{"Audio.Volume":"7","Audio.Codec":"g722"}})"),
            "{\"status\":\"Ok\"}\n");

  EXPECT_EQ(device_.getValue("Audio.Volume"), "7");
  EXPECT_EQ(device_.getValue("Audio.Codec"), "g722");
  EXPECT_EQ(device_.logLines("Set 2/2 properties.").size(), 1U);
}

TEST_F(Requests, setVListTakesProvisioningNames) {
  EXPECT_EQ(ask(R"({"method":"setVList","field":"provisioning","list":{"P_VOLUME":"7"}})"),
            "{\"status\":\"Ok\"}\n");

  EXPECT_EQ(device_.getValue("Audio.Volume"), "7");
}

TEST_F(Requests, setVListRemovesEveryBlank) {
  EXPECT_EQ(ask(R"({"method":"setVList","list":{" Audio.Ring tone ":" big  ben "}})"),
            "{\"status\":\"Ok\"}\n");

  EXPECT_EQ(device_.getValue("Audio.Ringtone"), "bigben");
}

TEST_F(Requests, setVListIsOkWhenSomeFail) {
  EXPECT_EQ(ask(R"({"method":"setVList","list":{"Audio.Codec":"g722","Audio.Volume":"99","Pointless":"b"}})"),
            "{\"status\":\"Ok\"}\n");

  EXPECT_EQ(device_.logLines("Could not set property: \"Audio.Volume\". Reason: ValueOutOfBounds[4].").size(),
            1U);
}

TEST_F(Requests, setVListReportsTheLastFailureWhenAllFail) {
  EXPECT_EQ(ask(R"({"method":"setVList","list":{"Audio.Volume":"99","System.ReadOnly":"x"}})"),
            "{\"status\":\"ReadOnly\"}\n");
}

TEST_F(Requests, setVListOfNothingIsInvalid) {
  EXPECT_EQ(ask(R"({"method":"setVList","list":{}})"), "{\"status\":\"InvalidRequest\"}\n");

  EXPECT_EQ(device_.logLines("No properties provided.").size(), 1U);
}

TEST_F(Requests, setVListHeadedByAVolatileKeyWritesVolatileKeysOnly) {
  EXPECT_EQ(ask(R"({"method":"setVList","list":{"State.A":"1","Web.B":"2"}})"), "{\"status\":\"Ok\"}\n");

  EXPECT_EQ(device_.getValue("State.A"), "1");
  EXPECT_EQ(device_.logLines("Could not set property: \"Web.B\". Reason: InvalidRequest[9].").size(), 1U);
}

TEST_F(Requests, resetValTakesAPropertyBackToItsDefault) {
  EXPECT_EQ(ask(R"({"method":"resetVal","param":"Audio.Volume"})"), "{\"status\":\"Ok\"}\n");

  EXPECT_EQ(device_.getValue("Audio.Volume"), "4");
  EXPECT_TRUE(Device::waitForValueInFile("Audio.Volume", "4"));
}

TEST_F(Requests, resetValResetsAReadOnlyPropertyToo) {
  EXPECT_EQ(ask(R"({"method":"resetVal","param":"System.ReadOnly"})"), "{\"status\":\"Ok\"}\n");

  EXPECT_EQ(device_.getValue("System.ReadOnly"), "factory");
}

TEST_F(Requests, resetValResetsEveryPropertyThatMatches) {
  device_.set("Audio.Codec", "g711");

  EXPECT_EQ(ask(R"({"method":"resetVal","param":"Audio.%"})"), "{\"status\":\"Ok\"}\n");

  EXPECT_EQ(device_.getValue("Audio.Volume"), "4");
  EXPECT_EQ(device_.getValue("Audio.Codec"), "opus");
}

TEST_F(Requests, resetValOfAnUnknownKeyIsNotFound) {
  EXPECT_EQ(ask(R"({"method":"resetVal","param":"Audio.Nothing"})"), "{\"status\":\"NotFound\"}\n");
}

TEST_F(Requests, resetValMatchingNothingIsNotFound) {
  EXPECT_EQ(ask(R"({"method":"resetVal","param":"Nothing.%"})"), "{\"status\":\"NotFound\"}\n");
}

TEST_F(Requests, resetValRemovesAVolatileKey) {
  device_.set("State.A", "1");

  EXPECT_EQ(ask(R"({"method":"resetVal","param":"State.A"})"), "{\"status\":\"Ok\"}\n");

  EXPECT_EQ(device_.panel().request(makeRequest("getV", "State.A"))["status"], "NotFound");
}

TEST_F(Requests, getProvDumpGivesEveryProvisioningName) {
  EXPECT_EQ(ask(R"({"method":"getProvDump"})"), "{\"P_HOSTNAME\":\"desk\",\"P_VOLUME\":\"5\"}\n");
}

TEST(RequestsWithoutProvisioningNames, getProvDumpIsNull) {
  std::vector<Row> rows = Device::defaultRows();
  for (Row& row : rows) {
    row.provisioning.reset();
  }
  Device device(rows);
  device.start();

  EXPECT_EQ(device.panel().requestText(R"({"method":"getProvDump"})"), "null\n");
}

TEST_F(Requests, serveTheirOrdinaryNextAfterTextThatIsNoObject) {
  for (const std::string payload : {"", "{", "[1]", "\"text\"", "17", "\xEF\xBB\xBF{}"}) {
    device_.panel().send(payload);
  }

  device_.panel().settle();
  EXPECT_EQ(device_.panel().received(device_.panel().replyTopic()).size(), 1U);
  EXPECT_EQ(device_.logLines("Invalid message: ").size(), 6U);
}

TEST_F(Requests, areServedToPublicClients) {
  EXPECT_EQ(run({"mosquitto_rr", "-h", "127.0.0.1", "-W", "10", "-t", "cli/prop-service", "-e",
                 "prop-service/cli", "-m", R"({"method":"getV","param":"Audio.Codec"})"}),
            "{\"param\":\"Audio.Codec\",\"result\":\"opus\",\"status\":\"Ok\"}\n\n");
}

TEST_F(Requests, areAnsweredBeforeASlowOneThatFollowsIsServed) {
  device_.stop();
  const FirstInPath shell("sqlite3", R"(until [ -e "$(dirname "$0")/go" ]; do sleep 0.05; done
exec /usr/bin/sqlite3 "$@")");
  device_.start();
  BusClient observer("observer", {"+/prop-service"});
  BusClient& panel = device_.panel();
  panel.forget();

  // All seven wait in the daemon's socket when it goes on.
  device_.daemon().signal(SIGSTOP);
  for (int read = 0; read < 6; ++read) {
    panel.sendRequest(makeRequest("getV", "Audio.Volume"));
  }
  panel.send(R"({"method":"makeBackup"})");
  ASSERT_TRUE(observer.waitForMessages("panel/prop-service", 7));
  device_.daemon().signal(SIGCONT);

  EXPECT_TRUE(panel.waitForMessages(panel.replyTopic(), 6, std::chrono::seconds(8)));
  EXPECT_EQ(panel.received(panel.replyTopic()).size(), 6U);
  Device::writeFile(shell.path("go"), "");
  ASSERT_TRUE(panel.waitForMessages(panel.replyTopic(), 7));
  EXPECT_EQ(panel.received(panel.replyTopic()).back(), "{\"status\":\"Ok\"}\n");
}

TEST_F(Requests, areLoggedWithTheirNameAndTheirSenderWhenTheyCannotBeServed) {
  device_.panel().send(R"({"method":"getV","param":[1]})");
  device_.panel().settle();

  EXPECT_EQ(device_.logLines("PROP-SRV error core/Dispatcher:").size(), 1U);
  EXPECT_EQ(device_.logLines("No reply to \"getV\" of \"panel\": ").size(), 1U);
}

}  // namespace
}  // namespace propertyservice::test
