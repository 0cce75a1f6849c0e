#include <SQLiteCpp/Database.h>

#include "core/Constants.h"
#include "core/Customization.h"
#include "support/FakePersistentStorage.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using test::FakePersistentStorage;
using test::LogCapture;
using test::TemporaryDirectory;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;
using testing::ThrowsMessage;

std::vector<Property> propertiesOf(const std::vector<CustomizationEntry>& entries) {
  std::vector<Property> properties;
  for (const CustomizationEntry& entry : entries) {
    properties.push_back(entry.property);
  }
  return properties;
}

/// A table with the rows A and B.
struct SQLiteTable {
  SQLiteTable() {
    storage.createTable();
    storage.insert(Property({{"key", "A"}, {"value", "old"}}));
    storage.insert(Property({{"key", "B"}, {"value", "old"}}));
  }

  const std::shared_ptr<SQLite::Database> database =
      std::make_shared<SQLite::Database>(":memory:", SQLite::OPEN_READWRITE);
  PersistentStorage storage{database};
};

/// A device with a model file, a table of three properties and no customisation files.
class CustomizationTest : public testing::Test {
 protected:
  CustomizationTest() {
    paths_.model = directory_.write("model", "Halcyon 5 ADV\n");
    paths_.customizations = directory_.path("");
    storage_.values = {{"A", ""}, {"B", ""}, {"C", ""}};
  }

  TemporaryDirectory directory_;
  DevicePaths paths_;
  FakePersistentStorage storage_;
};

TEST_F(CustomizationTest, writesNothingWithoutFiles) {
  LogCapture log;

  applyCustomization(storage_, paths_);

  EXPECT_THAT(storage_.writes, IsEmpty());
  EXPECT_THAT(log.linesWith("info core/Customization:"),
              ElementsAre(HasSubstr(" Customization files not found: "),
                          HasSubstr(" Customization files not found: ")));
}

TEST_F(CustomizationTest, appliesTheCommonFileInFileOrder) {
  directory_.write("Update.Common.json", R"({"key":"B","value":"1"})"
                                         "\n"
                                         R"({"key":"A","value":"2"})"
                                         "\n");

  applyCustomization(storage_, paths_);

  EXPECT_THAT(storage_.writes, ElementsAre(Pair("B", "1"), Pair("A", "2")));
}

TEST_F(CustomizationTest, appliesTheModelFileWithoutACommonOne) {
  directory_.write("Update. 5.json", R"({"key":"A","value":"5"})");

  applyCustomization(storage_, paths_);

  EXPECT_THAT(storage_.writes, ElementsAre(Pair("A", "5")));
}

TEST_F(CustomizationTest, appliesTheModelFileAfterTheCommonOneSoThatItWins) {
  directory_.write("Update.Common.json", R"({"key":"A","value":"common"})");
  directory_.write("Update. 5.json", R"({"key":"A","value":"model"})");

  applyCustomization(storage_, paths_);

  EXPECT_EQ(storage_.values["A"], "model");
}

TEST_F(CustomizationTest, writesAPropertyThatIsSetMoreThanOnceOnce) {
  directory_.write("Update.Common.json",
                   "{\"key\":\"A\",\"value\":\"1\"}\n{\"key\":\"B\",\"value\":\"2\"}\n"
                   "{\"key\":\"A\",\"value\":\"3\"}\n");
  directory_.write("Update. 5.json", "{\"key\":\"C\",\"value\":\"4\"}\n{\"key\":\"A\",\"value\":\"5\"}\n");

  applyCustomization(storage_, paths_);

  EXPECT_THAT(storage_.writes, ElementsAre(Pair("A", "5"), Pair("B", "2"), Pair("C", "4")));
}

TEST_F(CustomizationTest, joinsWhatTwoLinesSetColumnByColumn) {
  SQLiteTable table;
  directory_.write("Update.Common.json", R"({"key":"A","value":"common","flags":7,"webui":"Name"})");
  directory_.write("Update. 5.json", R"({"key":"A","value":"model","webui":null,"tr069":"Device.A"})");

  applyCustomization(table.storage, paths_);

  const Property row = table.storage.selectMultiple("A").front();
  EXPECT_EQ(row.text("value"), "model");
  EXPECT_EQ(row.get("flags"), Json::Value(7));
  EXPECT_EQ(row.text("webui"), "Name");
  EXPECT_EQ(row.text("tr069"), "Device.A");
}

TEST_F(CustomizationTest, changesTheTableOnlyWhereItDiffers) {
  SQLiteTable table;
  directory_.write("Update.Common.json", R"({"key":"A","value":"common","flags":"7"})");
  directory_.write("Update. 5.json", R"({"key":"A","value":"model"})");
  applyCustomization(table.storage, paths_);
  const int before = table.database->getTotalChanges();

  applyCustomization(table.storage, paths_);

  EXPECT_EQ(table.database->getTotalChanges(), before);
}

