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
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

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

  EXPECT_THAT(storage_.writes, ElementsAre(Pair("A", "common"), Pair("A", "model")));
  EXPECT_EQ(storage_.values["A"], "model");
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

TEST_F(CustomizationTest, skipsBlankLines) {
  const std::string path = directory_.write("file.json",
                                            "\n\n{\"key\":\"A\",\"value\":\"1\"}\n\n\n"
                                            "{\"key\":\"B\",\"value\":\"2\"}\n\n");

  const std::vector<Property> entries = parseCustomizationFile(path);

  EXPECT_THAT(entries, ElementsAre(Property({{"key", "A"}, {"value", "1"}}),
                                   Property({{"key", "B"}, {"value", "2"}})));
}

TEST_F(CustomizationTest, takesALastLineWithoutALineEnd) {
  const std::string path = directory_.write("file.json", R"({"key":"A","value":"1"})");

  EXPECT_THAT(parseCustomizationFile(path), ElementsAre(Property({{"key", "A"}, {"value", "1"}})));
}

TEST_F(CustomizationTest, acceptsCommentsInALine) {
  const std::string path = directory_.write("file.json", R"({"key":"A",/* yes */"value":"1"})");

  EXPECT_THAT(parseCustomizationFile(path), ElementsAre(Property({{"key", "A"}, {"value", "1"}})));
}

TEST_F(CustomizationTest, keepsEveryColumnOfAnEntry) {
  const std::string path = directory_.write("file.json", R"({"key":"A","flags":3,"regexp":"x"})");

  EXPECT_THAT(parseCustomizationFile(path),
              ElementsAre(Property({{"key", "A"}, {"flags", "3"}, {"regexp", "x"}})));
}

TEST_F(CustomizationTest, takesALineThatIsNoObjectForAnEntryWithoutMembers) {
  const std::string path = directory_.write("file.json", "no json\n[1]\n5\n{\"key\":\"A\"}\n");

  EXPECT_THAT(parseCustomizationFile(path),
              ElementsAre(Property(), Property(), Property(), Property({{"key", "A"}})));
}

TEST_F(CustomizationTest, keepsWhatCouldBeReadOfALineThatBreaksOff) {
  const std::string path = directory_.write("file.json", R"({"key":"A","value":"1","webui":)");

  const std::vector<Property> entries = parseCustomizationFile(path);

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
