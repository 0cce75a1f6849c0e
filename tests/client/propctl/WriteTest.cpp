#include <gmock/gmock.h>

#include "client/propctl/Propctl.h"
#include "core/JsonText.h"
#include "support/Device.h"

namespace propertyservice::test {
namespace {

class PropctlWrites : public ::testing::Test {
 protected:
  PropctlWrites() { device_.start(); }

  Device device_;
};

TEST_F(PropctlWrites, writesAnAssignment) {
  EXPECT_EQ(propctl("set Audio.Volume=7"), printed(""));

  EXPECT_EQ(device_.getValue("Audio.Volume"), "7");
}

TEST_F(PropctlWrites, writesAKeyAndAValue) {
  EXPECT_EQ(propctl("set Audio.Volume 7"), printed(""));

  EXPECT_EQ(device_.getValue("Audio.Volume"), "7");
}

TEST_F(PropctlWrites, writesSeveral) {
  EXPECT_EQ(propctl("set Audio.Volume=7 Audio.Codec=g722"), printed(""));

  EXPECT_EQ(device_.getValue("Audio.Volume"), "7");
  EXPECT_EQ(device_.getValue("Audio.Codec"), "g722");
}

TEST_F(PropctlWrites, keepsTheBlanksOfAValue) {
  EXPECT_EQ(propctl("set 'Audio.Ringtone= old  phone ' Audio.Volume=7"), printed(""));

  EXPECT_EQ(device_.getValue("Audio.Ringtone"), " old  phone ");
}

TEST_F(PropctlWrites, keepsEqualSignsInAValue) {
  EXPECT_EQ(propctl("set Audio.Ringtone=a=b"), printed(""));
  EXPECT_EQ(device_.getValue("Audio.Ringtone"), "a=b");

  EXPECT_EQ(propctl("set Audio.Ringtone c=d"), printed(""));
  EXPECT_EQ(device_.getValue("Audio.Ringtone"), "c=d");
}

TEST_F(PropctlWrites, takesAValueInBracketsAsItIs) {
  EXPECT_EQ(propctl("set Audio.Ringtone '[a,b]'"), printed(""));

  EXPECT_EQ(device_.getValue("Audio.Ringtone"), "[a,b]");
}

TEST_F(PropctlWrites, writesTheEmptyValue) {
  EXPECT_EQ(propctl("set Audio.Ringtone="), printed(""));

  EXPECT_EQ(device_.getValue("Audio.Ringtone"), "");
}

TEST_F(PropctlWrites, takesAValueThatLooksLikeAnOption) {
  EXPECT_EQ(propctl("set -- Audio.Ringtone --json"), printed(""));

  EXPECT_EQ(device_.getValue("Audio.Ringtone"), "--json");
}

TEST_F(PropctlWrites, takesAValueThatLooksLikeAnOptionBehindTheKey) {
  EXPECT_EQ(propctl("set Audio.Ringtone -- --quiet"), printed(""));

  EXPECT_EQ(device_.getValue("Audio.Ringtone"), "--quiet");
}

TEST_F(PropctlWrites, writesByWebName) {
  EXPECT_EQ(propctl("set --by web volume=7"), printed(""));

  EXPECT_EQ(device_.getValue("Audio.Volume"), "7");
}

TEST_F(PropctlWrites, writesState) {
  EXPECT_EQ(propctl("set State.Call=idle"), printed(""));

  EXPECT_EQ(device_.getValue("State.Call"), "idle");
}

TEST_F(PropctlWrites, tellsTheRangeThatAValueBreaks) {
  EXPECT_EQ(propctl("set Audio.Volume=11"),
            failed(1, "propctl: Audio.Volume: ValueOutOfBounds: \"11\" is not a number from 0 to 10\n"));
}

TEST_F(PropctlWrites, tellsTheRangeThatANegativeNumberBreaks) {
  EXPECT_EQ(propctl("set Audio.Volume -5"),
            failed(1, "propctl: Audio.Volume: ValueOutOfBounds: \"-5\" is not a number from 0 to 10\n"));
}

TEST_F(PropctlWrites, tellsTheExpressionThatAValueBreaks) {
  EXPECT_EQ(propctl("set NET.General.Hostname=Desk"),
            failed(1,
                   "propctl: NET.General.Hostname: RegExpError: \"Desk\" does not match the expression "
                   "^[a-z0-9-]{1,63}$\n"));
}

TEST_F(PropctlWrites, tellsTheAllowedValues) {
  EXPECT_EQ(propctl("set Audio.Codec=mp3"),
            failed(1, "propctl: Audio.Codec: ValueError: \"mp3\" is none of opus, g722, g711\n"));
}

TEST_F(PropctlWrites, tellsThatAPropertyIsReadOnly) {
  EXPECT_EQ(propctl("set System.ReadOnly=x"),
            failed(1, "propctl: System.ReadOnly: ReadOnly: cannot be written, only reset\n"));
}

TEST_F(PropctlWrites, tellsThatAValueIsTooLong) {
  EXPECT_EQ(
      propctl("set Audio.Ringtone=" + std::string(257, 'x')),
      failed(
          1,
          "propctl: Audio.Ringtone: ValueError: a value is at most 256 characters of UTF-8 without NUL\n"));
}

TEST_F(PropctlWrites, writesTheOthersWhenOneIsRefused) {
  EXPECT_EQ(propctl("set Audio.Volume=11 Nowhere=1 Audio.Codec=g722"),
            failed(1,
                   "propctl: Audio.Volume: ValueOutOfBounds: \"11\" is not a number from 0 to 10\n"
                   "propctl: Nowhere: NotFound: no such property; \"propctl list\" shows all\n"));

  EXPECT_EQ(device_.getValue("Audio.Codec"), "g722");
}

TEST_F(PropctlWrites, printsStatusAndReasonOfEachAsJson) {
  EXPECT_EQ(propctl("--json set Audio.Volume=11 Audio.Codec=g722 System.ReadOnly=x").output,
            R"({"Audio.Codec":{"status":"Ok"},)"
            R"("Audio.Volume":{"reason":"\"11\" is not a number from 0 to 10","status":"ValueOutOfBounds"},)"
            R"("System.ReadOnly":{"reason":"cannot be written, only reset","status":"ReadOnly"}})"
            "\n");
  EXPECT_THAT(propctl("--json restore").output,
              ::testing::StartsWith(R"({"reason":"there is no /config/user_backup.csv on the device)"));
}

TEST_F(PropctlWrites, warnsOfATextThatARangeTakesForANumberAndOfWhatNoBackupCanHold) {
  const std::string cut =
      "no backup can hold it: a restore cuts it at the line break, and loses the next property\n";
  const std::string leading = "stored as it is, though not a number: the range looks at the leading ";
  struct Case {
    std::string command, warning;
  };
  const std::vector<Case> cases = {
      {"set Audio.Volume=7x", "warning: Audio.Volume: " + leading + "7 alone\n"},
      {"set --by web 'volume= 8'", "warning: volume: " + leading + "8 alone\n"},
      {"set Audio.Volume=+9", "warning: Audio.Volume: " + leading + "9 alone\n"},
      {"--quiet set Audio.Volume=6x", ""},
      {"set Audio.Volume=7", ""},
      {"set Audio.Ringtone=7x NET.General.Hostname=10-0-0-1", ""},
      {"set $'Audio.Ringtone=a\nb'", "warning: Audio.Ringtone: " + cut},
      {"set $'Audio.Ringtone=a\nDatabaseVersion:9'",
       "warning: Audio.Ringtone: no backup can hold it: a restore takes its line with \"DatabaseVersion:\" "
       "for "
       "the end\n"},
      {"set Audio.Ringtone=DatabaseVersion:9", ""},
      {"set $'State.Note=a\nb' $'System.Debug.LevelMask.PROP-SRV=14\n'", ""},
      {"load --by key <(printf 'Audio.Ringtone=a\\\\nb\\n')",
       "warning: Audio.Ringtone: " + cut + "1 of 1 written\n"},
      {"load --dry-run <(echo P_VOLUME=4x) >/dev/null", "warning: P_VOLUME: " + leading + "4 alone\n"},
  };
  for (const auto& [command, warning] : cases) {
    EXPECT_EQ(propctl(command), (Outcome{0, "", warning})) << command;
  }
}

TEST_F(PropctlWrites, warnsOnlyOfWhatARestoreLoses) {
  const auto restored = [this](const std::string& value) {
    device_.set("Audio.Ringtone", value);
    device_.set("NET.General.DeviceNameInNetwork", "kept");
    propctl("backup --all");
    device_.set("Audio.Ringtone", "");
    device_.set("NET.General.DeviceNameInNetwork", "");
    propctl("restore");
    return device_.getValue("Audio.Ringtone") + ", " + device_.getValue("NET.General.DeviceNameInNetwork");
  };

  EXPECT_EQ(restored("DatabaseVersion:9"), "DatabaseVersion:9, kept");
  EXPECT_EQ(restored("a\nb"), "a, ");
}

TEST_F(PropctlWrites, readsAValueFromStandardInput) {
  struct Case {
    std::string command;
    Outcome outcome;
    std::string stored;
  };
  const std::vector<Case> cases = {
      {"echo ' new  bell' | propctl set Audio.Ringtone=-", printed(""), " new  bell"},
      {"printf 'no line end' | propctl set Audio.Ringtone=-", printed(""), "no line end"},
      {"printf '7\\nbell\\n' | propctl set Audio.Volume=- Audio.Ringtone=- Audio.Codec=opus", printed(""),
       "bell"},
      {"echo | propctl set Audio.Ringtone=-", printed(""), ""},
      {"propctl set Audio.Ringtone -", printed(""), "-"},
      {"echo Audio.Ringtone=- | propctl --quiet load --by key -", printed(""), "-"},
      {"echo only | propctl set Audio.Volume=- Audio.Ringtone=-",
       failed(2, "propctl: standard input: no line with the value of Audio.Ringtone\n"), "-"},
      {"echo Guessed | propctl set NET.General.Hostname=-",
       failed(1,
              "propctl: NET.General.Hostname: RegExpError: the value does not match the expression "
              "^[a-z0-9-]{1,63}$\n"),
       "-"},
  };
  for (const auto& [command, outcome, stored] : cases) {
    EXPECT_EQ(shell(command), outcome) << command;
    EXPECT_EQ(device_.getValue("Audio.Ringtone"), stored) << command;
  }
}

TEST_F(PropctlWrites, asksAtATerminalAndShowsNothingOfTheValue) {
  const auto typed = [](const std::string& keys) {
    return shell(
        "shown=$(mktemp); { until grep --quiet Ringtone: $shown; do sleep 0.02; done; printf '" + keys +
        "'; } | script --quiet --command 'trap : INT; " PROPCTL
        " set Audio.Ringtone=-; echo ended with $?; stty --all | grep --only-matching \"[-]*echo \"' "
        "/dev/null >$shown; tr -d '\\r' <$shown; rm $shown");
  };

  EXPECT_EQ(typed("hidden\\n").output, "Audio.Ringtone: \nended with 0\necho \n");
  EXPECT_EQ(device_.getValue("Audio.Ringtone"), "hidden");
  EXPECT_EQ(typed("half\\003").output, "Audio.Ringtone: ended with 130\necho \n");
  EXPECT_EQ(device_.getValue("Audio.Ringtone"), "hidden");
}

TEST_F(PropctlWrites, refusesANameThatIsGivenTwice) {
  EXPECT_EQ(propctl("set Audio.Volume=1 Audio.Volume=2"),
            failed(2, "propctl: Audio.Volume is given twice\n"));

  EXPECT_EQ(device_.getValue("Audio.Volume"), "5");
}

TEST_F(PropctlWrites, writesNothingWhenAnArgumentIsNoAssignment) {
  EXPECT_EQ(propctl("set Audio.Volume=1 Audio.Codec g722"),
            failed(2, "propctl: KEY=VALUE expected: \"Audio.Codec\"\n"));

  EXPECT_EQ(device_.getValue("Audio.Volume"), "5");
}

TEST_F(PropctlWrites, resetsAndTellsWhatChanged) {
  EXPECT_EQ(propctl("reset Audio.%"), printed("Audio.Volume: 5 -> 4\n"));
}

TEST_F(PropctlWrites, tellsThatAResetChangedNothing) {
  EXPECT_EQ(propctl("reset Audio.Codec"), (Outcome{0, "", "nothing to change\n"}));
}

TEST_F(PropctlWrites, resetsAReadOnlyProperty) {
  EXPECT_EQ(propctl("reset System.ReadOnly"), printed("System.ReadOnly: fixed -> factory\n"));
}

TEST_F(PropctlWrites, removesState) {
  device_.set("State.Call", "idle");

  EXPECT_EQ(propctl("reset State.Call"), printed("State.Call: idle -> removed\n"));
}

TEST_F(PropctlWrites, resetsTheOthersWhenOneIsNotFound) {
  EXPECT_EQ(propctl("reset Nowhere Audio.Volume"),
            (Outcome{1, "Audio.Volume: 5 -> 4\n",
                     "propctl: Nowhere: NotFound: no such property; \"propctl list\" shows all\n"}));
}

TEST_F(PropctlWrites, resetsNothingWhereNothingMatches) {
  EXPECT_EQ(propctl("reset Nowhere.%"), failed(1, "propctl: Nowhere.%: NotFound: nothing matches\n"));
}

TEST_F(PropctlWrites, loadsWhatItHasDumped) {
  device_.set("Audio.Volume", "9");
  const std::string dump = propctl("dump").output;
  device_.set("Audio.Volume", "1");

  const Outcome outcome = shell("propctl load - <<'END'\n" + dump + "END");

  EXPECT_EQ(outcome, (Outcome{0, "", "2 of 2 written\n"}));
  EXPECT_EQ(device_.getValue("Audio.Volume"), "9");
}

TEST_F(PropctlWrites, loadsAFileThatBeginsWithAByteOrderMark) {
  EXPECT_EQ(shell("printf '\\xef\\xbb\\xbfP_VOLUME=9\\n' | propctl --quiet load -"), printed(""));

  EXPECT_EQ(device_.getValue("Audio.Volume"), "9");
}

TEST_F(PropctlWrites, refusesToLoadADirectory) {
  EXPECT_EQ(propctl("load /"), failed(1, "propctl: /: Is a directory\n"));
}

TEST_F(PropctlWrites, doesNotTakeAClosedStandardInputForAnEmptyDump) {
  EXPECT_EQ(propctl("load - <&-"), failed(1, "propctl: standard input: Bad file descriptor\n"));
}

TEST_F(PropctlWrites, loadsJson) {
  EXPECT_EQ(shell("propctl --quiet load --by key <(echo '{\"Audio.Volume\":\"9\"}')"), printed(""));

  EXPECT_EQ(device_.getValue("Audio.Volume"), "9");
}

TEST_F(PropctlWrites, tellsHowManyAreWrittenWhenTheDaemonIsAway) {
  device_.stop();

  EXPECT_EQ(
      shell("echo P_VOLUME=9 | propctl load -"),
      failed(3,
             "0 of 1 written\npropctl: localhost:1883: PropertyService is not running; nothing was sent\n"));
}

TEST_F(PropctlWrites, triesAFileWithoutWriting) {
  const Outcome outcome =
      shell("printf 'P_VOLUME=11\\nP_HOSTNAME=lab\\nNOWHERE=1\\n' | propctl load --dry-run -");

  EXPECT_EQ(outcome, (Outcome{1,
                              "P_VOLUME=11: ValueOutOfBounds: \"11\" is not a number from 0 to 10\n"
                              "P_HOSTNAME=lab: would be written\n"
                              "NOWHERE=1: NotFound: no such property; \"propctl list\" shows all\n",
                              "propctl: 2 of 3 would be refused\n"}));
  EXPECT_EQ(device_.getValue("NET.General.Hostname"), "desk");
}

TEST_F(PropctlWrites, judgesATrialAsTheDaemonDoes) {
  const std::string values =
      "Audio.Volume=5\nAudio.Codec=mp3\nNET.General.Hostname=UPPER\nSystem.ReadOnly=x\nSystem.ReadOnly2="
      "x\nAudio.Ringtone=" +
      std::string(257, 'x') + "\nState.Call=x\n";

  const Outcome trial = shell("propctl --json load --by key --dry-run - <<'END'\n" + values + "END");
  const Outcome load = shell("propctl --json load --by key - <<'END'\n" + values + "END");

  const auto statusOf = [](const std::string& text) { return text.substr(0, text.find(':')); };
  Json::Value outcomes;
  Json::Value statuses;
  ASSERT_TRUE(json::parse(trial.output, outcomes));
  ASSERT_TRUE(json::parse(load.output, statuses));
  for (const std::string& key : statuses.getMemberNames()) {
    const std::string outcome = statusOf(outcomes[key].asString());
    const bool accepted = outcome == "would be written" || outcome == "stays as it is";
    EXPECT_EQ(accepted ? "Ok" : outcome, statuses[key]["status"].asString()) << key;
  }
  EXPECT_EQ(outcomes.size(), statuses.size());
}

TEST_F(PropctlWrites, tellsTheLineOfAFileThatIsNoAssignment) {
  EXPECT_EQ(shell("printf 'P_VOLUME=1\\n\\nP_HOSTNAME\\n' | propctl load -"),
            failed(1, "propctl: standard input:3: NAME=VALUE expected: P_HOSTNAME\n"));

  EXPECT_EQ(device_.getValue("Audio.Volume"), "5");
}

TEST_F(PropctlWrites, saysThatAFileCannotBeRead) {
  EXPECT_EQ(propctl("load /nowhere"), failed(1, "propctl: /nowhere: No such file or directory\n"));
}

}  // namespace
}  // namespace propertyservice::test
