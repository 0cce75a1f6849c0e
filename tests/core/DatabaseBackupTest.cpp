#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <sys/stat.h>

#include <SQLiteCpp/Database.h>

#include "core/Constants.h"
#include "core/DatabaseBackup.h"
#include "support/FakeDatabaseService.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using test::FakeDatabaseService;
using test::LogCapture;
using test::TemporaryDirectory;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;
using testing::UnorderedElementsAre;

constexpr char kRecovery[] = "State.System.General.FirmwareUpdateParametersRecovery";

/// A database whose writer does something while it is waited for.
class WorkingDatabaseService : public FakeDatabaseService {
 public:
  std::function<void()> whileBusy = [] {};

  bool isWriterIdle() override {
    const bool idle = FakeDatabaseService::isWriterIdle();
    if (!idle) {
      whileBusy();
    }
    return idle;
  }
};

class UnreadableDatabaseService : public FakeDatabaseService {
 public:
  void get(Property&) override { throw std::runtime_error("cannot read"); }
};

class UnwritableDatabaseService : public FakeDatabaseService {
 public:
  void setMultiple(std::vector<Property>&) override { throw std::runtime_error("cannot write"); }
};

DevicePaths pathsIn(const TemporaryDirectory& directory) {
  DevicePaths paths;
  paths.database = directory.path("nvm");
  paths.backups = directory.path("");
  paths.migrations = directory.path("");
  return paths;
}

/// A device with a database file that has a row for each flag, named after it, and for none; "NVM.Version" is
/// 17.
class DatabaseBackupTest : public testing::Test {
 protected:
  DatabaseBackupTest() {
    SQLite::Database database(paths_.database, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    database.exec(
        "BEGIN;" + std::string(kCreateTable) +
        ";"
        "WITH bits(b) AS (VALUES (0), (1), (2), (4), (8), (16), (32), (64), (128)) "
        "INSERT INTO settings SELECT 'F' || b, 'of ' || b, 'w', NULL, 't', 1, 9, 'r', 'e', b, 'd' FROM bits;"
        "INSERT INTO settings(key, value) VALUES ('Unflagged', 'x');"
        "COMMIT");
    service_->add({{"key", "NVM.Version"}, {"value", "17"}});
    service_->add({{"key", kRecovery}, {"value", ""}});
  }

  std::string read(const std::string& name) const {
    std::ifstream file(directory_.path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  /// Names the property of the fake service that a row belongs to.
  void flag(const std::string& key, int flags, const std::string& value = "") const {
    service_->add({{"key", key}, {"value", value}});
    service_->rows[key].set("flags", flags);
  }

  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& file : std::filesystem::directory_iterator(directory_.path(""))) {
      names.push_back(file.path().filename());
    }
    return names;
  }

  bool exists(const std::string& name) const { return std::filesystem::exists(directory_.path(name)); }

  const TemporaryDirectory directory_;
  const DevicePaths paths_ = pathsIn(directory_);
  const std::shared_ptr<WorkingDatabaseService> service_ = std::make_shared<WorkingDatabaseService>();
  DatabaseBackup backup_{service_, paths_};
};

Json::Value request(const Json::Value& allSettings) {
  Json::Value value;
  value["method"] = "makeBackup";
  value["allSettings"] = allSettings;
  return value;
}

Property entry(const std::string& key, const std::string& value) {
  return Property({{column::kKey, key}, {column::kValue, value}});
}

TEST_F(DatabaseBackupTest, exportsWithTheSqliteShell) {
  EXPECT_EQ(exportCommand("/usr/sbin/nvm", "key,value", 238, "/config/user_backup.csv"),
            R"(sqlite3 -separator ';' /usr/sbin/nvm -cmd "SELECT key,value FROM settings )"
            R"(WHERE CAST(flags AS INT)&238;" "" > /config/user_backup.csv)");
}

TEST_F(DatabaseBackupTest, stampsWithEcho) {
  EXPECT_EQ(stampCommand("17", "/config/user_backup.csv"),
            R"(echo "DatabaseVersion:17" >> /config/user_backup.csv)");
}

