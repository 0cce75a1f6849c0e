#include <cstdlib>
#include <stdexcept>
#include <tuple>

#include <SQLiteCpp/Database.h>

#include "core/Constants.h"
#include "core/Init.h"
#include "database/PersistentStorageException.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using test::LogCapture;
using test::TemporaryDirectory;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;
using testing::ThrowsMessage;

constexpr char kDeviceName[] = "NET.General.DeviceNameInNetwork";
constexpr char kRecovery[] = "State.System.General.FirmwareUpdateParametersRecovery";

const std::string kTable = std::string(kCreateTable) + ";\n";

constexpr char kRows[] =
    "INSERT INTO settings(key, value, flags) VALUES ('NET.MAC.Address', '', 1), "
    "('System.General.Variant.Name', '', 1), ('System.General.Variant.MajorID', '3', 1), "
    "('System.General.Variant.MinorID', '', 1), ('System.General.ExperimentalFeatures', '', 1), "
    "('System.General.SoftwareVersion', '', 1), ('System.General.UserAgent', '', 1), "
    "('WebUI.PhoneModel', '', 1), ('System.Debug.LevelMask.PROP-SRV', '30', 0), "
    "('NET.General.DeviceNameInNetwork', 'Halcyon', 0), ('NVM.Version', '17', 0), "
    "('A', 'from script', 8), ('B', 'from script', 24);\n";

/// The table and the rows that start-up needs, with `count` more, each in a statement and on a line of its
/// own.
std::string separateRows(int count) {
  std::string script = kTable + kRows;
  for (int row = 0; row < count; ++row) {
    script.append("INSERT INTO settings(key, value) VALUES ('Row.")
        .append(std::to_string(row))
        .append("', 'x');\n");
  }
  return script;
}

DevicePaths pathsIn(const TemporaryDirectory& directory) {
  DevicePaths paths;
  paths.database = directory.path("nvm");
  paths.creationScript = directory.path("nvminit.sql");
  paths.volatileStore = directory.path("stateCache");
  paths.model = directory.path("model");
  paths.version = directory.path("version");
  paths.macAddress = directory.path("address");
  paths.kernelCommandLine = directory.path("cmdline");
  paths.customizations = directory.path("");
  paths.migrations = directory.path("");
  paths.backups = directory.path("");
  return paths;
}

/// Has the shell find a program before the installed one of that name, while it lives.
class ProgramInFront {
 public:
  // NOLINTBEGIN(concurrency-mt-unsafe): the device is not running
  ProgramInFront(const TemporaryDirectory& directory, const std::string& name, const std::string& script) {
    std::filesystem::create_directory(directory.path("bin"));
    std::filesystem::permissions(directory.write("bin/" + name, script), std::filesystem::perms::owner_all);
    setenv("PATH", (directory.path("bin") + ":" + pathBefore_).c_str(), 1);
  }
  ProgramInFront(const ProgramInFront&) = delete;
  ProgramInFront& operator=(const ProgramInFront&) = delete;
  ~ProgramInFront() { setenv("PATH", pathBefore_.c_str(), 1); }

 private:
  const std::string pathBefore_ = std::getenv("PATH");
  // NOLINTEND(concurrency-mt-unsafe)
};

/// A device that has never been started: its system files and the creation script, and nothing else. Puts the
/// log's mask back.
class InitTest : public testing::Test {
 protected:
  InitTest() {
    writeScript(kRows);
    directory_.write("model", "Halcyon 5 ADV\n");
    directory_.write("version", "1.2.3\n");
    directory_.write("address", "00:1a:2b:3c:4d:5e\n");
    directory_.write("cmdline", "quiet\n");
  }

  ~InitTest() override { dbg::DebugStreamBuf::setMask(maskBefore_); }

  /// Starts the device; one that runs is shut down first.
  void start(bool forceDbInit = false, bool dropState = false) {
    shutDown();
    std::tie(service_, backup_) = InitContext(paths_).initializeDatabases(forceDbInit, dropState);
  }

  void shutDown() {
    backup_.reset();
    service_.reset();
  }

