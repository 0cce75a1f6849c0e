#include "core/Constants.h"
#include "database/PersistentDatabaseCache.h"
#include "support/LogCapture.h"

namespace propertyservice {
namespace {

using test::LogCapture;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

class PersistentDatabaseCacheTest : public testing::Test {
 protected:
  PersistentDatabaseCacheTest() {
    cache_.load({
        Property({{"key", "Web.Port"},
                  {"value", "80"},
                  {"webui", "port"},
                  {"provisioning", "WebPort"},
                  {"range_min", "1"},
                  {"defaultvalues", "8080"}}),
        Property({{"key", "Web.Name"}, {"value", "phone"}, {"webui", "name"}}),
        Property({{"key", "Web.a.%"}, {"value", "literal"}}),
        Property({{"key", "Audio.Volume"}, {"value", "5"}, {"provisioning", "WebVolume"}}),
        Property({{"key", "Audio.Gain"}, {"value", "7"}, {"provisioning", "Gain"}}),
    });
  }

  Property fetch(Property::Columns columns) {
    Property property(columns);
    cache_.get(property);
    return property;
  }

  std::vector<std::string> keysOf(const std::string& pattern, const std::string& selector = "") {
    std::vector<std::string> keys;
    for (const Property& property : cache_.getMultiple(pattern, selector)) {
      keys.push_back(property.text(column::kKey));
    }
    return keys;
  }