TEST_F(DatabaseBackupTest, savesTheUsersSettings) {
  const Status status = backup_.makeBackup(request(false));

  EXPECT_EQ(status, Status::Ok);
  EXPECT_EQ(read("user_backup.csv"), "F8;of 8\nDatabaseVersion:17\n");
}

TEST_F(DatabaseBackupTest, savesTheUsersSettingsWhenNothingIsSaidAboutAll) {
  backup_.makeBackup(Json::Value(Json::objectValue));

  EXPECT_EQ(read("user_backup.csv"), "F8;of 8\nDatabaseVersion:17\n");
}

TEST_F(DatabaseBackupTest, savesAllSettingsOnRequest) {
  backup_.makeBackup(request(true));

  EXPECT_EQ(read("user_backup.csv"),
            "F2;of 2\nF4;of 4\nF8;of 8\nF32;of 32\nF64;of 64\nF128;of 128\nDatabaseVersion:17\n");
}

TEST_F(DatabaseBackupTest, takesOnlyABooleanForTheRequestForAllSettings) {
  for (const Json::Value& allSettings : {Json::Value("true"), Json::Value(1), Json::Value()}) {
    SCOPED_TRACE(allSettings.toStyledString());

    backup_.makeBackup(request(allSettings));

    EXPECT_EQ(read("user_backup.csv"), "F8;of 8\nDatabaseVersion:17\n");
  }
}

TEST_F(DatabaseBackupTest, savesEverythingFlaggedButReadOnlyForAVersionChange) {
  const Status status = backup_.prepareVersionChange();

  EXPECT_EQ(status, Status::Ok);
  EXPECT_EQ(read("sys_backup.csv"),
            "F2;of 2\nF4;of 4\nF8;of 8\nF16;of 16\nF32;of 32\nF64;of 64\nF128;of 128\nDatabaseVersion:17\n");
}

TEST_F(DatabaseBackupTest, savesWhatSurvivesAFactoryReset) {
  const Status status = backup_.prepareFactoryReset();

  EXPECT_EQ(status, Status::Ok);
  EXPECT_EQ(read("reset_backup.csv"), "F16;of 16\nDatabaseVersion:17\n");
}

TEST_F(DatabaseBackupTest, dumpsEveryColumn) {
  const Status status = backup_.makeSysdump();

  EXPECT_EQ(status, Status::Ok);
  EXPECT_EQ(read("sysdump.csv"), "F4;of 4;w;;t;1;9;r;e;4;d\nDatabaseVersion:17\n");
}

TEST_F(DatabaseBackupTest, replacesAnEarlierFile) {
  directory_.write("user_backup.csv",
                   "something longer than the backup that replaces it, by a good measure\n");

  backup_.makeBackup(request(false));

  EXPECT_EQ(read("user_backup.csv"), "F8;of 8\nDatabaseVersion:17\n");
}

TEST_F(DatabaseBackupTest, writesNoVersionLineWhenTheVersionIsEmpty) {
  service_->add({{"key", "NVM.Version"}, {"value", ""}});

  backup_.makeBackup(request(false));

  EXPECT_EQ(read("user_backup.csv"), "F8;of 8\n");
}

TEST_F(DatabaseBackupTest, writesNoVersionLineWhenThereIsNoVersion) {
  service_->rows.erase("NVM.Version");

  backup_.makeBackup(request(false));

  EXPECT_EQ(read("user_backup.csv"), "F8;of 8\n");
}

TEST_F(DatabaseBackupTest, stampsAVersionWithShellTextAsItIs) {
  const std::string version = "1$(touch " + directory_.path("ran") + ")`\\n\\c\";";
  service_->add({{"key", "NVM.Version"}, {"value", version}});

  backup_.makeBackup(request(false));

  EXPECT_EQ(read("user_backup.csv"), "F8;of 8\nDatabaseVersion:" + version + "\n");
  EXPECT_FALSE(exists("ran"));
}