  std::string valueOf(const std::string& key) {
    Property property({{column::kKey, key}});
    service_->get(property);
    return property.status() == Status::Ok ? property.text(column::kValue) : "(not found)";
  }

  Status set(const std::string& key, const std::string& value) {
    Property property({{column::kKey, key}, {column::kValue, value}});
    service_->set(property);
    return property.status();
  }

  /// Returns the value in the database file at this moment.
  std::string storedValueOf(const std::string& key) const {
    return SQLite::Database(paths_.database)
        .execAndGet("SELECT value FROM settings WHERE key = '" + key + "'")
        .getString();
  }

  void writeScript(const std::string& rows) {
    directory_.write("nvminit.sql", "BEGIN;\n" + kTable + rows + "COMMIT;\n");
  }

  void appendToScript(const std::string& rows) { writeScript(kRows + rows); }

  bool exists(const std::string& name) const { return std::filesystem::exists(directory_.path(name)); }

  const unsigned maskBefore_ = dbg::DebugStreamBuf::mask();
  const TemporaryDirectory directory_;
  const DevicePaths paths_ = pathsIn(directory_);
  std::shared_ptr<IDatabaseService> service_;
  std::unique_ptr<IDatabaseBackup> backup_;
};

TEST_F(InitTest, buildsAMissingDatabaseFromItsScript) {
  start();

  EXPECT_EQ(valueOf("A"), "from script");
}

TEST_F(InitTest, opensAnExistingDatabaseAsItIs) {
  start();
  set("A", "changed");
  shutDown();
  std::filesystem::remove(paths_.creationScript);

  start();

  EXPECT_EQ(valueOf("A"), "changed");
}

TEST_F(InitTest, runsNoShellForAnExistingDatabase) {
  start();
  shutDown();
  const ProgramInFront sqlite3(directory_, "sqlite3", "#!/bin/sh\ntouch " + directory_.path("ran") + "\n");

  start();

  EXPECT_FALSE(exists("ran"));
}

/// The lines of the creation script, run by a shell that is killed after some of them.
TEST_F(InitTest, servesEveryRowAfterTheShellWasKilledAtAnyLine) {
  constexpr int kRowCount = 4;
  const std::string rows = separateRows(kRowCount);
  for (const bool inOneTransaction : {true, false}) {
    directory_.write("nvminit.sql", inOneTransaction ? "BEGIN;\n" + rows + "COMMIT;\n" : rows);
    for (const bool force : {false, true}) {
      for (int lines = 0; lines <= kRowCount + 4; ++lines) {
        SCOPED_TRACE(testing::Message() << lines << (inOneTransaction ? " in one transaction" : ""));
        shutDown();
        std::filesystem::remove(paths_.database);
        if (force) {
          start();
          set("A", "changed");
          shutDown();
        }
        {
          const ProgramInFront sqlite3(directory_, "sqlite3",
                                       "#!/bin/sh\nhead -n " + std::to_string(lines) +
                                           " | PATH=${PATH#*:} sqlite3 \"$1\"\nkill -9 $$\n");
          LogCapture silent;
          EXPECT_THAT([&] { start(force); }, ThrowsMessage<std::runtime_error>(HasSubstr("signal 9")));
        }
        EXPECT_TRUE(exists("nvm.unfinished"));
        LogCapture silent;

        start();

        ASSERT_EQ(service_->getMultiple("Row.%", {}, "").size(), std::size_t{kRowCount});
        ASSERT_EQ(valueOf("A"), "from script");
        ASSERT_FALSE(exists("nvm.unfinished"));
      }
    }
  }
}

TEST_F(InitTest, marksTheDatabaseBeforeItIsRemoved) {
  start();
  shutDown();
  const ProgramInFront rm(directory_, "rm",
                          "#!/bin/sh\n[ -e " + paths_.unfinishedMark() + " ] && touch " +
                              directory_.path("marked") + "\nPATH=${PATH#*:} exec rm \"$@\"\n");

  start(true);

  EXPECT_TRUE(exists("marked"));
  EXPECT_FALSE(exists("nvm.unfinished"));
}

