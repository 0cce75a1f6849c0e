#include "core/Constants.h"
#include "validators/ReadOnlyValidator.h"

namespace propertyservice {
namespace {

TEST(ReadOnlyValidator, refusesWhenBitZeroIsSet) {
  for (const std::string flags : {"1", "3", "-1"}) {
    Property property({{"value", "x"}, {"flags", flags}});

    EXPECT_FALSE(ReadOnlyValidator().validate(property)) << flags;

    EXPECT_EQ(property.status(), Status::ReadOnly) << flags;
  }
}

TEST(ReadOnlyValidator, acceptsWhenBitZeroIsClear) {
  for (const std::string flags : {"0", "2", "-2"}) {
    Property property({{"value", "x"}, {"flags", flags}});
    property.setStatus(Status::DBError);

    EXPECT_TRUE(ReadOnlyValidator().validate(property)) << flags;

    EXPECT_EQ(property.status(), Status::Ok) << flags;
  }
}

TEST(ReadOnlyValidator, leavesTheStatusWithoutFlags) {
  Property property({{"value", "x"}});
  property.set(column::kFlags, Json::nullValue);
  property.setStatus(Status::DBError);

  EXPECT_TRUE(ReadOnlyValidator().validate(property));

  EXPECT_EQ(property.status(), Status::DBError);
}

TEST(ReadOnlyValidator, acceptsFlagsThatAreNoInteger) {
  Property property({{"value", "x"}});
  property.set(column::kFlags, "1");

  EXPECT_TRUE(ReadOnlyValidator().validate(property));

  EXPECT_EQ(property.status(), Status::Ok);
}

}  // namespace
}  // namespace propertyservice
