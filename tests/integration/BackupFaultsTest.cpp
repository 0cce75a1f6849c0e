#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include "support/Device.h"
#include "support/SmallDisk.h"

// Exports and restores where the table cannot be written, or the backup's place is not what it should be.

namespace propertyservice::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// A connection waits so long for a lock; the rest is for a busy machine.
constexpr milliseconds kOneBusyTimeout(5000 + 1500);

/// Long before any lock is given up.
constexpr milliseconds kAtOnce(2000);

/// Keeps the daemon from writing the table while it lives.
class Obstacle {
 public:
  Obstacle() = default;
  Obstacle(const Obstacle&) = delete;
  Obstacle& operator=(const Obstacle&) = delete;
  virtual ~Obstacle() = default;
};

class Lock : public Obstacle {
 public:
  Lock(Device&, const SmallDisk&, const char* begin) : Lock(begin) {}
  explicit Lock(const char* begin) : database_(Device::kDatabase, SQLite::OPEN_READWRITE) {
    database_.exec(begin);
    rows_.emplace(database_, "SELECT * FROM settings");
    rows_->executeStep();
  }

 private:
  SQLite::Database database_;
  std::optional<SQLite::Statement> rows_;
};

class FullDisk : public Obstacle {
 public:
  FullDisk(Device&, const SmallDisk& disk) : disk_(disk) { disk_.fill(); }
  ~FullDisk() override { disk_.free(); }

 private:
  const SmallDisk& disk_;
};

/// The daemon is started on it: a disk with a file that is open for writing stays writable.
class ReadOnlyDisk : public Obstacle {
 public:
  ReadOnlyDisk(Device& device, const SmallDisk& disk) : disk_(disk) {
    device.stop();
    if (!disk_.makeReadOnly()) {
      throw std::runtime_error("the disk stays writable");
    }
    device.start();
  }
  ~ReadOnlyDisk() override { disk_.makeWritable(); }

 private:
  const SmallDisk& disk_;
};

struct Case {
  std::string name;
  std::function<std::unique_ptr<Obstacle>(Device&, const SmallDisk&)> make;
};

template <typename T, typename... Arguments>
auto makeObstacle(Arguments... arguments) {
  return [=](Device& device, const SmallDisk& disk) -> std::unique_ptr<Obstacle> {
    return std::make_unique<T>(device, disk, arguments...);
  };
}

class UnwritableTable : public testing::TestWithParam<Case> {
 protected:
  UnwritableTable() { device_.start(); }

  void block() { obstacle_ = GetParam().make(device_, disk_); }
  void unblock() { obstacle_.reset(); }

  std::string statusOf(const std::string& method) { return device_.request(method)["status"].asString(); }

  static std::string userBackup() { return Device::readFile(Device::kUserBackup); }

  Device device_;
  SmallDisk disk_{"/usr/sbin"};
  std::unique_ptr<Obstacle> obstacle_;
};

TEST_P(UnwritableTable, isAnsweredWithDBErrorWithinOneBusyTimeoutInAll) {
  ASSERT_EQ(statusOf("makeBackup"), "Ok");
  const std::string before = userBackup();
  block();
  ASSERT_EQ(device_.set("Audio.Codec", "g722")["status"], "Ok");
  const auto begin = Clock::now();

  for (const char* method :
       {"makeBackup", "prepareVersionChange", "prepareFactoryReset", "makeSysdump", "restore"}) {
    EXPECT_EQ(statusOf(method), "DBError") << method;
  }

  EXPECT_LT(Clock::now() - begin, kOneBusyTimeout);
  EXPECT_EQ(userBackup(), before);
  EXPECT_FALSE(Device::exists(Device::kVersionChangeBackup));
  unblock();
  EXPECT_TRUE(eventually([&] { return statusOf("makeBackup") == "Ok"; }));
  EXPECT_NE(userBackup().find("Audio.Codec;"), std::string::npos);
}

TEST_P(UnwritableTable, keepsARestoredFileUntilARestoreSucceeds) {
  Device::writeFile(Device::kUserBackup, "Audio.Volume;9\nDatabaseVersion:5\n");
  block();

  EXPECT_EQ(statusOf("restore"), "DBError");

  EXPECT_TRUE(Device::exists(Device::kUserBackup));
  EXPECT_EQ(device_.getValue("Audio.Volume"), "9");
  unblock();
  EXPECT_TRUE(eventually([&] { return statusOf("restore") == "Ok"; }));
  EXPECT_EQ(Device::valueInFile("Audio.Volume"), "9");
  EXPECT_FALSE(Device::exists(Device::kUserBackup));
}

