#include "core/Constants.h"
#include "core/ReadOnlyParameters.h"
#include "support/FakePersistentStorage.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using test::FakePersistentStorage;
using test::LogCapture;
using test::TemporaryDirectory;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

/// A device with all its system files and a table with every property that is read or written. Puts the log's
/// mask back.
class ReadOnlyParametersTest : public testing::Test {
 protected:
  ReadOnlyParametersTest() {
    paths_.model = directory_.write("model", "Halcyon 5\n");
    paths_.version = directory_.write("version", "1.2.3\n");
    paths_.macAddress = directory_.write("address", "00:1a:2b:3c:4d:5e\n");
    paths_.kernelCommandLine = directory_.write("cmdline", "console=ttyS0 quiet\n");
    storage_.values = {{"NET.MAC.Address", ""},
                       {"System.General.Variant.Name", ""},
                       {"System.General.Variant.MajorID", "3"},
                       {"System.General.Variant.MinorID", ""},
                       {"System.General.ExperimentalFeatures", ""},
                       {"System.General.SoftwareVersion", ""},
                       {"System.General.UserAgent", ""},
                       {"WebUI.PhoneModel", ""},
                       {"System.Debug.LevelMask.PROP-SRV", "14"},
                       {"NET.General.DeviceNameInNetwork", ""}};
  }

  ~ReadOnlyParametersTest() override { dbg::DebugStreamBuf::setMask(maskBefore_); }

  void initReadOnlyParameters() { ReadOnlyParameters(storage_, paths_).initReadOnlyParameters(); }
  void initDeviceNameInNetwork() { ReadOnlyParameters(storage_, paths_).initDeviceNameInNetwork(); }

  std::string initialized(const std::string& key) {
    initReadOnlyParameters();
    return storage_.values.at(key);
  }

  std::string deviceName() {
    initDeviceNameInNetwork();
    return storage_.values.at("NET.General.DeviceNameInNetwork");
  }

  const unsigned maskBefore_ = dbg::DebugStreamBuf::mask();
  TemporaryDirectory directory_;
  DevicePaths paths_;
  FakePersistentStorage storage_;
};

TEST_F(ReadOnlyParametersTest, writesTheFactsAboutTheDeviceInOrder) {
  initReadOnlyParameters();

  EXPECT_THAT(storage_.writes,
              ElementsAre(Pair("NET.MAC.Address", "00:1a:2b:3c:4d:5e"),
                          Pair("System.General.Variant.Name", "Halcyon 5"),
                          Pair("System.General.ExperimentalFeatures", "0"),
                          Pair("System.General.SoftwareVersion", "1.2.3"),
                          Pair("System.General.UserAgent", "Halcyon 5/3.1.2.3;001A2B3C4D5E"),
                          Pair("WebUI.PhoneModel", "1"), Pair("System.General.Variant.MinorID", "1")));
}

TEST_F(ReadOnlyParametersTest, keepsTheModelBehindTheFirstColon) {
  directory_.write("model", "vendor:Halcyon:5\n");

  EXPECT_EQ(initialized("System.General.Variant.Name"), "Halcyon:5");
}

TEST_F(ReadOnlyParametersTest, joinsTheLinesOfModelAndVersion) {
  directory_.write("model", "Halcyon\n 5\n");
  directory_.write("version", "1.2\n.3\n\n");

  initReadOnlyParameters();

  EXPECT_EQ(storage_.values["System.General.Variant.Name"], "Halcyon 5");
  EXPECT_EQ(storage_.values["System.General.SoftwareVersion"], "1.2.3");
}

TEST_F(ReadOnlyParametersTest, keepsSeventeenCharactersOfTheAddress) {
  directory_.write("address", "00:1a:2b:3c:4d:5e:6f:70\n");

  EXPECT_EQ(initialized("NET.MAC.Address"), "00:1a:2b:3c:4d:5e");
}

TEST_F(ReadOnlyParametersTest, takesDeveloperModeFromTheBootLine) {
  directory_.write("cmdline", "quiet ec=1 ro\n");

  EXPECT_EQ(initialized("System.General.ExperimentalFeatures"), "1");
}

TEST_F(ReadOnlyParametersTest, takesDeveloperModeFromTheEndOfAnotherBootParameter) {
  directory_.write("cmdline", "sec=1\n");

  EXPECT_EQ(initialized("System.General.ExperimentalFeatures"), "1");
}

TEST_F(ReadOnlyParametersTest, leavesDeveloperModeOffForOtherValues) {
  directory_.write("cmdline", "ec=0 ec=\n");

  EXPECT_EQ(initialized("System.General.ExperimentalFeatures"), "0");
}

