#include "core/BackupFile.h"
#include "core/Constants.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

std::vector<std::pair<std::string, std::string>> entries(const BackupFile& backup) {
  std::vector<std::pair<std::string, std::string>> texts;
  for (const Property& property : backup.properties) {
    texts.emplace_back(property.text(column::kKey), property.text(column::kValue));
  }
  return texts;
}

TEST(BackupFile, holdsTheLinesInOrderAndTheVersionWithItsLineEnd) {
  const BackupFile backup = parseBackup("B;2\nA;1\nDatabaseVersion:17\n");

  EXPECT_THAT(entries(backup), ElementsAre(Pair("B", "2"), Pair("A", "1")));
  EXPECT_EQ(backup.version, "17\n");
}

TEST(BackupFile, givesPropertiesOfKeyAndValueAlone) {
  const BackupFile backup = parseBackup("A;1\n");

  ASSERT_EQ(backup.properties.size(), 1U);
  EXPECT_EQ(backup.properties[0], Property({{"key", "A"}, {"value", "1"}}));
}

TEST(BackupFile, hasAnEmptyVersionWithoutAVersionLine) {
  const BackupFile backup = parseBackup("A;1\n");

  EXPECT_EQ(backup.version, "");
}

TEST(BackupFile, takesTheLastValueUpToTheEndWhenItsLineEndIsMissing) {
  const BackupFile backup = parseBackup("A;1\nB;2");

  EXPECT_THAT(entries(backup), ElementsAre(Pair("A", "1"), Pair("B", "2")));
}

TEST(BackupFile, takesTheVersionMarkerInsideALineForPartOfTheLine) {
  const BackupFile backup =
      parseBackup("A;DatabaseVersion: none\nB;2DatabaseVersion:9\nDatabaseVersion:17\n");

  EXPECT_THAT(entries(backup),
              ElementsAre(Pair("A", "DatabaseVersion: none"), Pair("B", "2DatabaseVersion:9")));
  EXPECT_EQ(backup.version, "17\n");
}

TEST(BackupFile, doesNotLookForASeparatorInTheVersion) {
  const BackupFile backup = parseBackup("A;1\nB\nDatabaseVersion:17;x\n");

  EXPECT_THAT(entries(backup), ElementsAre(Pair("A", "1")));
  EXPECT_EQ(backup.version, "17;x\n");
}

TEST(BackupFile, endsAtTheFirstVersionMarker) {
  const BackupFile backup = parseBackup("A;1\nDatabaseVersion:17\nB;2\nDatabaseVersion:18\n");

  EXPECT_THAT(entries(backup), ElementsAre(Pair("A", "1")));
  EXPECT_EQ(backup.version, "17\nB;2\nDatabaseVersion:18\n");
}

TEST(BackupFile, holdsTheRestOfALineWithMoreColumnsInTheValue) {
  const BackupFile backup = parseBackup("A;1;x;y\nB;2\n");

  EXPECT_THAT(entries(backup), ElementsAre(Pair("A", "1;x;y"), Pair("B", "2")));
}

TEST(BackupFile, takesWhatHasNoSeparatorIntoTheNextKey) {
  const BackupFile backup = parseBackup("A;1\nrest of A\nB;2\nC;3\n");

  EXPECT_THAT(entries(backup), ElementsAre(Pair("A", "1"), Pair("rest of A\nB", "2"), Pair("C", "3")));
}

TEST(BackupFile, endsWhereNoSeparatorFollows) {
  const BackupFile backup = parseBackup("A;1\nB\nC\n");

  EXPECT_THAT(entries(backup), ElementsAre(Pair("A", "1")));
}

TEST(BackupFile, keepsAnEmptyValueAndAnEmptyKey) {
  const BackupFile backup = parseBackup("A;\n;1\n");

  EXPECT_THAT(entries(backup), ElementsAre(Pair("A", ""), Pair("", "1")));
}

TEST(BackupFile, keepsANulInAValue) {
  const BackupFile backup = parseBackup(std::string_view("A;x\0y\n", 6));

  EXPECT_THAT(entries(backup), ElementsAre(Pair("A", std::string("x\0y", 3))));
}

