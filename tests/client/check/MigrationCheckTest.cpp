#include "client/check/CheckFixture.h"
#include "core/Constants.h"
#include "core/Migrations.h"
#include "support/LogCapture.h"

namespace check::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr Severity kError = Severity::error;
constexpr Severity kWarning = Severity::warning;

using Renames = std::vector<std::pair<std::string, std::string>>;

/// A migration file; the first rule stands on line 2.
std::string renaming(const Renames& renames) {
  std::string text = "{\"rename\":[\n";
  for (const auto& [oldKey, newKey] : renames) {
    text += (text.ends_with("[\n") ? "" : ",\n") + std::string(R"({"oldKey":")") + oldKey +
            R"(","newKey":")" + newKey + "\"}";
  }
  return text + "]}\n";
}

/// A script with these properties of the user; its version stands on line 2.
std::string scriptOf(const std::string& version, const std::vector<std::string>& keys) {
  std::string rows;
  for (const std::string& key : keys) {
    rows += "INSERT INTO settings (key, defaultvalues, flags) VALUES ('" + key + "', '', 8);\n";
  }
  std::string text = scriptWith(rows);
  return text.replace(text.find("'5'"), 3, "'" + version + "'");
}

class MigrationCheckTest : public CheckTest {
 protected:
  void addStep(int number, const Renames& renames) {
    add("migration_" + std::to_string(number) + ".json", renaming(renames));
  }
};

TEST_F(MigrationCheckTest, isSilentAboutStepsWithoutMistakes) {
  add("nvminit.sql", scriptOf("5", {"A.New", "B.New"}));
  addStep(4, {{"A.Old", "A.New"}});
  addStep(5, {{"B.Old", "B.New"}});

  EXPECT_THAT(findings(), IsEmpty());
}

class MigrationFileTest : public CheckTest, public testing::WithParamInterface<Case> {};

TEST_P(MigrationFileTest, isToldWithItsLine) {
  add("migration_5.json", GetParam().text);

  EXPECT_THAT(findings(), isOnly(GetParam()));
}

TEST_P(MigrationFileTest, isSaidToEndTheStepsExactlyWhenTheDaemonRefusesIt) {
  add("migration_5.json", GetParam().text);
  bool refused = false;

  const std::vector<Finding> found = findings();
  try {
    propertyservice::parseMigration(GetParam().text);
  } catch (const std::exception&) {
    refused = true;
  }

  ASSERT_FALSE(found.empty());
  EXPECT_EQ(found.front().text.find("this step and all later ones are left out") != std::string::npos,
            refused)
      << found.front().text;
}

