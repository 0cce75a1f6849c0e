#include "core/Constants.h"
#include "core/JsonText.h"
#include "device/SampleDevice.h"

namespace propertyservice {
namespace {

using test::deviceFile;
using test::SampleDatabase;
using testing::Contains;
using testing::IsEmpty;
using testing::Not;

std::vector<Json::Value> entries(const std::string& file) {
  std::istringstream lines(deviceFile("etc/nvm.conf.d/" + file));
  std::vector<Json::Value> found;
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty()) {
      EXPECT_TRUE(json::parse(line, found.emplace_back())) << line;
    }
  }
  return found;
}

/// As the daemon makes it of the model's name; it may hold blanks.
std::string modelFile() {
  const std::string model = deviceFile("etc/model");
  return "Update." + model.substr(7, model.find(" ADV") - 7) + ".json";
}

class CustomizationFiles : public testing::TestWithParam<std::string> {};

TEST_P(CustomizationFiles, nameOnlyKeysAndColumnsThatExist) {
  SampleDatabase database;

  const std::vector<Json::Value> found = entries(GetParam());

  EXPECT_THAT(found, Not(IsEmpty()));
  for (const Json::Value& entry : found) {
    ASSERT_TRUE(entry.isObject());
    EXPECT_TRUE(database.has(entry["key"].asString())) << entry["key"].asString();
    for (const std::string& member : entry.getMemberNames()) {
      EXPECT_THAT(column::kAll, Contains(member));
    }
  }
}

TEST_P(CustomizationFiles, giveValuesThatObeyTheirRules) {
  SampleDatabase database;
  std::vector<test::Row> rows;

  for (const Json::Value& entry : entries(GetParam())) {
    for (test::Row row : database.rows("value")) {
      if (row.key == entry["key"].asString()) {
        row.value = entry["value"].asString();
        rows.push_back(row);
      }
    }
  }

  EXPECT_THAT(rows, Not(IsEmpty()));
  EXPECT_THAT(keysThatBreakTheirRules(rows), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Common, CustomizationFiles, testing::Values("Update.Common.json"));
INSTANTIATE_TEST_SUITE_P(Model, CustomizationFiles, testing::Values(modelFile()));

}  // namespace
}  // namespace propertyservice