TEST(BackupFile, holdsNothingWhenItIsEmpty) {
  const BackupFile backup = parseBackup("");

  EXPECT_THAT(backup.properties, IsEmpty());
  EXPECT_EQ(backup.version, "");
}

TEST(BackupFile, holdsNoPropertiesWhenThereIsOnlyTheVersionLine) {
  const BackupFile backup = parseBackup("DatabaseVersion:17\n");

  EXPECT_THAT(backup.properties, IsEmpty());
  EXPECT_EQ(backup.version, "17\n");
}

TEST(BackupFile, keepsTheCompleteLinesWhereverItIsCutOff) {
  const std::string text = "A;1\nBroken\nSecond;x;y\n;\nLast;value\nDatabaseVersion:17\n";
  const auto whole = entries(parseBackup(text));
  ASSERT_EQ(whole.size(), 4U);

  for (std::size_t length = 0; length < text.size(); ++length) {
    SCOPED_TRACE(length);

    const auto cut = entries(parseBackup(std::string_view(text).substr(0, length)));

    const auto lines = static_cast<std::size_t>(
        std::count_if(whole.begin(), whole.end(), [&, end = std::size_t{0}](const auto& entry) mutable {
          end += entry.first.size() + 1 + entry.second.size() + 1;
          return end <= length;
        }));
    ASSERT_GE(cut.size(), lines);
    ASSERT_LE(cut.size(), lines + 1);
    EXPECT_TRUE(std::equal(cut.begin(), cut.begin() + static_cast<std::ptrdiff_t>(lines), whole.begin()));
  }
}

/// The text after "lacks"; empty when the file is whole.
std::string missingIn(std::string_view text, const std::vector<std::string>& keys, bool withVersion = true) {
  std::vector<Property> properties;
  for (const std::string& key : keys) {
    properties.push_back(Property({{column::kKey, key}}));
  }
  try {
    requireWhole(text, properties, withVersion);
  } catch (const std::runtime_error& error) {
    const std::string complaint = error.what();
    return complaint.substr(complaint.find("lacks ") + 6);
  }
  return "";
}

TEST(WholeBackup, holdsALineForEachPropertyAndTheVersionLine) {
  const std::string text = "A;1\nB;2;x;y\nC;of two\nlines\nK\n;e;y;z\n;\nDatabaseVersion:17\n";

  EXPECT_EQ(missingIn(text, {"A", "B", "C", "K\n;e;y", ""}), "");
  EXPECT_EQ(missingIn("A;1\n", {"A"}, false), "");
  EXPECT_EQ(missingIn("", {}, false), "");
}

TEST(WholeBackup, lacksWhatTheShellDidNotWrite) {
  EXPECT_EQ(missingIn("", {"A"}, false), "A");
  EXPECT_EQ(missingIn("DatabaseVersion:17\n", {"A"}), "A");
  EXPECT_EQ(missingIn("A;1\nAB;2\nx;B;\nDatabaseVersion:17\n", {"A", "B"}), "B");
  EXPECT_EQ(missingIn("A;1\n", {"A"}), "its version line");
}

TEST(WholeBackup, isNotSeenInAnyPartOfItself) {
  const std::string text = "A;1\nB;2\nC;x\nDatabaseVersion:17\n";
  ASSERT_EQ(missingIn(text, {"A", "B", "C"}), "");

  for (std::size_t length = 0; length < text.size(); ++length) {
    EXPECT_NE(missingIn(text.substr(0, length), {"A", "B", "C"}), "") << length;
    if (length < text.find("DatabaseVersion")) {
      EXPECT_NE(missingIn(text.substr(0, length) + "DatabaseVersion:17\n", {"A", "B", "C"}), "") << length;
    }
  }
}

TEST(BackupFile, isReadFromItsPath) {
  const test::TemporaryDirectory directory;
  const std::string path = directory.write("backup.csv", "A;1\nDatabaseVersion:17\n");

  const BackupFile backup = parseBackupFile(path);

  EXPECT_THAT(entries(backup), ElementsAre(Pair("A", "1")));
  EXPECT_EQ(backup.version, "17\n");
}

TEST(BackupFile, throwsWhenThereIsNoFile) {
  const test::TemporaryDirectory directory;

  EXPECT_THROW(parseBackupFile(directory.path("missing.csv")), std::runtime_error);
}

}  // namespace
}  // namespace propertyservice
