#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <latch>
#include <optional>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <SQLiteCpp/Exception.h>

#include "core/Constants.h"
#include "database/PersistentStorage.h"
#include "database/PersistentStorageException.h"
#include "support/LogCapture.h"
#include "support/SettingsFile.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using Reason = PersistentStorageException::Reason;
using test::change;
using test::changes;
using test::LogCapture;
using test::queueOf;
using test::Reader;
using test::SettingsFile;
using test::StatementTrace;
using test::TemporaryDirectory;

const char* const kInsertText =
    "INSERT INTO settings VALUES (:propertyName, :propertyValue, :webAliasName, :provAliasName, :tr69, "
    ":minRange, :maxRange, :validationMask, :validationValues, :flags, :defaultValue)";
const char* const kUpdateText =
    "UPDATE settings SET value=:propertyValue, webui=:webAliasName, provisioning=:provAliasName, "
    "tr069=:tr69, range_min=:minRange, range_max=:maxRange, regexp=:validationMask, enum=:validationValues, "
    "flags=:flags, defaultvalues=:defaultValue WHERE key=:propertyName";

/// Returns the exception of the operation.
template <typename Operation>
std::optional<PersistentStorageException> failureOf(Operation operation) {
  try {
    operation();
  } catch (const PersistentStorageException& failure) {
    return failure;
  }
  return std::nullopt;
}

std::string textOf(const std::optional<PersistentStorageException>& failure) {
  return failure ? failure->what() : "(no failure)";
}

std::vector<std::string> keysOf(const std::vector<Property>& properties) {
  std::vector<std::string> keys;
  for (const Property& property : properties) {
    keys.push_back(property.text("key"));
  }
  std::sort(keys.begin(), keys.end());
  return keys;
}

class PersistentStorageTest : public testing::Test {
 protected:
  Property selected(const std::string& key) {
    Property property({{"key", key}});
    storage.select(property);
    return property;
  }

  /// The failure of the bulk write of one value. SQLite writes nothing for a value that is stored already.
  std::optional<PersistentStorageException> failureOfWrite(PersistentStorage& target,
                                                           const std::string& key = "K0",
                                                           const std::string& value = "new") {
    return failureOf([&] {
      std::queue<Property> queue = queueOf({change(key, value)});
      target.updateValues(queue);
    });
  }

  /// A storage that does not wait for locks.
  PersistentStorage impatient() const {
    return PersistentStorage(std::make_shared<SQLite::Database>(file.path(), SQLite::OPEN_READWRITE));
  }

  TemporaryDirectory directory;
  SettingsFile file{directory.path("nvm")};
  std::shared_ptr<SQLite::Database> database = openDatabase(file.path());
  PersistentStorage storage{database};

  const Property full{{{"key", "Web.A"},
                       {"value", "1"},
                       {"webui", "w"},
                       {"provisioning", "p"},
                       {"tr069", "t"},
                       {"range_min", "-1"},
                       {"range_max", "9"},
                       {"regexp", "^[0-9]$"},
                       {"enum", "1,2"},
                       {"flags", "2"},
                       {"defaultvalues", "0"}}};
};

TEST_F(PersistentStorageTest, createsTheTableWithItsLimits) {
  EXPECT_EQ(file.ask("SELECT sql FROM sqlite_master WHERE type = 'table'"),
            "CREATE TABLE settings(key TEXT PRIMARY KEY check(length(key) <= 64), value TEXT "
            "check(length(value) <= 256), webui TEXT, provisioning TEXT, tr069 TEXT, range_min INTEGER, "
            "range_max INTEGER, regexp TEXT, enum TEXT, flags INTEGER, defaultvalues TEXT "
            "check(length(defaultvalues) <= 256))");
}

TEST_F(PersistentStorageTest, logsAndThrowsTheTextOfSqliteWhenTheTableExistsAlready) {
  LogCapture log;

  const auto failure = failureOf([&] { storage.createTable(); });

  EXPECT_EQ(textOf(failure), "table settings already exists");
  EXPECT_EQ(log.linesWith("error database/PersistentStorage:").size(), 1U);
}