TEST_F(InitTest, makesADatabaseThatWasNotFinishedAnewWhateverItHolds) {
  start();
  set("A", "changed");
  shutDown();
  directory_.write("nvm.unfinished", "");
  directory_.write("nvm-journal", std::string(4096, 'x'));
  LogCapture log;

  start();

  EXPECT_EQ(valueOf("A"), "from script");
  EXPECT_FALSE(exists("nvm-journal"));
  EXPECT_FALSE(exists("nvm.unfinished"));
  EXPECT_THAT(log.linesWith("Database was not finished and is made anew: " + paths_.database), SizeIs(1));
}

TEST_F(InitTest, doesNotServeADatabaseThatWasNotFinishedAndCannotBeRemoved) {
  std::filesystem::create_directory(paths_.database);
  directory_.write("nvm.unfinished", "");
  LogCapture silent;

  EXPECT_THAT([this] { start(); }, ThrowsMessage<std::runtime_error>("Cannot remove " + paths_.database));
  EXPECT_TRUE(exists("nvm.unfinished"));
}

TEST_F(InitTest, doesNotServePartOfTheRowsOfAScriptThatTakesTooLong) {
  directory_.write("nvminit.sql", separateRows(20));
  {
    const ProgramInFront sqlite3(directory_, "sqlite3",
                                 "#!/bin/sh\nhead -n 3 | PATH=${PATH#*:} sqlite3 \"$1\"\nsleep 60\n");

    EXPECT_THAT([this] { start(); }, ThrowsMessage<std::runtime_error>(HasSubstr("within 10 s")));
  }
  EXPECT_TRUE(exists("nvm.unfinished"));
  LogCapture silent;

  start();

  EXPECT_EQ(service_->getMultiple("Row.%", {}, "").size(), 20U);
}

TEST_F(InitTest, triesAgainToMakeATableThatCameOutEmpty) {
  writeScript("");
  {
    LogCapture silent;
    EXPECT_THROW(start(), std::exception);
  }
  writeScript(kRows);
  LogCapture silent;

  start();

  EXPECT_EQ(valueOf("A"), "from script");
}

/// A mistake in the script, or around it, and how the log shows it.
struct Mistake {
  const char* name;
  std::string statement;
  std::string entry;

  friend std::ostream& operator<<(std::ostream& stream, const Mistake& mistake) {
    return stream << mistake.name;
  }
};

class MistakenScriptTest : public InitTest, public testing::WithParamInterface<Mistake> {};

TEST_P(MistakenScriptTest, isOneErrorWithTheShellsComplaint) {
  appendToScript(GetParam().statement + "\n");
  LogCapture log;

  start();

  EXPECT_EQ(valueOf("A"), "from script");
  EXPECT_THAT(log.linesWith("error "),
              ElementsAre(HasSubstr(" The shell ended with status 1 on " + paths_.creationScript + ": " +
                                    GetParam().entry)));
  EXPECT_FALSE(exists("nvm.unfinished"));
}

INSTANTIATE_TEST_SUITE_P(
    Mistakes, MistakenScriptTest,
    testing::Values(
        Mistake{"missingComma", "INSERT INTO settings(key) VALUES ('C') ('D');", "Parse error near line "},
        Mistake{"afterOutput", "SELECT 'some output';\nINSERT INTO settings(key) VALUES ('C') ('D');",
                "Parse error near line "},
        Mistake{"twoOfThem", "INSERT INTO sett VALUES (1);\nINSERT INTO settings(key) VALUES ('A');",
                "Parse error near line "},
        Mistake{"repeatedKey", "INSERT INTO settings(key) VALUES ('A');", "Runtime error near line "}),
    [](const auto& mistake) { return mistake.param.name; });

TEST_F(InitTest, saysWhyTheShellCouldNotRead) {
  std::filesystem::remove(paths_.creationScript);
  LogCapture log;

  EXPECT_THROW(start(), std::exception);

  EXPECT_THAT(log.linesWith("error core/Init:"),
              ElementsAre(HasSubstr(paths_.creationScript + ": No such file")));
}

