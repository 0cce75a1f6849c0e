#include <gmock/gmock.h>

#include "client/propctl/Fleet.h"
#include "support/TemporaryDirectory.h"

namespace propctl {
namespace {

using ::testing::ElementsAre;

const std::map<std::string, propclient::Presence> kKnown = {
    {"HQ-001", {true}}, {"HQ-002", {false}}, {"LAB-1", {true}}};

TEST(Serials, areSeparatedByCommas) {
  EXPECT_TRUE(areSerials("HQ-1,HQ-2"));
  EXPECT_THAT(readSerials("HQ-1, HQ-2,,HQ-3"), ElementsAre("HQ-1", "HQ-2", "HQ-3"));
}

TEST(Serials, standInAFile) {
  const propertyservice::test::TemporaryDirectory directory;
  const std::string file = directory.write("serials", "# hall\nHQ-1\r\n\n  LAB-* \nHQ-2");

  EXPECT_TRUE(areSerials("@" + file));
  EXPECT_THAT(readSerials("HQ-0,@" + file), ElementsAre("HQ-0", "HQ-1", "LAB-*", "HQ-2"));
}

TEST(Serials, throwForAFileWithoutOne) {
  const propertyservice::test::TemporaryDirectory directory;

  EXPECT_THROW(readSerials("@" + directory.write("serials", "# none\n")), Failure);
  EXPECT_THROW(readSerials("@" + directory.path("nowhere")), Failure);
}

TEST(Serials, areOneDeviceWithoutAnythingElse) {
  EXPECT_FALSE(areSerials("HQ_1.a-b"));
  EXPECT_FALSE(areSerials(""));
}

TEST(Serials, standForThemselves) {
  EXPECT_THAT(selectSerials({"LAB-9", "HQ-001"}, kKnown), ElementsAre("HQ-001", "LAB-9"));
}

TEST(Serials, arePatternsForKnownDevices) {
  EXPECT_THAT(selectSerials({"HQ-*"}, kKnown), ElementsAre("HQ-001", "HQ-002"));
  EXPECT_THAT(selectSerials({"HQ-00[2-9]"}, kKnown), ElementsAre("HQ-002"));
}

TEST(Serials, areTakenOnce) {
  EXPECT_THAT(selectSerials({"LAB-?", "*"}, kKnown), ElementsAre("HQ-001", "HQ-002", "LAB-1"));
}

TEST(Serials, throwForAPatternThatNothingMatches) {
  EXPECT_THROW(selectSerials({"X*"}, kKnown), Failure);
}

}  // namespace
}  // namespace propctl