TEST_F(DatabaseBackupTest, stampsOnlyTheFirstLineOfAVersion) {
  service_->add({{"key", "NVM.Version"}, {"value", "17\nForged;1"}});

  backup_.makeBackup(request(false));

  EXPECT_EQ(read("user_backup.csv"), "F8;of 8\nDatabaseVersion:17\n");
}

TEST_F(DatabaseBackupTest, savesTheWritesThatWereUnderWay) {
  service_->busyAnswers = 3;
  service_->whileBusy = [this] {
    SQLite::Database(paths_.database, SQLite::OPEN_READWRITE)
        .exec("UPDATE settings SET value = value || '+' WHERE key = 'F8'");
  };

  backup_.makeBackup(request(false));

  EXPECT_EQ(read("user_backup.csv"), "F8;of 8+++\nDatabaseVersion:17\n");
}

TEST_F(DatabaseBackupTest, keepsTheEarlierFileWhenTheShellFails) {
  flag("F8", 8);
  directory_.write("user_backup.csv", "F8;earlier\n");
  SQLite::Database(paths_.database, SQLite::OPEN_READWRITE).exec("DROP TABLE settings");
  LogCapture log;

  const Status status = backup_.makeBackup(request(false));

  EXPECT_EQ(status, Status::DBError);
  EXPECT_EQ(read("user_backup.csv"), "F8;earlier\n");
  EXPECT_THAT(log.text(), HasSubstr("no such table: settings"));
  EXPECT_THAT(log.linesWith("warning"), Contains(EndsWith("it lacks F8")));
}

TEST_F(DatabaseBackupTest, leavesNoFileWhenTheShellFailsAndThereWasNone) {
  flag("F8", 8);
  SQLite::Database(paths_.database, SQLite::OPEN_READWRITE).exec("DROP TABLE settings");
  LogCapture log;

  const Status status = backup_.makeBackup(request(false));

  EXPECT_EQ(status, Status::DBError);
  EXPECT_THAT(files(), ElementsAre("nvm"));
}

TEST_F(DatabaseBackupTest, leavesNothingBesideTheFile) {
  directory_.write("user_backup.csv", "F8;earlier\n");

  backup_.makeBackup(request(false));

  EXPECT_THAT(files(), UnorderedElementsAre("nvm", "user_backup.csv"));
}

TEST_F(DatabaseBackupTest, givesUpAsSoonAsTheWriterFails) {
  flag("F8", 8);
  directory_.write("user_backup.csv", "F8;earlier\n");
  service_->writerFails = true;
  service_->busyAnswers = 3;
  LogCapture log;

  EXPECT_EQ(backup_.makeBackup(request(false)), Status::DBError);
  EXPECT_EQ(backup_.restore({}), Status::DBError);

  EXPECT_EQ(read("user_backup.csv"), "F8;earlier\n");
  EXPECT_EQ(service_->listWrites.size(), 1U);
}

TEST_F(DatabaseBackupTest, saysNoWhenARestoredVersionChangeCannotBeWritten) {
  directory_.write("sys_backup.csv", "A;1\nDatabaseVersion:17\n");
  service_->writerFails = true;
  LogCapture log;

  backup_.restoreVersionChange();

  EXPECT_EQ(service_->valueOf(kRecovery), "no");
  EXPECT_TRUE(backup_.versionChangeBackupExists());
}

TEST_F(DatabaseBackupTest, putsTheEarlierFileBackAfterAnExportThatWasCutOff) {
  directory_.write("sys_backup.csv", "half");
  directory_.write("sys_backup.csv.earlier", "A;1\nDatabaseVersion:17\n");

  EXPECT_TRUE(backup_.versionChangeBackupExists());
  backup_.restoreVersionChange();

  EXPECT_THAT(service_->listWrites, ElementsAre(ElementsAre(entry("A", "1"))));
  EXPECT_THAT(files(), ElementsAre("nvm"));
}