TEST_F(PersistentStorageTest, dropsTheTableWhetherOrNotItExists) {
  storage.dropTable();
  storage.dropTable();

  EXPECT_EQ(file.ask("SELECT name FROM sqlite_master"), "(none)");
}

TEST_F(PersistentStorageTest, readsBackWhatWasInserted) {
  storage.insert(full);

  EXPECT_EQ(selected("Web.A"), full);
}

TEST_F(PersistentStorageTest, insertsWithTheStatementOfAllParameters) {
  StatementTrace trace(*database);

  storage.insert(full);

  EXPECT_EQ(trace.statements, std::vector<std::string>{kInsertText});
}

TEST_F(PersistentStorageTest, insertsNullForAMemberThatIsMissing) {
  storage.insert(Property({{"key", "A"}}));

  EXPECT_EQ(
      file.ask("SELECT count(*) FROM settings WHERE value IS NULL AND webui IS NULL AND provisioning IS "
               "NULL AND tr069 IS NULL AND range_min IS NULL AND range_max IS NULL AND regexp IS NULL "
               "AND enum IS NULL AND flags IS NULL AND defaultvalues IS NULL"),
      "1");
}

TEST_F(PersistentStorageTest, writesANumberIntoATextColumnAsItsText) {
  Property property({{"key", "A"}});
  property.set(column::kValue, 12);

  storage.insert(property);

  EXPECT_EQ(selected("A").get("value"), Json::Value("12"));
}

TEST_F(PersistentStorageTest, writesATextIntoAnIntegerColumnAsItsNumber) {
  Property property({{"key", "A"}});
  property.set(column::kFlags, " 12abc");

  storage.insert(property);

  EXPECT_EQ(selected("A").get("flags"), Json::Value(12));
}

TEST_F(PersistentStorageTest, refusesATextThatIsNoNumberForAnIntegerColumn) {
  Property property({{"key", "A"}});
  property.set(column::kFlags, "abc");
  LogCapture log;

  const auto failure = failureOf([&] { storage.insert(property); });

  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->reason(), Reason::Constraint);
  EXPECT_EQ(log.linesWith("error").size(), 1U);
  EXPECT_EQ(file.ask("SELECT key FROM settings"), "(none)");
}

TEST_F(PersistentStorageTest, insertsAKeyOf64Characters) {
  const std::string key(64, 'k');

  storage.insert(Property({{"key", key}}));

  EXPECT_EQ(file.ask("SELECT key FROM settings"), key);
}

TEST_F(PersistentStorageTest, refusesToInsertAKeyOf65Characters) {
  LogCapture log;

  const auto failure = failureOf([&] { storage.insert(Property({{"key", std::string(65, 'k')}})); });

  EXPECT_EQ(textOf(failure), "CHECK constraint failed: length(key) <= 64");
  EXPECT_EQ(failure->reason(), Reason::Constraint);
  EXPECT_EQ(log.linesWith("CHECK constraint failed: length(key) <= 64").size(), 1U);
}

TEST_F(PersistentStorageTest, refusesAValueOf257Characters) {
  const auto failure = failureOf([&] { storage.insert(change("A", std::string(257, 'v'))); });

  EXPECT_EQ(textOf(failure), "CHECK constraint failed: length(value) <= 256");
}

TEST_F(PersistentStorageTest, takesAValueOf256CharactersOfSeveralBytes) {
  std::string value;
  for (int i = 0; i < 256; ++i) {
    value += "ü";
  }

  storage.insert(change("A", value));

  EXPECT_EQ(file.valueOf("A"), value);
}

TEST_F(PersistentStorageTest, refusesADefaultOf257Characters) {
  const auto failure = failureOf([&] {
    storage.insert(Property({{"key", "A"}, {"defaultvalues", std::string(257, 'v')}}));
  });

  EXPECT_EQ(textOf(failure), "CHECK constraint failed: length(defaultvalues) <= 256");
}

