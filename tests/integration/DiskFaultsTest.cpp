#include <filesystem>
#include <fstream>
#include <random>
#include <sys/mount.h>
#include <thread>
#include <unistd.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include "support/Device.h"
#include "support/SmallDisk.h"

// The daemon on disks that fill up, lock, vanish, and on machines that lose their power.

namespace propertyservice::test {
namespace {

constexpr const char* kDiskRoot = "/usr/sbin";
constexpr const char* kFailing = "Database cannot be written";
constexpr const char* kRecovered = "Database can be written again";

void expectOneFailureAndOneRecovery(const Device& device) {
  EXPECT_TRUE(device.waitForLog(kRecovered));
  EXPECT_EQ(device.logLines(kFailing).size(), 1U);
  EXPECT_EQ(device.logLines(kRecovered).size(), 1U);
}

TEST(DiskFaults, aFullDiskLosesNoAcceptedWrite) {
  Device device;
  SmallDisk disk(kDiskRoot);
  device.start();
  disk.fill();

  for (int i = 0; i <= 20; ++i) {
    EXPECT_EQ(device.set("Audio.Ringtone", "gong" + std::to_string(i))["status"], "Ok");
  }
  EXPECT_EQ(device.set("Audio.Volume", "9")["status"], "Ok");
  ASSERT_TRUE(device.waitForLog(kFailing));
  EXPECT_EQ(device.getValue("Audio.Ringtone"), "gong20");
  disk.free();

  EXPECT_TRUE(Device::waitForValueInFile("Audio.Ringtone", "gong20"));
  EXPECT_TRUE(Device::waitForValueInFile("Audio.Volume", "9"));
  expectOneFailureAndOneRecovery(device);
  device.stop();
}

TEST(DiskFaults, aFullDiskDoesNotKeepTheDaemonFromEnding) {
  Device device;
  SmallDisk disk(kDiskRoot);
  device.start();
  disk.fill();
  device.set("Audio.Volume", "9");
  ASSERT_TRUE(device.waitForLog(kFailing));

  EXPECT_EQ(device.stop(), 0);

  EXPECT_EQ(device.logLines("Lost, because the database could not be written: 1").size(), 1U);
}

TEST(DiskFaults, aLockHeldByAnotherProcessLosesNoAcceptedWrite) {
  Device device;
  device.start();
  SQLite::Database other(Device::kDatabase, SQLite::OPEN_READWRITE);
  other.exec("BEGIN EXCLUSIVE");

  EXPECT_EQ(device.set("Audio.Volume", "9")["status"], "Ok");
  ASSERT_TRUE(device.waitForLog(kFailing));
  EXPECT_EQ(device.getValue("Audio.Volume"), "9");
  other.exec("COMMIT");

  EXPECT_TRUE(Device::waitForValueInFile("Audio.Volume", "9"));
  expectOneFailureAndOneRecovery(device);
}

TEST(DiskFaults, aDiskThatIsReadOnlyForATimeLosesNoAcceptedWrite) {
  Device device;
  SmallDisk disk(kDiskRoot);
  device.start();
  device.stop();
  ASSERT_TRUE(disk.makeReadOnly());
  device.start();

  EXPECT_EQ(device.set("Audio.Volume", "9")["status"], "Ok");
  ASSERT_TRUE(device.waitForLog(kFailing));
  EXPECT_EQ(device.getValue("Audio.Volume"), "9");
  ASSERT_TRUE(disk.makeWritable());

  EXPECT_TRUE(Device::waitForValueInFile("Audio.Volume", "9"));
  expectOneFailureAndOneRecovery(device);
  device.stop();
}

TEST(DiskFaults, aStartThatChangesNothingNeedsNoDiskToWriteTo) {
  Device device;
  Device::writeFile(
      "/etc/nvm.conf.d/Update.Common.json",
      "{\"key\":\"Audio.Ringtone\",\"value\":\"common\",\"flags\":7}\n"
      "{\"key\":\"Audio.Volume\",\"value\":\"1\"}\n{\"key\":\"Audio.Volume\",\"value\":\"2\"}\n");
  Device::writeFile("/etc/nvm.conf.d/Update. 5.json", R"({"key":"Audio.Ringtone","value":"model"})");
  SmallDisk disk(kDiskRoot);
  device.start();
  device.stop();
  const auto expectToStart = [&device] {
    device.start();
    EXPECT_EQ(device.getValue("Audio.Ringtone"), "model");
    EXPECT_EQ(device.getValue("Audio.Volume"), "2");
    EXPECT_TRUE(device.logLines(" error ").empty()) << device.log();
    device.stop();
  };

  disk.fill();
  expectToStart();
  disk.free();
  ASSERT_TRUE(disk.makeReadOnly());
  expectToStart();
  EXPECT_EQ(device.runToEnd({"--force-db-init"}), 1);
  EXPECT_EQ(device.logLines("Cannot make /usr/sbin/nvm.unfinished: Read-only file system").size(), 1U);
}

TEST(DiskFaults, aFirstStartOnAFullDiskIsMadeGoodByTheNext) {
  Device device;
  SmallDisk disk(kDiskRoot);
  disk.fill();
  EXPECT_EQ(device.runToEnd({}), 1);
  EXPECT_EQ(device.logLines("database or disk is full").size(), 1U) << device.log();

  disk.free();
  device.start();

  EXPECT_EQ(device.getValue("Audio.Codec"), "opus");
  device.stop();
}

TEST(DiskFaults, hugeStateFillsNoDisk) {
  Device device;
  SmallDisk disk("/var/volatile", "24m");
  device.start();

  for (int i = 0; i < 36; ++i) {
    const std::string key = "State.Huge" + std::to_string(i);
    EXPECT_EQ(device.set(key, std::string(600'000, 'x'))["status"], "ValueError");
    EXPECT_EQ(device.set(key, std::string(60'000, 'x'))["status"], "Ok");
  }
  EXPECT_EQ(device.set("State.Call.Active", "yes")["status"], "Ok");
  EXPECT_EQ(device.panel().request(makeRequest("resetVal", "State.Huge0"))["status"], "Ok");
  device.restart();
  EXPECT_EQ(device.getValue("State.Call.Active"), "yes");
  device.stop();
}

TEST(DiskFaults, stateThatHasNoRoomToBeOpenedIsMadeAnew) {
  Device device;
  SmallDisk disk("/var/volatile", "24m");
  device.start();
  for (int i = 0; i < 60; ++i) {
    device.set("State.Large" + std::to_string(i), std::string(60'000, static_cast<char>('a' + i % 26)));
  }
  device.stop();
  {
    std::ofstream filler("/var/volatile/filler", std::ios::binary);
    while (filler.write(std::string(4096, 'x').data(), 4096).flush()) {
    }
  }

  device.start();

  EXPECT_EQ(device.logLines("Volatile database is removed and made anew: ").size(), 1U);
  EXPECT_EQ(device.set("State.Call.Active", "yes")["status"], "Ok");
  std::filesystem::remove("/var/volatile/filler");
  device.restart();
  EXPECT_EQ(device.getValue("State.Call.Active"), "yes");
  device.stop();
}

TEST(DiskFaults, aRemovedDatabaseFileIsWrittenAnewWithEverythingInIt) {
  Device device;
  device.start();
  device.set("Audio.Volume", "9");
  ASSERT_TRUE(Device::waitForValueInFile("Audio.Volume", "9"));
  const auto before = Device::valuesInFile();

  std::filesystem::remove(Device::kDatabase);
  EXPECT_EQ(device.set("Audio.Ringtone", "gong")["status"], "Ok");

  ASSERT_TRUE(eventually([] { return Device::exists(Device::kDatabase); }));
  ASSERT_TRUE(Device::waitForValueInFile("Audio.Ringtone", "gong"));
  auto after = Device::valuesInFile();
  after["Audio.Ringtone"] = before.at("Audio.Ringtone");
  EXPECT_EQ(after, before);
}

TEST(DiskFaults, aFullVolatileDiskIsReportedAndPasses) {
  Device device;
  std::filesystem::create_directories(Device::kStateStore);
  ASSERT_EQ(mount("disk", Device::kStateStore, "tmpfs", 0, "size=512k"), 0);
  device.start();
  const std::string filler = std::string(Device::kStateStore) + "/filler";
  EXPECT_EQ(device.set("State.Before", "x")["status"], "Ok");
  {
    std::ofstream file(filler, std::ios::binary);
    while (file.write(std::string(4096, 'x').data(), 4096).flush()) {
    }
  }

  // Fails at the latest when the page that LevelDB's log has left is used up.
  for (int i = 0; i < 10; ++i) {
    device.panel().sendRequest(
        makeRequest("setV", "State.Large" + std::to_string(i), std::string(60'000, 'x')));
  }
  ASSERT_TRUE(device.waitForLog("Value is not inserted: ("));
  EXPECT_EQ(device.getValue("Audio.Codec"), "opus");
  std::filesystem::remove(filler);

  EXPECT_EQ(device.set("State.After", "y")["status"], "Ok");
  device.restart();
  EXPECT_EQ(device.getValue("State.Before"), "x");
  EXPECT_EQ(device.getValue("State.After"), "y");
  device.stop();
  umount2(Device::kStateStore, MNT_DETACH);
}

constexpr int kCrashes = 200;
constexpr int kKeys = 40;

std::string crashKey(int number) {
  return "Crash.Key" + std::to_string(number % kKeys);
}

std::vector<Row> crashRows() {
  std::vector<Row> rows = Device::defaultRows();
  for (int i = 0; i < kKeys; ++i) {
    rows.push_back({.key = crashKey(i), .value = "0", .defaultValue = "0"});
  }
  return rows;
}

/// Every value is a number that grows with each write, so that a torn, foreign or older one shows.
TEST(DiskFaults, killedAtAnyMomentTheFileIsWholeAndNeverGoesBack) {
  Device device(crashRows());
  std::mt19937 random(20240607);
  std::map<std::string, int> onDisk;
  int written = 0;

  for (int crash = 0; crash < kCrashes; ++crash) {
    device.start();
    BusClient client("crash" + std::to_string(crash));
    std::map<std::string, int> sent;
    for (int i = 0; i < 150; ++i) {
      ++written;
      sent[crashKey(written)] = written;
      client.sendRequest(makeRequest("setV", crashKey(written), std::to_string(written)));
    }
    client.waitForMessages(client.replyTopic(), random() % 150);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
    device.daemon().kill();

    SQLite::Database file(Device::kDatabase, SQLite::OPEN_READWRITE);
    ASSERT_EQ(file.execAndGet("PRAGMA integrity_check").getString(), "ok") << "crash " << crash;
    for (const auto& [key, text] : Device::valuesInFile()) {
      if (!key.starts_with("Crash.")) {
        continue;
      }
      const int value = std::stoi(text);
      EXPECT_EQ(std::to_string(value), text);
      EXPECT_GE(value, onDisk[key]) << key << " went back in crash " << crash;
      EXPECT_LE(value, written);
      EXPECT_TRUE(value == 0 || crashKey(value) == key) << key << " holds " << value;
      onDisk[key] = value;
    }
  }
}

}  // namespace
}  // namespace propertyservice::test