TEST_P(UnwritableTable, losesNoRestoredValueToAKill) {
  Device::writeFile(Device::kUserBackup, "Audio.Volume;9\nDatabaseVersion:5\n");
  block();
  EXPECT_EQ(statusOf("restore"), "DBError");

  device_.daemon().kill();
  unblock();
  device_.start();

  EXPECT_EQ(statusOf("restore"), "Ok");
  EXPECT_EQ(Device::valueInFile("Audio.Volume"), "9");
}

TEST_P(UnwritableTable, losesNoRestoredValueToAStopWhichIsQuick) {
  Device::writeFile(Device::kUserBackup, "Audio.Volume;9\nDatabaseVersion:5\n");
  block();
  EXPECT_EQ(statusOf("restore"), "DBError");
  const auto begin = Clock::now();

  EXPECT_EQ(device_.stop(), 0);

  EXPECT_LT(Clock::now() - begin, milliseconds(2000));
  unblock();
  device_.start();
  EXPECT_EQ(statusOf("restore"), "Ok");
  EXPECT_EQ(Device::valueInFile("Audio.Volume"), "9");
}

INSTANTIATE_TEST_SUITE_P(Obstacles, UnwritableTable,
                         testing::Values(Case{"Reader", makeObstacle<Lock>("BEGIN")},
                                         Case{"Writer", makeObstacle<Lock>("BEGIN IMMEDIATE")},
                                         Case{"ExclusiveWriter", makeObstacle<Lock>("BEGIN EXCLUSIVE")},
                                         Case{"FullDisk", makeObstacle<FullDisk>()},
                                         Case{"ReadOnlyDisk", makeObstacle<ReadOnlyDisk>()}),
                         [](const testing::TestParamInfo<Case>& obstacle) { return obstacle.param.name; });

TEST_P(UnwritableTable, doesNotLetARequestThatWaitsForItHoldUpAStop) {
  block();
  device_.panel().sendRequest(makeRequest("setV", "Audio.Volume", "9"));
  device_.panel().send(R"({"method":"makeBackup"})");
  ASSERT_TRUE(device_.panel().waitForMessages(device_.panel().replyTopic(), 1));
  const auto begin = Clock::now();

  EXPECT_EQ(device_.stop(), 0);

  EXPECT_LT(Clock::now() - begin, milliseconds(2500));
}

class BackupFaults : public testing::Test {
 protected:
  BackupFaults() { device_.start(); }

  std::string statusOf(const std::string& method) { return device_.request(method)["status"].asString(); }

  Device device_;
};

TEST_F(BackupFaults, anExportThatCannotReadTheTableKeepsTheEarlierFile) {
  ASSERT_EQ(statusOf("makeBackup"), "Ok");
  const std::string before = Device::readFile(Device::kUserBackup);
  const Lock lock("BEGIN EXCLUSIVE");
  const auto begin = Clock::now();

  EXPECT_EQ(statusOf("makeBackup"), "DBError");

  EXPECT_LT(Clock::now() - begin, kAtOnce);
  EXPECT_EQ(Device::readFile(Device::kUserBackup), before);
}

TEST(BackupFaultsOnASmallDisk, anExportThatDoesNotFitKeepsTheEarlierFile) {
  constexpr std::uintmax_t kPage = 4096;
  std::vector<Row> rows = Device::defaultRows();
  for (int i = 0; i < 100; ++i) {
    rows.push_back({.key = "Test.Key" + std::to_string(i),
                    .value = std::string(200, 'v'),
                    .defaultValue = "",
                    .flags = 8});
  }
  Device device(rows);
  const SmallDisk disk("/config");
  device.start();
  ASSERT_EQ(device.request("makeBackup")["status"], "Ok");
  const std::string before = Device::readFile(Device::kUserBackup);
  ASSERT_GT(before.size(), 4 * kPage);
  device.set("Test.Key0", "new");

  for (std::uintmax_t pages = 0; pages <= 4; ++pages) {
    SCOPED_TRACE(pages);
    disk.fill();
    std::filesystem::resize_file(
        "/config/filler", std::filesystem::file_size("/config/filler") / kPage * kPage - pages * kPage);

    EXPECT_EQ(device.request("makeBackup")["status"], "DBError");

    EXPECT_EQ(Device::readFile(Device::kUserBackup), before);
  }
  disk.free();
  EXPECT_EQ(device.request("makeBackup")["status"], "Ok");
  EXPECT_NE(Device::readFile(Device::kUserBackup).find("Test.Key0;new\n"), std::string::npos);
}

