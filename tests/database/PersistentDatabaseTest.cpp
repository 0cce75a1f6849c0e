#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>

#include "core/Constants.h"
#include "database/PersistentDatabase.h"
#include "database/PersistentStorage.h"
#include "support/Eventually.h"
#include "support/SettingsFile.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using test::eventually;
using test::SettingsFile;
using test::TemporaryDirectory;

using Writes = std::vector<std::pair<std::string, std::string>>;

/// Rows to load, and the values that were handed over.
class FakeStorage {
 public:
  std::vector<Property> rows;

  std::vector<Property> selectMultiple(const std::string& pattern) {
    pattern_ = pattern;
    return rows;
  }

  void updateValues(std::queue<Property>& properties) {
    const std::scoped_lock lock(mutex_);
    for (; !properties.empty(); properties.pop()) {
      writes_.emplace_back(properties.front().text("key"), properties.front().text("value"));
    }
  }

  void hurry() { hurried = true; }
  std::atomic<bool> hurried = false;

  std::string pattern() const { return pattern_; }

  Writes writes() const {
    const std::scoped_lock lock(mutex_);
    return writes_;
  }

 private:
  std::string pattern_;
  mutable std::mutex mutex_;
  Writes writes_;
};

/// Rows by key and by "webui" name.
class FakeCache {
 public:
  std::map<std::string, Property> rows;
  std::pair<std::string, std::string> lastQuery;

  void load(const std::vector<Property>& loaded) {
    for (const Property& row : loaded) {
      rows[row.text("key")] = row;
    }
  }

  void get(Property& property) {
    if (Property* row = find(property)) {
      property = *row;
    } else {
      property.setStatus(Status::NotFound);
    }
  }

  void set(Property& property) { find(property)->set("value", property.text("value")); }

  void reset(Property& property) {
    property.set("value", property.text("defaultvalues"));
    set(property);
  }

  std::vector<Property> getMultiple(const std::string& keyPattern, const std::string& selector) {
    lastQuery = {keyPattern, selector};
    std::vector<Property> all;
    for (const auto& [key, row] : rows) {
      all.push_back(row);
    }
    return all;
  }

  ProvisioningDump getProvisioningDump() { return {{"P.A", "x"}}; }

 private:
  Property* find(const Property& property) {
    for (auto& [key, row] : rows) {
      const bool byName =
          !property.member("webui").isNull() && row.member("webui") == property.member("webui");
      if (row.member("key") == property.member("key") || byName) {
        return &row;
      }
    }
    return nullptr;
  }
};

class FakeValidator {
 public:
  explicit FakeValidator(std::function<bool(Property&)> verdict) : verdict_(std::move(verdict)) {}
  bool validate(Property& property) { return verdict_(property); }

 private:
  std::function<bool(Property&)> verdict_;
};

class PersistentDatabaseTest : public testing::Test {
 protected:
  using Database = PersistentDatabase<std::shared_ptr<FakeStorage>, std::shared_ptr<FakeCache>,
                                      std::unique_ptr<FakeValidator>>;

  void SetUp() override {
    storage->rows = {row, other};
    std::vector<std::unique_ptr<FakeValidator>> validators;
    for (const Status verdict : {Status::ReadOnly, Status::RegExpError}) {
      validators.push_back(std::make_unique<FakeValidator>([this, verdict](Property& property) {
        validated.push_back(property);
        const bool refuses = verdict == refusal;
        property.setStatus(refuses ? verdict : Status::Ok);
        return !refuses;
      }));
    }
    database = std::make_unique<Database>(storage, cache, std::move(validators));
  }

  /// Destroys the database and returns the writes that the storage was handed.
  Writes writesAtTheEnd() {
    database.reset();
    return storage->writes();
  }

  Property setTo(const Json::Value& value, const std::string& key = "Web.A") {
    Property property({{"key", key}});
    property.set("value", value);
    database->set(property);
    return property;
  }

  std::string cached(const std::string& key = "Web.A") { return cache->rows.at(key).text("value"); }

