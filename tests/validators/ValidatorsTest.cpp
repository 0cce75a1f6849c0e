#include <memory>

#include "support/LogCapture.h"
#include "validators/EnumValidator.h"
#include "validators/MinMaxValidator.h"
#include "validators/ReadOnlyValidator.h"
#include "validators/RegExpValidator.h"

namespace propertyservice {
namespace {

TEST(Validators, acceptAPropertyWithoutRules) {
  test::LogCapture log;
  Property property({{"key", "A"}, {"value", "x"}});
  property.setStatus(Status::DBError);

  const std::vector<std::shared_ptr<Validator>> all = {
      std::make_shared<ReadOnlyValidator>(), std::make_shared<RegExpValidator>(),
      std::make_shared<MinMaxValidator>(), std::make_shared<EnumValidator>()};
  for (const auto& validator : all) {
    EXPECT_TRUE(validator->validate(property));
  }

  EXPECT_EQ(property.status(), Status::Ok);
  EXPECT_EQ(log.text(), "");
}

}  // namespace
}  // namespace propertyservice
