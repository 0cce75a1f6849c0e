#include "core/Constants.h"
#include "core/MigrationRuleRename.h"
#include "support/LogCapture.h"

namespace propertyservice {
namespace {

using test::LogCapture;
using testing::ElementsAre;
using testing::EndsWith;

Property entry(const std::string& key, const std::string& value) {
  return Property({{column::kKey, key}, {column::kValue, value}});
}

TEST(MigrationRuleRename, canBeCarriedOutWhenOnlyTheOldKeyIsThere) {
  const MigrationRuleRename rule("Old", "New");

  EXPECT_TRUE(rule.check({entry("A", "1"), entry("Old", "2")}));
}

TEST(MigrationRuleRename, cannotBeCarriedOutWithoutTheOldKey) {
  const MigrationRuleRename rule("Old", "New");

  EXPECT_FALSE(rule.check({entry("A", "1")}));
  EXPECT_FALSE(rule.check({}));
}

TEST(MigrationRuleRename, cannotBeCarriedOutWhenTheNewKeyIsTaken) {
  const MigrationRuleRename rule("Old", "New");

  EXPECT_FALSE(rule.check({entry("Old", "1"), entry("New", "2")}));
}

TEST(MigrationRuleRename, comparesWholeKeys) {
  const MigrationRuleRename rule("Old", "New");

  EXPECT_FALSE(rule.check({entry("Older", "1")}));
  EXPECT_TRUE(rule.check({entry("Old", "1"), entry("Newer", "2")}));
}

TEST(MigrationRuleRename, changesTheKeyAndKeepsTheValue) {
  const MigrationRuleRename rule("Old", "New");
  std::vector<Property> properties = {entry("A", "1"), entry("Old", "2")};

  rule.apply(properties);

  EXPECT_THAT(properties, ElementsAre(entry("A", "1"), entry("New", "2")));
}

TEST(MigrationRuleRename, changesTheFirstOfTwoEqualKeys) {
  const MigrationRuleRename rule("Old", "New");
  std::vector<Property> properties = {entry("Old", "1"), entry("Old", "2")};

  rule.apply(properties);

  EXPECT_THAT(properties, ElementsAre(entry("New", "1"), entry("Old", "2")));
}

TEST(MigrationRuleRename, changesNothingWithoutTheOldKey) {
  const MigrationRuleRename rule("Old", "New");
  std::vector<Property> properties = {entry("A", "1")};

  rule.apply(properties);

  EXPECT_THAT(properties, ElementsAre(entry("A", "1")));
}

TEST(MigrationRuleRename, reportsThatTheOldKeyIsMissing) {
  const MigrationRuleRename rule("Old", "New");
  LogCapture log;

  rule.reportFailure({entry("A", "1")}, 7);

  EXPECT_THAT(
      log.linesWith("error core/MigrationRuleRename:"),
      ElementsAre(EndsWith(" Migration of NVM version 7 failed to find parameter with key \"Old\" and "
                           "rename it to new key \"New\"")));
}

TEST(MigrationRuleRename, reportsTheValueThatKeepsItsOldKey) {
  const MigrationRuleRename rule("Old", "New");
  LogCapture log;

  rule.reportFailure({entry("Old", "x;y"), entry("New", "2")}, 7);

  EXPECT_THAT(log.linesWith("error core/MigrationRuleRename:"),
              ElementsAre(EndsWith(" Migration of NVM version 7 failed to rename parameter with key \"Old\" "
                                   "and value \"x;y\" to new key \"New\"")));
}

}  // namespace
}  // namespace propertyservice
