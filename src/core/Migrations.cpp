#include "core/Migrations.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <stdexcept>

#include <json/value.h>

#include "common/FileSystem.h"
#include "core/Integer.h"
#include "core/JsonText.h"
#include "core/Log.h"
#include "core/MigrationRuleRename.h"

namespace propertyservice {

namespace {

/// A number that is too large is beyond every migration.
int toVersion(const std::string& text) {
  try {
    return toInteger(text);
  } catch (const std::invalid_argument&) {
    return 0;
  } catch (const std::out_of_range&) {
    return std::numeric_limits<int>::max();
  }
}

}  // namespace

MigrationRules parseMigration(const std::string& text) {
  Json::Value document;
  json::parse(text, document);

  MigrationRules rules;
  for (const Json::Value& rename : std::as_const(document)["rename"]) {
    const std::string oldKey = rename["oldKey"].asString();
    const std::string newKey = rename["newKey"].asString();
    if (oldKey.empty() || newKey.empty()) {
      throw MigrationParserException("Parsing rename rule failed");
    }
    rules.push_back(std::make_shared<const MigrationRuleRename>(oldKey, newKey));
  }
  if (rules.empty()) {
    throw MigrationParserException("Migrations not found");
  }
  return rules;
}

Migrations::Migrations(const std::string& backupVersion, const std::string& currentVersion,
                       const std::string& directory) {
  int step = toVersion(backupVersion);
  const int current = toVersion(currentVersion);
  try {
    while (step < current) {
      ++step;
      const std::string path = directory + "migration_" + std::to_string(step) + ".json";
      steps_.emplace_back(step, parseMigration(filesystem::read(path)));
    }
  } catch (const std::exception& error) {
    logger().error() << "Error during parsing migration number: " << step
                     << ", error message: " << error.what();
  }
}

bool Migrations::apply(std::vector<Property>& properties) const {
  bool ok = true;
  for (const auto& [step, rules] : steps_) {
    ok = ok &&
         std::all_of(rules.begin(), rules.end(), [&](const auto& rule) { return rule->check(properties); });
    for (const auto& rule : rules) {
      if (ok) {
        rule->apply(properties);
      } else {
        rule->reportFailure(properties, step);
      }
    }
  }
  return ok;
}

}  // namespace propertyservice
