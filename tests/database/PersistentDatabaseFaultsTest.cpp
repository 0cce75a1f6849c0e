#include <filesystem>
#include <functional>
#include <map>

#include "database/PersistentDatabase.h"
#include "database/PersistentDatabaseCache.h"
#include "database/PersistentStorage.h"
#include "support/Eventually.h"
#include "support/FaultyVfs.h"
#include "support/LogCapture.h"
#include "support/SettingsFile.h"
#include "support/TemporaryDirectory.h"
#include "validators/EnumValidator.h"
#include "validators/MinMaxValidator.h"
#include "validators/ReadOnlyValidator.h"
#include "validators/RegExpValidator.h"

namespace propertyservice {
namespace {

using test::eventually;
using test::FaultyVfs;
using test::LogCapture;
using test::SettingsFile;
using test::TemporaryDirectory;

/// The database with its real parts, on a file system with faults.
class PersistentDatabaseOnAFaultyDisk {
 public:
  explicit PersistentDatabaseOnAFaultyDisk(int rows) {
    file.fill(rows);
    start();
  }

  void start() {
    std::vector<std::unique_ptr<Validator>> validators;
    validators.push_back(std::make_unique<ReadOnlyValidator>());
    validators.push_back(std::make_unique<RegExpValidator>());
    validators.push_back(std::make_unique<MinMaxValidator>());
    validators.push_back(std::make_unique<EnumValidator>());
    // Does not wait for locks.
    auto connection = std::make_shared<SQLite::Database>(file.path(), SQLite::OPEN_READWRITE);
    database_ =
        std::make_unique<Database>(std::make_unique<PersistentStorage>(std::move(connection)),
                                   std::make_unique<PersistentDatabaseCache>(), std::move(validators));
  }

  void stop() { database_.reset(); }

  Status set(const std::string& key, const std::string& value) {
    Property property = test::change(key, value);
    database_->set(property);
    return property.status();
  }

  std::string get(const std::string& key) {
    Property property({{"key", key}});
    database_->get(property);
    return property.text("value");
  }

  bool becomesIdle() {
    return eventually([&] { return database_->isWriterIdle(); });
  }

  bool becomesIdleOrFails() {
    return eventually([&] { return database_->isWriterIdle() || database_->isWriterFailing(); });
  }

  FaultyVfs vfs;
  TemporaryDirectory directory;
  SettingsFile file{directory.path("nvm")};

 private:
  using Database = PersistentDatabase<std::unique_ptr<PersistentStorage>,
                                      std::unique_ptr<PersistentDatabaseCache>, std::unique_ptr<Validator>>;

  std::unique_ptr<Database> database_;
};

struct Fault {
  const char* name;
  FaultyVfs::Operation operation;
  int code;
};

class PersistentDatabaseFaultsTest : public testing::TestWithParam<Fault> {
 protected:
  /// Runs `scenario` for each operation of a write at which the fault can begin.
  void fromEachOperation(const std::function<void()>& scenario) {
    const int operations = operationsOfAWrite();
    ASSERT_GT(operations, 0);
    for (int nth = 1; nth <= operations; ++nth) {
      SCOPED_TRACE(nth);
      disk.stop();
      disk.start();
      disk.vfs.fail(GetParam().operation, nth, GetParam().code);
      scenario();
      disk.vfs.heal();
    }
  }

  void endFault() {
    disk.vfs.heal();
    disk.stop();
  }

  /// A value that the database has not had.
  std::string fresh() { return "value " + std::to_string(++values_); }

  PersistentDatabaseOnAFaultyDisk disk{10};

 private:
  int operationsOfAWrite() {
    const int before = disk.vfs.count(GetParam().operation);
    disk.set("K0", fresh());
    EXPECT_TRUE(disk.becomesIdle());
    return disk.vfs.count(GetParam().operation) - before;
  }

