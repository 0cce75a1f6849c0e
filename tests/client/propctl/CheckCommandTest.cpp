#include <gmock/gmock.h>

#include "client/propctl/Propctl.h"

namespace propertyservice::test {
namespace {

class PropctlCheck : public ::testing::Test {
 protected:
  const TemporaryDirectory directory_;
};

TEST_F(PropctlCheck, findsNothingInTheSampleDevice) {
  EXPECT_EQ(propctl("check " SOURCE_DIRECTORY "/device/etc"), (Outcome{0, "", "5 files, nothing found\n"}));
}

TEST_F(PropctlCheck, printsFileLineAndSeverity) {
  const std::string file = directory_.write(
      "migration_3.json", "{\n  \"rename\": [\n    { \"oldKey\": \"A\", \"newKey\": \"A\" }\n  ]\n}\n");

  const Outcome outcome = propctl("check " + file);

  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.output, ::testing::StartsWith(file + ":3: "));
}

TEST_F(PropctlCheck, printsJson) {
  const std::string file = directory_.write("migration_3.json", "{");

  const Outcome outcome = propctl("--json check " + file);

  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.output, ::testing::HasSubstr("\"severity\":\"error\""));
}

TEST_F(PropctlCheck, endsWithTwoWhenAFileCannotBeRead) {
  EXPECT_EQ(propctl("check /nowhere.sql").status, 2);
}

}  // namespace
}  // namespace propertyservice::test