TEST_F(InitTest, ignoresTheShellsStatus) {
  const ProgramInFront sqlite3(directory_, "sqlite3", "#!/bin/sh\nPATH=${PATH#*:} sqlite3 \"$1\"\nexit 3\n");
  LogCapture log;

  start();

  EXPECT_EQ(valueOf("A"), "from script");
  EXPECT_THAT(log.linesWith("error core/Init:"),
              ElementsAre(HasSubstr(" The shell ended with status 3 on ")));
}

TEST_F(InitTest, rebuildsTheDatabaseWhenForced) {
  start();
  set("A", "changed");
  shutDown();

  start(true);

  EXPECT_EQ(valueOf("A"), "from script");
}

TEST_F(InitTest, keepsTheStateWhenTheDatabaseIsRebuilt) {
  start();
  set("State.Call", "active");

  start(true);

  EXPECT_EQ(valueOf("State.Call"), "active");
}

TEST_F(InitTest, keepsTheState) {
  start();
  set("State.Call", "active");

  start();

  EXPECT_EQ(valueOf("State.Call"), "active");
}

TEST_F(InitTest, dropsTheStateOnRequest) {
  start();
  set("State.Call", "active");
  set("A", "changed");

  start(false, true);

  EXPECT_EQ(valueOf("State.Call"), "(not found)");
  EXPECT_EQ(valueOf("A"), "changed");
}

TEST_F(InitTest, rebuildsTheDatabaseAndDropsTheStateAtOnce) {
  start();
  set("State.Call", "active");
  set("A", "changed");

  start(true, true);

  EXPECT_EQ(valueOf("State.Call"), "(not found)");
  EXPECT_EQ(valueOf("A"), "from script");
}

TEST_F(InitTest, throwsWithoutAScript) {
  std::filesystem::remove(paths_.creationScript);

  EXPECT_THROW(start(), std::exception);
  EXPECT_FALSE(exists("nvm"));
}

TEST_F(InitTest, throwsForADatabaseFileThatIsNone) {
  directory_.write("nvm", std::string(4096, 'x'));
  LogCapture log;

  EXPECT_THROW(start(), std::exception);
}

TEST_F(InitTest, throwsForAnEmptyTable) {
  writeScript("");
  LogCapture log;

  EXPECT_THROW(start(), PersistentStorageException);
}

TEST_F(InitTest, throwsWhenThereIsNothingToLoadIntoTheCache) {
  appendToScript(
      "CREATE TRIGGER lose AFTER UPDATE ON settings WHEN NEW.key = 'NET.General.DeviceNameInNetwork' "
      "BEGIN DELETE FROM settings; END;");

  EXPECT_THAT([this] { start(); }, testing::ThrowsMessage<std::runtime_error>("Cannot initialize cache"));
}

TEST_F(InitTest, throwsWhenTheStateCannotBeOpened) {
  directory_.write("stateCache", "a file where a directory should be");
  LogCapture log;

  EXPECT_THROW(start(), std::exception);
}

TEST_F(InitTest, fillsInTheDevicesParameters) {
  start();

  EXPECT_EQ(valueOf("NET.MAC.Address"), "00:1a:2b:3c:4d:5e");
  EXPECT_EQ(valueOf("System.General.UserAgent"), "Halcyon 5 ADV/3.1.2.3;001A2B3C4D5E");
  EXPECT_EQ(valueOf("WebUI.PhoneModel"), "1");
  EXPECT_EQ(valueOf(kDeviceName), "Halcyon-5-3c4d5e");
}

TEST_F(InitTest, appliesTheStoredDebugLevel) {
  appendToScript("UPDATE settings SET value = '6' WHERE key = 'System.Debug.LevelMask.PROP-SRV';");

  start();

  EXPECT_EQ(dbg::DebugStreamBuf::mask(), 6U);
}

TEST_F(InitTest, comesUpWithoutTheDevicesParameters) {
  appendToScript("UPDATE settings SET value = 'Reception' WHERE key = 'NET.General.DeviceNameInNetwork';");
  std::filesystem::remove(paths_.version);
  LogCapture log;

  start();

  EXPECT_EQ(valueOf("A"), "from script");
  EXPECT_THAT(log.linesWith(" Failed to initialize read only parameters."), SizeIs(1));
}

