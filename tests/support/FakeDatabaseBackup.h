#pragma once

#include <string>
#include <vector>

#include "core/IDatabaseBackup.h"

namespace propertyservice::test {

/// Remembers what it was asked for; each operation ends with `result`.
class FakeDatabaseBackup : public IDatabaseBackup {
 public:
  Status result = Status::Ok;
  std::vector<Property> restorable;  ///< What a restore hands to its callback.
  bool versionChangePending = false;
  bool factoryResetPending = false;

  std::vector<std::string> calls;
  Json::Value lastRequest;

  Status makeBackup(const Json::Value& request) override {
    lastRequest = request;
    return record("makeBackup");
  }

  Status prepareVersionChange() override { return record("prepareVersionChange"); }
  Status prepareFactoryReset() override { return record("prepareFactoryReset"); }
  Status makeSysdump() override { return record("makeSysdump"); }

  Status restore(const RestoredCallback& restored) override {
    if (restored) {
      restored(restorable);
    }
    return record("restore");
  }

  void restoreVersionChange() override { record("restoreVersionChange"); }
  void restoreFactoryReset() override { record("restoreFactoryReset"); }
  bool versionChangeBackupExists() override { return versionChangePending; }
  bool factoryResetBackupExists() override { return factoryResetPending; }

 private:
  Status record(const std::string& call) {
    calls.push_back(call);
    return result;
  }
};

}  // namespace propertyservice::test