TEST_F(PersistentStorageTest, refusesToInsertAKeyTwice) {
  storage.insert(full);

  const auto failure = failureOf([&] { storage.insert(full); });

  EXPECT_EQ(textOf(failure), "UNIQUE constraint failed: settings.key");
  EXPECT_EQ(failure->reason(), Reason::Constraint);
}

TEST_F(PersistentStorageTest, staysUsableAfterAFailure) {
  failureOf([&] { storage.insert(Property({{"key", std::string(65, 'k')}})); });

  storage.insert(full);

  EXPECT_EQ(selected("Web.A"), full);
}

TEST_F(PersistentStorageTest, readsANullValueAsEmptyTextAndAnyOtherNullAsNoMember) {
  storage.insert(Property({{"key", "A"}}));

  EXPECT_EQ(selected("A"), Property({{"key", "A"}, {"value", ""}}));
}

TEST_F(PersistentStorageTest, keepsMembersThatTheRowLacksWhenItFillsAProperty) {
  storage.insert(change("A", "x"));
  Property property({{"key", "A"}, {"value", "before"}, {"webui", "kept"}});

  storage.select(property);

  EXPECT_EQ(property, Property({{"key", "A"}, {"value", "x"}, {"webui", "kept"}}));
}

TEST_F(PersistentStorageTest, readsATextWithANulWhole) {
  const std::string text("a\0b", 3);
  storage.insert(change("A", text));

  EXPECT_EQ(selected("A").text("value"), text);
}

TEST_F(PersistentStorageTest, readsATableWhoseColumnsStandInAnotherOrder) {
  storage.dropTable();
  database->exec(
      "CREATE TABLE settings(flags INTEGER, defaultvalues TEXT, value TEXT, key TEXT PRIMARY KEY, webui "
      "TEXT, "
      "enum TEXT, provisioning TEXT, tr069 TEXT, range_max INTEGER, range_min INTEGER, regexp TEXT)");
  database->exec("INSERT INTO settings(key, value, range_min, range_max) VALUES ('A', 'x', 1, 9)");

  EXPECT_EQ(selected("A"), Property({{"key", "A"}, {"value", "x"}, {"range_min", "1"}, {"range_max", "9"}}));
}

TEST_F(PersistentStorageTest, reportsAMissingRowWithoutLogging) {
  LogCapture log;

  const auto failure = failureOf([&] { selected("A"); });

  EXPECT_EQ(textOf(failure), "Parameter not found in query");
  EXPECT_EQ(failure->reason(), Reason::MissingRow);
  EXPECT_EQ(log.text(), "");
}

TEST_F(PersistentStorageTest, leavesTheOtherColumnsWhenItUpdatesAValue) {
  storage.insert(full);

  storage.update(change("Web.A", "2"));

  Property expected = full;
  expected.set(column::kValue, "2");
  EXPECT_EQ(selected("Web.A"), expected);
}

TEST_F(PersistentStorageTest, updatesARowWithABoundBeyond32Bits) {
  storage.insert(full);
  database->exec("UPDATE settings SET range_max = 4294967295");

  storage.update(change("Web.A", "2"));

  EXPECT_EQ(selected("Web.A").text("value"), "2");
  EXPECT_EQ(selected("Web.A").get("range_max"), Json::Value(Json::Int64{4294967295}));
}

TEST_F(PersistentStorageTest, updatesEveryColumnThatIsGiven) {
  storage.insert(full);
  const Property other({{"key", "Web.A"},
                        {"value", "2"},
                        {"webui", "w2"},
                        {"provisioning", "p2"},
                        {"tr069", "t2"},
                        {"range_min", "0"},
                        {"range_max", "5"},
                        {"regexp", "."},
                        {"enum", "3"},
                        {"flags", "1"},
                        {"defaultvalues", "3"}});

  storage.update(other);

  EXPECT_EQ(selected("Web.A"), other);
}

