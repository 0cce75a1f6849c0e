#include <gmock/gmock.h>

#include "client/propctl/Propctl.h"
#include "support/Device.h"

namespace propertyservice::test {
namespace {

class PropctlReads : public ::testing::Test {
 protected:
  PropctlReads() { device_.start(); }

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

  const Outcome outcome =
      shell("propctl() { :; }; script --quiet --return --command '" PROPCTL " get State.Note' /dev/null");

  EXPECT_EQ(outcome.output, "\\x1b[2J\r\n");
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

TEST_F(PropctlReads, listsOnlyWhatDiffersFromItsDefault) {
  EXPECT_EQ(propctl("list --changed Audio.%"), printed("Audio.Volume\t5\t4\tuser\n"));
}

TEST_F(PropctlReads, listsNothingWhereNothingDiffers) {
  EXPECT_EQ(propctl("list --changed Audio.C%"), printed(""));
}

TEST_F(PropctlReads, alignsAndMarksATableOnATerminal) {
  const Outcome outcome =
      shell("propctl() { :; }; script --quiet --return --command '" PROPCTL " list Audio.%' /dev/null");

  EXPECT_EQ(outcome.output,
            "\033[1mkey             value  defaultvalues  flags\033[0m\r\n"
            "Audio.Codec     opus   opus           user\r\n"
            "Audio.Ringtone  bell   bell           setting\r\n"
            "Audio.Volume    5      * 4            user\r\n");
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

TEST_F(PropctlReads, saysThatTheDiskTookNoOutput) {
  EXPECT_EQ(shell("propctl get Audio.Volume >/dev/full"),
            failed(1, "propctl: cannot write the output: No space left on device\n"));
}

TEST_F(PropctlReads, endsSilentlyWhenTheReaderHasGone) {
  EXPECT_EQ(shell("propctl list | true; echo ${PIPESTATUS[0]}").errors, "");
}

}  // namespace
}  // namespace propertyservice::test