TEST_F(CustomizationTest, cutsTheModelAtTheFirstSuffix) {
  directory_.write("model", "Halcyon 5 ADV ADVANCED\n");
  directory_.write("Update. 5.json", R"({"key":"A","value":"5"})");

  applyCustomization(storage_, paths_);

  EXPECT_THAT(storage_.writes, SizeIs(1));
}

TEST_F(CustomizationTest, dropsSevenCharactersOfTheModelWhateverTheyAre) {
  directory_.write("model", "v:Halcyon 5 ADV");
  directory_.write("Update.on 5.json", R"({"key":"A","value":"5"})");

  applyCustomization(storage_, paths_);

  EXPECT_THAT(storage_.writes, SizeIs(1));
}

TEST_F(CustomizationTest, joinsTheLinesOfTheModelFile) {
  directory_.write("model", "Halcyon\n 5\n ADV\n");
  directory_.write("Update. 5.json", R"({"key":"A","value":"5"})");

  applyCustomization(storage_, paths_);

  EXPECT_THAT(storage_.writes, SizeIs(1));
}

TEST_F(CustomizationTest, hasAFileNameWithTwoPointsForAShortModel) {
  directory_.write("model", "Five ADV");
  directory_.write("Update..json", R"({"key":"A","value":"5"})");

  applyCustomization(storage_, paths_);

  EXPECT_THAT(storage_.writes, SizeIs(1));
}

TEST_F(CustomizationTest, throwsForAModelWithoutTheSuffixBeforeAnythingIsWritten) {
  directory_.write("model", "Halcyon 5\n");
  directory_.write("Update.Common.json", R"({"key":"A","value":"1"})");

  EXPECT_THROW(applyCustomization(storage_, paths_), std::out_of_range);
  EXPECT_THAT(storage_.writes, IsEmpty());
}

TEST_F(CustomizationTest, throwsWithoutAModelFile) {
  paths_.model = directory_.path("missing");

  EXPECT_THROW(applyCustomization(storage_, paths_), std::runtime_error);
}

TEST_F(CustomizationTest, leavesAnEntryThatTheStorageRefusesToTheCaller) {
  directory_.write("Update.Common.json", R"({"key":"Unknown","value":"1"})");

  EXPECT_THROW(applyCustomization(storage_, paths_), PersistentStorageException);
}

/// A line that ends start-up, and what the daemon says about it.
struct Refusal {
  const char* name;
  std::string line;
  std::string complaint;

  friend std::ostream& operator<<(std::ostream& stream, const Refusal& refusal) {
    return stream << refusal.name;
  }
};

class RefusedCustomizationTest : public CustomizationTest, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusedCustomizationTest, isNamedWithFileLineAndKey) {
  SQLiteTable table;
  directory_.write("Update.Common.json", "{\"key\":\"B\",\"value\":\"1\"}\n\n" + GetParam().line + "\n");
  LogCapture silent;

  EXPECT_THAT([&] { applyCustomization(table.storage, paths_); },
              ThrowsMessage<PersistentStorageException>(
                  StartsWith(directory_.path("Update.Common.json") + ":3: " + GetParam().complaint)));
}

TEST_P(RefusedCustomizationTest, endsStartUpAlsoWhereALaterLineReplacesIt) {
  SQLiteTable table;
  directory_.write("Update.Common.json", GetParam().line + "\n");
  directory_.write("Update. 5.json", R"({"key":"A","value":"1","defaultvalues":"1","flags":1,"webui":"1"})");
  LogCapture silent;

  EXPECT_THROW(applyCustomization(table.storage, paths_), PersistentStorageException);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, RefusedCustomizationTest,
    testing::Values(
        Refusal{"unknownKey", R"({"key":"Unknown","value":"1"})", R"("Unknown": Parameter not found)"},
        Refusal{"noJson", "no json", "null: Parameter not found"},
        Refusal{"unfinishedComment", "/* the rest", "null: Parameter not found"},
        Refusal{"keyThatIsAnObject", R"({"key":{},"value":"1"})", "{}: "},
        Refusal{"overlongValue", "{\"key\":\"A\",\"value\":\"" + std::string(257, 'v') + "\"}",
                R"("A": value has more than 256 characters)"},
        Refusal{"overlongDefault", "{\"key\":\"A\",\"defaultvalues\":\"" + std::string(257, 'v') + "\"}",
                R"("A": defaultvalues has more than 256 characters)"},
        Refusal{"nul", R"({"key":"A","value":"a\u0000b"})",
                R"("A": value has more than 256 characters, a NUL)"},
        Refusal{"textThatIsNotUtf8", "{\"key\":\"A\",\"value\":\"\xff\"}", R"("A": value has more than)"},
        Refusal{"list", R"({"key":"A","webui":[]})", R"("A": webui is an array or object)"},
        Refusal{"flagsThatAreNoNumber", R"({"key":"A","flags":"user"})", R"("A": )"}),
    [](const auto& refusal) { return refusal.param.name; });