TEST_F(InitTest, throwsWhenAnUnnamedDeviceCannotBeNamed) {
  std::filesystem::remove(paths_.version);
  LogCapture log;

  EXPECT_THROW(start(), std::runtime_error);
}

TEST_F(InitTest, takesTheDeviceNameFromACustomization) {
  directory_.write("Update.Common.json", R"({"key":"NET.General.DeviceNameInNetwork","value":"Reception"})");

  start();

  EXPECT_EQ(valueOf(kDeviceName), "Reception");
}

TEST_F(InitTest, prefersTheCustomizationForTheModel) {
  directory_.write("Update.Common.json",
                   "{\"key\":\"A\",\"value\":\"common\"}\n\n{\"key\":\"B\",\"value\":\"common\"}\n");
  directory_.write("Update. 5.json", "\n\n{\"key\":\"A\",\"value\":\"model\"}\n");

  start();

  EXPECT_EQ(valueOf("A"), "model");
  EXPECT_EQ(valueOf("B"), "common");
  EXPECT_EQ(storedValueOf("A"), "model");
}

TEST_F(InitTest, comesUpWithoutCustomizations) {
  LogCapture log;

  start();

  EXPECT_EQ(valueOf("A"), "from script");
  EXPECT_THAT(log.linesWith(" Customization files not found: "), SizeIs(2));
}

TEST_F(InitTest, throwsForAModelWithoutTheSuffix) {
  directory_.write("model", "Halcyon 5\n");

  EXPECT_THROW(start(), std::out_of_range);
}

TEST_F(InitTest, throwsForACustomizationOfAnUnknownProperty) {
  directory_.write("Update.Common.json", R"({"key":"Unknown","value":"1"})");

  EXPECT_THROW(start(), PersistentStorageException);
}

TEST_F(InitTest, throwsForACustomizationThatIsNoJson) {
  directory_.write("Update.Common.json", "no json\n");

  EXPECT_THROW(start(), PersistentStorageException);
}

TEST_F(InitTest, judgesWritesInTheOrderOfTheValidators) {
  appendToScript(
      "INSERT INTO settings(key, value, regexp, range_min, range_max, enum, flags) VALUES "
      "('All', '1', '^[0-9]+$', 1, 10, '1,2', 1), ('Text', '1', '^[0-9]+$', 1, 10, '1,2', 0);");
  start();

  EXPECT_EQ(set("All", "x"), Status::ReadOnly);
  EXPECT_EQ(set("Text", "x"), Status::RegExpError);
  EXPECT_EQ(set("Text", "11"), Status::ValueOutOfBounds);
  EXPECT_EQ(set("Text", "3"), Status::ValueError);
  EXPECT_EQ(set("Text", "2"), Status::Changed);
}

TEST_F(InitTest, knowsPropertiesByTheirAliases) {
  appendToScript("UPDATE settings SET webui = 'web.a', provisioning = 'prov.a' WHERE key = 'A';");
  start();

  EXPECT_THAT(service_->getMultiple("web.a", {}, "webui"), SizeIs(1));
  EXPECT_THAT(service_->getMultiple("prov.a", {}, "provisioning"), SizeIs(1));
}

TEST_F(InitTest, finishesAVersionChange) {
  directory_.write("sys_backup.csv", "A;saved\nDatabaseVersion:17\n");

  start();

  EXPECT_EQ(valueOf("A"), "saved");
  EXPECT_EQ(storedValueOf("A"), "saved");
  EXPECT_EQ(valueOf(kRecovery), "yes");
  EXPECT_FALSE(exists("sys_backup.csv"));
}

TEST_F(InitTest, finishesAFactoryReset) {
  directory_.write("reset_backup.csv", "A;saved\nDatabaseVersion:17\n");

  start();

  EXPECT_EQ(valueOf("A"), "saved");
  EXPECT_EQ(storedValueOf("A"), "saved");
  EXPECT_EQ(valueOf(kRecovery), "(not found)");
  EXPECT_FALSE(exists("reset_backup.csv"));
}