TEST_F(ReadOnlyParametersTest, knowsAnEntryModel) {
  directory_.write("model", "Halcyon Entry\n");

  initReadOnlyParameters();

  EXPECT_EQ(storage_.values["WebUI.PhoneModel"], "2");
  EXPECT_EQ(storage_.values["System.General.Variant.MinorID"], "2");
}

TEST_F(ReadOnlyParametersTest, looksForTheEntryModelInTheWholeModelText) {
  directory_.write("model", "Entry vendor:Halcyon 5\n");

  initReadOnlyParameters();

  EXPECT_EQ(storage_.values["System.General.Variant.Name"], "Halcyon 5");
  EXPECT_EQ(storage_.values["WebUI.PhoneModel"], "2");
}

TEST_F(ReadOnlyParametersTest, appliesTheStoredDebugLevel) {
  storage_.values["System.Debug.LevelMask.PROP-SRV"] = "6";

  initReadOnlyParameters();

  EXPECT_EQ(dbg::DebugStreamBuf::mask(), 6U);
}

TEST_F(ReadOnlyParametersTest, goesOnAfterADebugLevelThatIsNoNumber) {
  storage_.values["System.Debug.LevelMask.PROP-SRV"] = "abc";
  LogCapture log;

  initReadOnlyParameters();

  EXPECT_THAT(log.linesWith("error "), SizeIs(2));
  EXPECT_EQ(storage_.values["WebUI.PhoneModel"], "1");
}

TEST_F(ReadOnlyParametersTest, writesNothingWhenAFileIsMissing) {
  const DevicePaths all = paths_;
  for (std::string DevicePaths::*const file : {&DevicePaths::model, &DevicePaths::version,
                                               &DevicePaths::macAddress, &DevicePaths::kernelCommandLine}) {
    SCOPED_TRACE(all.*file);
    paths_ = all;
    paths_.*file = directory_.path("missing");
    LogCapture log;

    initReadOnlyParameters();

    EXPECT_THAT(storage_.writes, IsEmpty());
    EXPECT_THAT(log.linesWith("error core/ReadOnlyParameters:"),
                ElementsAre(HasSubstr(directory_.path("missing")),
                            EndsWith(" Failed to initialize read only parameters.")));
  }
}

TEST_F(ReadOnlyParametersTest, writesNothingWhenTheMajorIdIsMissing) {
  storage_.values.erase("System.General.Variant.MajorID");
  LogCapture log;

  initReadOnlyParameters();

  EXPECT_THAT(storage_.writes, IsEmpty());
  EXPECT_THAT(log.linesWith("error core/ReadOnlyParameters:"),
              ElementsAre(EndsWith(" Parameter not found in query"),
                          EndsWith(" Failed to initialize read only parameters.")));
}

TEST_F(ReadOnlyParametersTest, keepsWhatWasWrittenBeforeAFailure) {
  storage_.values.erase("System.General.ExperimentalFeatures");
  LogCapture log;

  initReadOnlyParameters();

  EXPECT_THAT(storage_.writes, ElementsAre(Pair("NET.MAC.Address", "00:1a:2b:3c:4d:5e"),
                                           Pair("System.General.Variant.Name", "Halcyon 5")));
  EXPECT_THAT(log.linesWith(" Failed to initialize read only parameters."), SizeIs(1));
}

TEST_F(ReadOnlyParametersTest, namesAnUnnamedDevice) {
  directory_.write("model", "Halcyon 5 ADV\n");

  EXPECT_EQ(deviceName(), "Halcyon-5-3c4d5e");
}

TEST_F(ReadOnlyParametersTest, namesADeviceThatHasItsFactoryName) {
  storage_.values["NET.General.DeviceNameInNetwork"] = "Halcyon";

  EXPECT_EQ(deviceName(), "Halcyon-5-3c4d5e");
}

TEST_F(ReadOnlyParametersTest, keepsANameThatIsNotTheFactoryName) {
  for (const std::string name : {"Reception", "halcyon", "Halcyon "}) {
    SCOPED_TRACE(name);
    storage_.values["NET.General.DeviceNameInNetwork"] = name;

    initDeviceNameInNetwork();

    EXPECT_THAT(storage_.writes, IsEmpty());
  }
}

TEST_F(ReadOnlyParametersTest, keepsTheNameItGaveWhenTheAddressChanges) {
  initDeviceNameInNetwork();
  directory_.write("address", "00:1a:2b:ff:ff:ff\n");

  EXPECT_EQ(deviceName(), "Halcyon-5-3c4d5e");
}

