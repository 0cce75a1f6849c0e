#include "core/Constants.h"
#include "device/SampleDevice.h"

namespace propertyservice {
namespace {

using test::deviceFile;
using test::SampleDatabase;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class DatabaseScript : public testing::Test {
 protected:
  int selectedBy(int mask) { return database_.count("CAST(flags AS INT) & " + std::to_string(mask)); }

  SampleDatabase database_;
};

TEST_F(DatabaseScript, runsWithoutAComplaint) {
  EXPECT_EQ(database_.complaints(), "");
}

TEST_F(DatabaseScript, createsExactlyTheTable) {
  EXPECT_EQ(database_.text("SELECT group_concat(sql) FROM sqlite_master WHERE sql IS NOT NULL"),
            kCreateTable);
}

TEST_F(DatabaseScript, bringsAboutTwoHundredProperties) {
  const int properties = database_.count("true");

  EXPECT_GE(properties, 180);
  EXPECT_LE(properties, 250);
}

TEST_F(DatabaseScript, putsEveryKeyIntoAGroup) {
  EXPECT_THAT(database_.texts("SELECT key FROM settings WHERE key NOT LIKE '_%._%'"), IsEmpty());
}

TEST_F(DatabaseScript, hasNoVolatileKey) {
  EXPECT_THAT(database_.texts("SELECT key FROM settings WHERE key LIKE 'State.%'"), IsEmpty());
}

TEST_F(DatabaseScript, setsEveryValueToItsDefault) {
  EXPECT_THAT(
      database_.texts("SELECT key FROM settings WHERE defaultvalues IS NULL OR value IS NOT defaultvalues"),
      IsEmpty());
}

TEST_F(DatabaseScript, givesDefaultsThatObeyTheirOwnRules) {
  EXPECT_THAT(keysThatBreakTheirRules(database_.rows("defaultvalues")), IsEmpty());
}

TEST_F(DatabaseScript, usesEveryKindOfRuleAndNone) {
  EXPECT_GT(database_.count("flags & 1"), 0);
  EXPECT_GT(database_.count("regexp IS NOT NULL"), 0);
  EXPECT_GT(database_.count("range_min IS NOT NULL AND range_max IS NULL"), 0);
  EXPECT_GT(database_.count("range_min IS NULL AND range_max IS NOT NULL"), 0);
  EXPECT_GT(database_.count("range_min IS NOT NULL AND range_max IS NOT NULL"), 0);
  EXPECT_GT(database_.count("enum IS NOT NULL"), 0);
  EXPECT_GT(database_.count("NOT flags & 1 AND regexp IS NULL AND range_min IS NULL AND range_max IS NULL "
                            "AND enum IS NULL"),
            0);
}

TEST_F(DatabaseScript, leavesWhatDoesNotApplyNull) {
  EXPECT_THAT(
      database_.texts("SELECT key FROM settings WHERE '' IN (webui, provisioning, tr069, regexp, enum)"),
      IsEmpty());
}

TEST_F(DatabaseScript, hasBackupMasksThatEachSelectSomeAndAllDifferent) {
  std::vector<std::string> selections;
  for (const int mask : {4, 8, 16, 238, 254}) {
    EXPECT_GT(selectedBy(mask), 0) << mask;
    EXPECT_LT(selectedBy(mask), database_.count("true")) << mask;
    selections.push_back(database_.text("SELECT group_concat(key) FROM settings WHERE CAST(flags AS INT) & " +
                                        std::to_string(mask)));
  }

  std::sort(selections.begin(), selections.end());
  EXPECT_EQ(std::adjacent_find(selections.begin(), selections.end()), selections.end());
}

TEST_F(DatabaseScript, marksNothingReadOnlyThatAUserOrAFactoryResetRestores) {
  EXPECT_THAT(database_.texts("SELECT key FROM settings WHERE flags & 1 AND flags & (8 | 16)"), IsEmpty());
}

TEST_F(DatabaseScript, keepsPasswordsOutOfDumpsAndUserBackups) {
  EXPECT_GT(database_.count("key LIKE '%Password'"), 0);
  EXPECT_THAT(
      database_.texts(
          "SELECT key FROM settings WHERE (key LIKE '%Password' OR key LIKE '%PIN') AND flags & (4 | 8)"),
      IsEmpty());
}

TEST_F(DatabaseScript, hasNoValueThatABackupCannotCarry) {
  EXPECT_THAT(database_.texts("SELECT key FROM settings WHERE instr(value, ';') OR instr(value, char(10))"),
              IsEmpty());
}

TEST_F(DatabaseScript, hasEveryPropertyThatStartUpFillsInOrReads) {
  for (const std::string key :
       {"NET.MAC.Address", "System.General.Variant.Name", "System.General.Variant.MajorID",
        "System.General.Variant.MinorID", "System.General.ExperimentalFeatures",
        "System.General.SoftwareVersion", "System.General.UserAgent", "WebUI.PhoneModel",
        "System.Debug.LevelMask.PROP-SRV", "NVM.Version"}) {
    EXPECT_TRUE(database_.has(key)) << key;
  }
  EXPECT_EQ(database_.text("SELECT value FROM settings WHERE key = 'NET.General.DeviceNameInNetwork'"),
            "Halcyon");
}

class DatabaseScriptAliases : public testing::TestWithParam<std::string> {};

TEST_P(DatabaseScriptAliases, nameOnePropertyEach) {
  SampleDatabase database;
  const std::string given = " FROM settings WHERE " + GetParam() + " IS NOT NULL ";

  EXPECT_THAT(database.texts("SELECT key" + given), Not(IsEmpty()));
  EXPECT_THAT(database.texts("SELECT key" + given + "GROUP BY " + GetParam() + " HAVING count(*) > 1"),
              IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Column, DatabaseScriptAliases, testing::Values("webui", "provisioning", "tr069"));

/// A group that is missing there is never announced to controllers.
TEST_F(DatabaseScript, hasOnlyKeysOfGroupsThatADeviceMayAnnounceAtTheCentre) {
  const std::string accessList = deviceFile("mosquitto/central-devices.acl");

  for (const std::string& group :
       database_.texts("SELECT DISTINCT lower(substr(key, 1, instr(key, '.') - 1)) FROM settings")) {
    EXPECT_THAT(accessList, HasSubstr("\npattern write devices/%u/prop-service-" + group + "/any\n"));
  }
}

}  // namespace
}  // namespace propertyservice
