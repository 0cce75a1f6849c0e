#include <gmock/gmock.h>

#include "client/propctl/Propctl.h"

namespace propertyservice::test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Misuse {
  const char* arguments;
  const char* text;

  friend void PrintTo(const Misuse& misuse, std::ostream* stream) {
    *stream << "propctl " << misuse.arguments;
  }
};

class PropctlMisused : public ::testing::TestWithParam<Misuse> {};

TEST_P(PropctlMisused, endsWithTwoAndOneLineThatSaysWhy) {
  const Outcome outcome = propctl(GetParam().arguments);

  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(outcome.errors, StartsWith(std::string("propctl: ") + GetParam().text));
  EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 1) << outcome.errors;
}

INSTANTIATE_TEST_SUITE_P(
    EachWay, PropctlMisused,
    ::testing::Values(
        Misuse{"", "A command is required"},
        Misuse{"frobnicate", "no such command: frobnicate; see propctl --help"},
        Misuse{"--frobnicate", "The following argument was not expected: --frobnicate; see propctl --help"},
        Misuse{"get", "NAME is required"},
        Misuse{"get --colour x", "The following argument was not expected"},
        Misuse{"get --by tr069 x", "--by: tr069 not in {key,web,provisioning}"},
        Misuse{"get --by", "--by: 1 required"}, Misuse{"set", "ASSIGNMENT is required"},
        Misuse{"set =5", "KEY=VALUE expected"}, Misuse{"set Audio.Volume", "KEY=VALUE expected"},
        Misuse{"set Audio.Ringtone -x",
               "The following argument was not expected: -x; in front of a value that begins with - put --"},
        Misuse{"reset", "KEY is required"}, Misuse{"describe", "NAME is required"},
        Misuse{"describe A.%", "describe takes one name, not a pattern"},
        Misuse{"list --columns colour", "no such column"}, Misuse{"load", "FILE is required"},
        Misuse{"prepare", "A subcommand is required"}, Misuse{"prepare lunch", "A subcommand is required"},
        Misuse{"check", "FILE is required"}, Misuse{"ping --count 0", "--count: Value 0 not in range"},
        Misuse{"ping --count many", "--count: Value many not in range"},
        Misuse{"watch --count -1", "--count: Value -1 not in range"},
        Misuse{"--port 0 ping", "--port: Value 0 not in range"},
        Misuse{"--port 65536 ping", "--port: Value 65536 not in range"},
        Misuse{"--timeout 0 ping", "--timeout: Value 0 not in range"},
        Misuse{"--timeout soon ping", "--timeout: Value soon not in range"},
        Misuse{"--name a/b ping", "no name for a sender"},
        Misuse{"--cert x ping", "--cert and --key go with --cafile"},
        Misuse{"--device a/b ping", "no serial number"},
        Misuse{"--device , ping", "--device: no serial number"},
        Misuse{"--device A,B watch", "this command takes one device at a time"},
        Misuse{"--device A,B complete-keys", "this command takes one device at a time"},
        Misuse{"ping ping", "The following argument was not expected"},
        Misuse{"$'get\\n' x", "no such command: get\\n"},
        Misuse{"--name $'a\\n/b' ping", "no name for a sender: \"a\\n/b\""},
        Misuse{"--device $'a\\n/b' ping", "no serial number: \"a\\n/b\""},
        Misuse{"--password-file $'no\\nwhere' ping", "no\\nwhere: No such file or directory"},
        Misuse{"--device HQ-* ping", "the list of devices takes --name"},
        Misuse{"--device @/dev/null ping", "--device: no serial number in @/dev/null"}));

class Propctl : public ::testing::Test {};

TEST_F(Propctl, escapesArgumentsInErrors) {
  struct Case {
    std::string arguments, error;
  };
  const std::vector<Case> cases = {
      {"load $'no\\nwhere'", "no\\nwhere: No such file or directory"},
      {"--timeout 1 --host $'no\\nwhere' ping", "no connection to the broker at no\\nwhere:1883: "},
      {"--port 1 --device $'A\\nB,C' --jobs 1 ping", "A\\nB: no serial number: \"A\\nB\"\npropctl: C: "},
      {"--device $'@no\\nwhere' ping", "no\\nwhere: No such file or directory"},
  };
  for (const auto& [arguments, error] : cases) {
    EXPECT_THAT(propctl(arguments).errors, StartsWith("propctl: " + error)) << arguments;
  }
}

TEST_F(Propctl, alignsTheColumnsOfItsHelp) {
  EXPECT_THAT(propctl("list --help").output,
              HasSubstr("  --columns COLUMN,...        Columns, separated by commas\n"
                        "  --changed                   Only what differs"));
}

TEST_F(Propctl, takesOptionsBeforeAndBehindTheCommand) {
  const std::string refused =
      "propctl: no connection to the broker at localhost:1: Connection refused; --host and --port say where "
      "it is\n";

  EXPECT_EQ(propctl("--port 1 ping"), failed(3, refused));
  EXPECT_EQ(propctl("ping --port 1"), failed(3, refused));
}

TEST_F(Propctl, takesAnOptionInBracketsAsItIs) {
  EXPECT_THAT(propctl("ping --host '[::1]'").errors,
              StartsWith("propctl: no connection to the broker at [::1]:1883: "));
}

TEST_F(Propctl, prefersAnOptionToTheEnvironment) {
  EXPECT_EQ(shell("PROPCTL_PORT=2 propctl ping --port 1").errors,
            "propctl: no connection to the broker at localhost:1: Connection refused; --host and --port say "
            "where it is\n");
}

TEST_F(Propctl, refusesANonsensicalEnvironment) {
  EXPECT_EQ(shell("PROPCTL_PORT=many propctl ping").status, 2);
}

TEST_F(Propctl, printsItsVersion) {
  EXPECT_EQ(propctl("--version"), printed("propctl " PROPERTYSERVICE_VERSION "\n"));
}

TEST_F(Propctl, printsHelp) {
  const Outcome outcome = propctl("--help");

  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output, HasSubstr("PROPCTL_HOST"));
  EXPECT_THAT(outcome.output,
              HasSubstr("Exit status: 0 done, 1 refused or not found, 2 wrong usage, 3 no answer"));
  EXPECT_EQ(outcome.errors, "");
}

TEST_F(Propctl, hidesTheCommandOfTheCompletion) {
  EXPECT_EQ(propctl("--help").output.find("complete-keys"), std::string::npos);
}

}  // namespace
}  // namespace propertyservice::test