  const Property row{{{"key", "Web.A"},
                      {"value", "old"},
                      {"webui", "a"},
                      {"regexp", "."},
                      {"flags", "2"},
                      {"defaultvalues", "default"}}};
  const Property other{{{"key", "Web.B"}, {"value", "b"}, {"webui", "b"}, {"defaultvalues", "b"}}};
  std::shared_ptr<FakeStorage> storage = std::make_shared<FakeStorage>();
  std::shared_ptr<FakeCache> cache = std::make_shared<FakeCache>();
  Status refusal = Status::Ok;      ///< A validator refuses with this.
  std::vector<Property> validated;  ///< What the validators were shown.
  std::unique_ptr<Database> database;
};

TEST_F(PersistentDatabaseTest, loadsItsCacheWithEveryRow) {
  EXPECT_EQ(storage->pattern(), "%");
  EXPECT_EQ(cache->rows.size(), 2U);
}

TEST_F(PersistentDatabaseTest, getsFromTheCache) {
  Property property({{"key", "Web.A"}});

  database->get(property);

  EXPECT_EQ(property, row);
}

TEST_F(PersistentDatabaseTest, reportsAnUnknownKey) {
  Property property({{"key", "Web.X"}});

  database->get(property);

  EXPECT_EQ(property.status(), Status::NotFound);
}

TEST_F(PersistentDatabaseTest, changesCacheAndStorageWithAnAcceptedValue) {
  EXPECT_EQ(setTo("new").status(), Status::Changed);

  EXPECT_EQ(cached(), "new");
  EXPECT_EQ(writesAtTheEnd(), (Writes{{"Web.A", "new"}}));
}

TEST_F(PersistentDatabaseTest, givesBackAllStoredMembersWithTheNewValue) {
  const Property property = setTo("new");

  Property expected = row;
  expected.set("value", "new");
  EXPECT_EQ(property, expected);
}

TEST_F(PersistentDatabaseTest, showsTheValidatorsTheNewValueAndTheStoredRules) {
  setTo("new");

  Property expected = row;
  expected.set("value", "new");
  EXPECT_EQ(validated, (std::vector{expected, expected}));
}

TEST_F(PersistentDatabaseTest, asksNoValidatorBehindTheOneThatRefuses) {
  refusal = Status::ReadOnly;

  setTo("new");

  EXPECT_EQ(validated.size(), 1U);
}

TEST_F(PersistentDatabaseTest, leavesCacheAndStorageWhenAKeyIsReadOnly) {
  refusal = Status::ReadOnly;

  EXPECT_EQ(setTo("new").status(), Status::ReadOnly);

  EXPECT_EQ(cached(), "old");
  EXPECT_EQ(writesAtTheEnd(), Writes{});
}

TEST_F(PersistentDatabaseTest, leavesCacheAndStorageWhenAnyValidatorRefuses) {
  refusal = Status::RegExpError;

  EXPECT_EQ(setTo("new").status(), Status::RegExpError);

  EXPECT_EQ(cached(), "old");
  EXPECT_EQ(writesAtTheEnd(), Writes{});
}

TEST_F(PersistentDatabaseTest, takesThePresentValueEvenForAReadOnlyKey) {
  refusal = Status::ReadOnly;

  EXPECT_EQ(setTo("old").status(), Status::Unchanged);

  EXPECT_TRUE(validated.empty());
  EXPECT_EQ(writesAtTheEnd(), Writes{});
}

TEST_F(PersistentDatabaseTest, leavesAPropertyAsItCameWhenItsValueIsUnchanged) {
  EXPECT_EQ(setTo("old"), Property({{"key", "Web.A"}, {"value", "old"}}));
}

TEST_F(PersistentDatabaseTest, writesNothingForAnUnknownKey) {
  EXPECT_EQ(setTo("new", "Web.X").status(), Status::NotFound);

  EXPECT_EQ(writesAtTheEnd(), Writes{});
}

TEST_F(PersistentDatabaseTest, writesANumberAsItsText) {
  EXPECT_EQ(setTo(5).status(), Status::Changed);

  EXPECT_EQ(cached(), "5");
  EXPECT_EQ(writesAtTheEnd(), (Writes{{"Web.A", "5"}}));
}

