#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "core/MigrationRule.h"
#include "core/Property.h"

namespace propertyservice {

/// A migration file that holds no usable rules.
class MigrationParserException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

using MigrationRules = std::vector<std::shared_ptr<const MigrationRule>>;

/// The rules in the text of a migration file, `{"rename":[{"oldKey":"A","newKey":"B"}]}`, in file order; at
/// least one. Of a text that is not JSON to its end counts what could be read. Throws
/// `MigrationParserException`, and `Json::LogicError` where the text is JSON of another shape.
MigrationRules parseMigration(const std::string& text);

/// The steps that lead the properties of a backup from its database version to the current one. The step to
/// version N is described by the file "migration_N.json".
class Migrations {
 public:
  /// Loads the steps after `backupVersion` up to `currentVersion` from `directory` (which ends in "/"); none
  /// when the backup is not older. The first file that is missing or unusable is logged as an error and ends
  /// the loading; the steps before it stay. A version that does not begin with a number is version 0.
  Migrations(const std::string& backupVersion, const std::string& currentVersion,
             const std::string& directory);

  /// Carries the steps out in ascending order, each as a whole or not at all: a step with a rule that fails
  /// its check is not carried out, nor is any after it, and each of their rules reports it. Returns whether
  /// all were carried out.
  bool apply(std::vector<Property>& properties) const;

 private:
  std::vector<std::pair<int, MigrationRules>> steps_;  // ascending; constant after construction
};

}  // namespace propertyservice
