#include <leveldb/db.h>

#include "database/DatabaseService.h"
#include "database/IPersistentDatabase.h"
#include "database/VolatileStorageException.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using test::LogCapture;
using test::TemporaryDirectory;
using testing::_;
using testing::ElementsAre;
using testing::Return;

class MockPersistentDatabase : public IPersistentDatabase {
 public:
  MOCK_METHOD(void, get, (Property&), (override));
  MOCK_METHOD(bool, isWriterIdle, (), (override));
  MOCK_METHOD(bool, isWriterFailing, (), (override));
  MOCK_METHOD(void, hurry, (), (override));
  MOCK_METHOD(void, set, (Property&), (override));
  MOCK_METHOD(std::vector<Property>, getMultiple,
              (const std::string&, const std::vector<std::string>&, const std::string&), (override));
  MOCK_METHOD(void, setMultiple, (std::vector<Property>&), (override));
  MOCK_METHOD(void, reset, (Property&), (override));
  MOCK_METHOD(std::vector<Property>, resetMultiple, (const std::string&), (override));
  MOCK_METHOD(ProvisioningDump, getProvisioningDump, (), (override));
};

class DatabaseServiceTest : public testing::Test {
 protected:
  static Property change(const std::string& key) { return Property({{"key", key}, {"value", "x"}}); }

  std::string volatileValueOf(const std::string& key) {
    Property property({{"key", key}});
    service.get(property);
    return property.text("value");
  }

  TemporaryDirectory directory;
  std::shared_ptr<testing::StrictMock<MockPersistentDatabase>> persistent =
      std::make_shared<testing::StrictMock<MockPersistentDatabase>>();
  DatabaseService<std::shared_ptr<testing::StrictMock<MockPersistentDatabase>>> service{
      persistent, std::make_unique<VolatileStorage<leveldb::DB>>(directory.path("state"))};
};

TEST_F(DatabaseServiceTest, handsAKeyWithThePrefixToTheVolatileStorage) {
  Property property = change("State.Call.Active");

  service.set(property);

  EXPECT_EQ(property.status(), Status::Changed);
  EXPECT_EQ(volatileValueOf("State.Call.Active"), "x");
}

TEST_F(DatabaseServiceTest, handsAnyOtherKeyToThePersistentDatabase) {
  for (const char* key : {"Web.State.X", "MyState.X", "state.X", "State", ""}) {
    Property property = change(key);

    EXPECT_CALL(*persistent, get(property));
    EXPECT_CALL(*persistent, set(property));
    EXPECT_CALL(*persistent, reset(property));

    service.get(property);
    service.set(property);
    service.reset(property);
  }
}

TEST_F(DatabaseServiceTest, handsAPropertyWithoutKeyToThePersistentDatabase) {
  Property property({{"webui", "name"}});

  EXPECT_CALL(*persistent, get(property));

  service.get(property);
}

TEST_F(DatabaseServiceTest, returnsWhatThePersistentDatabaseMadeOfAProperty) {
  Property property = change("Web.A");
  EXPECT_CALL(*persistent, set(_)).WillOnce([](Property& set) { set.setStatus(Status::ReadOnly); });

  service.set(property);

  EXPECT_EQ(property.status(), Status::ReadOnly);
}

TEST_F(DatabaseServiceTest, removesAVolatilePropertyThatIsReset) {
  Property property = change("State.A");
  service.set(property);

  service.reset(property);

  EXPECT_EQ(property.status(), Status::Changed);
  service.get(property);
  EXPECT_EQ(property.status(), Status::NotFound);
}

TEST_F(DatabaseServiceTest, findsNothingForAPatternOfVolatileKeys) {
  LogCapture log;

  EXPECT_TRUE(service.getMultiple("State.%", {}, "").empty());

  EXPECT_EQ(log.linesWith("error database/DatabaseService:").size(), 1U);
  EXPECT_EQ(log.linesWith("Cannot get multiple State properties in single query").size(), 1U);
}

TEST_F(DatabaseServiceTest, handsAnyOtherPatternToThePersistentDatabase) {
  const std::vector<std::string> columns = {"value"};
  EXPECT_CALL(*persistent, getMultiple("Web.%", columns, "webui"))
      .WillOnce(Return(std::vector{change("Web.A")}));

  EXPECT_THAT(service.getMultiple("Web.%", columns, "webui"), ElementsAre(change("Web.A")));
}

TEST_F(DatabaseServiceTest, handsAListThatBeginsWithAVolatileKeyToTheVolatileStorage) {
  std::vector<Property> list = {change("State.A"), change("Web.B")};

  service.setMultiple(list);

  EXPECT_EQ(list[0].status(), Status::Changed);
  EXPECT_EQ(list[1].status(), Status::InvalidRequest);
  EXPECT_EQ(volatileValueOf("State.A"), "x");
}

TEST_F(DatabaseServiceTest, handsAnyOtherListToThePersistentDatabaseWhole) {
  std::vector<Property> list = {change("Web.B"), change("State.A")};
  EXPECT_CALL(*persistent, setMultiple(ElementsAre(change("Web.B"), change("State.A"))))
      .WillOnce([](std::vector<Property>& written) {
        written[0].setStatus(Status::Changed);
        written[1].setStatus(Status::NotFound);
      });

  service.setMultiple(list);

  EXPECT_EQ(list[0].status(), Status::Changed);
  EXPECT_EQ(list[1].status(), Status::NotFound);
}

TEST_F(DatabaseServiceTest, doesNothingForAnEmptyList) {
  std::vector<Property> list;

  service.setMultiple(list);

  EXPECT_TRUE(list.empty());
}

TEST_F(DatabaseServiceTest, resetsPatternsInThePersistentDatabaseAlone) {
  EXPECT_CALL(*persistent, resetMultiple("State.%")).WillOnce(Return(std::vector{change("Web.A")}));

  EXPECT_THAT(service.resetMultiple("State.%"), ElementsAre(change("Web.A")));
}

TEST_F(DatabaseServiceTest, isIdleWhenThePersistentDatabaseIs) {
  EXPECT_CALL(*persistent, isWriterIdle()).WillOnce(Return(false)).WillOnce(Return(true));

  EXPECT_FALSE(service.isWriterIdle());
  EXPECT_TRUE(service.isWriterIdle());
}

TEST_F(DatabaseServiceTest, failsToWriteWhenThePersistentDatabaseDoes) {
  EXPECT_CALL(*persistent, isWriterFailing()).WillOnce(Return(false)).WillOnce(Return(true));

  EXPECT_FALSE(service.isWriterFailing());
  EXPECT_TRUE(service.isWriterFailing());
}

TEST_F(DatabaseServiceTest, dumpsTheProvisioningNamesOfThePersistentDatabase) {
  EXPECT_CALL(*persistent, getProvisioningDump()).WillOnce(Return(ProvisioningDump{{"P.A", "x"}}));

  EXPECT_EQ(service.getProvisioningDump(), (ProvisioningDump{{"P.A", "x"}}));
}

}  // namespace
}  // namespace propertyservice