TEST_F(DatabaseBackupTest, knowsNothingToRestoreAfterAFirstExportThatWasCutOff) {
  directory_.write("sys_backup.csv", "half");
  directory_.write("sys_backup.csv.earlier", "");

  EXPECT_FALSE(backup_.versionChangeBackupExists());

  EXPECT_THAT(files(), ElementsAre("nvm"));
}

TEST_F(DatabaseBackupTest, refusesAnythingButARegularFileInTheFilesPlace) {
  const std::string place = directory_.path("user_backup.csv");
  const std::string elsewhere = directory_.write("elsewhere", "A;1\n");
  const std::pair<const char*, std::function<void()>> things[] = {
      {"FIFO", [&] { ASSERT_EQ(mkfifo(place.c_str(), 0600), 0); }},
      {"folder", [&] { std::filesystem::create_directory(place); }},
      {"link to a file", [&] { std::filesystem::create_symlink(elsewhere, place); }},
      {"link to a device", [&] { std::filesystem::create_symlink("/dev/zero", place); }},
      {"link to nothing", [&] { std::filesystem::create_symlink("nothing", place); }},
  };
  for (const auto& [name, make] : things) {
    SCOPED_TRACE(name);
    make();
    LogCapture log;

    EXPECT_EQ(backup_.makeBackup(request(false)), Status::DBError);
    EXPECT_EQ(backup_.restore({}), Status::DBError);

    EXPECT_THAT(log.linesWith("is not a regular file: remove it"), SizeIs(2));
    std::filesystem::remove(place);
  }
  EXPECT_THAT(service_->listWrites, IsEmpty());
  EXPECT_THAT(files(), UnorderedElementsAre("nvm", "elsewhere"));
}

TEST_F(DatabaseBackupTest, namesEachKeyWhoseValueCannotBeReadBack) {
  flag("Plain", 8);
  flag("Multi", 8, "two\nlines");
  flag("Marker", 8, "x\nDatabaseVersion: none");
  flag("Unsaved", 2, "two\nlines");
  SQLite::Database(paths_.database, SQLite::OPEN_READWRITE)
      .exec(
          "DELETE FROM settings; INSERT INTO settings(key, value, flags) VALUES ('Plain', '', 8), "
          "('Multi', 'two' || char(10) || 'lines', 8), ('Marker', '', 8)");
  LogCapture log;

  const Status status = backup_.makeBackup(request(false));

  EXPECT_EQ(status, Status::Ok);
  EXPECT_THAT(log.linesWith("warning"),
              UnorderedElementsAre(EndsWith("backup: Multi"), EndsWith("backup: Marker")));
}

TEST_F(DatabaseBackupTest, reportsAnExceptionDuringAnExport) {
  DatabaseBackup backup(std::make_shared<UnreadableDatabaseService>(), paths_);
  LogCapture log;

  const Status status = backup.makeBackup(request(false));

  EXPECT_EQ(status, Status::DBError);
  EXPECT_THAT(log.linesWith("warning core/DatabaseBackup:"), ElementsAre(EndsWith(" cannot read")));
  EXPECT_THAT(log.linesWith("error core/DatabaseBackup:"), ElementsAre(EndsWith(" Database backup failed")));
}

TEST_F(DatabaseBackupTest, writesTheWholeListAtOnce) {
  directory_.write("user_backup.csv", "A;1\nB;2\nDatabaseVersion:17\n");

  const Status status = backup_.restore({});

  EXPECT_EQ(status, Status::Ok);
  EXPECT_THAT(service_->listWrites, ElementsAre(ElementsAre(entry("A", "1"), entry("B", "2"))));
}

TEST_F(DatabaseBackupTest, removesTheFileItRestored) {
  directory_.write("user_backup.csv", "A;1\n");

  backup_.restore({});

  EXPECT_FALSE(exists("user_backup.csv"));
}

TEST_F(DatabaseBackupTest, keepsTheFileUntilItsValuesAreInTheDatabaseFile) {
  directory_.write("user_backup.csv", "A;1\n");
  service_->busyAnswers = 3;
  std::vector<bool> fileExisted;
  service_->whileBusy = [&] { fileExisted.push_back(exists("user_backup.csv")); };

  backup_.restore({});

  EXPECT_THAT(fileExisted, ElementsAre(true, true, true));
  EXPECT_FALSE(exists("user_backup.csv"));
}

