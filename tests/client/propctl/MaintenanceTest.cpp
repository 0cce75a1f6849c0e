#include <gmock/gmock.h>

#include "client/propctl/Propctl.h"
#include "support/Device.h"

namespace propertyservice::test {
namespace {

class PropctlMaintenance : public ::testing::Test {
 protected:
  PropctlMaintenance() { device_.start(); }

  Device device_;
};

TEST_F(PropctlMaintenance, savesAndRestoresTheUsersSettings) {
  device_.set("Audio.Volume", "9");
  EXPECT_EQ(propctl("backup"), (Outcome{0, "", "saved to /config/user_backup.csv on the device\n"}));
  device_.set("Audio.Volume", "1");

  EXPECT_EQ(propctl("restore"), (Outcome{0, "", "restored from /config/user_backup.csv on the device\n"}));

  EXPECT_EQ(device_.getValue("Audio.Volume"), "9");
}

TEST_F(PropctlMaintenance, savesAllSettings) {
  propctl("backup");
  EXPECT_THAT(Device::readFile(Device::kUserBackup), ::testing::Not(::testing::HasSubstr("Audio.Ringtone")));

  EXPECT_EQ(propctl("--quiet backup --all"), printed(""));

  EXPECT_THAT(Device::readFile(Device::kUserBackup), ::testing::HasSubstr("Audio.Ringtone"));
}

TEST_F(PropctlMaintenance, saysThatThereIsNothingToRestore) {
  EXPECT_EQ(propctl("restore"), failed(1,
                                       "propctl: restore: DBError: there is no /config/user_backup.csv on "
                                       "the device, it cannot be read, or "
                                       "the database cannot be written: the daemon's log says which\n"));
}

TEST_F(PropctlMaintenance, writesASystemDump) {
  EXPECT_EQ(propctl("sysdump").status, 0);

  EXPECT_TRUE(Device::exists(Device::kSysdump));
}

TEST_F(PropctlMaintenance, preparesAVersionChange) {
  EXPECT_EQ(propctl("prepare version-change").status, 0);

  EXPECT_TRUE(Device::exists(Device::kVersionChangeBackup));
}

TEST_F(PropctlMaintenance, preparesAFactoryReset) {
  EXPECT_EQ(propctl("prepare factory-reset").status, 0);

  EXPECT_TRUE(Device::exists(Device::kFactoryResetBackup));
}

TEST_F(PropctlMaintenance, printsTheStatusAsJson) {
  EXPECT_EQ(propctl("--json --quiet backup"), printed("{\"status\":\"Ok\"}\n"));
}

TEST_F(PropctlMaintenance, pings) {
  const Outcome outcome = propctl("ping");

  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output, ::testing::MatchesRegex("answer from localhost:1883 in [0-9]+\\.[0-9]+ ms\n"));
}

TEST_F(PropctlMaintenance, pingsAsJson) {
  EXPECT_THAT(propctl("--json ping --count 2").output,
              ::testing::MatchesRegex("\\{\"microseconds\":\\[[0-9]+,[0-9]+\\]\\}\n"));
}

TEST_F(PropctlMaintenance, pingsSeveralTimes) {
  const Outcome outcome = propctl("ping --count 3");

  EXPECT_EQ(std::count(outcome.output.begin(), outcome.output.end(), '\n'), 3);
  EXPECT_THAT(outcome.errors, ::testing::MatchesRegex("least [0-9.]+, median [0-9.]+, most [0-9.]+ ms\n"));
}

}  // namespace
}  // namespace propertyservice::test