TEST_F(BackupFaults, aRestoreThatIsPendingAtAStartIsTriedAgainAtTheNext) {
  device_.stop();
  Device::writeFile(Device::kVersionChangeBackup, "Audio.Volume;9\nDatabaseVersion:5\n");
  std::optional<Lock> reader("BEGIN");

  device_.start();
  EXPECT_EQ(device_.getValue("State.System.General.FirmwareUpdateParametersRecovery"), "no");
  EXPECT_TRUE(Device::exists(Device::kVersionChangeBackup));
  device_.daemon().kill();
  reader.reset();
  device_.start();

  EXPECT_EQ(device_.getValue("State.System.General.FirmwareUpdateParametersRecovery"), "yes");
  EXPECT_EQ(Device::valueInFile("Audio.Volume"), "9");
  EXPECT_FALSE(Device::exists(Device::kVersionChangeBackup));
}

TEST_F(BackupFaults, aThingInABackupsPlaceThatIsNotAFileEndsTheRequestAtOnce) {
  const std::pair<const char*, void (*)()> things[] = {
      {"FIFO", [] { ASSERT_EQ(mkfifo(Device::kUserBackup, 0600), 0); }},
      {"folder", [] { std::filesystem::create_directory(Device::kUserBackup); }},
      {"device", [] { ASSERT_EQ(mknod(Device::kUserBackup, S_IFCHR | 0600, makedev(1, 5)), 0); }},
      {"link to a device", [] { std::filesystem::create_symlink("/dev/zero", Device::kUserBackup); }},
  };
  for (const auto& [name, make] : things) {
    SCOPED_TRACE(name);
    make();
    for (const char* method : {"makeBackup", "restore"}) {
      const auto begin = Clock::now();

      EXPECT_EQ(statusOf(method), "DBError") << method;

      EXPECT_LT(Clock::now() - begin, kAtOnce) << method;
    }
    std::filesystem::remove(Device::kUserBackup);
  }
}

TEST_F(BackupFaults, aFifoInTheVersionChangesPlaceDoesNotHoldUpTheStart) {
  device_.stop();
  ASSERT_EQ(mkfifo(Device::kVersionChangeBackup, 0600), 0);
  const auto begin = Clock::now();

  device_.start();

  EXPECT_LT(Clock::now() - begin, kAtOnce);
  EXPECT_EQ(device_.getValue("State.System.General.FirmwareUpdateParametersRecovery"), "no");
}

TEST_F(BackupFaults, aValueLikeAVersionLineCostsNothingAtAVersionChange) {
  device_.set("Audio.Ringtone", "DatabaseVersion: none");
  device_.set("NET.General.Hostname", "lobby");
  device_.set("NET.General.DeviceNameInNetwork", "Front");
  ASSERT_EQ(statusOf("prepareVersionChange"), "Ok");
  device_.stop();
  std::filesystem::remove(Device::kDatabase);

  device_.start();

  EXPECT_EQ(device_.getValue("Audio.Ringtone"), "DatabaseVersion: none");
  EXPECT_EQ(device_.getValue("NET.General.Hostname"), "lobby");
  EXPECT_EQ(device_.getValue("NET.General.DeviceNameInNetwork"), "Front");
  EXPECT_EQ(device_.getValue("State.System.General.FirmwareUpdateParametersRecovery"), "yes");
}

TEST_F(BackupFaults, anExportNamesTheKeyOfAValueThatCannotBeReadBack) {
  device_.set("Audio.Ringtone", "two\nlines");

  EXPECT_EQ(statusOf("prepareVersionChange"), "Ok");

  ASSERT_EQ(device_.logLines("cannot be read back").size(), 1U);
  EXPECT_NE(device_.logLines("cannot be read back")[0].find("Audio.Ringtone"), std::string::npos);
}

}  // namespace
}  // namespace propertyservice::test
