#include <filesystem>

#include "support/Device.h"

// Backups, resets and restores, over restarts where they go over one.

namespace propertyservice::test {
namespace {

class Maintenance : public testing::Test {
 protected:
  Maintenance() { device_.start(); }

  Device device_;
};

TEST_F(Maintenance, makeBackupWritesTheUsersSettingsAndTheVersion) {
  device_.set("Audio.Volume", "9");

  EXPECT_EQ(device_.panel().requestText(R"({"method":"makeBackup"})"), "{\"status\":\"Ok\"}\n");

  EXPECT_EQ(Device::readFile(Device::kUserBackup), "Audio.Volume;9\nAudio.Codec;opus\nDatabaseVersion:5\n");
}

TEST_F(Maintenance, makeBackupOfAllSettingsUsesTheWiderMask) {
  device_.panel().requestText(R"({"method":"makeBackup","allSettings":true})");

  const std::string backup = Device::readFile(Device::kUserBackup);
  EXPECT_NE(backup.find("Pointless;a\n"), std::string::npos);
  EXPECT_EQ(backup.find("NET.General.Hostname"), std::string::npos);
}

TEST_F(Maintenance, makeBackupTakesATextForNoFlag) {
  device_.panel().requestText(R"({"method":"makeBackup","allSettings":"true"})");

  EXPECT_EQ(Device::readFile(Device::kUserBackup).find("Pointless"), std::string::npos);
}

TEST_F(Maintenance, makeSysdumpWritesEveryColumn) {
  EXPECT_EQ(device_.panel().requestText(R"({"method":"makeSysdump"})"), "{\"status\":\"Ok\"}\n");

  EXPECT_EQ(Device::readFile(Device::kSysdump),
            "System.General.SoftwareVersion;1.2.3;;;;;;;;5;\nNVM.Version;5;;;;;;;;4;5\nDatabaseVersion:5\n");
}

TEST_F(Maintenance, prepareVersionChangeWritesItsFile) {
  EXPECT_EQ(device_.panel().requestText(R"({"method":"prepareVersionChange"})"), "{\"status\":\"Ok\"}\n");

  EXPECT_NE(Device::readFile(Device::kVersionChangeBackup).find("NET.General.Hostname;desk\n"),
            std::string::npos);
}

TEST_F(Maintenance, prepareFactoryResetWritesItsFile) {
  EXPECT_EQ(device_.panel().requestText(R"({"method":"prepareFactoryReset"})"), "{\"status\":\"Ok\"}\n");

  EXPECT_EQ(Device::readFile(Device::kFactoryResetBackup), "NET.General.Hostname;desk\nDatabaseVersion:5\n");
}

TEST_F(Maintenance, aBackupHoldsEveryWriteThatCameBefore) {
  for (int value = 0; value < 500; ++value) {
    device_.panel().sendRequest(makeRequest("setV", "Audio.Ringtone", "r" + std::to_string(value)));
  }

  device_.panel().send(R"({"method":"makeBackup","allSettings":true})");

  ASSERT_TRUE(device_.panel().waitForMessages(device_.panel().replyTopic(), 501));
  EXPECT_NE(Device::readFile(Device::kUserBackup).find("Audio.Ringtone;r499\n"), std::string::npos);
}

TEST_F(Maintenance, restoreBringsTheBackupBackAndRemovesItsFile) {
  device_.set("Audio.Volume", "9");
  device_.request("makeBackup");
  device_.set("Audio.Volume", "1");

  EXPECT_EQ(device_.panel().requestText(R"({"method":"restore"})"), "{\"status\":\"Ok\"}\n");

  EXPECT_EQ(device_.getValue("Audio.Volume"), "9");
  EXPECT_EQ(Device::valueInFile("Audio.Volume"), "9");
  EXPECT_FALSE(Device::exists(Device::kUserBackup));
}

TEST_F(Maintenance, restoreWithoutABackupFails) {
  EXPECT_EQ(device_.panel().requestText(R"({"method":"restore"})"), "{\"status\":\"DBError\"}\n");

  EXPECT_EQ(device_.logLines("Restore settings failed").size(), 1U);
}

TEST_F(Maintenance, restoredValuesHaveToPassTheirRules) {
  Device::writeFile(Device::kUserBackup, "Audio.Volume;99\nAudio.Codec;g722\nDatabaseVersion:5\n");

  EXPECT_EQ(device_.request("restore")["status"], "Ok");

  EXPECT_EQ(device_.getValue("Audio.Volume"), "5");
  EXPECT_EQ(device_.getValue("Audio.Codec"), "g722");
}

TEST_F(Maintenance, aFactoryResetKeepsWhatWasPrepared) {
  device_.set("NET.General.Hostname", "lobby");
  device_.set("Audio.Volume", "9");
  device_.request("prepareFactoryReset");
  device_.stop();
  std::filesystem::remove(Device::kDatabase);

  device_.start();

  EXPECT_EQ(device_.getValue("NET.General.Hostname"), "lobby");
  EXPECT_EQ(device_.getValue("Audio.Volume"), "5");
  EXPECT_FALSE(Device::exists(Device::kFactoryResetBackup));
}

TEST_F(Maintenance, aVersionChangeRenamesKeysThroughTwoMigrations) {
  device_.set("Audio.Ringtone", "gong");
  device_.request("prepareVersionChange");
  device_.stop();
  std::filesystem::remove(Device::kDatabase);
  std::vector<Row> rows = Device::defaultRows();
  for (Row& row : rows) {
    if (row.key == "Audio.Ringtone") {
      row.key = "Audio.Melody.Ring";
    } else if (row.key == "NVM.Version") {
      row.value = "7";
    }
  }
  device_.writeScript(rows);
  Device::writeFile("/etc/propsrv.d/migration_6.json",
                    R"({"rename":[{"oldKey":"Audio.Ringtone","newKey":"Audio.Melody"}]})");
  Device::writeFile("/etc/propsrv.d/migration_7.json",
                    R"({"rename":[{"oldKey":"Audio.Melody","newKey":"Audio.Melody.Ring"}]})");

  device_.start();

  EXPECT_EQ(device_.getValue("Audio.Melody.Ring"), "gong");
  EXPECT_EQ(device_.getValue("State.System.General.FirmwareUpdateParametersRecovery"), "yes");
}

TEST_F(Maintenance, aFailedVersionChangeIsTriedAgain) {
  device_.stop();
  std::filesystem::create_directory(Device::kVersionChangeBackup);

  device_.start();

  EXPECT_EQ(device_.getValue("State.System.General.FirmwareUpdateParametersRecovery"), "no");
  EXPECT_TRUE(Device::exists(Device::kVersionChangeBackup));
}

TEST(MaintenanceWithAHostileVersion, runsNothingFromIt) {
  std::vector<Row> rows = Device::defaultRows();
  for (Row& row : rows) {
    if (row.key == "NVM.Version") {
      row.value = "5\";touch /config/owned;echo \"$(touch /config/owned)`touch /config/owned`\\n";
    }
  }
  Device device(rows);
  device.start();

  device.request("prepareFactoryReset");

  EXPECT_FALSE(Device::exists("/config/owned"));
  EXPECT_NE(Device::readFile(Device::kFactoryResetBackup).find("DatabaseVersion:5\";touch"),
            std::string::npos);
}

}  // namespace
}  // namespace propertyservice::test