TEST_F(DatabaseBackupTest, handsOutWhatItRestoredWithTheStatuses) {
  service_->add({{"key", "A"}, {"value", "0"}});
  service_->add({{"key", "B"}, {"value", "2"}});
  service_->add({{"key", "C"}, {"value", "0"}});
  service_->refusals = {{"C", Status::ReadOnly}};
  directory_.write("user_backup.csv", "A;1\nB;2\nC;3\nUnknown;4\n");
  std::vector<std::pair<std::string, Status>> restored;

  backup_.restore([&](std::vector<Property>& properties) {
    for (const Property& property : properties) {
      restored.emplace_back(property.text(column::kKey), property.status());
    }
  });

  EXPECT_THAT(restored, ElementsAre(Pair("A", Status::Changed), Pair("B", Status::Unchanged),
                                    Pair("C", Status::ReadOnly), Pair("Unknown", Status::NotFound)));
}

TEST_F(DatabaseBackupTest, restoresALastLineWithoutALineEnd) {
  service_->add({{"key", "A"}, {"value", "0"}});
  directory_.write("user_backup.csv", "A;1");

  backup_.restore({});

  EXPECT_EQ(service_->valueOf("A"), "1");
}

TEST_F(DatabaseBackupTest, writesAnEmptyListForAFileThatHoldsOnlyTheVersion) {
  directory_.write("user_backup.csv", "DatabaseVersion:17\n");

  const Status status = backup_.restore({});

  EXPECT_EQ(status, Status::Ok);
  EXPECT_THAT(service_->listWrites, ElementsAre(IsEmpty()));
  EXPECT_FALSE(exists("user_backup.csv"));
}

TEST_F(DatabaseBackupTest, reportsAMissingFile) {
  LogCapture log;

  const Status status = backup_.restore({});

  EXPECT_EQ(status, Status::DBError);
  EXPECT_THAT(service_->listWrites, IsEmpty());
  EXPECT_THAT(log.linesWith("warning core/DatabaseBackup:"),
              ElementsAre(HasSubstr(directory_.path("user_backup.csv"))));
  EXPECT_THAT(log.linesWith("error core/DatabaseBackup:"), ElementsAre(EndsWith(" Restore settings failed")));
}

TEST_F(DatabaseBackupTest, keepsTheFileWhenTheWriteFails) {
  directory_.write("user_backup.csv", "A;1\n");
  DatabaseBackup backup(std::make_shared<UnwritableDatabaseService>(), paths_);
  LogCapture log;

  const Status status = backup.restore({});

  EXPECT_EQ(status, Status::DBError);
  EXPECT_TRUE(exists("user_backup.csv"));
  EXPECT_THAT(log.linesWith("warning core/DatabaseBackup:"), ElementsAre(EndsWith(" cannot write")));
}

TEST_F(DatabaseBackupTest, restoresAFileWhoseVersionHasNoDigits) {
  directory_.write("user_backup.csv", "A;1\nDatabaseVersion: none\n");
  LogCapture log;

  const Status status = backup_.restore({});

  EXPECT_EQ(status, Status::Ok);
  EXPECT_THAT(service_->listWrites, ElementsAre(ElementsAre(entry("A", "1"))));
}

TEST_F(DatabaseBackupTest, succeedsWhenTheFileIsGoneBeforeItIsRemoved) {
  const std::string path = directory_.write("user_backup.csv", "A;1\n");
  LogCapture log;

  const Status status = backup_.restore([&](auto&) { std::filesystem::remove(path); });

  EXPECT_EQ(status, Status::Ok);
  EXPECT_THAT(log.linesWith("Cannot"), Not(Contains(HasSubstr(path))));
}

