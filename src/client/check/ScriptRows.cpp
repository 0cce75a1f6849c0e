#include "client/check/ScriptRows.h"

#include <array>
#include <exception>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include "client/check/PropertyRules.h"
#include "core/Constants.h"
#include "core/Integer.h"
#include "core/Property.h"
#include "database/PersistentStorage.h"

namespace check {

namespace {

using propertyservice::Property;
namespace column = propertyservice::column;

constexpr const char* kDeviceName = "NET.General.DeviceNameInNetwork";

/// Keys that start-up reads or fills in besides.
constexpr std::array<const char*, 9> kDeviceFacts = {
    "NET.MAC.Address",
    "System.General.Variant.Name",
    "System.General.Variant.MajorID",
    "System.General.Variant.MinorID",
    "System.General.ExperimentalFeatures",
    "System.General.SoftwareVersion",
    "System.General.UserAgent",
    "WebUI.PhoneModel",
    "System.Debug.LevelMask.PROP-SRV",
};

/// Texts that the daemon would read as a number from a column that is declared for numbers.
constexpr const char* kOddIntegers =
    "SELECT key, name, cell, CAST(cell AS INTEGER) FROM (SELECT key, 'range_min' AS name, range_min AS cell "
    "FROM settings "
    "UNION ALL SELECT key, 'range_max', range_max FROM settings UNION ALL SELECT key, 'flags', flags FROM "
    "settings) "
    "JOIN pragma_table_info('settings') AS declared USING (name) WHERE upper(declared.type) = 'INTEGER' AND "
    "typeof(cell) NOT IN ('integer', 'null')";

class RowChecker {
 public:
  RowChecker(const Script& script, const Source& source, Findings& findings)
      : script_(script), source_(source), findings_(findings) {}

  void check() {
    const std::vector<Property> rows =
        propertyservice::PersistentStorage(script_.database).selectMultiple("%");
    if (rows.empty() && script_.lines.empty()) {
      findings_.error(source_, 0, "puts no property into the table: the daemon does not start");
      return;
    }
    checkKinds();
    const bool valuesForgotten = noneHasItsDefault(rows);
    if (valuesForgotten && script_.complete) {
      findings_.error(
          source_, 0,
          "no property has a value, though they have defaults: end the script with UPDATE settings SET "
          "value = defaultvalues;");
    }
    for (Property row : rows) {
      if (valuesForgotten) {
        row.set(column::kValue, row.text(column::kDefaultValues));
      }
      for (const auto& [severity, text] : complaintsAbout(row)) {
        findings_.add(source_, lineOf(row), severity, text);
      }
    }
    for (const std::string_view name : {column::kWebui, column::kProvisioning, column::kTr069}) {
      checkAliases(rows, name);
    }
    checkVersionKey(rows);
    if (script_.complete) {
      checkPresence();
    }
  }

 private:
  std::size_t lineOf(const Property& row) const { return script_.lineOf(row.text(column::kKey)); }

  /// Cells of the integer columns that hold something else.
  void checkKinds() {
    SQLite::Statement statement(*script_.database, kOddIntegers);
    while (statement.executeStep()) {
      const std::string key = statement.getColumn(0).getString();
      const std::string name = statement.getColumn(1).getString();
      findings_.error(source_, script_.lineOf(key),
                      inQuotes(key) + ": \"" + name + "\" is " +
                          inQuotes(statement.getColumn(2).getString()) + " and no integer: it counts as " +
                          statement.getColumn(3).getString() + "; write NULL for none");
    }
  }

  static bool noneHasItsDefault(const std::vector<Property>& rows) {
    std::size_t defaults = 0;
    for (const Property& row : rows) {
      if (!row.text(column::kValue).empty()) {
        return false;
      }
      defaults += row.text(column::kDefaultValues).empty() ? 0 : 1;
    }
    return defaults > 1;
  }

  void checkAliases(const std::vector<Property>& rows, std::string_view name) {
    std::map<std::string, const Property*> owners;
    for (const Property& row : rows) {
      if (row.member(name).isNull()) {
        continue;
      }
      const std::string alias = row.text(name);
      const auto [owner, isNew] = owners.emplace(alias, &row);
      if (!isNew) {
        findings_.error(
            source_, lineOf(row),
            inQuotes(row.text(column::kKey)) + ": the \"" + std::string(name) + "\" name " + inQuotes(alias) +
                " is also that of " + inQuotes(owner->second->text(column::kKey)) + " (line " +
                std::to_string(lineOf(*owner->second)) + "): only one of the two can be reached by it");
      }
    }
  }

  void checkVersionKey(const std::vector<Property>& rows) {
    for (const Property& row : rows) {
      if (row.text(column::kKey) != kVersionKey) {
        continue;
      }
      const std::string version = versionIn(row);
      if (version.empty() || version.find_first_not_of("0123456789") != std::string::npos) {
        findings_.error(
            source_, lineOf(row),
            inQuotes(kVersionKey) + ": " + inQuotes(version) +
                " is no number: it is that of the last migration file, and backups cannot be carried "
                "over without it");
      }
    }
  }

  void checkPresence() {
    if (!script_.has(kDeviceName)) {
      findings_.error(source_, 0,
                      inQuotes(kDeviceName) + " is missing: the daemon does not start without it");
    }
    if (!script_.has(kVersionKey)) {
      findings_.error(
          source_, 0,
          inQuotes(kVersionKey) + " is missing: backups have no version, and cannot be carried over");
    }
    std::string missing;
    for (const char* const key : kDeviceFacts) {
      if (!script_.has(key)) {
        missing += (missing.empty() ? "" : ", ") + std::string(key);
      }
    }
    if (!missing.empty()) {
      findings_.error(source_, 0,
                      missing + (missing.find(',') == std::string::npos ? " is" : " are") +
                          " missing: the daemon fills in the facts about the device only up to there");
    }
  }

  const Script& script_;
  const Source& source_;
  Findings& findings_;
};

}  // namespace

std::string versionIn(const Property& row) {
  const std::string value = row.text(column::kValue);
  return value.empty() ? row.text(column::kDefaultValues) : value;
}

void checkRows(const Script& script, const Source& source, Findings& findings) {
  if (!script.readable) {
    return;
  }
  try {
    RowChecker(script, source, findings).check();
  } catch (const std::exception& error) {
    findings.error(source, 0, std::string("the daemon cannot read the table: ") + error.what());
  }
}

}  // namespace check
