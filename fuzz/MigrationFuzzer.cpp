#include <algorithm>
#include <exception>
#include <set>

#include "core/Constants.h"
#include "core/Migrations.h"
#include "fuzz/Fuzzing.h"

// The text of a migration file, and its rules carried out on a backup of the properties A, B, C and D.

namespace propertyservice::fuzz {
namespace {

std::vector<Property> makeBackup() {
  std::vector<Property> properties;
  for (const char* key : {"A", "B", "C", "D"}) {
    properties.push_back(Property({{column::kKey, key}, {column::kValue, key}}));
  }
  return properties;
}

std::size_t countKeys(const std::vector<Property>& properties) {
  std::set<std::string> keys;
  for (const Property& property : properties) {
    keys.insert(property.text(column::kKey));
  }
  return keys.size();
}

std::size_t countRenamed(const std::vector<Property>& before, const std::vector<Property>& after) {
  std::size_t renamed = 0;
  for (std::size_t i = 0; i < before.size(); ++i) {
    require(after[i].member(column::kValue) == before[i].member(column::kValue), "a rename keeps the value");
    renamed += after[i] == before[i] ? 0 : 1;
  }
  return renamed;
}

void carryOut(const MigrationRules& rules) {
  require(!rules.empty(), "a file without rules is refused");
  std::vector<Property> properties = makeBackup();
  for (const auto& rule : rules) {
    if (!rule->check(properties)) {
      rule->reportFailure(properties, 1);
      continue;
    }
    const std::vector<Property> before = properties;
    rule->apply(properties);
    require(properties.size() == before.size(), "a rename adds and removes nothing");
    require(countRenamed(before, properties) == 1, "a rename that can be carried out renames one property");
    require(countKeys(properties) == properties.size(), "a rename never gives two properties one key");
  }
}

}  // namespace
}  // namespace propertyservice::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace propertyservice;

  MigrationRules rules;
  try {
    rules = parseMigration(std::string(fuzz::toText(data, size)));
  } catch (const std::exception&) {
    return 0;
  }
  fuzz::carryOut(rules);
  return 0;
}