  PersistentDatabaseCache cache_;
};

TEST_F(PersistentDatabaseCacheTest, fillsAPropertyByItsKey) {
  const Property property = fetch({{"key", "Web.Port"}});

  EXPECT_EQ(property.status(), Status::Ok);
  EXPECT_EQ(property, Property({{"key", "Web.Port"},
                                {"value", "80"},
                                {"webui", "port"},
                                {"provisioning", "WebPort"},
                                {"range_min", "1"},
                                {"defaultvalues", "8080"}}));
}

TEST_F(PersistentDatabaseCacheTest, replacesAllMembersOfThePropertyItFills) {
  const Property property = fetch({{"key", "Web.Name"}, {"value", "other"}, {"tr069", "x"}});

  EXPECT_EQ(property, Property({{"key", "Web.Name"}, {"value", "phone"}, {"webui", "name"}}));
}

TEST_F(PersistentDatabaseCacheTest, fillsAPropertyByItsWebName) {
  const Property property = fetch({{"webui", "name"}});

  EXPECT_EQ(property.status(), Status::Ok);
  EXPECT_EQ(property.text(column::kKey), "Web.Name");
}

TEST_F(PersistentDatabaseCacheTest, fillsAPropertyByItsProvisioningName) {
  const Property property = fetch({{"provisioning", "WebVolume"}});

  EXPECT_EQ(property.status(), Status::Ok);
  EXPECT_EQ(property.text(column::kKey), "Audio.Volume");
}

TEST_F(PersistentDatabaseCacheTest, prefersTheKeyToTheAliases) {
  const Property property = fetch({{"key", "Audio.Gain"}, {"provisioning", "WebPort"}, {"webui", "name"}});

  EXPECT_EQ(property.text(column::kKey), "Audio.Gain");
}

TEST_F(PersistentDatabaseCacheTest, prefersTheProvisioningNameToTheWebName) {
  const Property property = fetch({{"key", "unknown"}, {"provisioning", "Gain"}, {"webui", "name"}});

  EXPECT_EQ(property.text(column::kKey), "Audio.Gain");
}

TEST_F(PersistentDatabaseCacheTest, doesNotTryTheWebNameWhenTheProvisioningNameIsUnknown) {
  const Property property = fetch({{"provisioning", "unknown"}, {"webui", "name"}});

  EXPECT_EQ(property.status(), Status::NotFound);
}

TEST_F(PersistentDatabaseCacheTest, saysNotFoundForAnUnknownKeyWithoutLogging) {
  LogCapture log;

  const Property property = fetch({{"key", "unknown"}});

  EXPECT_EQ(property.status(), Status::NotFound);
  EXPECT_EQ(property, Property({{"key", "unknown"}}));
  EXPECT_EQ(log.text(), "");
}

TEST_F(PersistentDatabaseCacheTest, saysNotFoundForAnUnknownAliasWithoutLogging) {
  LogCapture log;

  EXPECT_EQ(fetch({{"webui", "unknown"}}).status(), Status::NotFound);
  EXPECT_EQ(fetch({{"provisioning", "unknown"}}).status(), Status::NotFound);

  EXPECT_EQ(log.text(), "");
}

TEST_F(PersistentDatabaseCacheTest, saysNotFoundForAPropertyWithoutAnyName) {
  EXPECT_EQ(fetch({}).status(), Status::NotFound);
}

TEST_F(PersistentDatabaseCacheTest, logsAKeyThatIsNoTextAndLeavesTheProperty) {
  LogCapture log;
  Property property;
  property.set(column::kKey, Json::Value(Json::arrayValue));

  cache_.get(property);
  cache_.set(property);

  EXPECT_EQ(property.status(), Status::Ok);
  EXPECT_TRUE(property.member(column::kKey).isArray());
  EXPECT_EQ(log.linesWith("error database/PersistentDatabaseCache:").size(), 2U);
}

TEST_F(PersistentDatabaseCacheTest, showsAWrittenValueAndLeavesTheOtherMembers) {
  Property property({{"key", "Web.Port"}, {"value", "81"}, {"webui", "other"}});

  cache_.set(property);

  EXPECT_EQ(property.status(), Status::Ok);
  EXPECT_EQ(fetch({{"key", "Web.Port"}}), Property({{"key", "Web.Port"},
                                                    {"value", "81"},
                                                    {"webui", "port"},
                                                    {"provisioning", "WebPort"},
                                                    {"range_min", "1"},
                                                    {"defaultvalues", "8080"}}));
}

TEST_F(PersistentDatabaseCacheTest, leavesBothStatusesWhenItWritesByKey) {
  Property property({{"key", "Web.Port"}, {"value", "81"}});
  property.setStatus(Status::ReadOnly);

  cache_.set(property);

  EXPECT_EQ(property.status(), Status::ReadOnly);
  EXPECT_EQ(fetch({{"key", "Web.Port"}}).status(), Status::Ok);
}

TEST_F(PersistentDatabaseCacheTest, storesTheTextOfAValueThatIsNone) {
  Property property({{"key", "Web.Port"}});
  property.set(column::kValue, 81);

  cache_.set(property);

  EXPECT_EQ(fetch({{"key", "Web.Port"}}).get(column::kValue), Json::Value("81"));
}

TEST_F(PersistentDatabaseCacheTest, storesTheEmptyTextForAMissingValue) {
  Property property({{"key", "Web.Port"}});

  cache_.set(property);

  EXPECT_EQ(fetch({{"key", "Web.Port"}}).get(column::kValue), Json::Value(""));
}

TEST_F(PersistentDatabaseCacheTest, keepsAValueThatCannotBecomeText) {
  LogCapture log;
  Property property({{"key", "Web.Port"}});
  property.set(column::kValue, Json::Value(Json::objectValue));

  cache_.set(property);

  EXPECT_EQ(fetch({{"key", "Web.Port"}}).text(column::kValue), "80");
  EXPECT_EQ(log.linesWith("error").size(), 1U);
}

TEST_F(PersistentDatabaseCacheTest, writesByTheWebName) {
  Property property({{"webui", "name"}, {"value", "new"}});

  cache_.set(property);

  EXPECT_EQ(property.status(), Status::Ok);
  EXPECT_EQ(fetch({{"key", "Web.Name"}}).text(column::kValue), "new");
}

TEST_F(PersistentDatabaseCacheTest, writesByTheProvisioningNameBeforeTheWebName) {
  Property property({{"provisioning", "Gain"}, {"webui", "name"}, {"value", "9"}});

  cache_.set(property);

  EXPECT_EQ(property.status(), Status::Ok);
  EXPECT_EQ(fetch({{"key", "Audio.Gain"}}).text(column::kValue), "9");
  EXPECT_EQ(fetch({{"key", "Web.Name"}}).text(column::kValue), "phone");
}

TEST_F(PersistentDatabaseCacheTest, logsAWriteToAnUnknownAlias) {
  LogCapture log;
  Property property({{"webui", "unknown"}, {"value", "x"}});

  cache_.set(property);

  EXPECT_EQ(property.status(), Status::NotFound);
  EXPECT_EQ(log.linesWith("error database/PersistentDatabaseCache:").size(), 1U);
  EXPECT_EQ(log.linesWith(" Caught exception ").size(), 1U);
}

TEST_F(PersistentDatabaseCacheTest, saysNotFoundForAWriteToAnUnknownKeyWithoutLogging) {
  LogCapture log;
  Property property({{"key", "unknown"}, {"value", "x"}});

  cache_.set(property);

  EXPECT_EQ(property.status(), Status::NotFound);
  EXPECT_EQ(fetch({{"key", "unknown"}}).status(), Status::NotFound);
  EXPECT_EQ(log.text(), "");
}

TEST_F(PersistentDatabaseCacheTest, resetsTheValueToTheDefault) {
  Property property = fetch({{"key", "Web.Port"}});

  cache_.reset(property);

  EXPECT_EQ(property.text(column::kValue), "8080");
  EXPECT_EQ(fetch({{"key", "Web.Port"}}).text(column::kValue), "8080");
}

TEST_F(PersistentDatabaseCacheTest, resetsTheValueToTheEmptyTextWithoutADefault) {
  Property property = fetch({{"key", "Web.Name"}});

  cache_.reset(property);

  EXPECT_EQ(property.get(column::kValue), Json::Value(""));
  EXPECT_EQ(fetch({{"key", "Web.Name"}}).get(column::kValue), Json::Value(""));
}

TEST_F(PersistentDatabaseCacheTest, writesAResetThroughItsOwnSet) {
  struct Recorder : PersistentDatabaseCache {
    void set(Property& property) override { written = property; }
    Property written;
  } recorder;
  Property property({{"key", "A"}, {"defaultvalues", "d"}});

  recorder.reset(property);

  EXPECT_EQ(recorder.written, Property({{"key", "A"}, {"defaultvalues", "d"}, {"value", "d"}}));
}

TEST_F(PersistentDatabaseCacheTest, listsTheKeysThatBeginWithThePattern) {
  EXPECT_THAT(keysOf("Web.%"), UnorderedElementsAre("Web.Port", "Web.Name", "Web.a.%"));
}

TEST_F(PersistentDatabaseCacheTest, takesOnlyTheFirstPercentSignForAWildcard) {
  EXPECT_THAT(keysOf("Web.%.%"), UnorderedElementsAre("Web.a.%"));
}

TEST_F(PersistentDatabaseCacheTest, listsEverythingForTheWildcardAlone) {
  EXPECT_EQ(keysOf("%").size(), 5U);
}

TEST_F(PersistentDatabaseCacheTest, listsWholePropertiesWithTheirPresentValues) {
  Property write({{"key", "Audio.Gain"}, {"value", "8"}});
  cache_.set(write);

  const std::vector<Property> found = cache_.getMultiple("Audio.G%", "");

  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0], Property({{"key", "Audio.Gain"}, {"value", "8"}, {"provisioning", "Gain"}}));
  EXPECT_EQ(found[0].status(), Status::Ok);
}