INSTANTIATE_TEST_SUITE_P(
    Files, MigrationFileTest,
    testing::Values(
        Case{"empty", "", 1, kError, "is no JSON"},
        Case{"noJson", "{\n\"rename\": nothing }", 2, kError, "is no JSON"},
        Case{"byteOrderMark", "\xef\xbb\xbf" + renaming({{"A", "B"}}), 1, kError, "byte order mark"},
        Case{"deepNesting", std::string(100'000, '['), 1, kError, "nested too deeply"},
        Case{"cutOffBehindARule", "{\"rename\":[\n{\"oldKey\":\"A\",\"newKey\":\"B\"},\n", 3, kError,
             "is no JSON"},
        Case{"cutOffAtTheEnd", "{\"rename\":[\n{\"oldKey\":\"A\",\"newKey\":\"B\"}\n", 3, kError,
             "of its rules, only the first 1 are carried out"},
        Case{"garbageBehind", renaming({{"A", "B"}}) + "}", 3, kError,
             "behind the first JSON value is ignored"},
        Case{"array", "[]", 1, kError, "is no JSON object"},
        Case{"noRules", "{}", 1, kError, "at least one rule"},
        Case{"emptyRules", "{\n\"rename\": []}", 2, kError, "at least one rule"},
        Case{"rulesAsObject", "{\n\"rename\": {\"A\":\"B\"}}", 2, kError, "at least one rule"},
        Case{"ruleThatIsNoObject", "{\"rename\":[\n\"A\"]}", 2, kError, "the rule is no object"},
        Case{"withoutNewKey", "{\"rename\":[\n{\"oldKey\":\"A\"}]}", 2, kError, R"(has no "newKey")"},
        Case{"misspeltOldKey", "{\"rename\":[\n{\"oldKey\":\"\",\n\"newKey\":\"B\"}]}", 2, kError,
             R"(has no "oldKey")"},
        Case{"membersTwice", "{\"rename\":[\n{\"oldKey\":\"A\",\n\"oldKey\":\"B\",\"newKey\":\"C\"}]}", 3,
             kError, R"(the member "oldKey" stands twice)"},
        Case{"unknownMember", "{\"rename\":[{\"oldKey\":\"A\",\"newKey\":\"C\"}],\n\"delete\":[\"B\"]}", 2,
             kWarning, R"(the member "delete" is not known)"},
        Case{"unknownMemberOfARule", "{\"rename\":[{\"oldKey\":\"A\",\"newKey\":\"C\",\n\"value\":\"x\"}]}",
             2, kWarning, R"(the member "value" is not known)"},
        Case{"overlongKey", renaming({{"A", std::string(65, 'k')}}), 2, kError, "more than 64 characters"},
        Case{"volatileKey", renaming({{"State.A", "B"}}), 2, kError, "lives outside the table"},
        Case{"sameKey", renaming({{"A", "A"}}), 2, kError, "is renamed to itself"},
        Case{"sameOldKey", renaming({{"A", "B"}, {"A", "C"}}), 3, kError,
             R"("A" is renamed on line 2 already)"},
        Case{"sameNewKey", renaming({{"A", "C"}, {"B", "C"}}), 3, kError,
             R"(two keys become "C", here and on line 2)"},
        Case{"chain", renaming({{"A", "B"}, {"B", "C"}}), 3, kError,
             R"("B" is the new key of line 2, and rules of one file do not chain)"},
        Case{"chainBackwards", renaming({{"B", "C"}, {"A", "B"}}), 2, kError,
             R"("B" is the new key of line 3)"}),
    nameOf);

TEST_F(MigrationCheckTest, acceptsCommentsInAFile) {
  add("migration_5.json", "// moved\n" + renaming({{"A", "B"}}) + "/* end */");

  EXPECT_THAT(findings(), IsEmpty());
}

TEST_F(MigrationCheckTest, acceptsAChainOverTwoFiles) {
  add("nvminit.sql", scriptOf("5", {"C"}));
  addStep(4, {{"A", "B"}});
  addStep(5, {{"B", "C"}});

  EXPECT_THAT(findings(), Not(Contains(testing::Field(&Finding::severity, kError))));
}

TEST_F(MigrationCheckTest, acceptsARenameThatIsTakenBack) {
  add("nvminit.sql", scriptOf("5", {"A.X"}));
  addStep(4, {{"A.X", "B.X"}});
  addStep(5, {{"B.X", "A.X"}});

  EXPECT_THAT(findings(), IsEmpty());
}

TEST_F(MigrationCheckTest, tellsOfAGap) {
  addStep(4, {{"A", "B"}});
  addStep(7, {{"C", "D"}});

  EXPECT_THAT(findings(),
              ElementsAre(IsFinding(0U, kError, "migration_5.json to migration_6.json are missing")));
}

TEST_F(MigrationCheckTest, tellsOfAKeyThatAnEarlierStepHasRenamedAway) {
  addStep(4, {{"A", "B"}});
  addStep(5, {{"A", "C"}});

  EXPECT_THAT(findings(),
              ElementsAre(IsFinding(2U, kError, "\"A\" has been renamed before (migration_4.json, line 2)")));
}

TEST_F(MigrationCheckTest, tellsOfAKeyThatAnEarlierStepHasMade) {
  addStep(4, {{"A", "B"}});
  addStep(5, {{"C", "B"}});

  EXPECT_THAT(findings(), ElementsAre(IsFinding(
                              2U, kError, "another key has become \"B\" before (migration_4.json, line 2)")));
}

TEST_F(MigrationCheckTest, tellsOfTwoFilesForOneStep) {
  std::filesystem::create_directory(directory_.path("old"));
  addStep(4, {{"A", "B"}});
  add("old/migration_4.json", renaming({{"C", "D"}}));

  EXPECT_THAT(findings(), ElementsAre(IsFinding(0U, kError, "there is another file for step 4")));
}

TEST_F(MigrationCheckTest, tellsOfAnOldKeyThatTheScriptStillHas) {
  add("nvminit.sql", scriptOf("5", {"A.Old", "A.New"}));
  addStep(5, {{"A.Old", "A.New"}});

  EXPECT_THAT(findings(), ElementsAre(IsFinding(2U, kError, "still has the old key \"A.Old\" (line 3)")));
}

TEST_F(MigrationCheckTest, tellsOfANewKeyThatTheScriptDoesNotHave) {
  add("nvminit.sql", scriptOf("5", {}));
  addStep(5, {{"A.Old", "A.New"}});

  EXPECT_THAT(findings(),
              ElementsAre(IsFinding(2U, kError, "has no key \"A.New\": the value of \"A.Old\" is lost")));
}

TEST_F(MigrationCheckTest, tellsOfAKeyThatUsersBackupsLack) {
  add("nvminit.sql", scriptWith("INSERT INTO settings (key, defaultvalues, flags) VALUES ('A.New', '', 6);"));
  addStep(5, {{"A.Old", "A.New"}});

  EXPECT_THAT(findings(), ElementsAre(IsFinding(2U, kWarning, "so the user's backups lack \"A.Old\"")));
}

TEST_F(MigrationCheckTest, tellsOfAVersionThatWasNotRaised) {
  add("nvminit.sql", scriptOf("4", {"A.New"}));
  addStep(5, {{"A.Old", "A.New"}});

  EXPECT_THAT(findings(),
              ElementsAre(IsFinding(0U, kError, "\"NVM.Version\" is 4: this step is never carried out")));
}

TEST_F(MigrationCheckTest, tellsOfAVersionWithoutItsFile) {
  add("nvminit.sql", scriptOf("7", {"A.New"}));
  addStep(5, {{"A.Old", "A.New"}});

  EXPECT_THAT(findings(),
              ElementsAre(IsFinding(2U, kError, "migration_6.json to migration_7.json are missing")));
}

class MigrationNameTest : public CheckTest, public testing::WithParamInterface<const char*> {};

TEST_P(MigrationNameTest, hasToBeOneThatIsRead) {
  add(GetParam(), renaming({{"A", "B"}}));

  EXPECT_THAT(findings(), ElementsAre(IsFinding(0U, kError, "is never read")));
}

INSTANTIATE_TEST_SUITE_P(Names, MigrationNameTest,
                         testing::Values("migration_05.json", "migration-5.json", "migration_0.json",
                                         "Migration_5.json", "migration_.json", "migration_5b.json",
                                         "migration_99999999999.json", "migration_5.JSON", "renames.json"));

/// Two steps, and whether an old backup passes both.
class MigrationAgreementTest : public MigrationCheckTest,
                               public testing::WithParamInterface<std::pair<Renames, Renames>> {
 protected:
  /// A backup of version 0 that holds each key that no step has made by then.
  bool daemonCarriesOut() {
    const propertyservice::test::LogCapture silent;
    const auto& [first, second] = GetParam();
    std::vector<propertyservice::Property> backup;
    const auto add = [&](const std::string& key) {
      propertyservice::Property property({{"key", key}, {"value", key}});
      if (std::find(backup.begin(), backup.end(), property) == backup.end()) {
        backup.push_back(std::move(property));
      }
    };
    for (const auto& [oldKey, newKey] : first) {
      add(oldKey);
    }
    for (const auto& [oldKey, newKey] : second) {
      const std::string& made = oldKey;
      if (std::none_of(first.begin(), first.end(),
                       [&](const auto& rename) { return rename.second == made; })) {
        add(oldKey);
      }
    }
    return propertyservice::Migrations("0", "2", directory_.path("")).apply(backup);
  }
};

TEST_P(MigrationAgreementTest, isAsTheDaemonDecides) {
  addStep(1, GetParam().first);
  addStep(2, GetParam().second);

  EXPECT_EQ(findings().empty(), daemonCarriesOut());
}

INSTANTIATE_TEST_SUITE_P(Steps, MigrationAgreementTest,
                         testing::Values(std::pair(Renames{{"A", "B"}}, Renames{{"C", "D"}}),
                                         std::pair(Renames{{"A", "B"}}, Renames{{"B", "C"}}),
                                         std::pair(Renames{{"A", "B"}}, Renames{{"A", "C"}}),
                                         std::pair(Renames{{"A", "B"}}, Renames{{"C", "B"}}),
                                         std::pair(Renames{{"A", "B"}}, Renames{{"B", "A"}}),
                                         std::pair(Renames{{"A", "B"}}, Renames{{"C", "A"}}),
                                         std::pair(Renames{{"A", "B"}}, Renames{{"B", "C"}, {"D", "B"}}),
                                         std::pair(Renames{{"A", "A"}}, Renames{{"B", "C"}}),
                                         std::pair(Renames{{"A", "B"}, {"B", "C"}}, Renames{{"D", "E"}})));

}  // namespace
}  // namespace check::test
