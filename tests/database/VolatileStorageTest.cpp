#include <filesystem>
#include <optional>

#include <json/json.h>
#include <leveldb/db.h>

#include "database/VolatileStorage.h"
#include "database/VolatileStorageException.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using test::LogCapture;
using test::TemporaryDirectory;

class VolatileStorageTest : public testing::Test {
 protected:
  using Storage = VolatileStorage<leveldb::DB>;

  static Property named(const std::string& key) { return Property({{"key", key}}); }

  Status set(const std::string& key, const Json::Value& value) {
    Property property = named(key);
    property.set("value", value);
    storage->set(property);
    return property.status();
  }

  Property got(const std::string& key) {
    Property property = named(key);
    storage->get(property);
    return property;
  }

  Status reset(const std::string& key) {
    Property property = named(key);
    storage->reset(property);
    return property.status();
  }

  TemporaryDirectory directory;
  const std::string path = directory.path("stateCache");
  std::optional<Storage> storage{path};
};

TEST_F(VolatileStorageTest, makesAMissingDirectory) {
  EXPECT_TRUE(std::filesystem::is_directory(path));
}

TEST_F(VolatileStorageTest, logsAndThrowsWhenItCannotBeOpened) {
  const std::string file = directory.write("file", "");
  LogCapture log;

  std::string thrown;
  try {
    Storage unopenable(file);
  } catch (const VolatileStorageException& failure) {
    thrown = failure.what();
  }

  EXPECT_EQ(thrown, "Database could not be initialized");
  EXPECT_EQ(log.linesWith("error database/VolatileStorage:").size(), 1U);
  EXPECT_EQ(log.linesWith("Volatile database cannot be initialized: " + file + " Error: IO error: ").size(),
            1U);
}

TEST_F(VolatileStorageTest, findsNothingUnderAKeyThatWasNeverWritten) {
  LogCapture log;

  const Property property = got("State.A");

  EXPECT_EQ(property.status(), Status::NotFound);
  EXPECT_EQ(property.get("value"), Json::Value(""));
  EXPECT_EQ(log.linesWith("warning database/VolatileStorage:").size(), 1U);
  EXPECT_EQ(log.linesWith("Get property failed for key: State.A").size(), 1U);
}

TEST_F(VolatileStorageTest, findsNothingWhenReadingFails) {
  set("State.A", "x");
  // The first start brings the value from the log into a table, the second opens the table when it is read.
  for (int start = 0; start < 2; ++start) {
    storage.reset();
    storage.emplace(path);
  }
  for (const auto& entry : std::filesystem::directory_iterator(path)) {
    if (entry.path().extension() == ".ldb") {
      std::filesystem::resize_file(entry.path(), 0);
    }
  }
  LogCapture log;

  const Property property = got("State.A");

  EXPECT_EQ(property.status(), Status::NotFound);
  EXPECT_EQ(property.get("value"), Json::Value(""));
  EXPECT_EQ(log.linesWith("Get property failed for key: State.A").size(), 1U);
}

TEST_F(VolatileStorageTest, getsTheValueThatWasSet) {
  set("State.A", "x");

  EXPECT_EQ(got("State.A"), Property({{"key", "State.A"}, {"value", "x"}}));
}

TEST_F(VolatileStorageTest, leavesTheStatusOfAPropertyItFinds) {
  set("State.A", "x");
  Property property = named("State.A");
  property.setStatus(Status::InvalidRequest);

  storage->get(property);

  EXPECT_EQ(property.status(), Status::InvalidRequest);
}

TEST_F(VolatileStorageTest, changesAValueOnceAndLeavesTheSameOne) {
  EXPECT_EQ(set("State.A", "x"), Status::Changed);
  EXPECT_EQ(set("State.A", "x"), Status::Unchanged);
  EXPECT_EQ(set("State.A", "y"), Status::Changed);
}

TEST_F(VolatileStorageTest, storesANumberAsItsTextAndNeverFindsItUnchanged) {
  EXPECT_EQ(set("State.A", 5), Status::Changed);
  EXPECT_EQ(set("State.A", 5), Status::Changed);

  EXPECT_EQ(got("State.A").get("value"), Json::Value("5"));
}

TEST_F(VolatileStorageTest, storesKeyAndValueAlone) {
  Property property({{"key", "State.A"}, {"value", "x"}, {"webui", "w"}, {"flags", "1"}});

  storage->set(property);

  EXPECT_EQ(got("State.A"), Property({{"key", "State.A"}, {"value", "x"}}));
}

TEST_F(VolatileStorageTest, takesEmptyKeysNulsAndLargeValues) {
  const std::string key("State.\0A", 8);
  const std::string value = std::string(1 << 20, 'v') + std::string("\0", 1);

  set(key, value);
  set("", "x");

  EXPECT_EQ(got(key).text("value"), value);
  EXPECT_EQ(got("").text("value"), "x");
}

TEST_F(VolatileStorageTest, keepsItsValuesOverARestart) {
  set("State.A", "x");

  storage.reset();
  storage.emplace(path);

  EXPECT_EQ(got("State.A").text("value"), "x");
}

TEST_F(VolatileStorageTest, tellsWhetherAKeyExists) {
  set("State.A", "");
  Property present = named("State.A");
  Property absent = named("State.B");

  EXPECT_TRUE(storage->exists(present));
  EXPECT_FALSE(storage->exists(absent));
}

TEST_F(VolatileStorageTest, insertsWhatIsThereAlready) {
  set("State.A", "x");
  Property property({{"key", "State.A"}, {"value", "x"}});

  storage->insert(property);

  EXPECT_EQ(property.status(), Status::Changed);
}

TEST_F(VolatileStorageTest, findsNothingToResetUnderAnAbsentKey) {
  EXPECT_EQ(reset("State.A"), Status::NotFound);
}

TEST_F(VolatileStorageTest, removesAPropertyThatIsReset) {
  set("State.A", "x");

  EXPECT_EQ(reset("State.A"), Status::Changed);

  EXPECT_EQ(got("State.A").status(), Status::NotFound);
}

TEST_F(VolatileStorageTest, refusesInAListOnlyKeysWithoutItsMark) {
  std::vector<Property> list = {Property({{"key", "State.A"}, {"value", "a"}}),
                                Property({{"key", "Web.Bar"}, {"value", "b"}}),
                                Property({{"key", "Web.State.C"}, {"value", "c"}})};

  storage->setMultiple(list);

  EXPECT_EQ(list[0].status(), Status::Changed);
  EXPECT_EQ(list[1].status(), Status::InvalidRequest);
  EXPECT_EQ(list[2].status(), Status::Changed);
  EXPECT_EQ(got("State.A").text("value"), "a");
  EXPECT_EQ(got("Web.Bar").status(), Status::NotFound);
  EXPECT_EQ(got("Web.State.C").text("value"), "c");
}

}  // namespace
}  // namespace propertyservice