TEST_F(DatabaseBackupTest, renamesKeysThroughTwoMigrations) {
  directory_.write("user_backup.csv", "A;1\nOther;2\nDatabaseVersion:15\n");
  directory_.write("migration_16.json", R"({"rename":[{"oldKey":"A","newKey":"B"}]})");
  directory_.write("migration_17.json", R"({"rename":[{"oldKey":"B","newKey":"C"}]})");

  const Status status = backup_.restore({});

  EXPECT_EQ(status, Status::Ok);
  EXPECT_THAT(service_->listWrites, ElementsAre(ElementsAre(entry("C", "1"), entry("Other", "2"))));
}

TEST_F(DatabaseBackupTest, restoresUnderTheOldKeysWhenAMigrationFails) {
  directory_.write("user_backup.csv", "A;1\nB;2\nDatabaseVersion:16\n");
  directory_.write("migration_17.json", R"({"rename":[{"oldKey":"A","newKey":"B"}]})");
  LogCapture log;

  const Status status = backup_.restore({});

  EXPECT_EQ(status, Status::Ok);
  EXPECT_THAT(service_->listWrites, ElementsAre(ElementsAre(entry("A", "1"), entry("B", "2"))));
}

TEST_F(DatabaseBackupTest, restoresAVersionChangeAndSaysSo) {
  directory_.write("sys_backup.csv", "A;1\nDatabaseVersion:17\n");

  backup_.restoreVersionChange();

  EXPECT_THAT(service_->listWrites, ElementsAre(ElementsAre(entry("A", "1"))));
  EXPECT_EQ(service_->valueOf(kRecovery), "yes");
  EXPECT_FALSE(exists("sys_backup.csv"));
}

TEST_F(DatabaseBackupTest, leavesTheFileOfAFailedVersionChangeAndSaysSo) {
  std::filesystem::create_directory(directory_.path("sys_backup.csv"));
  LogCapture log;

  backup_.restoreVersionChange();

  EXPECT_EQ(service_->valueOf(kRecovery), "no");
  EXPECT_TRUE(exists("sys_backup.csv"));
}

TEST_F(DatabaseBackupTest, restoresAFactoryResetWithoutAWordAboutAVersionChange) {
  directory_.write("reset_backup.csv", "A;1\nDatabaseVersion:17\n");

  backup_.restoreFactoryReset();

  EXPECT_THAT(service_->listWrites, ElementsAre(ElementsAre(entry("A", "1"))));
  EXPECT_EQ(service_->valueOf(kRecovery), "");
  EXPECT_FALSE(exists("reset_backup.csv"));
}

TEST_F(DatabaseBackupTest, restoresEachKindFromItsOwnFile) {
  directory_.write("user_backup.csv", "User;1\n");
  directory_.write("sys_backup.csv", "System;1\n");
  directory_.write("reset_backup.csv", "Reset;1\n");

  backup_.restoreFactoryReset();

  EXPECT_THAT(service_->listWrites, ElementsAre(ElementsAre(entry("Reset", "1"))));
  EXPECT_TRUE(exists("user_backup.csv"));
  EXPECT_TRUE(exists("sys_backup.csv"));
}

TEST_F(DatabaseBackupTest, knowsWhetherARestoreIsPending) {
  EXPECT_FALSE(backup_.versionChangeBackupExists());
  EXPECT_FALSE(backup_.factoryResetBackupExists());

  directory_.write("sys_backup.csv", "");
  EXPECT_TRUE(backup_.versionChangeBackupExists());
  EXPECT_FALSE(backup_.factoryResetBackupExists());

  directory_.write("reset_backup.csv", "");
  EXPECT_TRUE(backup_.factoryResetBackupExists());
}

TEST_F(DatabaseBackupTest, restoresWhatItSaved) {
  service_->add({{"key", "F8"}, {"value", "of 8"}});
  backup_.makeBackup(request(false));
  service_->add({{"key", "F8"}, {"value", "changed"}});

  backup_.restore({});

  EXPECT_EQ(service_->valueOf("F8"), "of 8");
}

}  // namespace
}  // namespace propertyservice
