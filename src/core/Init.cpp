#include "core/Init.h"

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/Execute.h"
#include "common/FileSystem.h"
#include "core/Customization.h"
#include "core/DatabaseBackup.h"
#include "core/ReadOnlyParameters.h"
#include "database/DatabaseService.h"
#include "database/PersistentDatabase.h"
#include "database/PersistentDatabaseCache.h"
#include "database/VolatileStorage.h"
#include "validators/EnumValidator.h"
#include "validators/MinMaxValidator.h"
#include "validators/ReadOnlyValidator.h"
#include "validators/RegExpValidator.h"

namespace propertyservice {

namespace {

using Database = PersistentDatabase<std::unique_ptr<PersistentStorage>,
                                    std::unique_ptr<PersistentDatabaseCache>, std::unique_ptr<Validator>>;
using StateCache = VolatileStorage<leveldb::DB>;

/// What the command achieved shows when its result is opened.
void run(const std::string& command) {
  constexpr unsigned kTimeoutMs = 10'000;
  os::execute(command, kTimeoutMs);
}

/// In the order in which they judge a write.
std::vector<std::unique_ptr<Validator>> createValidators() {
  std::vector<std::unique_ptr<Validator>> validators;
  validators.push_back(std::make_unique<ReadOnlyValidator>());
  validators.push_back(std::make_unique<RegExpValidator>());
  validators.push_back(std::make_unique<MinMaxValidator>());
  validators.push_back(std::make_unique<EnumValidator>());
  return validators;
}

/// A device without a single property must not come up as if it worked.
std::unique_ptr<PersistentDatabaseCache> createCache(PersistentStorage& storage) {
  auto cache = std::make_unique<PersistentDatabaseCache>();
  std::vector<Property> rows = storage.selectMultiple(std::string(kSqlWildcard));
  if (rows.empty()) {
    throw std::runtime_error("Cannot initialize cache");
  }
  cache->load(std::move(rows));
  return cache;
}

void finishPendingRestore(IDatabaseBackup& backup) {
  if (backup.versionChangeBackupExists()) {
    backup.restoreVersionChange();
  } else if (backup.factoryResetBackupExists()) {
    backup.restoreFactoryReset();
  }
}

}  // namespace

InitContext::InitContext(DevicePaths paths) : paths_(std::move(paths)) {}

std::pair<std::shared_ptr<IDatabaseService>, std::unique_ptr<IDatabaseBackup>>
InitContext::initializeDatabases(bool forceDbInit, bool dropState) {
  if (dropState) {
    run("rm -rf " + paths_.volatileStore);
  }
  auto stateCache = std::make_unique<StateCache>(paths_.volatileStore);
  createPersistentStorage(forceDbInit);

  // Straight to the storage, before validators and cache exist.
  ReadOnlyParameters parameters(*storage_, paths_);
  parameters.initReadOnlyParameters();
  applyCustomization(*storage_, paths_);
  parameters.initDeviceNameInNetwork();

  auto validators = createValidators();
  auto cache = createCache(*storage_);
  auto database = std::make_shared<Database>(std::move(storage_), std::move(cache), std::move(validators));
  service_ = std::make_shared<DatabaseService<std::shared_ptr<Database>>>(std::move(database),
                                                                          std::move(stateCache));
  auto backup = std::make_unique<DatabaseBackup>(service_, paths_);

  // A forced rebuild starts from the script's defaults alone.
  if (!forceDbInit) {
    finishPendingRestore(*backup);
  }
  return {service_, std::move(backup)};
}

/// Without the create flag: a file that the script failed to create must not be opened as an empty database.
void InitContext::createPersistentStorage(bool forceDbInit) {
  if (forceDbInit) {
    run("rm -f " + paths_.database);
  }
  if (!filesystem::checkFileExists(paths_.database)) {
    run("sqlite3 " + paths_.database + " < " + paths_.creationScript);
  }
  storage_ = std::make_unique<PersistentStorage>(openDatabase(paths_.database));
}

}  // namespace propertyservice
