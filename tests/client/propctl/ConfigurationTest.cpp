#include <gmock/gmock.h>

#include "client/propctl/Configuration.h"
#include "client/propctl/ExitStatus.h"
#include "support/TemporaryDirectory.h"

namespace propctl {
namespace {

using propertyservice::test::TemporaryDirectory;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::ThrowsMessage;

using Pairs = std::vector<std::pair<std::string, std::string>>;

std::vector<Setting> settings(const Pairs& pairs) {
  std::vector<Setting> settings;
  for (const auto& [name, value] : pairs) {
    settings.push_back({name, value, ""});
  }
  return settings;
}

Pairs pairs(const std::vector<Setting>& settings) {
  Pairs pairs;
  for (const Setting& setting : settings) {
    pairs.emplace_back(setting.name, setting.value);
  }
  return pairs;
}

class ConfigurationFile : public testing::Test {
 protected:
  const TemporaryDirectory directory_;
};

TEST_F(ConfigurationFile, hasALineForEachOption) {
  const std::string path =
      directory_.write("propctl.conf", "# the lab\n\nhost = lab.example \n  user=a=b\r\ntimeout\t= 2.5");

  const std::vector<Setting> settings = readConfiguration(path);

  EXPECT_THAT(pairs(settings),
              ElementsAre(Pair("host", "lab.example"), Pair("user", "a=b"), Pair("timeout", "2.5")));
  EXPECT_EQ(settings[0].source, path + ":3");
}

TEST_F(ConfigurationFile, namesFilesFromItsOwnFolder) {
  const std::string path = directory_.write("propctl.conf", "key = mine.key\ncert = /etc/mine.crt\n");

  EXPECT_THAT(pairs(readConfiguration(path)),
              ElementsAre(Pair("key", directory_.path("mine.key")), Pair("cert", "/etc/mine.crt")));
}

TEST_F(ConfigurationFile, isNotNeeded) {
  EXPECT_THAT(readConfiguration(directory_.path("nowhere/propctl.conf")), IsEmpty());
}

TEST_F(ConfigurationFile, isRefusedWithTheLineThatIsWrong) {
  const std::pair<const char*, const char*> kWrong[] = {
      {"host lab\n", "write NAME = VALUE"},
      {"hots = lab\n", "not an option about the connection: hots"},
      {"json = 1\n", "not an option about the connection: json"},
      {"--host = lab\n", "not an option about the connection: --host"},
      {"host =\n", "host has no value"},
      {"host = a\nhost = b\n", "host is given twice"},
  };
  for (const auto& [text, complaint] : kWrong) {
    const std::string path = directory_.write("propctl.conf", text);

    EXPECT_THAT([&] { readConfiguration(path); },
                ThrowsMessage<Failure>(AllOf(HasSubstr(path + ":"), HasSubstr(complaint))))
        << text;
  }
}

struct Case {
  const char* name;
  Pairs given;
  Pairs user;
  Pairs system;
  Pairs added;
};

class Configuration : public testing::TestWithParam<Case> {};

TEST_P(Configuration, addsToTheOptionsGiven) {
  const Case& test = GetParam();

  EXPECT_THAT(pairs(addConfiguration(settings(test.given), {settings(test.user), settings(test.system)})),
              testing::UnorderedElementsAreArray(test.added));
}

const Pairs kSystem = {{"user", "propctl"}, {"password-file", "/etc/ipc/propctl.credentials"}};

INSTANTIATE_TEST_SUITE_P(
    Precedence, Configuration,
    testing::Values(
        Case{"theSystemsFileAlone", {}, {}, kSystem, kSystem},
        Case{"theUsersFileBeforeTheSystems", {}, {{"timeout", "1"}}, {{"timeout", "2"}}, {{"timeout", "1"}}},
        Case{"anOptionBeforeTheUsersFile", {{"timeout", "3"}}, {{"timeout", "1"}}, {}, {}},
        Case{"theUsersFileAndTheSystems",
             {},
             {{"timeout", "1"}},
             kSystem,
             {{"timeout", "1"}, kSystem[0], kSystem[1]}},
        Case{"noPasswordOfAnotherUser", {{"user", "panel"}}, {}, kSystem, {}},
        Case{"noUserOfAnotherPassword", {{"password-file", "mine"}}, {}, kSystem, {}},
        Case{"noNameOfAnotherUser", {{"user", "panel"}}, {{"name", "desk"}, {"user", "desk"}}, {}, {}},
        Case{"noPasswordOfAnotherUserInAFile", {}, {{"user", "panel"}}, kSystem, {{"user", "panel"}}},
        Case{"noPasswordForAnotherHost", {{"host", "elsewhere"}}, {}, kSystem, {}},
        Case{"noPasswordForAnotherPort", {{"port", "1884"}}, {}, kSystem, {}},
        Case{"theSameHostByName", {{"host", "localhost"}, {"port", "1883"}}, {}, kSystem, kSystem},
        Case{"patienceForAnotherHost",
             {{"host", "elsewhere"}},
             {{"timeout", "1"}, {"jobs", "2"}, {"device", "D"}},
             kSystem,
             {{"timeout", "1"}, {"jobs", "2"}}},
        Case{"noPasswordForTheUsersHost", {}, {{"host", "elsewhere"}}, kSystem, {{"host", "elsewhere"}}},
        Case{"aCentreInTheUsersFile",
             {{"port", "8883"}},
             {{"host", "centre"}, {"cafile", "/ca"}, {"cert", "/crt"}},
             kSystem,
             {{"host", "centre"}, {"cafile", "/ca"}, {"cert", "/crt"}}}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace propctl