TEST_F(PersistentDatabaseCacheTest, listsByProvisioningName) {
  EXPECT_THAT(keysOf("Web%", "provisioning"), UnorderedElementsAre("Web.Port", "Audio.Volume"));
}

TEST_F(PersistentDatabaseCacheTest, listsByWebName) {
  EXPECT_THAT(keysOf("%", "webui"), UnorderedElementsAre("Web.Port", "Web.Name"));
}

TEST_F(PersistentDatabaseCacheTest, looksUpOnePropertyForAPatternWithoutAWildcard) {
  EXPECT_THAT(keysOf("Web.Port"), UnorderedElementsAre("Web.Port"));
  EXPECT_THAT(keysOf("name", "webui"), UnorderedElementsAre("Web.Name"));
  EXPECT_THAT(keysOf("Gain", "provisioning"), UnorderedElementsAre("Audio.Gain"));
}

TEST_F(PersistentDatabaseCacheTest, listsNothingForAnUnknownNameWithoutAWildcard) {
  EXPECT_THAT(keysOf("Web"), IsEmpty());
  EXPECT_THAT(keysOf("Web.Port", "webui"), IsEmpty());
  EXPECT_THAT(keysOf("Web.Port", "tr069"), IsEmpty());
}

TEST_F(PersistentDatabaseCacheTest, listsNothingForAPatternThatDoesNotCompileWithoutLogging) {
  LogCapture log;

  EXPECT_THAT(keysOf("[%"), IsEmpty());
  EXPECT_THAT(keysOf("\\(%\\)"), IsEmpty());

  EXPECT_EQ(log.text(), "");
}

