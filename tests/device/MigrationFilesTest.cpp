#include <filesystem>

#include "core/JsonText.h"
#include "device/SampleDevice.h"

namespace propertyservice {
namespace {

using test::deviceFile;
using test::SampleDatabase;
using testing::IsEmpty;
using testing::Not;

struct Rename {
  std::string oldKey;
  std::string newKey;
};

std::vector<Rename> renames(int step) {
  Json::Value file;
  EXPECT_TRUE(json::parse(deviceFile("etc/propsrv.d/migration_" + std::to_string(step) + ".json"), file));
  std::vector<Rename> found;
  for (const Json::Value& rule : file["rename"]) {
    found.push_back({rule["oldKey"].asString(), rule["newKey"].asString()});
  }
  return found;
}

class MigrationFiles : public testing::TestWithParam<int> {
 protected:
  SampleDatabase database_;
};

TEST_P(MigrationFiles, renameKeysThatAreGoneToKeysThatExist) {
  const std::vector<Rename> found = renames(GetParam());

  EXPECT_THAT(found, Not(IsEmpty()));
  for (const Rename& rename : found) {
    EXPECT_FALSE(database_.has(rename.oldKey)) << rename.oldKey;
    EXPECT_TRUE(database_.has(rename.newKey)) << rename.newKey;
  }
}

TEST_P(MigrationFiles, renameOnlyWhatEveryUserBackupHolds) {
  for (const Rename& rename : renames(GetParam())) {
    EXPECT_EQ(database_.count("key = '" + rename.newKey + "' AND flags & 8"), 1) << rename.newKey;
  }
}

INSTANTIATE_TEST_SUITE_P(Step, MigrationFiles, testing::Values(4, 5));

TEST(MigrationFilesTogether, endAtTheDatabaseVersion) {
  SampleDatabase database;
  const std::string directory = DEVICE_DIRECTORY "/etc/propsrv.d/migration_";

  const int version = toInteger(database.text("SELECT value FROM settings WHERE key = 'NVM.Version'"));

  EXPECT_TRUE(std::filesystem::exists(directory + std::to_string(version) + ".json"));
  EXPECT_FALSE(std::filesystem::exists(directory + std::to_string(version + 1) + ".json"));
}

}  // namespace
}  // namespace propertyservice
