#include <regex>

#include <gmock/gmock.h>

#include "client/propctl/Propctl.h"
#include "support/Device.h"
#include "wire/Names.h"

namespace propertyservice::test {
namespace {

/// Returns what a terminal shows of a command.
std::string onTerminal(const std::string& command) {
  return shell("script --quiet --return --command '" + command + "' /dev/null").output;
}

class PropctlReads : public ::testing::Test {
 protected:
  PropctlReads() { device_.start(); }

  /// How a command ends whose output nobody reads any more.
  static Outcome intoAClosedPipe(const std::string& command) {
    const TemporaryDirectory directory;
    const std::string pipe = directory.path("pipe");
    return shell("mkfifo " + pipe + "; exec 3<>" + pipe + " 4>" + pipe + " 3>&-; " + command +
                 " >&4; echo $?");
  }

  Device device_;
};

TEST_F(PropctlReads, printsTheValueOfOneKeyAlone) {
  EXPECT_EQ(propctl("get Audio.Volume"), printed("5\n"));
}

TEST_F(PropctlReads, printsNamesAndValuesOfSeveralInTheirOrder) {
  EXPECT_EQ(propctl("get NET.General.Hostname Audio.Volume"),
            printed("NET.General.Hostname=desk\nAudio.Volume=5\n"));
}

TEST_F(PropctlReads, printsWhatMatchesAPatternSorted) {
  EXPECT_EQ(propctl("get Audio.%"), printed("Audio.Codec=opus\nAudio.Ringtone=bell\nAudio.Volume=5\n"));
}

TEST_F(PropctlReads, printsALineForAPatternThatMatchesOne) {
  EXPECT_EQ(propctl("get Audio.V%"), printed("Audio.Volume=5\n"));
}

TEST_F(PropctlReads, readsByWebName) {
  EXPECT_EQ(propctl("get --by web volume ringtone"), printed("volume=5\nringtone=bell\n"));
}

TEST_F(PropctlReads, readsByProvisioningName) {
  EXPECT_EQ(propctl("get --by provisioning P_VOLUME"), printed("5\n"));
}

TEST_F(PropctlReads, namesPropertiesOfAPatternAsTheyWereAskedFor) {
  EXPECT_EQ(propctl("get --by provisioning P_%"), printed("P_HOSTNAME=desk\nP_VOLUME=5\n"));
}

TEST_F(PropctlReads, readsState) {
  device_.set("State.Call", "ringing");

  EXPECT_EQ(propctl("get State.Call"), printed("ringing\n"));
}

TEST_F(PropctlReads, printsTheOthersWhenOneIsNotFound) {
  EXPECT_EQ(
      propctl("get Nowhere Audio.Volume"),
      (Outcome{1, "Audio.Volume=5\n", "propctl: Nowhere: no such property; \"propctl list\" shows all\n"}));
}

TEST_F(PropctlReads, saysThatNothingMatches) {
  EXPECT_EQ(propctl("get Nowhere.%"), failed(1, "propctl: Nowhere.%: nothing matches\n"));
}

TEST_F(PropctlReads, saysThatPatternsDoNotFindState) {
  EXPECT_EQ(propctl("get State.%"),
            failed(1, "propctl: State.%: keys of run-time state are not found by patterns\n"));
}

TEST_F(PropctlReads, keepsLinesWholeWhereAValueHasALineBreak) {
  device_.set("State.Note", "one\ntwo\\");
  device_.set("State.Other", "x");

  EXPECT_EQ(propctl("get State.Note State.Other"), printed("State.Note=one\\ntwo\\\\\nState.Other=x\n"));
}

TEST_F(PropctlReads, printsAValueAloneAsItIs) {
  device_.set("State.Note", "one\ntwo\\");

  EXPECT_EQ(propctl("get State.Note"), printed("one\ntwo\\\n"));
}

TEST_F(PropctlReads, printsNoControlCharacterToATerminal) {
  device_.set("State.Note", "\033[2J");

  EXPECT_EQ(onTerminal(PROPCTL " get State.Note"), "\\x1b[2J\r\n");
}

TEST_F(PropctlReads, printsValuesAsJson) {
  EXPECT_EQ(propctl("--json get Audio.Codec Audio.Volume"),
            printed("{\"Audio.Codec\":\"opus\",\"Audio.Volume\":\"5\"}\n"));
}

TEST_F(PropctlReads, listsKeyValueDefaultAndFlags) {
  EXPECT_EQ(
      propctl("list Audio.%"),
      printed(
          "Audio.Codec\topus\topus\tuser\nAudio.Ringtone\tbell\tbell\tsetting\nAudio.Volume\t5\t4\tuser\n"));
}

TEST_F(PropctlReads, listsChosenColumnsInTheirOrder) {
  EXPECT_EQ(propctl("list --columns range_max,key Audio.V%"), printed("10\tAudio.Volume\n"));
}

TEST_F(PropctlReads, takesAPatternInBracketsAsItIs) {
  EXPECT_EQ(propctl("list '[a]'"), failed(1, "propctl: [a]: no such property; \"propctl list\" shows all\n"));
}

TEST_F(PropctlReads, takesASerialNumberWithACommaBehindItForOne) {
  EXPECT_THAT(propctl("--timeout 0.2 --device D1, ping").errors,
              ::testing::StartsWith("propctl: no answer from D1 at localhost:1883 within 0.2 s: "));
}

TEST_F(PropctlReads, printsALineOfJsonForEachDeviceThatDoesNotAnswer) {
  EXPECT_THAT(propctl("--json --quiet --timeout 0.2 --device D1,D2 --jobs 1 get Audio.Volume").output,
              ::testing::MatchesRegex("\\{\"device\":\"D1\",\"error\":\"no answer from D1 at [^\n]*\n"
                                      "\\{\"device\":\"D2\",\"error\":\"no answer from D2 at [^\n]*\n"));
}

TEST_F(PropctlReads, takesAPatternOfSerialNumbersInBracketsAsItIs) {
  EXPECT_EQ(propctl("--name fleet --device '[12]' ping"),
            failed(1, "propctl: no device that the central broker knows matches [12]\n"));
}

TEST_F(PropctlReads, saysThatStateIsNotListed) {
  EXPECT_EQ(propctl("list State.x"),
            failed(1, "propctl: State.x: run-time state is not listed; get reads it\n"));
}

TEST_F(PropctlReads, takesBlanksBetweenColumns) {
  EXPECT_EQ(propctl("list --columns 'key, value' Audio.V%"), printed("Audio.Volume\t5\n"));
}

TEST_F(PropctlReads, listsOnlyWhatDiffersFromItsDefault) {
  EXPECT_EQ(propctl("list --changed Audio.%"), printed("Audio.Volume\t5\t4\tuser\n"));
}

TEST_F(PropctlReads, listsNothingWhereNothingDiffers) {
  EXPECT_EQ(propctl("list --changed Audio.C%"), printed(""));
}

TEST_F(PropctlReads, alignsAndMarksATableOnATerminal) {
  EXPECT_EQ(onTerminal("NO_COLOR=1 " PROPCTL " list Audio.%"),
            "key             value  default  flags\r\n"
            "Audio.Codec     opus   opus     user\r\n"
            "Audio.Ringtone  bell   bell     setting\r\n"
            "Audio.Volume    5      * 4      user\r\n");
}

TEST_F(PropctlReads, coloursATableOnATerminal) {
  EXPECT_EQ(onTerminal("TERM=xterm " PROPCTL " list --columns key --changed Audio.%"),
            "\033[1mkey\033[0m\r\n\033[33mAudio.Volume\033[0m\r\n");
}

TEST_F(PropctlReads, leavesOutColoursWhereTheyAreNotWanted) {
  EXPECT_EQ(onTerminal("TERM=xterm NO_COLOR=1 " PROPCTL " list --columns key Audio.V%"),
            "key\r\nAudio.Volume\r\n");
  EXPECT_EQ(onTerminal("TERM=dumb " PROPCTL " list --columns key Audio.V%"), "key\r\nAudio.Volume\r\n");
}

TEST_F(PropctlReads, refusesAColumnThatThereIsNot) {
  const Outcome outcome = propctl("list --columns colour");

  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.errors, ::testing::StartsWith("propctl: no such column: \"colour\""));
}

TEST_F(PropctlReads, describesAProperty) {
  EXPECT_EQ(propctl("describe Audio.Volume"), printed("key           Audio.Volume\n"
                                                      "value         5   (changed)\n"
                                                      "default       4\n"
                                                      "rules         a number from 0 to 10\n"
                                                      "flags         user (8)\n"
                                                      "web           volume\n"
                                                      "provisioning  P_VOLUME\n"
                                                      "tr069         -\n"));
}

TEST_F(PropctlReads, describesByWebName) {
  EXPECT_THAT(propctl("describe --by web volume").output,
              ::testing::StartsWith("key           Audio.Volume\n"));
}

TEST_F(PropctlReads, describesWhatThereIsNot) {
  EXPECT_EQ(propctl("describe Nowhere"),
            failed(1, "propctl: Nowhere: no such property; \"propctl list\" shows all\n"));
}

TEST_F(PropctlReads, describesNoPattern) {
  EXPECT_EQ(propctl("describe Audio.%").status, 2);
}

TEST_F(PropctlReads, dumpsByProvisioningName) {
  EXPECT_EQ(propctl("dump"), printed("P_HOSTNAME=desk\nP_VOLUME=5\n"));
}

TEST_F(PropctlReads, takesDefaultForTheColumnOfTheDefaults) {
  EXPECT_EQ(onTerminal("NO_COLOR=1 " PROPCTL " list --columns key,default Audio.V%"),
            "key           default\r\nAudio.Volume  * 4\r\n");
  EXPECT_EQ(propctl("--json list --columns default Audio.V%"), printed("[{\"defaultvalues\":\"4\"}]\n"));
}

TEST_F(PropctlReads, saysThatTheDiskTookNoOutput) {
  EXPECT_EQ(shell("propctl get Audio.Volume >/dev/full"),
            failed(1, "propctl: cannot write the output: No space left on device\n"));
}

TEST_F(PropctlReads, saysThatTheDiskTookOnlyTheBeginning) {
  device_.set("Audio.Ringtone", std::string(256, 'x'));

  EXPECT_EQ(shell("propctl get $(printf 'Audio.Ringtone %.0s' {1..100}) >/dev/full"),
            failed(1, "propctl: cannot write the output: No space left on device\n"));
}

TEST_F(PropctlReads, saysThatOutputIsClosed) {
  EXPECT_EQ(shell("propctl get Audio.Volume >&-"),
            failed(1, "propctl: cannot write the output: Bad file descriptor\n"));
}

TEST_F(PropctlReads, endsSilentlyWhenTheReaderHasGone) {
  EXPECT_EQ(intoAClosedPipe("propctl list"), printed("141\n"));
}

TEST_F(PropctlReads, endsSilentlyWhenTheReaderGoesInTheMiddle) {
  device_.set("Audio.Ringtone", std::string(256, 'x'));

  EXPECT_EQ(intoAClosedPipe("propctl get $(printf 'Audio.Ringtone %.0s' {1..100})"), printed("141\n"));
}

TEST(PropctlSecrets, areDotsOnATerminalAndThemselvesElsewhere) {
  std::vector<Row> rows = Device::defaultRows();
  rows.push_back({.key = "Keys.Lock.PIN",
                  .value = "1234",
                  .defaultValue = "0000",
                  .flags = 2,
                  .webui = "LockCode",
                  .regexp = "^[0-9]{4}$"});
  rows.push_back({.key = "SIP.AuthPassword", .value = "", .defaultValue = "", .flags = 2});
  Device device(rows);
  device.start();
  const std::string rest =
      "rules         matches ^[0-9]{4}$\nflags         setting (2)\nweb           LockCode\n"
      "provisioning  -\ntr069         -\n";
  struct Case {
    std::string arguments, hidden, shown;
  };
  const std::vector<Case> cases = {
      {"get Keys.Lock.PIN", "••••\n", "1234\n"},
      {"get --by web LockCode", "••••\n", "1234\n"},
      {"get --by web Lock%", "LockCode=••••\n", "LockCode=1234\n"},
      {"get Keys.Lock.PIN SIP.AuthPassword Audio.Codec",
       "Keys.Lock.PIN=••••\nSIP.AuthPassword=\nAudio.Codec=opus\n",
       "Keys.Lock.PIN=1234\nSIP.AuthPassword=\nAudio.Codec=opus\n"},
      {"list --columns value,default,key Keys%", "value  default  key\n••••   * ••••   Keys.Lock.PIN\n",
       "value  default  key\n1234   * 0000   Keys.Lock.PIN\n"},
      {"describe Keys.Lock.PIN",
       "key           Keys.Lock.PIN\nvalue         ••••   (changed)\ndefault       ••••\n" + rest,
       "key           Keys.Lock.PIN\nvalue         1234   (changed)\ndefault       0000\n" + rest},
      {"--json get Keys.Lock.PIN", "{\"Keys.Lock.PIN\":\"1234\"}\n", "{\"Keys.Lock.PIN\":\"1234\"}\n"},
      {"load --by key --dry-run /config/pins",
       "Keys.Lock.PIN=••••: RegExpError: the value does not match the expression ^[0-9]{4}$\n"
       "propctl: 1 of 1 would be refused\n",
       "Keys.Lock.PIN=12: RegExpError: the value does not match the expression ^[0-9]{4}$\n"
       "propctl: 1 of 1 would be refused\n"},
      {"set Keys.Lock.PIN=12",
       "propctl: Keys.Lock.PIN: RegExpError: the value does not match the expression ^[0-9]{4}$\n",
       "propctl: Keys.Lock.PIN: RegExpError: the value does not match the expression ^[0-9]{4}$\n"},
      {"reset Keys.Lock.PIN", "Keys.Lock.PIN: •••• -> ••••\n", "Keys.Lock.PIN: 1234 -> 0000\n"},
  };
  Device::writeFile("/config/pins", "Keys.Lock.PIN=12\n");
  const auto plain = [](const std::string& text) {
    return std::regex_replace(text, std::regex("\r|\033\\[K"), "");
  };
  for (const auto& [arguments, hidden, shown] : cases) {
    EXPECT_EQ(plain(onTerminal("NO_COLOR=1 " PROPCTL " " + arguments)), hidden) << arguments;
    device.set("Keys.Lock.PIN", "1234");
    EXPECT_EQ(plain(onTerminal("NO_COLOR=1 " PROPCTL " --show-secrets " + arguments)), shown) << arguments;
    device.set("Keys.Lock.PIN", "1234");
  }
  EXPECT_EQ(propctl("get Keys.Lock.PIN"), printed("1234\n"));
  EXPECT_THAT(shell("script --quiet --command 'NO_COLOR=1 " PROPCTL
                    " watch --count 1' /dev/null & watcher=$!; pin=2000\n"
                    "while kill -0 $watcher 2>/dev/null; do propctl set Keys.Lock.PIN=$((pin += 1)); done")
                  .output,
              ::testing::ContainsRegex("^[^ ]+ .*Keys\\.Lock\\.PIN=•••• \\(was ••••\\)"));
}

TEST(PropctlSecrets, areNamedByTheRuleOfThePage) {
  const std::string page = Device::readFile(SOURCE_DIRECTORY "/device/web/properties.js");
  std::smatch rule;
  ASSERT_TRUE(std::regex_search(page, rule, std::regex(R"(return /(.+)/i\.test\(key\))")));
  const std::regex expression(rule[1].str(), std::regex::icase);
  for (const std::string name : {"Web.Password", "web.password", "AuthPASSWORD", "Keys.Lock.PIN", "lockPin",
                                 "PIN", "Password.Age", "Ping", "Shopping.List", "Passwort", ""}) {
    EXPECT_EQ(isSecret(name), std::regex_search(name, expression)) << name;
  }
}

}  // namespace
}  // namespace propertyservice::test