TEST_F(PersistentStorageTest, keepsWhatIsStoredForANullMemberOfAnUpdate) {
  storage.insert(full);
  Property property = change("Web.A", "2");
  property.set(column::kWebui, Json::nullValue);

  storage.update(property);

  EXPECT_EQ(selected("Web.A").text("webui"), "w");
}

TEST_F(PersistentStorageTest, updatesWithTheStatementOfTheWholeRow) {
  storage.insert(full);
  StatementTrace trace(*database);

  storage.update(change("Web.A", "2"));

  EXPECT_EQ(trace.statements,
            (std::vector<std::string>{"SELECT * FROM settings WHERE key = :keyName", kUpdateText}));
}

TEST_F(PersistentStorageTest, doesNotWriteARowThatWouldNotChange) {
  storage.insert(full);
  Property same = full;
  same.set(column::kValue, 1);
  same.set(column::kFlags, "2");
  StatementTrace trace(*database);

  storage.update(same);

  EXPECT_EQ(trace.statements, std::vector<std::string>{"SELECT * FROM settings WHERE key = :keyName"});
}

TEST_F(PersistentStorageTest, refusesToUpdateARowWithAValueOf257Characters) {
  storage.insert(full);

  const auto failure = failureOf([&] { storage.update(change("Web.A", std::string(257, 'v'))); });

  EXPECT_EQ(textOf(failure), "CHECK constraint failed: length(value) <= 256");
  EXPECT_EQ(selected("Web.A"), full);
}

TEST_F(PersistentStorageTest, insertsNothingWhenItIsToUpdateAnUnknownKey) {
  const auto failure = failureOf([&] { storage.update(change("A", "x")); });

  EXPECT_EQ(textOf(failure), "Parameter not found in query");
  EXPECT_EQ(file.ask("SELECT key FROM settings"), "(none)");
}

TEST_F(PersistentStorageTest, selectsTheOneRowOfAPatternWithoutPercentSign) {
  storage.insert(change("Web.A", "x"));
  storage.insert(change("Web.AB", "y"));

  EXPECT_EQ(storage.selectMultiple("Web.A"), std::vector{change("Web.A", "x")});
}

TEST_F(PersistentStorageTest, throwsWhenAPatternWithoutPercentSignIsNoKey) {
  const auto failure = failureOf([&] { storage.selectMultiple("Web.A"); });

  EXPECT_EQ(textOf(failure), "Parameter not found in query");
}

TEST_F(PersistentStorageTest, selectsAllRowsWithAPrefix) {
  storage.insert(change("Web.A", "x"));
  storage.insert(change("Web.B", "y"));
  storage.insert(change("Audio.A", "z"));

  EXPECT_EQ(keysOf(storage.selectMultiple("Web.%")), (std::vector<std::string>{"Web.A", "Web.B"}));
}

TEST_F(PersistentStorageTest, selectsNoRowWhenNoneHasThePrefix) {
  file.fill(3);

  EXPECT_TRUE(storage.selectMultiple("Web.%").empty());
}

TEST_F(PersistentStorageTest, selectsEveryRowWithThePercentSignAlone) {
  file.fill(500);

  EXPECT_EQ(storage.selectMultiple("%").size(), 500U);
}

TEST_F(PersistentStorageTest, writesTwoValuesInOneStatementAndNothingElseOfTheirRows) {
  Property other = full;
  other.set(column::kKey, "Web.B");
  storage.insert(full);
  storage.insert(other);
  StatementTrace trace(*database);

  std::queue<Property> queue = queueOf({change("Web.A", "7"), change("Web.B", "8")});
  storage.updateValues(queue);

  EXPECT_EQ(trace.statements, std::vector<std::string>{
                                  "UPDATE settings SET value = (case when key = :key0 then :value0 when key "
                                  "= :key1 then :value1 END) WHERE key IN (:key0,:key1)"});
  Property expected = full;
  expected.set(column::kValue, "7");
  EXPECT_EQ(selected("Web.A"), expected);
  EXPECT_EQ(selected("Web.B").text("value"), "8");
}