TEST_F(ReadOnlyParametersTest, removesOnlyTheFirstSuffixFromTheName) {
  directory_.write("model", "Halcyon 5 ADV ADV\n");

  EXPECT_EQ(deviceName(), "Halcyon-5-ADV-3c4d5e");
}

TEST_F(ReadOnlyParametersTest, namesTheDeviceInSmallLettersOfTheAddress) {
  directory_.write("address", "00:1A:2B:3C:4D:5E\n");

  EXPECT_EQ(deviceName(), "Halcyon-5-3c4d5e");
}

TEST_F(ReadOnlyParametersTest, takesTheVendorOutOfTheName) {
  directory_.write("model", "vendor:Halcyon 5\n");

  EXPECT_EQ(deviceName(), "Halcyon-5-3c4d5e");
}

TEST_F(ReadOnlyParametersTest, throwsWhenTheAddressIsTooShortForAName) {
  directory_.write("address", "00:1a\n");

  EXPECT_THROW(initDeviceNameInNetwork(), std::out_of_range);
}

TEST_F(ReadOnlyParametersTest, throwsWhenAFileForTheNameIsMissing) {
  paths_.version = directory_.path("missing");

  EXPECT_THROW(initDeviceNameInNetwork(), std::runtime_error);
}

TEST_F(ReadOnlyParametersTest, throwsWhenTheTableHasNoName) {
  storage_.values.erase("NET.General.DeviceNameInNetwork");

  EXPECT_THROW(initDeviceNameInNetwork(), PersistentStorageException);
}

using UserAgent = testing::Test;

TEST_F(UserAgent, isMadeOfModelVersionsAndAddress) {
  const std::string agent = createUserAgent(
      {{"model", "Halcyon 5"}, {"majorID", "3"}, {"version", "1.2.3"}, {"mac", "00:1a:2b:3c:4d:5e"}});

  EXPECT_EQ(agent, "Halcyon 5/3.1.2.3;001A2B3C4D5E");
}

TEST_F(UserAgent, isEmptyWhenAFactIsMissing) {
  LogCapture log;

  const std::string agent = createUserAgent({{"model", "Halcyon 5"}, {"majorID", "3"}, {"version", "1.2.3"}});

  EXPECT_EQ(agent, "");
  EXPECT_THAT(log.linesWith("error core/ReadOnlyParameters:"),
              ElementsAre(HasSubstr("at"), EndsWith(" Failed to create user agent.")));
}

/// Puts the log's mask back.
class DebugLevel : public testing::Test {
 protected:
  ~DebugLevel() override { dbg::DebugStreamBuf::setMask(maskBefore_); }

  const unsigned maskBefore_ = dbg::DebugStreamBuf::mask();
};

TEST_F(DebugLevel, becomesTheMaskOfTheLog) {
  LogCapture log;

  setDebugLevel("30");

  EXPECT_EQ(dbg::DebugStreamBuf::mask(), 30U);
  EXPECT_THAT(log.linesWith("info core/ReadOnlyParameters:"),
              ElementsAre(EndsWith(" Debug level changed to 30")));
}

TEST_F(DebugLevel, canBeZero) {
  setDebugLevel("0");

  EXPECT_EQ(dbg::DebugStreamBuf::mask(), 0U);
}

TEST_F(DebugLevel, ignoresWhatFollowsTheDigits) {
  setDebugLevel("12abc");

  EXPECT_EQ(dbg::DebugStreamBuf::mask(), 12U);
}

TEST_F(DebugLevel, isLoggedWithoutASign) {
  LogCapture log;

  setDebugLevel("-1");

  EXPECT_THAT(log.linesWith("Debug level changed to "), ElementsAre(EndsWith(" 4294967295")));
}

TEST_F(DebugLevel, staysForATextThatIsNoNumber) {
  dbg::DebugStreamBuf::setMask(6);
  LogCapture log;
  const unsigned before = dbg::DebugStreamBuf::mask();

  setDebugLevel("abc");

  EXPECT_EQ(dbg::DebugStreamBuf::mask(), before);
  EXPECT_THAT(log.linesWith("error core/ReadOnlyParameters:"),
              ElementsAre(HasSubstr("stoi"), EndsWith(" Error setting debug level to: [abc]")));
}

TEST_F(DebugLevel, staysForANumberBeyondItsRange) {
  LogCapture log;
  const unsigned before = dbg::DebugStreamBuf::mask();

  setDebugLevel("99999999999");

  EXPECT_EQ(dbg::DebugStreamBuf::mask(), before);
  EXPECT_THAT(log.linesWith("Error setting debug level to: [99999999999]"), SizeIs(1));
}

}  // namespace
}  // namespace propertyservice