TEST_F(CustomizationTest, skipsBlankLines) {
  for (const std::string blank :
       {"", " ", "\t \r", "\r", "// A", "  // {\"key\":\"C\"}\r", "/* A */", "/**/ /* */ //", "\v\f"}) {
    SCOPED_TRACE(blank);
    const std::string path =
        directory_.write("file.json", blank + "\n" + blank + "\n{\"key\":\"A\",\"value\":\"1\"}\r\n" + blank +
                                          "\n{\"key\":\"B\",\"value\":\"2\"}\n" + blank);
    LogCapture log;

    const std::vector<CustomizationEntry> entries = parseCustomizationFile(path);

    EXPECT_THAT(propertiesOf(entries), ElementsAre(Property({{"key", "A"}, {"value", "1"}}),
                                                   Property({{"key", "B"}, {"value", "2"}})));
    EXPECT_THAT(entries.back().origin, EndsWith("file.json:5"));
  }
}

TEST_F(CustomizationTest, leavesOutWhatFollowsALineThatIsNestedTooDeeply) {
  directory_.write("Update.Common.json", "{\"key\":\"A\",\"value\":\"1\"}\n{\"key\":\"A\",\"value\":" +
                                             std::string(1500, '[') + "\n{\"key\":\"B\",\"value\":\"2\"}\n");
  directory_.write("Update. 5.json", R"({"key":"C","value":"3"})");
  LogCapture log;

  applyCustomization(storage_, paths_);

  EXPECT_THAT(storage_.writes, ElementsAre(Pair("A", "1"), Pair("C", "3")));
  EXPECT_THAT(log.linesWith("info core/Customization:"),
              Contains(HasSubstr(" Customization files not found: " + directory_.path("Update.Common.json") +
                                 ":2: is nested too deeply")));
}

TEST_F(CustomizationTest, takesALastLineWithoutALineEnd) {
  const std::string path = directory_.write("file.json", R"({"key":"A","value":"1"})");

  EXPECT_THAT(propertiesOf(parseCustomizationFile(path)),
              ElementsAre(Property({{"key", "A"}, {"value", "1"}})));
}

TEST_F(CustomizationTest, acceptsCommentsInALine) {
  const std::string path = directory_.write("file.json", R"({"key":"A",/* yes */"value":"1"})");

  EXPECT_THAT(propertiesOf(parseCustomizationFile(path)),
              ElementsAre(Property({{"key", "A"}, {"value", "1"}})));
}

TEST_F(CustomizationTest, keepsEveryColumnOfAnEntry) {
  const std::string path = directory_.write("file.json", R"({"key":"A","flags":3,"regexp":"x"})");

  EXPECT_THAT(propertiesOf(parseCustomizationFile(path)),
              ElementsAre(Property({{"key", "A"}, {"flags", "3"}, {"regexp", "x"}})));
}

TEST_F(CustomizationTest, takesALineThatIsNoObjectForAnEntryWithoutMembers) {
  const std::string path = directory_.write("file.json", "no json\n[1]\n5\n{\"key\":\"A\"}\n");

  EXPECT_THAT(propertiesOf(parseCustomizationFile(path)),
              ElementsAre(Property(), Property(), Property(), Property({{"key", "A"}})));
}

TEST_F(CustomizationTest, keepsWhatCouldBeReadOfALineThatBreaksOff) {
  const std::string path = directory_.write("file.json", R"({"key":"A","value":"1","webui":)");

  const std::vector<Property> entries = propertiesOf(parseCustomizationFile(path));

  ASSERT_THAT(entries, SizeIs(1));
  EXPECT_EQ(entries[0].text(column::kKey), "A");
  EXPECT_EQ(entries[0].text(column::kValue), "1");
}

TEST_F(CustomizationTest, namesTheFileAndItsKeysInTheLog) {
  const std::string path = directory_.write("file.json", "{\"key\":\"A\"}\nno json\n");
  LogCapture log;

  parseCustomizationFile(path);

  EXPECT_THAT(log.linesWith("info core/Customization:"),
              ElementsAre(EndsWith(" Parsing customization file: " + path)));
  EXPECT_THAT(log.linesWith("debug core/Customization:"),
              ElementsAre(EndsWith(" Found customized values for parameter: \"A\""),
                          EndsWith(" Found customized values for parameter: null")));
}

TEST_F(CustomizationTest, neitherLoopsNorCrashesWhereverAFileIsCutOff) {
  const std::string text = "{\"key\":\"A\",\"value\":\"1\"}\n\n{\"key\":\"B\",\"value\":\"2\"}\n";
  LogCapture log;

  for (std::size_t length = 0; length <= text.size(); ++length) {
    SCOPED_TRACE(length);
    const std::string path = directory_.write("file.json", text.substr(0, length));

    const std::size_t lines = length == 0 ? 0U : length < text.find("{\"key\":\"B\"") + 1 ? 1U : 2U;
    EXPECT_THAT(parseCustomizationFile(path), SizeIs(lines));
  }
}

}  // namespace
}  // namespace propertyservice