TEST_F(PersistentStorageTest, writesTheValueAloneOfAPropertyWithMoreMembers) {
  storage.insert(full);
  Property property = full;
  property.set(column::kValue, 7);
  property.set(column::kWebui, "other");

  std::queue<Property> queue = queueOf({property});
  storage.updateValues(queue);

  EXPECT_EQ(selected("Web.A").text("value"), "7");
  EXPECT_EQ(selected("Web.A").text("webui"), "w");
}

TEST_F(PersistentStorageTest, takesAllPropertiesOutOfTheQueue) {
  std::queue<Property> queue = changes(301, "new");

  storage.updateValues(queue);

  EXPECT_TRUE(queue.empty());
}

/// The number of properties in each statement that writes so many.
std::vector<int> statementSizes(SQLite::Database& database, PersistentStorage& storage, int properties) {
  StatementTrace trace(database);
  std::queue<Property> queue = changes(properties, "new");
  storage.updateValues(queue);

  std::vector<int> sizes;
  for (const std::string& statement : trace.statements) {
    int size = 0;
    for (std::size_t at = 0; (at = statement.find(" then ", at)) != std::string::npos; ++at) {
      ++size;
    }
    sizes.push_back(size);
  }
  return sizes;
}

TEST_F(PersistentStorageTest, writes750ValuesInThreeStatements) {
  file.fill(750);

  EXPECT_EQ(statementSizes(*database, storage, 750), (std::vector{300, 300, 150}));
  EXPECT_EQ(file.rowsWith("new"), 750);
}

TEST_F(PersistentStorageTest, writes300ValuesInOneStatement) {
  EXPECT_EQ(statementSizes(*database, storage, 300), std::vector{300});
}

TEST_F(PersistentStorageTest, runsNoStatementForAnEmptyQueue) {
  EXPECT_EQ(statementSizes(*database, storage, 0), std::vector<int>{});
}

TEST_F(PersistentStorageTest, givesEachRowOfAFullBatchItsOwnValue) {
  file.fill(300);
  std::queue<Property> queue;
  for (int i = 299; i >= 0; --i) {
    queue.push(change("K" + std::to_string(i), "V" + std::to_string(i)));
  }

  storage.updateValues(queue);

  EXPECT_EQ(file.ask("SELECT count(*) FROM settings WHERE 'V' || substr(key, 2) = value"), "300");
}

TEST_F(PersistentStorageTest, writesFullBatchesAgainAfterOneThatFailed) {
  file.fill(300);
  std::queue<Property> bad = changes(299, "bad");
  bad.push(change("K299", std::string(257, 'v')));
  failureOf([&] { storage.updateValues(bad); });
  std::queue<Property> good = changes(300, "new");

  storage.updateValues(good);

  EXPECT_EQ(file.rowsWith("new"), 300);
}

TEST_F(PersistentStorageTest, writesFullBatchesIntoATableThatWasMadeAnew) {
  file.fill(300);
  std::queue<Property> before = changes(300, "before");
  storage.updateValues(before);
  storage.dropTable();
  storage.createTable();
  file.fill(300);
  std::queue<Property> queue = changes(300, "new");

  storage.updateValues(queue);

  EXPECT_EQ(file.rowsWith("new"), 300);
}

TEST_F(PersistentStorageTest, writesFullBatchesIntoAFileWrittenAnew) {
  file.fill(300);
  std::queue<Property> before = changes(300, "before");
  storage.updateValues(before);
  std::filesystem::remove(file.path());
  std::queue<Property> queue = changes(300, "new");

  storage.updateValues(queue);

  EXPECT_EQ(file.rowsWith("new"), 300);
}

TEST_F(PersistentStorageTest, changesNothingForAnUnknownKeyInABatch) {
  file.fill(2);

  std::queue<Property> queue = queueOf({change("K0", "new"), change("Unknown", "new"), change("K1", "new")});
  storage.updateValues(queue);

  EXPECT_EQ(file.rowsWith("new"), 2);
  EXPECT_EQ(file.ask("SELECT count(*) FROM settings"), "2");
}

