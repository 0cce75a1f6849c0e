#include "support/SampleDevice.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <thread>
#include <tuple>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Transaction.h>

#include "core/Constants.h"
#include "core/Init.h"
#include "database/PersistentStorage.h"

namespace propertyservice::bench {

namespace {

constexpr std::size_t kSettingsOfAnAccount = 10;
constexpr std::size_t kRules = 4;

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Property sampleSetting(std::size_t index) {
  Property setting({{column::kKey, sampleKey(index)},
                    {column::kValue, "5"},
                    {column::kWebui, sampleWebui(index)},
                    {column::kProvisioning, sampleProvisioning(index)},
                    {column::kFlags, "14"},
                    {column::kDefaultValues, "5"}});
  switch (static_cast<Rule>(index % kRules)) {
    case Rule::none:
      break;
    case Rule::expression:
      setting.set(column::kRegexp, "^[0-9]{1,3}$");
      break;
    case Rule::range:
      setting.set(column::kRangeMin, 0);
      setting.set(column::kRangeMax, 255);
      break;
    case Rule::list:
      setting.set(column::kEnum, "0,1,2,3,4,5,6,7,8,9");
      break;
  }
  return setting;
}

/// The table as a device is shipped, but without its SIP accounts.
void createShippedSettings(SQLite::Database& database) {
  database.exec(readFile(PROPERTYSERVICE_CREATION_SCRIPT));
  database.exec("DELETE FROM settings WHERE key LIKE 'SIP.%'");
}

std::size_t shippedSettings() {
  static const std::size_t count = [] {
    SQLite::Database database(":memory:", SQLite::OPEN_READWRITE);
    createShippedSettings(database);
    return static_cast<std::size_t>(database.execAndGet("SELECT count(*) FROM settings").getInt64());
  }();
  return count;
}

}  // namespace

std::string sampleKey(std::size_t index) {
  char key[64];
  std::snprintf(key, sizeof key, "Account.%04zu.Setting%zu", index / kSettingsOfAnAccount,
                index % kSettingsOfAnAccount);
  return key;
}

std::string sampleWebui(std::size_t index) {
  return "Account" + std::to_string(index / kSettingsOfAnAccount) + "Setting" +
         std::to_string(index % kSettingsOfAnAccount);
}

std::string sampleProvisioning(std::size_t index) {
  return "account." + std::to_string(index / kSettingsOfAnAccount) + ".setting." +
         std::to_string(index % kSettingsOfAnAccount);
}

std::size_t generatedSettings(std::size_t count) {
  return count - std::min(count, shippedSettings());
}

void createDatabase(const std::string& path, std::size_t count) {
  auto database = std::make_shared<SQLite::Database>(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
  createShippedSettings(*database);
  SQLite::Transaction transaction(*database);
  PersistentStorage storage(database);
  for (std::size_t index = 0; index < generatedSettings(count); ++index) {
    storage.insert(sampleSetting(index));
  }
  transaction.commit();
}

SampleDevice::SampleDevice(std::size_t count) {
  DevicePaths paths;
  paths.database = directory_.path("nvm");
  paths.volatileStore = directory_.path("stateCache");
  paths.model = directory_.write("model", "Halcyon 5 ADV\n");
  paths.version = directory_.write("version", "1.2.3\n");
  paths.macAddress = directory_.write("address", "00:1a:2b:3c:4d:5e\n");
  paths.customizations = directory_.path();
  paths.backups = directory_.path();
  createDatabase(paths.database, count);
  std::tie(database_, backup_) = InitContext(paths).initializeDatabases(false, false);
}

SampleDevice::~SampleDevice() = default;

void SampleDevice::waitForWriter() {
  while (!database_->isWriterIdle()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

SampleDevice& sampleDevice(std::size_t count) {
  static std::map<std::size_t, SampleDevice> devices;
  return devices.try_emplace(count, count).first->second;
}

}  // namespace propertyservice::bench
