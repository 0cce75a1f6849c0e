#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sys/stat.h>

#include "support/Device.h"

// The daemon from its command line to its first reply, on its real paths.

namespace propertyservice::test {
namespace {

TEST(StartUp, buildsTheDatabaseFromItsScriptWhenThereIsNone) {
  Device device;

  device.start();

  EXPECT_EQ(device.getValue("Audio.Codec"), "opus");
  EXPECT_EQ(Device::valueInFile("Audio.Codec"), "opus");
}

TEST(StartUp, keepsAnExistingDatabase) {
  Device device;
  device.start();
  device.set("Audio.Volume", "9");

  device.restart();

  EXPECT_EQ(device.getValue("Audio.Volume"), "9");
}

TEST(StartUp, buildsTheDatabaseAnewWhenForced) {
  Device device;
  device.start();
  device.set("Audio.Volume", "9");

  device.restart({"--force-db-init"});

  EXPECT_EQ(device.getValue("Audio.Volume"), "5");
}

TEST(StartUp, keepsVolatilePropertiesOverARestart) {
  Device device;
  device.start();
  device.set("State.Call.Active", "yes");

  device.restart();

  EXPECT_EQ(device.getValue("State.Call.Active"), "yes");
}

TEST(StartUp, dropsVolatilePropertiesWhenAsked) {
  Device device;
  device.start();
  device.set("State.Call.Active", "yes");

  device.restart({"--drop-state"});

  EXPECT_EQ(device.set("State.Call.Other", "x")["status"], "Ok");
  EXPECT_EQ(device.panel().request(makeRequest("getV", "State.Call.Active"))["status"], "NotFound");
}

TEST(StartUp, obeysBothOptionsTogether) {
  Device device;
  device.start();
  device.set("Audio.Volume", "9");
  device.set("State.Call.Active", "yes");

  device.restart({"--force-db-init", "--drop-state"});

  EXPECT_EQ(device.getValue("Audio.Volume"), "5");
  EXPECT_EQ(device.panel().request(makeRequest("getV", "State.Call.Active"))["status"], "NotFound");
}

TEST(StartUp, endsWithOneErrorLineAtAnUnknownOption) {
  Device device;

  EXPECT_EQ(device.runToEnd({"--reset-everything"}), 1);

  EXPECT_EQ(device.logLines("PROP-SRV error").size(), 1U);
  EXPECT_EQ(device.logLines("").size(), 1U);
  EXPECT_NE(device.log().find("reset-everything"), std::string::npos);
  EXPECT_FALSE(Device::exists(Device::kDatabase));
}

TEST(StartUp, keepsASecondDaemonOffTheStores) {
  Device device;
  device.start();
  device.set("Audio.Volume", "9");
  device.set("State.Call.Active", "yes");
  ASSERT_TRUE(Device::waitForValueInFile("Audio.Volume", "9"));
  const std::vector<std::string> ownNamespace = {
      "unshare",
      "--mount",
      "--propagation",
      "unchanged",
      "sh",
      "-c",
      "mount --bind /usr/sbin /usr/sbin && mount --bind /var/volatile /var/volatile && exec \"$0\" \"$@\""};

  for (const auto& wrapper : {std::vector<std::string>(), ownNamespace}) {
    for (const auto& options : std::vector<std::vector<std::string>>{
             {}, {"--drop-state"}, {"--force-db-init"}, {"--drop-state", "--force-db-init"}}) {
      const auto [status, log] = device.runBeside(options, wrapper);

      EXPECT_EQ(status, 1);
      EXPECT_THAT(log, testing::HasSubstr("Another process uses the stores"));
      EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    }
  }

  EXPECT_EQ(device.getValue("State.Call.Active"), "yes");
  device.daemon().kill();
  device.start();
  EXPECT_EQ(device.getValue("State.Call.Active"), "yes");
  EXPECT_EQ(device.getValue("Audio.Volume"), "9");
}

TEST(StartUp, keepsASecondDaemonOffWhileTheFirstMakesItsDatabase) {
  Device device;
  Device::writeFile(Device::kScript, ".shell sleep 2\n" + Device::readFile(Device::kScript));
  device.launch();
  ASSERT_TRUE(eventually([] { return Device::exists(Device::kDatabase); }));

  EXPECT_EQ(device.runBeside({"--drop-state"}).first, 1);

  EXPECT_TRUE(eventually([&] { return device.panel().serviceIsAlive(std::chrono::milliseconds(200)); }));
}

TEST(StartUp, showsAMistakeInTheScript) {
  Device device;
  std::string script = Device::readFile(Device::kScript);
  script.erase(script.find(",'opus'"), 1);
  Device::writeFile(Device::kScript, script);

  device.start();

  EXPECT_EQ(device.logLines(" error ").size(), 1U);
  EXPECT_EQ(
      device.logLines("The shell ended with status 1 on /etc/propsrv.d/nvminit.sql: Parse error near line ")
          .size(),
      1U);
  EXPECT_EQ(device.getValue("Audio.Volume"), "5");
}

TEST(StartUp, makesFilesForItsOwnUserAlone) {
  const mode_t before = umask(0);
  Device device;

  device.start();
  device.set("State.Call.Active", "yes");
  device.request("makeBackup");
  umask(before);

  for (const char* const place : {Device::kDatabase, Device::kStateStore, Device::kUserBackup}) {
    EXPECT_EQ(std::filesystem::status(place).permissions() & std::filesystem::perms(077),
              std::filesystem::perms::none)
        << place;
  }
}

TEST(StartUp, makesADamagedVolatileStoreAnew) {
  Device device;
  device.start();
  device.set("State.Call.Active", "yes");
  device.stop();
  Device::writeFile(std::string(Device::kStateStore) + "/CURRENT", "garbage");

  device.start();

  EXPECT_EQ(device.logLines(" error ").size(), 1U);
  EXPECT_EQ(
      device.logLines("Volatile database is removed and made anew: /var/volatile/stateCache Error: ").size(),
      1U);
  EXPECT_EQ(device.set("State.Call.Active", "no")["status"], "Ok");
  device.restart();
  EXPECT_EQ(device.getValue("State.Call.Active"), "no");
}

TEST(StartUp, looksForNoBrokerAfterAnUnknownOption) {
  Device device;
  device.broker().stop();

  EXPECT_EQ(device.runToEnd({"--reset-everything"}), 1);
}

TEST(StartUp, looksForNoBrokerWithoutADatabase) {
  Device device;
  device.broker().stop();
  std::filesystem::remove(Device::kScript);

  EXPECT_EQ(device.runToEnd({}), 1);
}

TEST(StartUp, showsItsHelpAndStartsNothing) {
  Device device;

  EXPECT_EQ(device.runToEnd({"--help"}), 0);

  EXPECT_NE(device.log().find("Force database initialization"), std::string::npos);
  EXPECT_NE(device.log().find("Drop state content at startup"), std::string::npos);
  EXPECT_FALSE(Device::exists(Device::kDatabase));
}

TEST(StartUp, showsItsVersionAndStartsNothing) {
  Device device;

  EXPECT_EQ(device.runToEnd({"--version"}), 0);

  EXPECT_EQ(device.log(), "PropertyService " PROPERTYSERVICE_VERSION "\n");
  EXPECT_FALSE(Device::exists(Device::kDatabase));
}

TEST(StartUp, endsWhenTheScriptIsMissing) {
  Device device;
  std::filesystem::remove(Device::kScript);

  EXPECT_EQ(device.runToEnd({}), 1);

  EXPECT_EQ(device.logLines("CRITICAL. Database was not initialized. Exitting.").size(), 1U);
}

TEST(StartUp, endsWhenTheTableIsEmpty) {
  Device device(std::vector<Row>{});

  EXPECT_EQ(device.runToEnd({}), 1);

  EXPECT_EQ(device.logLines("CRITICAL. Database was not initialized. Exitting.").size(), 1U);
}

TEST(StartUp, endsWhenTheDatabaseIsNoDatabase) {
  for (const std::string& content : {std::string(4096, 'x'), std::string()}) {
    Device device;
    Device::writeFile(Device::kDatabase, content);

    EXPECT_EQ(device.runToEnd({}), 1);

    EXPECT_EQ(device.logLines("CRITICAL. Database was not initialized. Exitting.").size(), 1U);
    EXPECT_EQ(Device::readFile(Device::kDatabase), content);
  }
}

TEST(StartUp, endsWhenTheVolatileStoreCannotBeOpened) {
  Device device;
  Device::writeFile(Device::kStateStore, "a file where a directory belongs");

  EXPECT_EQ(device.runToEnd({}), 1);

  EXPECT_EQ(
      device.logLines("Volatile database cannot be initialized: /var/volatile/stateCache Error: ").size(),
      1U);
  EXPECT_EQ(device
                .logLines("Database could not be initialized\\n"
                          "CRITICAL. Database was not initialized. Exitting.")
                .size(),
            1U);
}

TEST(StartUp, endsAbnormallyWithoutABroker) {
  Device device;
  device.broker().stop();

  EXPECT_EQ(device.runToEnd({}), -SIGABRT);

  EXPECT_FALSE(device.logLines("PROP-SRV error core/Dispatcher:").empty());
}

TEST(StartUp, fillsInTheDevicesParameters) {
  Device device;
  Device::writeFile("/proc/cmdline", "root=/dev/sda1 sec=1 quiet\n");

  device.start();

  EXPECT_EQ(device.getValue("NET.MAC.Address"), "00:1a:2b:3c:4d:5e");
  EXPECT_EQ(device.getValue("System.General.Variant.Name"), "Halcyon 5 ADV");
  EXPECT_EQ(device.getValue("System.General.ExperimentalFeatures"), "1");
  EXPECT_EQ(device.getValue("System.General.SoftwareVersion"), "1.2.3");
  EXPECT_EQ(device.getValue("System.General.UserAgent"), "Halcyon 5 ADV/3.1.2.3;001A2B3C4D5E");
  EXPECT_EQ(device.getValue("WebUI.PhoneModel"), "1");
  EXPECT_EQ(device.getValue("System.General.Variant.MinorID"), "1");
  EXPECT_EQ(device.getValue("NET.General.DeviceNameInNetwork"), "Halcyon-5-3c4d5e");
}

TEST(StartUp, readsTheModelBehindItsVendor) {
  Device device;
  Device::writeFile("/etc/model", "Entry:Halcyon 5 ADV\n");

  device.start();

  EXPECT_EQ(device.getValue("System.General.Variant.Name"), "Halcyon 5 ADV");
  EXPECT_EQ(device.getValue("WebUI.PhoneModel"), "2");
}

TEST(StartUp, keepsADeviceNameThatTheUserChose) {
  Device device;
  device.start();
  device.set("NET.General.DeviceNameInNetwork", "reception");

  device.restart();

  EXPECT_EQ(device.getValue("NET.General.DeviceNameInNetwork"), "reception");
}

TEST(StartUp, goesOnWithoutAVersionFile) {
  Device device;
  device.start();
  std::filesystem::remove("/etc/version");

  device.restart();

  EXPECT_EQ(device.logLines("Failed to initialize read only parameters.").size(), 1U);
  EXPECT_EQ(device.getValue("System.General.SoftwareVersion"), "1.2.3");
}

TEST(StartUp, appliesTheCommonThenTheModelCustomisation) {
  Device device;
  Device::writeFile(
      "/etc/nvm.conf.d/Update.Common.json",
      "{\"key\":\"Audio.Volume\",\"value\":\"7\"}\n\n{\"key\":\"Audio.Codec\",\"value\":\"g722\"}\n");
  Device::writeFile("/etc/nvm.conf.d/Update. 5.json", "{\"key\":\"Audio.Codec\",\"value\":\"g711\"}\n");

  device.start();

  EXPECT_EQ(device.getValue("Audio.Volume"), "7");
  EXPECT_EQ(device.getValue("Audio.Codec"), "g711");
}

TEST(StartUp, namesTheCustomisationThatEndsIt) {
  Device device;
  Device::writeFile(
      "/etc/nvm.conf.d/Update.Common.json",
      "// ours\r\n "
      "\r\n{\"key\":\"Audio.Volume\",\"value\":\"7\"}\r\n{\"key\":\"Audio.Volune\",\"value\":\"7\"}\n");

  EXPECT_EQ(device.runToEnd({}), 1);

  EXPECT_EQ(
      device.logLines("/etc/nvm.conf.d/Update.Common.json:4: \"Audio.Volune\": Parameter not found").size(),
      1U);
}

TEST(StartUp, goesOnWithoutCustomisationFiles) {
  Device device;

  device.start();

  EXPECT_EQ(device.logLines("Customization files not found: ").size(), 2U);
}

TEST(StartUp, endsAtAModelLineWithoutADV) {
  Device device;
  Device::writeFile("/etc/model", "Halcyon 5\n");

  EXPECT_EQ(device.runToEnd({}), 1);

  EXPECT_EQ(device.logLines("CRITICAL. Database was not initialized. Exitting.").size(), 1U);
}

TEST(StartUp, takesItsLogMaskFromTheDatabase) {
  Device device;
  device.start();
  device.set("System.Debug.LevelMask.PROP-SRV", "0");

  device.restart();
  device.panel().send("no JSON at all");
  device.panel().settle();

  EXPECT_TRUE(device.logLines("Invalid message").empty());
}

TEST(StartUp, keepsItsLogMaskWhenThePropertyIsNoNumber) {
  Device device;
  device.start();
  device.set("System.Debug.LevelMask.PROP-SRV", "abc");

  device.restart();

  EXPECT_EQ(device.logLines("Error setting debug level to: [abc]").size(), 1U);
  EXPECT_EQ(device.getValue("Audio.Codec"), "opus");
}

TEST(StartUp, finishesAPendingVersionChange) {
  Device device;
  Device::writeFile(Device::kVersionChangeBackup, "Audio.Volume;8\nDatabaseVersion:5\n");

  device.start();

  EXPECT_EQ(device.getValue("Audio.Volume"), "8");
  EXPECT_EQ(device.getValue("State.System.General.FirmwareUpdateParametersRecovery"), "yes");
  EXPECT_FALSE(Device::exists(Device::kVersionChangeBackup));
}

TEST(StartUp, finishesAPendingFactoryReset) {
  Device device;
  Device::writeFile(Device::kFactoryResetBackup, "NET.General.Hostname;lobby\nDatabaseVersion:5\n");

  device.start();

  EXPECT_EQ(device.getValue("NET.General.Hostname"), "lobby");
  EXPECT_FALSE(Device::exists(Device::kFactoryResetBackup));
}

TEST(StartUp, prefersTheVersionChangeWhenBothRestoresArePending) {
  Device device;
  Device::writeFile(Device::kVersionChangeBackup, "Audio.Volume;8\nDatabaseVersion:5\n");
  Device::writeFile(Device::kFactoryResetBackup, "Audio.Volume;2\nDatabaseVersion:5\n");

  device.start();

  EXPECT_EQ(device.getValue("Audio.Volume"), "8");
  EXPECT_TRUE(Device::exists(Device::kFactoryResetBackup));
}

TEST(StartUp, looksAtNoPendingRestoreWhenForced) {
  Device device;
  Device::writeFile(Device::kVersionChangeBackup, "Audio.Volume;8\nDatabaseVersion:5\n");
  Device::writeFile(Device::kFactoryResetBackup, "Audio.Volume;2\nDatabaseVersion:5\n");

  device.start({"--force-db-init"});

  EXPECT_EQ(device.getValue("Audio.Volume"), "5");
  EXPECT_TRUE(Device::exists(Device::kVersionChangeBackup));
  EXPECT_TRUE(Device::exists(Device::kFactoryResetBackup));
}

}  // namespace
}  // namespace propertyservice::test