TEST_F(InitTest, finishesOnlyTheVersionChangeOfTwoPendingRestores) {
  directory_.write("sys_backup.csv", "A;version change\n");
  directory_.write("reset_backup.csv", "A;factory reset\nB;factory reset\n");
  LogCapture log;

  start();

  EXPECT_EQ(valueOf("A"), "version change");
  EXPECT_EQ(valueOf("B"), "from script");
  EXPECT_FALSE(exists("sys_backup.csv"));
  EXPECT_TRUE(exists("reset_backup.csv"));
}

TEST_F(InitTest, comesUpAfterAVersionChangeThatFailed) {
  std::filesystem::create_directory(directory_.path("sys_backup.csv"));
  LogCapture log;

  start();

  EXPECT_EQ(valueOf("A"), "from script");
  EXPECT_EQ(valueOf(kRecovery), "no");
  EXPECT_TRUE(exists("sys_backup.csv"));
}

TEST_F(InitTest, triesAFailedVersionChangeAgainAtTheNextStart) {
  std::filesystem::create_directory(directory_.path("sys_backup.csv"));
  LogCapture log;
  start();
  std::filesystem::remove(directory_.path("sys_backup.csv"));
  directory_.write("sys_backup.csv", "A;saved\nDatabaseVersion:17\n");

  start();

  EXPECT_EQ(valueOf("A"), "saved");
  EXPECT_EQ(valueOf(kRecovery), "yes");
}

TEST_F(InitTest, leavesPendingRestoresAloneWhenForced) {
  start();
  directory_.write("sys_backup.csv", "A;saved\n");
  directory_.write("reset_backup.csv", "A;saved\n");

  start(true);

  EXPECT_EQ(valueOf("A"), "from script");
  EXPECT_EQ(valueOf(kRecovery), "(not found)");
  EXPECT_TRUE(exists("sys_backup.csv"));
  EXPECT_TRUE(exists("reset_backup.csv"));
}

TEST_F(InitTest, restoresThroughTwoMigrations) {
  appendToScript("INSERT INTO settings(key, value) VALUES ('Newest', '');");
  directory_.write("sys_backup.csv", "Old;saved\nA;saved\nDatabaseVersion:15\n");
  directory_.write("migration_16.json", R"({"rename":[{"oldKey":"Old","newKey":"New"}]})");
  directory_.write("migration_17.json", R"({"rename":[{"oldKey":"New","newKey":"Newest"}]})");

  start();

  EXPECT_EQ(valueOf("Newest"), "saved");
  EXPECT_EQ(valueOf("A"), "saved");
  EXPECT_EQ(valueOf(kRecovery), "yes");
}

TEST_F(InitTest, handsOutABackupThatSeesEveryWrite) {
  start();
  set("A", "changed");

  const Status status = backup_->makeBackup(Json::Value(Json::objectValue));

  EXPECT_EQ(status, Status::Ok);
  std::ifstream file(directory_.path("user_backup.csv"));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}),
            "A;changed\nB;from script\nDatabaseVersion:17\n");
}

TEST_F(InitTest, handsOutABackupThatRestoresWhatItSaved) {
  start();
  set("A", "saved");
  backup_->makeBackup(Json::Value(Json::objectValue));
  set("A", "changed");
  set("B", "changed");

  const Status status = backup_->restore({});

  EXPECT_EQ(status, Status::Ok);
  EXPECT_EQ(valueOf("A"), "saved");
  EXPECT_EQ(valueOf("B"), "from script");
}

TEST_F(InitTest, carriesSettingsOverAFactoryReset) {
  start();
  set("A", "changed");
  set("B", "changed");
  backup_->prepareFactoryReset();
  shutDown();
  std::filesystem::remove(paths_.database);

  start();

  EXPECT_EQ(valueOf("A"), "from script");
  EXPECT_EQ(valueOf("B"), "changed");
}

}  // namespace
}  // namespace propertyservice
