#include "core/Constants.h"
#include "core/JsonText.h"
#include "core/Migrations.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using test::LogCapture;
using test::TemporaryDirectory;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

std::vector<Property> entries(std::initializer_list<std::string> keys) {
  std::vector<Property> properties;
  properties.reserve(keys.size());
  for (const std::string& key : keys) {
    properties.push_back(Property({{column::kKey, key}, {column::kValue, "of " + key}}));
  }
  return properties;
}

std::vector<std::string> keys(const std::vector<Property>& properties) {
  std::vector<std::string> texts;
  texts.reserve(properties.size());
  for (const Property& property : properties) {
    texts.push_back(property.text(column::kKey));
  }
  return texts;
}

std::string renames(std::initializer_list<std::pair<std::string, std::string>> rules) {
  Json::Value document;
  for (const auto& [oldKey, newKey] : rules) {
    Json::Value& rule = document["rename"].append(Json::objectValue);
    rule["oldKey"] = oldKey;
    rule["newKey"] = newKey;
  }
  return json::write(document);
}

/// A device with migration files.
class MigrationsTest : public testing::Test {
 protected:
  void addStep(int step, std::initializer_list<std::pair<std::string, std::string>> rules) {
    addFile(step, renames(rules));
  }

  void addFile(int step, const std::string& text) {
    directory_.write("migration_" + std::to_string(step) + ".json", text);
  }

  Migrations load(const std::string& backupVersion, const std::string& currentVersion) {
    return {backupVersion, currentVersion, directory_.path("")};
  }

  TemporaryDirectory directory_;
};

using MigrationParser = testing::Test;

TEST_F(MigrationParser, readsTheRulesInOrder) {
  const MigrationRules rules = parseMigration(renames({{"A", "B"}, {"B", "C"}}));
  std::vector<Property> properties = entries({"A"});

  for (const auto& rule : rules) {
    rule->apply(properties);
  }

  EXPECT_THAT(rules, SizeIs(2));
  EXPECT_THAT(keys(properties), ElementsAre("C"));
}

TEST_F(MigrationParser, acceptsComments) {
  EXPECT_THAT(parseMigration("// moved\n{\"rename\":[/* one */{\"oldKey\":\"A\",\"newKey\":\"B\"}]}"),
              SizeIs(1));
}

TEST_F(MigrationParser, acceptsOtherMembers) {
  EXPECT_THAT(parseMigration(R"({"note":1,"rename":[{"oldKey":"A","newKey":"B","note":2}]})"), SizeIs(1));
}

void expectParserException(const std::string& text, const std::string& message) {
  try {
    parseMigration(text);
    ADD_FAILURE() << text << " was accepted";
  } catch (const MigrationParserException& error) {
    EXPECT_EQ(error.what(), message);
  }
}

TEST_F(MigrationParser, refusesARenameWithoutAnOldKey) {
  expectParserException(R"({"rename":[{"newKey":"B"}]})", "Parsing rename rule failed");
}

TEST_F(MigrationParser, refusesARenameWithoutANewKey) {
  expectParserException(R"({"rename":[{"oldKey":"A"}]})", "Parsing rename rule failed");
}

TEST_F(MigrationParser, refusesEmptyKeys) {
  expectParserException(R"({"rename":[{"oldKey":"","newKey":"B"}]})", "Parsing rename rule failed");
  expectParserException(R"({"rename":[{"oldKey":"A","newKey":""}]})", "Parsing rename rule failed");
}

TEST_F(MigrationParser, refusesAFileWithoutRenames) {
  expectParserException("{}", "Migrations not found");
  expectParserException(R"({"rename":[]})", "Migrations not found");
  expectParserException("", "Migrations not found");
}

TEST_F(MigrationParser, refusesJsonOfAnotherShape) {
  for (const std::string text :
       {"[]", "5", R"({"rename":[5]})", R"({"rename":[{"oldKey":[],"newKey":{}}]})"}) {
    SCOPED_TRACE(text);
    EXPECT_THROW(parseMigration(text), std::exception);
  }
}