TEST_F(PersistentStorageTest, letsTheFirstOfTwoEqualKeysInABatchWin) {
  file.fill(1);

  std::queue<Property> queue = queueOf({change("K0", "first"), change("K0", "second")});
  storage.updateValues(queue);

  EXPECT_EQ(file.valueOf("K0"), "first");
}

TEST_F(PersistentStorageTest, logsEachKeyOfABatchAtDebugLevel) {
  LogCapture log;

  std::queue<Property> queue = queueOf({change("A", "x")});
  storage.updateValues(queue);

  EXPECT_EQ(log.linesWith("debug database/PersistentStorage:").size(), 1U);
  EXPECT_EQ(log.linesWith("Applying updated values for parameter: \"A\"").size(), 1U);
}

TEST_F(PersistentStorageTest, changesNoRowOfABatchWithAnOverlongValue) {
  file.fill(3);

  const auto failure = failureOf([&] {
    std::queue<Property> queue =
        queueOf({change("K0", "new"), change("K1", std::string(257, 'v')), change("K2", "new")});
    storage.updateValues(queue);
  });

  EXPECT_EQ(textOf(failure), "CHECK constraint failed: length(value) <= 256");
  EXPECT_EQ(failure->reason(), Reason::Constraint);
  EXPECT_EQ(file.rowsWith("old"), 3);
}

TEST_F(PersistentStorageTest, keepsTheBatchesBeforeTheFailedOneAndTakesNoneBehindIt) {
  file.fill(900);
  std::queue<Property> queue = changes(300, "new");
  queue.push(change("K300", std::string(257, 'v')));
  for (int i = 301; i < 900; ++i) {
    queue.push(change("K" + std::to_string(i), "new"));
  }

  failureOf([&] { storage.updateValues(queue); });

  EXPECT_EQ(file.rowsWith("new"), 300);
  EXPECT_EQ(queue.size(), 300U);
}

TEST_F(PersistentStorageTest, logsAFailureOfABatchThatRepeatsTheOneBeforeOnlyOnce) {
  storage.dropTable();
  LogCapture log;

  failureOfWrite(storage);
  const auto failure = failureOfWrite(storage);

  EXPECT_EQ(textOf(failure), "no such table: settings");
  EXPECT_EQ(failure->reason(), Reason::Unavailable);
  EXPECT_EQ(log.linesWith("error").size(), 1U);
}

TEST_F(PersistentStorageTest, logsTheFailureOfABatchAgainAfterASuccess) {
  storage.dropTable();
  LogCapture log;
  failureOfWrite(storage);
  storage.createTable();
  failureOfWrite(storage);
  storage.dropTable();

  failureOfWrite(storage);

  EXPECT_EQ(log.linesWith("error").size(), 2U);
}

TEST_F(PersistentStorageTest, waitsForALockNoLongerThanASecondOnceItIsInAHurry) {
  file.fill(1);
  const Reader reader(file.path());
  const auto begin = std::chrono::steady_clock::now();
  std::jthread hurry([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    storage.hurry();
  });

  const auto failure = failureOfWrite(storage);
  const auto failureAfterwards = failureOfWrite(storage);

  EXPECT_EQ(textOf(failure), "database is locked");
  EXPECT_EQ(textOf(failureAfterwards), "database is locked");
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took, std::chrono::milliseconds(1300));
  EXPECT_LT(took, std::chrono::milliseconds(3000));
}

TEST_F(PersistentStorageTest, writesWhenALockEndsWhileItIsInAHurry) {
  file.fill(1);
  std::optional<Reader> reader(file.path());
  std::jthread release([&] {
    storage.hurry();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    reader.reset();
  });

  EXPECT_FALSE(failureOfWrite(storage));
}

TEST_F(PersistentStorageTest, leavesAConnectionThatWaitsForLocksAsLongAsBefore) {
  auto connection = openDatabase(file.path());
  { const PersistentStorage passing(connection); }

  EXPECT_EQ(connection->execAndGet("PRAGMA busy_timeout").getInt(), 5000);
}

