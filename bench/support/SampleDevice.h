#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "core/IDatabaseBackup.h"
#include "database/IDatabaseService.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice::bench {

/// The key of the generated setting `index`. Ten settings share an account, and with it a prefix. Their rules
/// take turns (see `Rule`); "0" to "9" pass each of them.
std::string sampleKey(std::size_t index);

/// The setting with the index `4 * n + rule` has this rule.
enum class Rule : std::size_t { none, expression, range, list };

std::string sampleWebui(std::size_t index);
std::string sampleProvisioning(std::size_t index);

/// How many of `count` properties in a sample database are generated.
std::size_t generatedSettings(std::size_t count);

/// Makes a database file with the properties that a device is shipped with, but generated ones in place of
/// its SIP accounts: as many as it takes to have `count`, which is 150 at least.
void createDatabase(const std::string& path, std::size_t count);

/// Both stores, as start-up builds them, with `count` properties in a temporary directory. The log mask is
/// that of a shipped device.
class SampleDevice {
 public:
  explicit SampleDevice(std::size_t count);
  ~SampleDevice();

  IDatabaseService& database() { return *database_; }
  std::shared_ptr<IDatabaseService> sharedDatabase() { return database_; }

  /// Returns when all accepted writes are in the file.
  void waitForWriter();

 private:
  const test::TemporaryDirectory directory_;
  std::shared_ptr<IDatabaseService> database_;
  std::unique_ptr<IDatabaseBackup> backup_;
};

/// The one with `count` properties; made when first asked for.
SampleDevice& sampleDevice(std::size_t count);

}  // namespace propertyservice::bench