TEST_F(PersistentDatabaseCacheTest, refusesAWildcardUnderAnyOtherColumn) {
  for (const std::string selector : {"key", "tr069", "value"}) {
    LogCapture log;

    EXPECT_THAT(keysOf("%", selector), IsEmpty());

    EXPECT_EQ(log.linesWith("Wrong colunm ID in selectList (should be webui or provisioning.").size(), 1U);
    EXPECT_EQ(log.linesWith("error database/PersistentDatabaseCache:").size(), 1U);
  }
}

TEST_F(PersistentDatabaseCacheTest, dumpsValuesByProvisioningName) {
  EXPECT_THAT(cache_.getProvisioningDump(),
              UnorderedElementsAre(Pair("WebPort", "80"), Pair("WebVolume", "5"), Pair("Gain", "7")));
}

TEST_F(PersistentDatabaseCacheTest, leavesPropertiesWithoutAliasOutOfDumpAndAliasQueries) {
  PersistentDatabaseCache cache;
  cache.load({Property({{"key", "A"}, {"value", "x"}})});

  EXPECT_THAT(cache.getProvisioningDump(), IsEmpty());
  EXPECT_THAT(cache.getMultiple("%", "webui"), IsEmpty());
  EXPECT_THAT(cache.getMultiple("%", "provisioning"), IsEmpty());
}

TEST_F(PersistentDatabaseCacheTest, keepsTheLaterOfTwoRowsWithOneKey) {
  PersistentDatabaseCache cache;
  cache.load({Property({{"key", "A"}, {"value", "first"}, {"webui", "one"}}),
              Property({{"key", "A"}, {"value", "second"}, {"webui", "two"}})});

  for (const std::string name : {"one", "two"}) {
    Property property({{"webui", name}});
    cache.get(property);

    EXPECT_EQ(property.text(column::kValue), "second") << name;
  }
}

TEST_F(PersistentDatabaseCacheTest, givesAnAliasToTheLastRowThatClaimsIt) {
  PersistentDatabaseCache cache;
  cache.load({Property({{"key", "A"}, {"webui", "same"}}), Property({{"key", "B"}, {"webui", "same"}})});

  Property property({{"webui", "same"}});
  cache.get(property);

  EXPECT_EQ(property.text(column::kKey), "B");
}

}  // namespace
}  // namespace propertyservice