TEST_F(PersistentStorageTest, endsATransactionThatOutlivesAPowerCut) {
  constexpr int kExtra = 3;

  EXPECT_EQ(openDatabase(file.path())->execAndGet("PRAGMA synchronous").getInt(), kExtra);
}

TEST_F(PersistentStorageTest, failsForNowWhileAReaderHoldsTheDatabase) {
  file.fill(1);
  PersistentStorage hasty = impatient();
  std::optional<Reader> reader(file.path());

  const auto failure = failureOfWrite(hasty);
  reader.reset();
  const auto failureAfterwards = failureOfWrite(hasty);

  EXPECT_EQ(textOf(failure), "database is locked");
  EXPECT_EQ(failure->reason(), Reason::Unavailable);
  EXPECT_EQ(textOf(failureAfterwards), "(no failure)");
  EXPECT_EQ(file.valueOf("K0"), "new");
}

TEST_F(PersistentStorageTest, bringsToTheFileWhatItTakesAfterAFullBatchMetALock) {
  file.fill(300);
  PersistentStorage hasty = impatient();
  SQLite::Database other(file.path(), SQLite::OPEN_READWRITE);
  other.exec("BEGIN IMMEDIATE");
  std::queue<Property> batch = changes(300, "new");
  const auto failure = failureOf([&] { hasty.updateValues(batch); });
  other.exec("COMMIT");

  const auto failureAfterwards = failureOfWrite(hasty);

  EXPECT_EQ(textOf(failure), "database is locked");
  EXPECT_EQ(textOf(failureAfterwards), "(no failure)");
  EXPECT_EQ(file.valueOf("K0"), "new");
}

TEST_F(PersistentStorageTest, waitsForAReaderToLetGoOfTheDatabase) {
  file.fill(1);
  std::optional<Reader> reader(file.path());
  std::thread releasing([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    reader.reset();
  });

  const auto failure = failureOfWrite(storage);
  releasing.join();

  EXPECT_EQ(textOf(failure), "(no failure)");
}

TEST_F(PersistentStorageTest, refusesToOpenAMissingFile) {
  EXPECT_THROW(openDatabase(directory.path("missing")), SQLite::Exception);
  EXPECT_FALSE(std::filesystem::exists(directory.path("missing")));
}

TEST_F(PersistentStorageTest, reportsAnEmptyFileAsOneWithoutTheTable) {
  PersistentStorage empty(openDatabase(directory.write("empty", "")));

  const auto failure = failureOf([&] { empty.selectMultiple("%"); });

  EXPECT_EQ(textOf(failure), "no such table: settings");
}

TEST_F(PersistentStorageTest, opensNoFileOfGarbage) {
  const std::string garbage = directory.write("garbage", std::string(10000, 'x'));

  EXPECT_THAT([&] { openDatabase(garbage); },
              testing::ThrowsMessage<SQLite::Exception>("file is not a database"));
}

TEST_F(PersistentStorageTest, readsRowsOrThrowsWhereverAFileIsCutOff) {
  constexpr int kRows = 200;
  file.fill(kRows);
  const std::string cut = directory.path("cut");
  std::filesystem::copy_file(file.path(), cut);
  int failures = 0;

  for (auto length = std::filesystem::file_size(cut); length > 0;
       length -= std::min<std::uintmax_t>(length, 509)) {
    std::filesystem::resize_file(cut, length);
    std::vector<Property> rows;

    try {
      rows = PersistentStorage(openDatabase(cut)).selectMultiple("%");
    } catch (const std::exception&) {
      ++failures;
    }

    EXPECT_LE(rows.size(), std::size_t{kRows}) << length << " bytes";
  }
  EXPECT_GT(failures, 0);
}

TEST_F(PersistentStorageTest, failsToWriteIntoAFileThatIsCutOff) {
  file.fill(200);
  std::filesystem::resize_file(file.path(), std::filesystem::file_size(file.path()) / 2);

  const auto failure = failureOfWrite(storage);

  EXPECT_EQ(textOf(failure), "database disk image is malformed");
  EXPECT_EQ(failure->reason(), Reason::Unavailable);
}