TEST_F(MigrationParser, refusesDeepNesting) {
  EXPECT_THROW(parseMigration(std::string(100'000, '[')), std::exception);
}

TEST_F(MigrationParser, neitherLoopsNorCrashesWhereverAFileIsCutOff) {
  const std::string text = "/* two */ " + renames({{"A", "B"}, {"C", "D"}});

  for (std::size_t length = 0; length < text.size(); ++length) {
    SCOPED_TRACE(length);
    try {
      EXPECT_THAT(parseMigration(text.substr(0, length)), SizeIs(testing::AnyOf(1, 2)));
    } catch (const std::exception& error) {
      EXPECT_STRNE(error.what(), "");
    }
  }
}

TEST_F(MigrationsTest, renamesThroughEveryStepInOrder) {
  addStep(5, {{"A", "B"}});
  addStep(6, {{"B", "C"}});
  std::vector<Property> properties = entries({"A", "Other"});

  const bool ok = load("4", "6").apply(properties);

  EXPECT_TRUE(ok);
  EXPECT_THAT(keys(properties), ElementsAre("C", "Other"));
  EXPECT_EQ(properties[0].text(column::kValue), "of A");
}

TEST_F(MigrationsTest, ordersStepsByNumber) {
  addStep(9, {{"A", "B"}});
  addStep(10, {{"B", "C"}});
  std::vector<Property> properties = entries({"A"});

  load("8", "10").apply(properties);

  EXPECT_THAT(keys(properties), ElementsAre("C"));
}

TEST_F(MigrationsTest, readsNoFileWhenTheVersionsAreEqual) {
  addFile(4, "unreadable");
  addFile(5, "unreadable");
  LogCapture log;
  std::vector<Property> properties = entries({"A"});

  const bool ok = load("4", "4").apply(properties);

  EXPECT_TRUE(ok);
  EXPECT_THAT(keys(properties), ElementsAre("A"));
  EXPECT_EQ(log.text(), "");
}

TEST_F(MigrationsTest, readsNoFileForANewerBackup) {
  addStep(4, {{"A", "B"}});
  addStep(5, {{"A", "B"}});
  LogCapture log;
  std::vector<Property> properties = entries({"A"});

  load("5", "3").apply(properties);

  EXPECT_THAT(keys(properties), ElementsAre("A"));
  EXPECT_EQ(log.text(), "");
}

TEST_F(MigrationsTest, takesABackupWithoutAVersionForVersionZero) {
  addStep(1, {{"A", "B"}});
  addStep(2, {{"B", "C"}});
  std::vector<Property> properties = entries({"A"});

  load("", "2").apply(properties);

  EXPECT_THAT(keys(properties), ElementsAre("C"));
}

TEST_F(MigrationsTest, takesAnEmptyCurrentVersionForVersionZero) {
  addStep(1, {{"A", "B"}});
  LogCapture log;
  std::vector<Property> properties = entries({"A"});

  load("", "").apply(properties);

  EXPECT_THAT(keys(properties), ElementsAre("A"));
  EXPECT_EQ(log.text(), "");
}

TEST_F(MigrationsTest, ignoresWhatFollowsTheDigitsOfAVersion) {
  addStep(5, {{"A", "B"}});
  std::vector<Property> properties = entries({"A"});

  load("4\n", "5-rc1").apply(properties);

  EXPECT_THAT(keys(properties), ElementsAre("B"));
}

TEST_F(MigrationsTest, takesAVersionWithoutDigitsForZero) {
  addStep(1, {{"A", "B"}});

  for (const char* version : {"none", " none\n", "-", "\n", ""}) {
    SCOPED_TRACE(version);
    std::vector<Property> renamed = entries({"A"});
    std::vector<Property> kept = entries({"A"});

    load(version, "1").apply(renamed);
    load("1", version).apply(kept);

    EXPECT_THAT(keys(renamed), ElementsAre("B"));
    EXPECT_THAT(keys(kept), ElementsAre("A"));
  }
}

TEST_F(MigrationsTest, hasNoStepFromAVersionThatIsTooLarge) {
  addStep(1, {{"A", "B"}});
  std::vector<Property> properties = entries({"A"});
  LogCapture log;

  load("99999999999", "1").apply(properties);

  EXPECT_THAT(keys(properties), ElementsAre("A"));
  EXPECT_EQ(log.text(), "");
}

TEST_F(MigrationsTest, stopsLoadingAtAGapAndKeepsTheStepsBeforeIt) {
  addStep(5, {{"A", "B"}});
  addStep(7, {{"B", "C"}});
  LogCapture log;
  std::vector<Property> properties = entries({"A"});

  const bool ok = load("4", "7").apply(properties);

  EXPECT_TRUE(ok);
  EXPECT_THAT(keys(properties), ElementsAre("B"));
  EXPECT_THAT(log.linesWith("error core/Migrations:"),
              ElementsAre(AllOf(HasSubstr(" Error during parsing migration number: 6, error message: "),
                                HasSubstr(directory_.path("migration_6.json")))));
}

TEST_F(MigrationsTest, stopsLoadingAtAFileThatDoesNotParse) {
  addStep(5, {{"A", "B"}});
  addFile(6, R"({"rename":[{"oldKey":"B"}]})");
  addStep(7, {{"B", "C"}});
  LogCapture log;
  std::vector<Property> properties = entries({"A"});

  load("4", "7").apply(properties);

  EXPECT_THAT(keys(properties), ElementsAre("B"));
  EXPECT_THAT(log.linesWith("error core/Migrations:"),
              ElementsAre(EndsWith(
                  " Error during parsing migration number: 6, error message: Parsing rename rule failed")));
}

TEST_F(MigrationsTest, stopsLoadingAtAFileWithoutRules) {
  addFile(5, "{}");
  LogCapture log;

  load("4", "6");

  EXPECT_THAT(log.linesWith("error core/Migrations:"),
              ElementsAre(EndsWith(
                  " Error during parsing migration number: 5, error message: Migrations not found")));
}

TEST_F(MigrationsTest, stopsLoadingAtJsonOfAnotherShape) {
  addFile(5, "[1]");
  LogCapture log;

  load("4", "6");

  EXPECT_THAT(log.linesWith("error core/Migrations:"),
              ElementsAre(HasSubstr(" Error during parsing migration number: 5, error message: ")));
}

TEST_F(MigrationsTest, endsSoonWhenTheCurrentVersionIsFarAhead) {
  addStep(1, {{"A", "B"}});
  LogCapture log;
  std::vector<Property> properties = entries({"A"});

  load("", "2147483647").apply(properties);

  EXPECT_THAT(keys(properties), ElementsAre("B"));
  EXPECT_THAT(log.linesWith("Error during parsing migration number: 2,"), SizeIs(1));
}

TEST_F(MigrationsTest, loadsTheStepToTheGreatestVersion) {
  addStep(2147483647, {{"A", "B"}});
  std::vector<Property> properties = entries({"A"});

  load("2147483646", "2147483647").apply(properties);

  EXPECT_THAT(keys(properties), ElementsAre("B"));
}

TEST_F(MigrationsTest, renamesNothingOfAStepWithAFailedCheck) {
  addStep(5, {{"A", "A2"}, {"Missing", "M2"}, {"C", "C2"}});
  LogCapture log;
  std::vector<Property> properties = entries({"A", "C"});

  const bool ok = load("4", "5").apply(properties);

  EXPECT_FALSE(ok);
  EXPECT_THAT(keys(properties), ElementsAre("A", "C"));
}

TEST_F(MigrationsTest, renamesNothingOfAStepWhoseNewKeyIsInTheBackup) {
  addStep(5, {{"A", "B"}, {"C", "C2"}});
  LogCapture log;
  std::vector<Property> properties = entries({"A", "B", "C"});

  const bool ok = load("4", "5").apply(properties);

  EXPECT_FALSE(ok);
  EXPECT_THAT(keys(properties), ElementsAre("A", "B", "C"));
}

TEST_F(MigrationsTest, reportsEveryRuleOfTheFailedStepAndOfThoseAfterIt) {
  addStep(5, {{"Missing", "M2"}, {"A", "A2"}});
  addStep(6, {{"A", "A3"}});
  LogCapture log;
  std::vector<Property> properties = entries({"A"});

  const bool ok = load("4", "6").apply(properties);

  EXPECT_FALSE(ok);
  EXPECT_THAT(keys(properties), ElementsAre("A"));
  EXPECT_THAT(log.linesWith("error core/MigrationRuleRename:"),
              ElementsAre(HasSubstr("NVM version 5 failed to find parameter with key \"Missing\""),
                          HasSubstr("NVM version 5 failed to rename parameter with key \"A\""),
                          HasSubstr("NVM version 6 failed to rename parameter with key \"A\"")));
}

TEST_F(MigrationsTest, keepsTheStepsBeforeAFailedOne) {
  addStep(5, {{"A", "B"}});
  addStep(6, {{"Missing", "M2"}});
  LogCapture log;
  std::vector<Property> properties = entries({"A"});

  load("4", "6").apply(properties);

  EXPECT_THAT(keys(properties), ElementsAre("B"));
}

TEST_F(MigrationsTest, hasNothingToDoForAnEmptyListWithoutSteps) {
  std::vector<Property> properties;

  EXPECT_TRUE(load("4", "4").apply(properties));
  EXPECT_THAT(properties, IsEmpty());
}

}  // namespace
}  // namespace propertyservice
