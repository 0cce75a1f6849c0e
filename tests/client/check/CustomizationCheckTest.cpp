#include <memory>

#include <SQLiteCpp/SQLiteCpp.h>

#include "client/check/CheckFixture.h"
#include "core/Customization.h"
#include "support/LogCapture.h"

namespace check::test {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::IsEmpty;

constexpr Severity kError = Severity::error;
constexpr Severity kWarning = Severity::warning;

const std::string kScript = scriptWithRows(
    "('Audio.Volume', '5', 6, 0, 10, NULL, NULL, 'Volume'),\n"
    "('Audio.Tone', 'GB', 14, NULL, NULL, 'GB,DE', NULL, 'Tone'),\n"
    "('WebUI.Brand', 'Halcyon', 7, NULL, NULL, NULL, NULL, NULL)");

using CustomizationCheckTest = CheckTest;

TEST_F(CustomizationCheckTest, isSilentAboutAFileWithoutMistakes) {
  add("nvminit.sql", kScript);
  add("Update.Common.json",
      "{\"key\":\"Audio.Volume\",\"value\":\"7\"}\n\n"
      "{\"key\":\"WebUI.Brand\",\"value\":\"X\",\"flags\":7} // ours");

  EXPECT_THAT(findings(), IsEmpty());
}

TEST_F(CustomizationCheckTest, isSilentAboutAnEmptyFile) {
  add("Update.Common.json", "");

  EXPECT_THAT(findings(), IsEmpty());
}

/// Lines between good neighbours, on line 2.
class CustomizationLineTest : public CheckTest, public testing::WithParamInterface<Case> {
 protected:
  std::string file() const {
    return "{\"key\":\"WebUI.Brand\",\"value\":\"X\"}\n" + GetParam().text +
           "\n{\"key\":\"WebUI.Brand\",\"tr069\":\"Device.Brand\"}\n";
  }