TEST_F(PersistentStorageTest, writesARemovedFileAnew) {
  file.fill(2);
  failureOfWrite(storage, "K0");
  std::filesystem::remove(file.path());
  LogCapture log;

  const auto failure = failureOfWrite(storage, "K1");

  EXPECT_EQ(textOf(failure), "(no failure)");
  EXPECT_EQ(file.rowsWith("new"), 2);
  EXPECT_EQ(log.linesWith("warning").size(), 1U);
}

TEST_F(PersistentStorageTest, writesOnIntoTheFileThatItWroteAnew) {
  file.fill(2);
  std::filesystem::remove(file.path());
  failureOfWrite(storage, "K0");

  const auto failure = failureOfWrite(storage, "K1");

  EXPECT_EQ(textOf(failure), "(no failure)");
  EXPECT_EQ(file.rowsWith("new"), 2);
}

TEST_F(PersistentStorageTest, writesIntoTheFileThatReplacedItsOwn) {
  file.fill(1);
  const SettingsFile replacement(directory.path("replacement"));
  replacement.fill(3);
  std::filesystem::rename(replacement.path(), file.path());

  const auto failure = failureOfWrite(storage);

  EXPECT_EQ(textOf(failure), "(no failure)");
  EXPECT_EQ(file.valueOf("K0"), "new");
  EXPECT_EQ(file.rowsWith("old"), 2);
}

TEST_F(PersistentStorageTest, writesItsOwnFileAnewOverAnEmptyOne) {
  file.fill(2);
  std::filesystem::remove(file.path());
  directory.write("nvm", "");

  const auto failure = failureOfWrite(storage);

  EXPECT_EQ(textOf(failure), "(no failure)");
  EXPECT_EQ(file.valueOf("K0"), "new");
  EXPECT_EQ(file.rowsWith("old"), 1);
}

TEST_F(PersistentStorageTest, failsForNowWhenTheFolderWentWithTheFile) {
  const std::string folder = directory.path("folder");
  std::filesystem::create_directory(folder);
  const SettingsFile lost(folder + "/nvm");
  lost.fill(1);
  PersistentStorage orphan(openDatabase(lost.path()));
  failureOfWrite(orphan, "K0", "before");
  std::filesystem::remove_all(folder);

  const auto failure = failureOfWrite(orphan);
  std::filesystem::create_directory(folder);
  const auto failureAfterwards = failureOfWrite(orphan);

  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->reason(), Reason::Unavailable);
  EXPECT_EQ(textOf(failureAfterwards), "(no failure)");
  EXPECT_EQ(lost.valueOf("K0"), "new");
}

TEST_F(PersistentStorageTest, leavesWholeBatchesWhenTheProcessIsKilledAtAnyMoment) {
  constexpr int kRows = 300;
  file.fill(kRows);

  for (int round = 0; round < 20; ++round) {
    int started[2];
    ASSERT_EQ(pipe(started), 0);
    const pid_t child = fork();
    if (child == 0) {
      PersistentStorage writer(openDatabase(file.path()));
      for (int i = 0;; ++i) {
        std::queue<Property> queue = changes(kRows, std::to_string(i));
        writer.updateValues(queue);
        if (i == 0 && write(started[1], "x", 1) != 1) {
          _exit(1);
        }
      }
    }
    char byte = 0;
    ASSERT_EQ(read(started[0], &byte, 1), 1);
    std::this_thread::sleep_for(std::chrono::microseconds(700 * round));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(started[0]);
    close(started[1]);

    EXPECT_EQ(storage.selectMultiple("%").size(), static_cast<std::size_t>(kRows));
    EXPECT_EQ(file.ask("SELECT count(DISTINCT value) FROM settings"), "1");
    EXPECT_EQ(file.ask("PRAGMA integrity_check"), "ok");
  }
}

}  // namespace
}  // namespace propertyservice