TEST_F(PersistentDatabaseTest, writesToTheKeyOfAPropertyFoundByAnotherName) {
  Property property({{"webui", "a"}, {"value", "new"}});

  database->set(property);

  EXPECT_EQ(property.text("key"), "Web.A");
  EXPECT_EQ(writesAtTheEnd(), (Writes{{"Web.A", "new"}}));
}

TEST_F(PersistentDatabaseTest, refusesAValueThatTheTableCannotHoldBeforeItIsValidated) {
  const Json::Value unstorable[] = {std::string(257, 'v'), std::string("a\0b", 3), "\xff", Json::arrayValue,
                                    Json::objectValue};

  for (const Json::Value& value : unstorable) {
    const Property property = setTo(value);

    EXPECT_EQ(property.status(), Status::ValueError);
    EXPECT_EQ(property.text("key"), "Web.A");
  }
  EXPECT_TRUE(validated.empty());
  EXPECT_EQ(cached(), "old");
  EXPECT_EQ(writesAtTheEnd(), Writes{});
}

TEST_F(PersistentDatabaseTest, takesAValueOf256Characters) {
  EXPECT_EQ(setTo(std::string(256, 'v')).status(), Status::Changed);
}

TEST_F(PersistentDatabaseTest, setsEachPropertyOfAListForItself) {
  std::vector<Property> list = {Property({{"key", "Web.X"}, {"value", "x"}}),
                                Property({{"key", "Web.B"}, {"value", "b"}}),
                                Property({{"key", "Web.A"}, {"value", "new"}})};

  database->setMultiple(list);

  EXPECT_EQ(list[0].status(), Status::NotFound);
  EXPECT_EQ(list[1].status(), Status::Unchanged);
  EXPECT_EQ(list[2].status(), Status::Changed);
}

TEST_F(PersistentDatabaseTest, asksTheCacheForAPatternAsItIs) {
  database->getMultiple("Web.%", {}, "webui");

  EXPECT_EQ(cache->lastQuery, std::pair(std::string("Web.%"), std::string("webui")));
}

TEST_F(PersistentDatabaseTest, getsAllMembersWhenNoColumnIsNamed) {
  EXPECT_EQ(database->getMultiple("%", {}, ""), (std::vector{row, other}));
}

TEST_F(PersistentDatabaseTest, getsOnlyTheColumnsThatAreNamed) {
  EXPECT_EQ(database->getMultiple("%", {"value"}, ""),
            (std::vector{Property({{"value", "old"}}), Property({{"value", "b"}})}));
}

TEST_F(PersistentDatabaseTest, ignoresNamesThatAreNoColumns) {
  EXPECT_EQ(database->getMultiple("%", {"flags", "Value", "status"}, ""),
            (std::vector{Property({{"flags", "2"}}), Property::fromJson(Json::objectValue)}));
}

TEST_F(PersistentDatabaseTest, resetsAPropertyToItsDefaultWithoutValidation) {
  refusal = Status::ReadOnly;
  Property property({{"key", "Web.A"}});

  database->reset(property);

  EXPECT_EQ(property.status(), Status::Changed);
  EXPECT_EQ(property.text("value"), "default");
  EXPECT_EQ(cached(), "default");
  EXPECT_EQ(writesAtTheEnd(), (Writes{{"Web.A", "default"}}));
}

TEST_F(PersistentDatabaseTest, leavesAPropertyThatHoldsItsDefault) {
  Property property({{"key", "Web.B"}});

  database->reset(property);

  EXPECT_EQ(property.status(), Status::Unchanged);
  EXPECT_EQ(writesAtTheEnd(), Writes{});
}

TEST_F(PersistentDatabaseTest, resetsNothingForAnUnknownKey) {
  Property property({{"key", "Web.X"}});

  database->reset(property);

  EXPECT_EQ(property.status(), Status::NotFound);
  EXPECT_EQ(writesAtTheEnd(), Writes{});
}

TEST_F(PersistentDatabaseTest, resetsEveryPropertyOfAPattern) {
  const std::vector<Property> properties = database->resetMultiple("Web.%");

  EXPECT_EQ(cache->lastQuery, std::pair(std::string("Web.%"), std::string()));
  ASSERT_EQ(properties.size(), 2U);
  EXPECT_EQ(properties[0].status(), Status::Changed);
  EXPECT_EQ(properties[1].status(), Status::Unchanged);
}