  int values_ = 0;
};

TEST_P(PersistentDatabaseFaultsTest, losesNothingThatWasAccepted) {
  fromEachOperation([&] {
    const std::string last = fresh();
    const std::string only = fresh();
    disk.set("K0", fresh());
    ASSERT_TRUE(disk.becomesIdleOrFails());
    disk.set("K1", only);
    disk.set("K0", last);
    ASSERT_TRUE(disk.becomesIdleOrFails());

    endFault();

    EXPECT_EQ(disk.file.valueOf("K0"), last);
    EXPECT_EQ(disk.file.valueOf("K1"), only);
    EXPECT_EQ(disk.file.ask("PRAGMA integrity_check"), "ok");
  });
}

TEST_P(PersistentDatabaseFaultsTest, answersReadsAndWritesWhileItLasts) {
  fromEachOperation([&] {
    disk.set("K0", fresh());
    ASSERT_TRUE(disk.becomesIdleOrFails());
    const std::string value = fresh();

    EXPECT_EQ(disk.set("K0", value), Status::Changed);

    EXPECT_EQ(disk.get("K0"), value);
    EXPECT_EQ(disk.set("K0", value), Status::Unchanged);
    EXPECT_EQ(disk.get("K9"), "old");
  });
}

TEST_P(PersistentDatabaseFaultsTest, logsItsBeginningAndItsEndOnce) {
  fromEachOperation([&] {
    LogCapture log;
    disk.set("K0", fresh());
    ASSERT_TRUE(disk.becomesIdleOrFails());
    disk.set("K1", fresh());
    ASSERT_TRUE(disk.becomesIdleOrFails());

    endFault();

    EXPECT_EQ(log.linesWith("Database cannot be written").size(), 1U);
    EXPECT_EQ(log.linesWith("Database can be written again").size(), 1U);
  });
}

TEST_P(PersistentDatabaseFaultsTest, isOverWithoutAnotherWrite) {
  disk.vfs.fail(GetParam().operation, 1, GetParam().code);
  disk.set("K0", "new");
  ASSERT_TRUE(disk.becomesIdleOrFails());

  disk.vfs.heal();

  EXPECT_TRUE(eventually([&] { return disk.file.valueOf("K0") == "new"; }));
}

INSTANTIATE_TEST_SUITE_P(Faults, PersistentDatabaseFaultsTest,
                         testing::Values(Fault{"Locked", FaultyVfs::Operation::Lock, SQLITE_BUSY},
                                         Fault{"DiskFull", FaultyVfs::Operation::Write, SQLITE_FULL},
                                         Fault{"WriteError", FaultyVfs::Operation::Write, SQLITE_IOERR_WRITE},
                                         Fault{"SyncError", FaultyVfs::Operation::Sync, SQLITE_IOERR_FSYNC},
                                         Fault{"OpenError", FaultyVfs::Operation::Open, SQLITE_CANTOPEN}),
                         [](const testing::TestParamInfo<Fault>& fault) {
                           return std::string(fault.param.name);
                         });

class PersistentDatabasePowerCutTest : public testing::Test {
 protected:
  static constexpr int kRows = 400;  // more than a statement holds
  static constexpr int kRounds = 3;

  /// The value of a round is as long as values get; a torn one would show.
  static std::string valueOfRound(int round) {
    std::string value = std::to_string(round);
    return value + std::string(256 - value.size(), static_cast<char>('a' + round));
  }

  static int roundOf(const std::string& value) {
    for (int round = 0; round < 2 * kRounds; ++round) {
      if (value == valueOfRound(round)) {
        return round;
      }
    }
    return value == "old" ? -1 : kTorn;
  }

  /// Each row is written in each round, the first hundred twice.
  void writeRounds() {
    for (int round = 0; round < 2 * kRounds; round += 2) {
      pileUp(round);
      for (int i = 0; i < kRows; ++i) {
        disk.set("K" + std::to_string(i), valueOfRound(round));
      }
      for (int i = 0; i < 100; ++i) {
        disk.set("K" + std::to_string(i), valueOfRound(round + 1));
      }
      disk.stop();
      disk.start();
    }
  }

  /// After a failure the writer waits a while, so that what follows goes into few and full statements.
  void pileUp(int round) {
    disk.vfs.fail(FaultyVfs::Operation::Lock, 1, SQLITE_BUSY);
    disk.set("K0", valueOfRound(round));
    ASSERT_TRUE(disk.becomesIdleOrFails());
    disk.vfs.heal();
  }

  /// The round of each key in what a power cut leaves, once SQLite has repaired it.
  std::map<std::string, int> roundsAfter(const FaultyVfs::Disk& cut) {
    const TemporaryDirectory image;
    for (const auto& [path, content] : cut) {
      image.write(std::filesystem::path(path).filename(), content);
    }
    SQLite::Database database(image.path("nvm"), SQLite::OPEN_READWRITE);
    EXPECT_EQ(database.execAndGet("PRAGMA integrity_check").getString(), "ok");
    std::map<std::string, int> rounds;
    SQLite::Statement rows(database, "SELECT key, value FROM settings");
    while (rows.executeStep()) {
      rounds[rows.getColumn(0)] = roundOf(rows.getColumn(1));
    }
    return rounds;
  }

  static constexpr int kTorn = -2;
  PersistentDatabaseOnAFaultyDisk disk{kRows};
};

TEST_F(PersistentDatabasePowerCutTest, leavesWholeValuesThatNeverGoBack) {
  const std::size_t before = disk.vfs.powerCuts().size();
  writeRounds();
  std::vector<FaultyVfs::Disk> cuts = disk.vfs.powerCuts();
  cuts.erase(cuts.begin(), cuts.begin() + static_cast<std::ptrdiff_t>(before));
  ASSERT_GT(cuts.size(), std::size_t{kRounds});

  std::map<std::string, int> newest;
  for (const FaultyVfs::Disk& cut : cuts) {
    const std::map<std::string, int> rounds = roundsAfter(cut);

    ASSERT_EQ(rounds.size(), std::size_t{kRows});
    for (const auto& [key, round] : rounds) {
      ASSERT_NE(round, kTorn) << key;
      ASSERT_GE(round, newest.try_emplace(key, -1).first->second) << key;
      newest[key] = round;
    }
  }
  EXPECT_EQ(newest.at("K0"), 2 * kRounds - 1);
  EXPECT_EQ(newest.at("K399"), 2 * kRounds - 2);
}

}  // namespace
}  // namespace propertyservice