  /// Whether the daemon's start-up ends with this file.
  bool endsStartUp() {
    const propertyservice::test::LogCapture silent;
    propertyservice::DevicePaths paths;
    paths.model = directory_.write("model", "Halcyon 5 ADV\n");
    paths.customizations = directory_.path("") + "customizations/";
    std::filesystem::create_directory(paths.customizations);
    directory_.write("customizations/Update.Common.json", file());
    auto database = std::make_shared<SQLite::Database>(":memory:", SQLite::OPEN_READWRITE);
    database->exec(kScript);
    propertyservice::PersistentStorage storage(database);
    try {
      propertyservice::applyCustomization(storage, paths);
      return false;
    } catch (const std::exception&) {
      return true;
    }
  }
};

TEST_P(CustomizationLineTest, isToldWithItsNumber) {
  add("nvminit.sql", kScript);
  add("Update.Common.json", file());

  EXPECT_THAT(findings(), isOnly(GetParam()));
}

TEST_P(CustomizationLineTest, isSaidToEndStartUpExactlyWhenItDoes) {
  add("nvminit.sql", kScript);
  add("Update.Common.json", file());

  const std::vector<Finding> found = findings();

  ASSERT_FALSE(found.empty());
  EXPECT_EQ(found.front().text.find("ends the daemon's start-up") != std::string::npos, endsStartUp())
      << found.front().text;
}

INSTANTIATE_TEST_SUITE_P(
    Lines, CustomizationLineTest,
    testing::Values(
        Case{"noJson", "WebUI.Brand=X", 2, kError, "is no JSON"},
        Case{"unfinishedComment", "/* nothing", 2, kError, "is no JSON"},
        Case{"byteOrderMark", "\xef\xbb\xbf{\"key\":\"Audio.Volume\",\"value\":\"5\"}", 2, kError,
             "byte order mark"},
        Case{"array", "[]", 2, kError, "is no JSON object"},
        Case{"text", "\"x\"", 2, kError, "is no JSON object"},
        Case{"cutOffInTheKey", R"({"key":"Audio.Vol)", 2, kError, "is no JSON"},
        Case{"cutOffBehindTheValue", R"({"key":"Audio.Volume","value":"6")", 2, kError,
             "only what stands before it is applied"},
        Case{"trailingComma", R"({"key":"Audio.Volume","value":"6",})", 2, kError, "is no JSON"},
        Case{"secondObject", R"({"key":"Audio.Volume","value":"6"} {"key":"Audio.Tone","value":"DE"})", 2,
             kError, "what stands behind the first JSON value is ignored"},
        Case{"memberTwice", R"({"key":"Audio.Volume","value":"6","value":"7"})", 2, kError,
             R"(the member "value" stands twice)"},
        Case{"deepNesting", std::string(1500, '['), 2, kError,
             "nested too deeply to be read: this line and those after it are left out"},
        Case{"withoutKey", R"({"value":"6"})", 2, kError, R"(has no "key")"},
        Case{"keyThatIsNoText", R"({"key":5,"value":"6"})", 2, kError, R"(has no "key")"},
        Case{"emptyKey", R"({"key":"","value":"6"})", 2, kError, R"(has no "key")"},
        Case{"unknownKey", R"({"key":"Audio.Volumes","value":"6"})", 2, kError,
             R"("Audio.Volumes": the database script has no such key)"},
        Case{"overlongKey", "{\"key\":\"" + std::string(65, 'k') + "\",\"value\":\"6\"}", 2, kError,
             "more than 64 characters"},
        Case{"nothingSet", R"({"key":"Audio.Volume"})", 2, kWarning, "sets nothing"},
        Case{"unknownMember", R"({"key":"Audio.Volume","valeu":"6"})", 2, kError,
             R"(the member "valeu" is no column of the table and is ignored)"},
        Case{"null", R"({"key":"Audio.Volume","value":null})", 2, kWarning, "is null"},
        Case{"object", R"({"key":"Audio.Volume","value":{}})", 2, kError, "is an array or object"},
        Case{"truth", R"({"key":"WebUI.Brand","provisioning":true})", 2, kWarning,
             R"(it is stored as "true")"},
        Case{"overlongValue", "{\"key\":\"WebUI.Brand\",\"defaultvalues\":\"" + std::string(257, 'v') + "\"}",
             2, kError, "more than 256 characters"},
        Case{"valueWithANul", R"({"key":"WebUI.Brand","defaultvalues":"a\u0000b"})", 2, kError,
             "the table cannot hold it"},
        Case{"valueThatIsNotUtf8", "{\"key\":\"WebUI.Brand\",\"defaultvalues\":\"\xff\"}", 2, kError,
             "the table cannot hold it"},
        Case{"flagsThatAreNoNumber", R"({"key":"Audio.Volume","flags":"user"})", 2, kError, "is no integer"},
        Case{"flagsAsText", R"({"key":"Audio.Volume","flags":"6"})", 2, kWarning, "counts as 6"},
        Case{"hugeFlags", R"({"key":"Audio.Volume","flags":99999999999999999999})", 2, kWarning,
             "counts as 1"},
        Case{"valueOutOfRange", R"({"key":"Audio.Volume","value":"11"})", 2, kError,
             R"(the value "11" is no number in the range 0..10)"},
        Case{"valueNotListed", R"({"key":"Audio.Tone","value":"UK","flags":7})", 2, kError,
             "is not in the list"},
        Case{"rangeUpsideDown", R"({"key":"Audio.Volume","range_min":20})", 2, kError,
             "the range is upside down"},
        Case{"expressionThatDoesNotCompile", R"({"key":"Audio.Volume","regexp":"["})", 2, kError,
             "does not compile"},
        Case{"takenName", R"({"key":"Audio.Volume","webui":"Tone"})", 2, kError,
             R"(is also that of "Audio.Tone")"},
        Case{"settingOfTheUser", R"({"key":"Audio.Tone","value":"DE"})", 2, kWarning,
             "every start undoes what the user has set"},
        Case{"repetition", R"({"key":"WebUI.Brand","value":"Y"})", 2, kWarning,
             R"("WebUI.Brand": "value" was set on line 1 already: the later line wins)"}),
    nameOf);

TEST_F(CustomizationCheckTest, doesNotAskForKeysWithoutAScript) {
  add("Update.Common.json", R"({"key":"No.Such","value":"6"})");

  EXPECT_THAT(findings(), IsEmpty());
}

TEST_F(CustomizationCheckTest, doesNotMissKeysOfAStatementThatDoesNotParse) {
  add("nvminit.sql", scriptWith("INSERT INTO settings (key default) VALUES ('A.B', '');"));
  add("Update.Common.json", R"({"key":"A.B","value":"6"})");

  EXPECT_THAT(findings(), ElementsAre(IsFinding(3U, kError, "syntax error")));
}

TEST_F(CustomizationCheckTest, doesNotMissAKeyWhoseRowIsReportedAlready) {
  add("nvminit.sql",
      scriptWith("INSERT INTO settings (key, defaultvalues) VALUES ('A.B', ''), ('NVM.Version', '');"));
  add("Update.Common.json", R"({"key":"A.B","value":"6"})");

  EXPECT_THAT(findings(), ElementsAre(IsFinding(3U, kError, "duplicate key")));
}

/// Triggers that a script may leave in the table.
class TriggerTest : public CheckTest, public testing::WithParamInterface<const char*> {};

TEST_P(TriggerTest, cannotCrashOrStallTheCheck) {
  add("nvminit.sql",
      kScript + "CREATE TRIGGER t AFTER UPDATE ON settings BEGIN SELECT " + GetParam() + "; END;\n");
  add("Update. 5.json", R"({"key":"Audio.Volume","value":"6"})");

  EXPECT_THAT(findings(), testing::Each(testing::Field(&Finding::text, testing::Not(IsEmpty()))));
}

INSTANTIATE_TEST_SUITE_P(Actions, TriggerTest,
                         testing::Values("propctl_note('A', 1, 1, 1, 0)", "RAISE(ROLLBACK, 'no')",
                                         "RAISE(ABORT, 'no')", "1; DELETE FROM settings",
                                         "(WITH RECURSIVE n(i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM n) "
                                         "SELECT max(i) FROM n)"));

class WholeDocumentTest : public CheckTest, public testing::WithParamInterface<Case> {};

TEST_P(WholeDocumentTest, isToldOnce) {
  add("Update.Common.json", GetParam().text);

  EXPECT_THAT(findings(), isOnly(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Forms, WholeDocumentTest,
                         testing::Values(Case{"object", "\n{\n  \"key\": \"A.B\",\n  \"value\": \"6\"\n}\n",
                                              2, kError, "is one JSON object over several lines"},
                                         Case{"array", "[\n{\"key\":\"A.B\",\"value\":\"6\"}\n]\n", 1, kError,
                                              "is one JSON array"}),
                         nameOf);

TEST_F(CustomizationCheckTest, isSilentAboutBlankLines) {
  add("nvminit.sql", kScript);
  add("Update.Common.json",
      "  \n\r\n// ours\n{\"key\":\"Audio.Volume\",\"value\":\"7\"}\r\n\t/* a */ // b\r\n\n");

  EXPECT_THAT(findings(), IsEmpty());
}

TEST_F(CustomizationCheckTest, readsNothingAfterALineThatIsNestedTooDeeply) {
  add("nvminit.sql", kScript);
  add("Update.Common.json", std::string(1500, '[') + "\nno json\n{\"key\":\"Unknown\",\"value\":\"1\"}\n");

  EXPECT_THAT(findings(), ElementsAre(IsFinding(1U, kError, "nested too deeply")));
}

TEST_F(CustomizationCheckTest, warnsWhenTwoFilesSetAKeyDifferently) {
  add("Update.Common.json",
      "{\"key\":\"WebUI.Brand\",\"value\":\"X\",\"flags\":7}\n"
      "{\"key\":\"Audio.Volume\",\"value\":\"7\"}\n");
  add("Update. 5.json",
      "{\"key\":\"Audio.Volume\",\"value\":7}\n{\"key\":\"WebUI.Brand\",\"value\":\"Y\",\"flags\":7}\n");
  add("Update. 7.json", R"({"key":"WebUI.Brand","value":"Z"})");

  EXPECT_THAT(
      findings(),
      ElementsAre(IsFinding(2U, kWarning, R"("WebUI.Brand": "value" is "X" on line 1 of Update.Common.json)"),
                  IsFinding(1U, kWarning, R"(is "X" on line 1 of Update.Common.json: this file wins)")));
}

TEST_F(CustomizationCheckTest, letsTheModelsFileWin) {
  add("nvminit.sql", kScript);
  add("Update. 5.json", R"({"key":"Audio.Tone","value":"DE"})");
  add("Update.Common.json", R"({"key":"Audio.Tone","flags":7})");

  EXPECT_THAT(findings(), IsEmpty());
}

TEST_F(CustomizationCheckTest, keepsTheModelsApart) {
  add("nvminit.sql", kScript);
  add("Update. 5.json", R"({"key":"Audio.Volume","webui":"Loudness"})");
  add("Update. 7.json", R"({"key":"WebUI.Brand","webui":"Loudness"})");

  EXPECT_THAT(findings(), IsEmpty());
}

class CustomizationNameTest : public CheckTest, public testing::WithParamInterface<Case> {};

TEST_P(CustomizationNameTest, hasToBeOneThatIsRead) {
  add(GetParam().text, R"({"key":"A.B","value":"6"})");

  EXPECT_THAT(findings(), isOnly(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(
    Names, CustomizationNameTest,
    testing::Values(Case{"withoutSuffix", "Update.json", 0, kError, "Update.MODEL.json"},
                    Case{"otherLetters", "update.Common.json", 0, kError, "Update.Common.json"},
                    Case{"withoutBlank", "Update.5.json", 0, kWarning, R"(reads "Update. 5.json")"},
                    Case{"otherName", "brand.json", 0, kError, "Update.Common.json"}),
    nameOf);

}  // namespace
}  // namespace check::test
