#include <gmock/gmock.h>

#include "client/propctl/Fleet.h"

namespace propctl {
namespace {

using ::testing::ElementsAre;

const std::map<std::string, bool> kKnown = {{"HQ-001", true}, {"HQ-002", false}, {"LAB-1", true}};

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
