#include <chrono>

#include "support/Device.h"

// The daemon on a disk that takes 30 ms for each synchronisation.

namespace propertyservice::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

class SlowDisk : public testing::Test {
 protected:
  SlowDisk() {
    device_.start();  // makes the database
    device_.stop();
    device_.slowDisk(30);
    device_.start();
  }

  /// Writes one key so often, and waits for the replies.
  void write(int times) {
    for (int i = 1; i <= times; ++i) {
      device_.panel().sendRequest(makeRequest("setV", "Audio.Ringtone", "r" + std::to_string(i)));
    }
    const auto replies = static_cast<std::size_t>(times);
    ASSERT_TRUE(
        device_.panel().waitForMessages(device_.panel().replyTopic(), replies, std::chrono::seconds(60)));
    device_.panel().forget();
  }

  Device device_;
};

TEST_F(SlowDisk, aBackupAfter20000WritesOfAKeyIsAnsweredWithin1500Milliseconds) {
  write(20'000);
  const auto begin = Clock::now();

  EXPECT_EQ(device_.panel().requestText(R"({"method":"makeBackup","allSettings":true})"),
            "{\"status\":\"Ok\"}\n");

  EXPECT_LT(Clock::now() - begin, milliseconds(1500));
  EXPECT_NE(Device::readFile(Device::kUserBackup).find("Audio.Ringtone;r20000\n"), std::string::npos);
}

TEST_F(SlowDisk, theDaemonEndsWithin2SecondsAfter10000WritesOfAKeyAndKeepsTheLast) {
  write(10'000);
  const auto begin = Clock::now();

  EXPECT_EQ(device_.stop(), 0);

  EXPECT_LT(Clock::now() - begin, milliseconds(2000));
  EXPECT_EQ(Device::valueInFile("Audio.Ringtone"), "r10000");
}

/// The paths, each on a line, in the order in which the daemon has synchronised them.
std::string synchronised() {
  return Device::readFile(Device::kSynchronised);
}

TEST_F(SlowDisk, anExportIsSynchronisedWithItsFolderBeforeItsAnswer) {
  for (const char* method : {"makeBackup", "prepareVersionChange", "prepareFactoryReset", "makeSysdump"}) {
    SCOPED_TRACE(method);
    Device::writeFile(Device::kSynchronised, "");

    EXPECT_EQ(device_.request(method)["status"], "Ok");

    const std::string paths = synchronised();
    EXPECT_THAT(paths, testing::MatchesRegex("/config/[a-z_]+\\.csv\n/config\n/config\n"));
  }
}

TEST_F(SlowDisk, aRestoredFileGoesAfterItsValuesAreSynchronisedWithTheJournalsRemoval) {
  Device::writeFile(Device::kUserBackup, "Audio.Volume;7\nDatabaseVersion:5\n");
  Device::writeFile(Device::kSynchronised, "");

  EXPECT_EQ(device_.request("restore")["status"], "Ok");

  // The journal is removed after the database; the last of the three is the folder's again.
  EXPECT_THAT(synchronised(), testing::EndsWith("/usr/sbin/nvm\n/usr/sbin\n/config\n"));
}

}  // namespace
}  // namespace propertyservice::test
