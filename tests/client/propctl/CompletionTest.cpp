#include <gmock/gmock.h>

#include "client/propctl/Propctl.h"
#include "support/Device.h"

namespace propertyservice::test {
namespace {

class PropctlCompletion : public ::testing::Test {
 protected:
  /// What bash offers for the last of the words.
  static std::string complete(const std::string& words) {
    return shell(
               "complete() { :; }; compopt() { :; }\n"
               "source " SOURCE_DIRECTORY
               "/src/client/propctl/completions/propctl.bash\n"
               "COMP_WORDS=(" +
               words +
               ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_propctl\nprintf '%s\\n' \"${COMPREPLY[@]}\" | "
               "sort")
        .output;
  }
};

TEST_F(PropctlCompletion, offersCommands) {
  EXPECT_EQ(complete("propctl re"), "reset\nrestore\n");
}

TEST_F(PropctlCompletion, offersOptionsOfTheCommand) {
  EXPECT_EQ(complete("propctl load --d"), "--device\n--dry-run\n");
}

TEST_F(PropctlCompletion, offersTheKeysOfTheDevice) {
  Device device;
  device.start();

  EXPECT_EQ(complete("propctl get Audio.R"), "Audio.Ringtone\n");
  EXPECT_EQ(complete("propctl --timeout 3 set Audio.R"), "Audio.Ringtone=\n");
  EXPECT_EQ(complete("propctl watch A"), "Audio\n");
}

TEST_F(PropctlCompletion, offersNoKeysAndSaysNothingWithoutADaemon) {
  EXPECT_EQ(complete("propctl get Audio.R"), "\n");
  EXPECT_EQ(shell("propctl complete-keys A 2>/dev/null").output, "");
}

}  // namespace
}  // namespace propertyservice::test