TEST_F(PersistentDatabaseTest, dumpsTheProvisioningNamesOfTheCache) {
  EXPECT_EQ(database->getProvisioningDump(), (ProvisioningDump{{"P.A", "x"}}));
}

TEST_F(PersistentDatabaseTest, isIdleOnceEveryAcceptedWriteIsWithTheStorage) {
  setTo("new");

  EXPECT_TRUE(eventually([&] { return database->isWriterIdle(); }));
  EXPECT_EQ(storage->writes(), (Writes{{"Web.A", "new"}}));
}

TEST_F(PersistentDatabaseTest, hurriesItsStorageAtItsEnd) {
  EXPECT_FALSE(storage->hurried);

  database.reset();

  EXPECT_TRUE(storage->hurried);
}

TEST_F(PersistentDatabaseTest, writesManyValuesInCallOrder) {
  Writes expected;
  for (int i = 100; i > 0; --i) {
    const std::string key = "Web.K" + std::to_string(i);
    cache->rows[key] = test::change(key, "old");
    expected.emplace_back(key, "new");
  }

  for (const auto& [key, value] : expected) {
    setTo(value, key);
  }

  EXPECT_EQ(writesAtTheEnd(), expected);
}

/// The table in a file behind the fake cache.
class PersistentDatabaseFileTest : public testing::Test {
 protected:
  using Database = PersistentDatabase<std::unique_ptr<PersistentStorage>, std::unique_ptr<FakeCache>,
                                      std::unique_ptr<FakeValidator>>;

  void SetUp() override {
    file.fill(kRows);
    start();
  }

  void start() {
    connection = openDatabase(file.path());
    database = std::make_unique<Database>(std::make_unique<PersistentStorage>(connection),
                                          std::make_unique<FakeCache>(),
                                          std::vector<std::unique_ptr<FakeValidator>>());
  }

  void setTo(const std::string& key, const std::string& value) {
    Property property = test::change(key, value);
    database->set(property);
    ASSERT_EQ(property.status(), Status::Changed);
  }

  static constexpr int kRows = 1000;
  TemporaryDirectory directory;
  SettingsFile file{directory.path("nvm")};
  std::shared_ptr<SQLite::Database> connection;
  std::unique_ptr<Database> database;
};

TEST_F(PersistentDatabaseFileTest, bringsManyQuickWritesToTheFileInFewStatements) {
  test::StatementTrace trace(*connection);
  std::optional<test::Reader> reader(file.path());

  for (int i = 0; i < kRows; ++i) {
    setTo("K" + std::to_string(i), "new");
  }
  reader.reset();
  database.reset();

  EXPECT_EQ(file.rowsWith("new"), kRows);
  EXPECT_LE(trace.statements.size(), 5U);
}

TEST_F(PersistentDatabaseFileTest, leavesTheLastOfManyValuesOfAKeyInTheFile) {
  for (int i = 0; i <= 500; ++i) {
    setTo("K1", std::to_string(i));
  }

  database.reset();

  EXPECT_EQ(file.valueOf("K1"), "500");
}

TEST_F(PersistentDatabaseFileTest, hasEverythingInTheFileWhenItsWriterIsIdle) {
  setTo("K1", "new");

  EXPECT_TRUE(eventually([&] { return database->isWriterIdle(); }));
  EXPECT_EQ(file.valueOf("K1"), "new");
}

TEST_F(PersistentDatabaseFileTest, bringsWritesToTheFileAfterItWasRemoved) {
  std::filesystem::remove(file.path());

  setTo("K1", "new");
  database.reset();

  EXPECT_EQ(file.valueOf("K1"), "new");
  EXPECT_EQ(file.rowsWith("old"), kRows - 1);
}

TEST_F(PersistentDatabaseFileTest, loadsTheLastValuesAtTheNextStart) {
  setTo("K1", "new");
  database.reset();

  start();
  Property property({{"key", "K1"}});
  database->get(property);

  EXPECT_EQ(property.text("value"), "new");
}

}  // namespace
}  // namespace propertyservice
