#pragma once

#include <memory>
#include <utility>

#include "core/DevicePaths.h"
#include "core/IDatabaseBackup.h"
#include "database/IDatabaseService.h"
#include "database/PersistentStorage.h"

namespace propertyservice {

/// Builds both stores at start-up. Used once, by the thread that starts up, before any request is served.
class InitContext {
 public:
  explicit InitContext(DevicePaths paths = {});

  /// Opens the volatile store (emptied first with `dropState`) and the database file (built anew from its
  /// script with `forceDbInit`, when it is missing, or when building it was interrupted), fills in the
  /// device's parameters, applies the customisation files and, unless `forceDbInit`, finishes a pending
  /// restore. What it throws means that the service cannot run.
  std::pair<std::shared_ptr<IDatabaseService>, std::unique_ptr<IDatabaseBackup>> initializeDatabases(
      bool forceDbInit, bool dropState);

  /// The properties that were read from the database.
  std::size_t propertyCount() const { return propertyCount_; }

 private:
  void createPersistentStorage(bool forceDbInit);
  void createDatabase();
  void concludeCreation();

  const DevicePaths paths_;
  std::shared_ptr<IDatabaseService> service_;
  std::unique_ptr<PersistentStorage> storage_;
  std::size_t propertyCount_ = 0;
};

}  // namespace propertyservice
