#include "client/check/CheckFixture.h"

namespace check::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr Severity kError = Severity::error;
constexpr Severity kWarning = Severity::warning;

using ScriptTest = CheckTest;

TEST_F(ScriptTest, isSilentAboutAScriptWithoutMistakes) {
  add("nvminit.sql", scriptWithRows("('A.B', '5', 14, 0, 10, NULL, '^[0-9]+$', 'Alias')"));

  EXPECT_THAT(findings(), IsEmpty());
}

/// Rows between good neighbours: the first one on line 4 is good, the second one on line 5 is not.
class ScriptRowTest : public CheckTest, public testing::WithParamInterface<Case> {};

TEST_P(ScriptRowTest, isToldWithItsLine) {
  add("nvminit.sql",
      scriptWithRows("('Good.First', 'a', 8, NULL, NULL, 'a,b', '^[ab]$', 'Taken'),\n" + GetParam().text +
                     ",\n('Good.Last', '', 8, NULL, NULL, NULL, NULL, NULL)"));

  EXPECT_THAT(findings(), isOnly(GetParam()));
}

std::string row(const std::string& key, const std::string& rest) {
  return "('" + key + "', " + rest + ")";
}

INSTANTIATE_TEST_SUITE_P(
    Keys, ScriptRowTest,
    testing::Values(
        Case{"duplicate", row("Good.First", "'x', 8, NULL, NULL, NULL, NULL, NULL"), 5, kError,
             R"(duplicate key "Good.First" (first on line 4): all 3 rows of the statement are left out)"},
        Case{"duplicateOfAnotherStatement", row("NVM.Version", "'x', 8, NULL, NULL, NULL, NULL, NULL"), 5,
             kError, R"(duplicate key "NVM.Version" (first on line 2): all 3 rows)"},
        Case{"overlong", row(std::string(65, 'k') + ".", "'x', 8, NULL, NULL, NULL, NULL, NULL"), 5, kError,
             "its key has 66 characters, 64 at most are allowed: all 3 rows"},
        Case{"null", "(NULL, 'x', 8, NULL, NULL, NULL, NULL, NULL)", 3, kError, "a row without a key"},
        Case{"empty", row("", "'x', 8, NULL, NULL, NULL, NULL, NULL"), 5, kError, "the key is empty"},
        Case{"volatileKey", row("State.A", "'x', 8, NULL, NULL, NULL, NULL, NULL"), 5, kError,
             "live outside the table: this row is never read"},
        Case{"withoutGroup", row("Volume", "'x', 8, NULL, NULL, NULL, NULL, NULL"), 5, kWarning, "no group"},
        Case{"groupThatIsNoTopic", row("A#.B", "'x', 8, NULL, NULL, NULL, NULL, NULL"), 5, kError,
             "becomes a topic"},
        Case{"blank", row("A.B C", "'x', 8, NULL, NULL, NULL, NULL, NULL"), 5, kWarning, "has blanks"},
        Case{"semicolon", row("A.B;C", "'x', 8, NULL, NULL, NULL, NULL, NULL"), 5, kError,
             "cannot be read back"},
        Case{"wildcard", row("A.B%", "'x', 8, NULL, NULL, NULL, NULL, NULL"), 5, kWarning,
             R"("%" in "key" makes every request for it a pattern)"}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Rules, ScriptRowTest,
    testing::Values(
        Case{"expressionThatDoesNotCompile", row("A.B", "'x', 8, NULL, NULL, NULL, '(', NULL"), 5, kError,
             R"(the expression "(" does not compile (Unmatched ( or \(): every write is refused)"},
        Case{"expressionThatExplodes",
             row("A.B", "'x', 8, NULL, NULL, NULL, '^((x{1,255}){1,255}){1,255}$', NULL"), 5, kError,
             "can stall the daemon"},
        Case{"expressionOfAnotherDialect", row("A.B", R"('d', 8, NULL, NULL, NULL, '^\d+$', NULL)"), 5,
             kWarning, R"(has "\\d", where)"},
        Case{"expressionWithoutAnchors", row("A.B", "'7', 8, NULL, NULL, NULL, '[0-9]+', NULL"), 5, kWarning,
             "at both ends"},
        Case{"expressionAnchoredHalf", row("A.B", "'on', 8, NULL, NULL, NULL, '^on|off$', NULL"), 5, kWarning,
             "at both ends"},
        Case{"emptyExpression", row("A.B", "'x', 8, NULL, NULL, NULL, '', NULL"), 5, kWarning,
             "write NULL for none"},
        Case{"rangeUpsideDown", row("A.B", "'5', 8, 10, 1, NULL, NULL, NULL"), 5, kError,
             "the range is upside down (10..1): every write is refused"},
        Case{"boundThatNoValueReaches", row("A.B", "'5', 8, 0, 4294967295, NULL, NULL, NULL"), 5, kWarning,
             "4294967295 is beyond 32 bits"},
        Case{"boundThatIsAText", row("A.B", "'0', 8, 0, '', NULL, NULL, NULL"), 5, kError,
             R"("range_max" is "" and no integer: it counts as 0)"},
        Case{"emptyList", row("A.B", "'x', 8, NULL, NULL, '', NULL, NULL"), 5, kError,
             "the list of allowed values is empty: every write is refused"},
        Case{"listWithBlanks", row("A.B", "'on', 8, NULL, NULL, 'on, off', NULL, NULL"), 5, kWarning,
             R"(the allowed value " off" has blanks)"},
        Case{"listWithAnEmptyPlace", row("A.B", "'on', 8, NULL, NULL, 'on,,off', NULL, NULL"), 5, kWarning,
             "has an empty place"},
        Case{"listThatEndsInAComma", row("A.B", "'on', 8, NULL, NULL, 'on,off,', NULL, NULL"), 5, kWarning,
             "has an empty place"},
        Case{"listThatRepeats", row("A.B", "'on', 8, NULL, NULL, 'on,off,on', NULL, NULL"), 5, kWarning,
             R"("on" is listed twice)"},
        Case{"listWithOtherSeparators", row("A.B", "'on;off', 8, NULL, NULL, 'on;off', NULL, NULL"), 5,
             kWarning, "separated by commas alone"},
        Case{"listedValueOutOfRange", row("A.B", "'1', 8, 0, 5, '1,9', NULL, NULL"), 5, kWarning,
             R"(the allowed value "9" can never be set: it is no number in the range 0..5)"},
        Case{"listedValueThatTheExpressionRefuses",
             row("A.B", "'on', 8, NULL, NULL, 'on,OFF', '^[a-z]+$', NULL"), 5, kWarning,
             R"(the allowed value "OFF" can never be set: it does not match)"}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Values, ScriptRowTest,
    testing::Values(Case{"defaultOutOfRange", row("A.B", "'11', 8, 0, 10, NULL, NULL, NULL"), 5, kError,
                         R"("A.B": the default "11" is no number in the range 0..10)"},
                    Case{"defaultBelowAnOpenRange", row("A.B", "'-1', 8, 0, NULL, NULL, NULL, NULL"), 5,
                         kError, R"(the default "-1" is no number in the range 0..)"},
                    Case{"defaultThatIsNoNumber", row("A.B", "'auto', 8, 0, 10, NULL, NULL, NULL"), 5, kError,
                         R"(the default "auto" is no number in the range 0..10)"},
                    Case{"emptyDefaultWithARange", row("A.B", "'', 8, 0, 10, NULL, NULL, NULL"), 5, kError,
                         R"(the default "")"},
                    Case{"defaultNotListed", row("A.B", "'maybe', 8, NULL, NULL, 'on,off', NULL, NULL"), 5,
                         kError, R"(the default "maybe" is not in the list "on,off")"},
                    Case{"emptyDefaultWithAList", row("A.B", "'', 8, NULL, NULL, 'on,off', NULL, NULL"), 5,
                         kError, R"(the default "" is not in the list)"},
                    Case{"noDefaultWithAList", row("A.B", "NULL, 8, NULL, NULL, 'on,off', NULL, NULL"), 5,
                         kError, R"(the default "" is not in the list)"},
                    Case{"defaultThatDoesNotMatch", row("A.B", "'x', 8, NULL, NULL, NULL, '^[0-9]+$', NULL"),
                         5, kError, R"(the default "x" does not match the expression "^[0-9]+$")"},
                    Case{"overlongDefault",
                         row("A.B", "'" + std::string(257, 'v') + "', 8, NULL, NULL, NULL, NULL, NULL"), 5,
                         kError, "its default has 257 characters, 256 at most are allowed: all 3 rows"},
                    Case{"defaultWithALineBreak",
                         row("A.B", "'x' || char(10) || 'y', 8, NULL, NULL, NULL, NULL, NULL"), 5, kError,
                         "cuts a backup off"},
                    Case{"defaultThatIsNotUtf8", row("A.B", "'\xff', 8, NULL, NULL, NULL, NULL, NULL"), 5,
                         kError, "is not UTF-8"}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    FlagsAndNames, ScriptRowTest,
    testing::Values(Case{"unknownFlags", row("A.B", "'x', 64, NULL, NULL, NULL, NULL, NULL"), 5, kWarning,
                         "the flags 64 have bits without a meaning"},
                    Case{"readOnlyButSavedForTheUser", row("A.B", "'x', 9, NULL, NULL, NULL, NULL, NULL"), 5,
                         kWarning, "its restore is refused"},
                    Case{"passwordInTheDump", row("A.Password", "'x', 6, NULL, NULL, NULL, NULL, NULL"), 5,
                         kWarning, "show a secret"},
                    Case{"flagsThatAreText", row("A.B", "'x', 'user', NULL, NULL, NULL, NULL, NULL"), 5,
                         kError, R"("flags" is "user" and no integer: it counts as 0)"},
                    Case{"takenName", row("A.B", "'x', 8, NULL, NULL, NULL, NULL, 'Taken'"), 5, kError,
                         R"(the "webui" name "Taken" is also that of "Good.First" (line 4))"},
                    Case{"emptyName", row("A.B", "'x', 8, NULL, NULL, NULL, NULL, ''"), 5, kWarning,
                         R"("webui" is an empty text, which counts as a name)"},
                    Case{"nameWithAWildcard", row("A.B", "'x', 8, NULL, NULL, NULL, NULL, '100%'"), 5,
                         kWarning, R"("%" in "webui")"}),
    nameOf);

class ScriptAliasTest : public CheckTest, public testing::WithParamInterface<const char*> {};

TEST_P(ScriptAliasTest, mayNameOnePropertyOnly) {
  add("nvminit.sql", scriptWith("INSERT INTO settings (key, defaultvalues, " + std::string(GetParam()) +
                                ") VALUES\n('A.B', '', 'name'),\n('A.C', '', 'name');"));

  EXPECT_THAT(findings(), ElementsAre(IsFinding(5U, kError, "also that of \"A.B\" (line 4)")));
}

INSTANTIATE_TEST_SUITE_P(Columns, ScriptAliasTest, testing::Values("webui", "provisioning", "tr069"));

/// Statements that begin on line 3.
class ScriptStatementTest : public CheckTest, public testing::WithParamInterface<Case> {};

TEST_P(ScriptStatementTest, isToldWithItsLine) {
  add("nvminit.sql", scriptWith(GetParam().text));

  EXPECT_THAT(findings(), isOnly(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(
    All, ScriptStatementTest,
    testing::Values(
        Case{"misspeltKeyword", "-- one\nISNERT INTO settings (key) VALUES ('A.B');", 4, kError,
             R"(near "ISNERT": syntax error: the statement is left out)"},
        Case{"missingComma", "INSERT INTO settings (key, value) VALUES\n('A.B', 'x'),\n('A.C' 'x');", 5,
             kError, "syntax error"},
        Case{"missingSemicolon", "UPDATE settings SET flags = 1 WHERE key = 'NET.MAC.Address'\nSELECT 1;", 4,
             kError, R"(near "SELECT": syntax error)"},
        Case{"unknownColumn", "INSERT INTO settings (key, default_values) VALUES ('A.B', 'x');", 3, kError,
             "no column named default_values"},
        Case{"unknownColumnOfMany", "INSERT INTO settings (key,\ndefault_values) VALUES ('A.B', 'x');", 4,
             kError, "no column named default_values"},
        Case{"rowWithACellTooFew",
             "INSERT INTO settings (key, value, enum) VALUES\n('A.B', 'x', ')'),\n('A.C', 'x', "
             "replace('1,2', ',', "
             "'')),\n('A.D', 'x');",
             6, kError, "all VALUES must have the same number of terms"},
        Case{"tooManyValues", "\n\nINSERT INTO settings (key) VALUES ('A.B', 'x');", 5, kError,
             "2 values for 1 columns"},
        Case{"updateOfNoRow", "UPDATE settings SET flags = 1 WHERE key = 'NET.MAC.Adress';", 3, kWarning,
             "changes no row"},
        Case{"deletionOfNoRow", "DELETE FROM settings WHERE key = 'A.B';", 3, kWarning, "changes no row"},
        Case{"overlongUpdate",
             "UPDATE settings SET tr069 = NULL, value = hex(zeroblob(200)) WHERE key = 'NET.MAC.Address';", 3,
             kError, "CHECK constraint failed: length(value) <= 256"},
        Case{"replacement",
             "INSERT OR REPLACE INTO settings (key, defaultvalues, flags) VALUES\n('NVM.Version', '5', 1);",
             4, kError, R"(duplicate key "NVM.Version" (first on line 2): the statement lets only one)"},
        Case{"attachment", "ATTACH '/tmp/other' AS other;", 3, kError,
             "ATTACH or VACUUM INTO reaches outside"},
        Case{"copy", "VACUUM INTO '/tmp/other';", 3, kError, "ATTACH or VACUUM INTO reaches outside"},
        Case{"extension", "SELECT load_extension('/tmp/x');", 3, kError, "load_extension reaches outside"},
        Case{"virtualTable", "CREATE VIRTUAL TABLE t USING fts5(x);", 3, kError,
             "a virtual table reaches outside"},
        Case{"pragma", "PRAGMA temp_store_directory = '/tmp';", 3, kWarning,
             "PRAGMA temp_store_directory is not carried out here"},
        Case{"shellCommand", ".read other.sql", 3, kWarning, R"(".read" is a command of the sqlite3 shell)"},
        Case{"functionOfTheShell",
             "INSERT INTO settings (key) SELECT 'A.' || value FROM generate_series(1, 4);", 3, kWarning,
             "only the sqlite3 shell has"},
        Case{"endOfTheShell", kCopyDefaults + ".quit\nUPDATE settings SET flags = 0;", 4, kWarning,
             "ends the script here"},
        Case{"endlessStatement",
             "WITH RECURSIVE n(i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM n) SELECT max(i) FROM n;", 3,
             kError, "takes too long"},
        Case{"hugeCell", "UPDATE settings SET tr069 = zeroblob(100000000);", 3, kError, "too big"},
        Case{"hugeTable",
             "INSERT INTO settings (key, tr069) WITH RECURSIVE n(i) AS (VALUES (1) UNION ALL SELECT i + 1 "
             "FROM n)\n"
             "SELECT 'A.' || i, hex(zeroblob(400000)) FROM n;",
             3, kError, "out of memory"},
        Case{"commitWithoutBegin", "COMMIT;", 3, kError, "no transaction is active"},
        Case{"nulCharacter", std::string("-- \0", 4), 3, kError, "holds a NUL character"}),
    nameOf);

TEST_F(ScriptTest, looksAtTheOtherRowsOfAStatementThatFails) {
  add("nvminit.sql",
      scriptWith("INSERT INTO settings (key, defaultvalues, range_max) VALUES\n('A.B', '5', 1),\n"
                 "('A.B', '5', 9),\n('A.C', '5', 1);"));

  EXPECT_THAT(findings(),
              ElementsAre(IsFinding(4U, kError, "range"), IsFinding(5U, kError, "duplicate key \"A.B\""),
                          IsFinding(6U, kError, "range")));
}

TEST_F(ScriptTest, findsTheLineOfARowThatIsMadeOfATemplate) {
  add("nvminit.sql",
      scriptWith("WITH account(number) AS (VALUES (1), (2)),\n"
                 "setting(key, defaultvalues, range_max) AS (VALUES\n"
                 "('SIP.Account#.Port', '5060', 65535),\n"
                 "('SIP.Account#.RingTone', '13', 12))\n"
                 "INSERT INTO settings (key, defaultvalues, range_max)\n"
                 "SELECT replace(key, '#', number), defaultvalues, range_max FROM account, setting;"));

  EXPECT_THAT(findings(),
              ElementsAre(IsFinding(6U, kError, "\"SIP.Account1.RingTone\": the default \"13\""),
                          IsFinding(6U, kError, "\"SIP.Account2.RingTone\": the default \"13\"")));
}

TEST_F(ScriptTest, goesOnBehindAStatementThatDoesNotParse) {
  add("nvminit.sql", scriptWith("BAD 'a;\nb';\nINSERT INTO settings (key, defaultvalues, range_max) VALUES\n"
                                "('A.B', '5', 1);"));

  EXPECT_THAT(findings(), ElementsAre(IsFinding(3U, kError, "syntax error"), IsFinding(6U, kError, "range")));
}

TEST_F(ScriptTest, acceptsLinesThatAreCommentsOfTheShell) {
  add("nvminit.sql", "# made by hand\n" + scriptWith(""));

  EXPECT_THAT(findings(), IsEmpty());
}

TEST_F(ScriptTest, acceptsAByteOrderMarkAndCarriageReturnsAsTheShellDoes) {
  std::string text = "\xef\xbb\xbf" + scriptWith("-- nothing\n\n");
  for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', end + 2)) {
    text.insert(end, "\r");
  }
  add("nvminit.sql", text);

  EXPECT_THAT(findings(), IsEmpty());
}

TEST_F(ScriptTest, acceptsVacuum) {
  add("nvminit.sql", scriptWith("") + "VACUUM;\n");

  EXPECT_THAT(findings(), IsEmpty());
}

TEST_F(ScriptTest, tellsOfATransactionThatIsNeverCommitted) {
  add("nvminit.sql", "-- all\nBEGIN;\n" + scriptWith(""));

  EXPECT_THAT(findings(),
              ElementsAre(IsFinding(2U, kError, "is never committed: nothing of it reaches the table")));
}

TEST_F(ScriptTest, tellsOfValuesThatWereForgotten) {
  add("nvminit.sql", kTable + kNeededRows);

  EXPECT_THAT(findings(), ElementsAre(IsFinding(0U, kError, "UPDATE settings SET value = defaultvalues;")));
}

TEST_F(ScriptTest, tellsOfAValueThatIsNotTheDefault) {
  add("nvminit.sql", scriptWith("INSERT INTO settings (key, defaultvalues) VALUES ('A.B', 'x');") +
                         "UPDATE settings SET value = 'y' WHERE key = 'A.B';\n");

  EXPECT_THAT(findings(), ElementsAre(IsFinding(3U, kWarning, "the value \"y\" is not the default \"x\"")));
}

TEST_F(ScriptTest, tellsOfAValueThatBreaksTheRules) {
  add("nvminit.sql",
      scriptWith("") + "INSERT INTO settings (key, value, range_max) VALUES\n('A.B', '5', 1);\n");

  EXPECT_THAT(findings(), Contains(IsFinding(6U, kError, "the value \"5\" is no number in the range ..1")));
}

TEST_F(ScriptTest, tellsOfAnEmptyTable) {
  add("nvminit.sql", kTable);

  EXPECT_THAT(findings(), ElementsAre(IsFinding(0U, kError, "puts no property into the table")));
}

TEST_F(ScriptTest, tellsOfAMissingTable) {
  add("nvminit.sql", "-- nothing\n");

  EXPECT_THAT(findings(), ElementsAre(IsFinding(0U, kError, "makes no table \"settings\"")));
}

TEST_F(ScriptTest, tellsOfAViewInPlaceOfTheTable) {
  add("nvminit.sql", "CREATE VIEW settings AS SELECT 1 AS key;\n");

  EXPECT_THAT(findings(), ElementsAre(IsFinding(1U, kError, "makes no table \"settings\"")));
}

TEST_F(ScriptTest, tellsOfPropertiesThatTheDaemonNeeds) {
  add("nvminit.sql", kTable + "INSERT INTO settings (key, value) VALUES ('A.B', '1');\n");

  EXPECT_THAT(findings(), ElementsAre(IsFinding(0U, kError, "\"NET.General.DeviceNameInNetwork\" is missing"),
                                      IsFinding(0U, kError, "\"NVM.Version\" is missing"),
                                      IsFinding(0U, kError, "NET.MAC.Address, System.General.Variant.Name")));
}

TEST_F(ScriptTest, missesWhatIsDeletedAgain) {
  add("nvminit.sql",
      kTable + kNeededRows + kCopyDefaults + "DELETE FROM settings WHERE key = 'NVM.Version';\n");

  EXPECT_THAT(findings(), ElementsAre(IsFinding(0U, kError, "\"NVM.Version\" is missing")));
}

TEST_F(ScriptTest, tellsThatAllPropertiesAreDeletedAgain) {
  add("nvminit.sql", kTable + kNeededRows + kCopyDefaults + "DELETE FROM settings;\n");

  EXPECT_THAT(findings(), ElementsAre(IsFinding(0U, kError, "puts no property into the table")));
}

TEST_F(ScriptTest, doesNotMissWhatAFaultyStatementWasToBring) {
  add("nvminit.sql", kTable +
                         "INSERT INTO settings (key value) VALUES ('A.B', '1');\n"
                         "INSERT INTO settings (key, value) VALUES ('A.C', '1');\n");

  EXPECT_THAT(findings(), ElementsAre(IsFinding(2U, kError, "syntax error")));
}

class VersionTest : public CheckTest, public testing::WithParamInterface<const char*> {};

TEST_P(VersionTest, hasToBeANumber) {
  std::string text = scriptWith("");
  text.replace(text.find("'5'"), 3, GetParam());
  add("nvminit.sql", text);

  EXPECT_THAT(findings(), ElementsAre(IsFinding(2U, kError, "is no number")));
}

INSTANTIATE_TEST_SUITE_P(Texts, VersionTest, testing::Values("''", "'five'", "'5.1'", "'-1'", "' 5'"));

/// The table's definition, which stands on line 2, with one part replaced.
struct TableCase {
  const char* name;
  std::string part;
  std::string replacement;
  std::string finding;
  Severity severity = kError;
};

void PrintTo(const TableCase& broken, std::ostream* out) {
  *out << broken.name;
}

class TableTest : public CheckTest, public testing::WithParamInterface<TableCase> {};

TEST_P(TableTest, isComparedWithTheDaemons) {
  std::string text = "-- the table\n" + scriptWith("");
  text.replace(text.find(GetParam().part), GetParam().part.size(), GetParam().replacement);
  add("nvminit.sql", text);

  EXPECT_THAT(findings(), ElementsAre(IsFinding(2U, GetParam().severity, GetParam().finding)));
}

INSTANTIATE_TEST_SUITE_P(
    Parts, TableTest,
    testing::Values(
        TableCase{"missingColumn", "tr069 TEXT, ", "",
                  R"(the column "tr069" is missing: the daemon does not start)"},
        TableCase{"unknownColumn", "enum TEXT", "enum TEXT, help TEXT", R"(the column "help" is none)"},
        TableCase{"otherType", "flags INTEGER", "flags TEXT",
                  R"(the column "flags" is declared TEXT, not INTEGER)"},
        TableCase{"noPrimaryKey", " PRIMARY KEY", "", R"(the column "key" is not the primary key)"},
        TableCase{"noLimitOfKeys", " check(length(key) <= 64)", "",
                  R"(the column "key" has no limit: write check(length(key) <= 64))"},
        TableCase{"noLimitOfValues", " check(length(value) <= 256)", "",
                  R"(the column "value" has no limit)"},
        TableCase{"noLimitOfDefaults", " check(length(defaultvalues) <= 256)", "",
                  R"(the column "defaultvalues" has no limit)"},
        TableCase{"tighterLimit", "length(value) <= 256", "length(value) <= 64",
                  R"(the table refuses a "value" of 256 characters)"},
        TableCase{"widerLimit", "length(key) <= 64", "length(key) <= 128",
                  R"(the column "key" has no limit)"},
        TableCase{"otherOrder", "webui TEXT, provisioning TEXT", "provisioning TEXT, webui TEXT",
                  "in another order", kWarning}),
    [](const auto& table) { return std::string(table.param.name); });

}  // namespace
}  // namespace check::test
