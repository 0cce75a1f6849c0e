#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "core/Constants.h"
#include "database/PersistentStorage.h"
#include "database/PersistentStorageException.h"

namespace propertyservice::test {

/// The table `settings` as a map from key to value, with a record of what was written.
class FakePersistentStorage : public PersistentStorage {
 public:
  FakePersistentStorage() : PersistentStorage(nullptr) {}

  std::map<std::string, std::string> values;
  std::vector<std::pair<std::string, std::string>> writes;  ///< Key and value, in order.

  void update(const Property& property) override {
    valueOf(property) = property.text(column::kValue);
    writes.emplace_back(property.text(column::kKey), property.text(column::kValue));
  }

  void select(Property& property) override { property.set(column::kValue, valueOf(property)); }

 private:
  std::string& valueOf(const Property& property) {
    const auto entry = values.find(property.text(column::kKey));
    if (entry == values.end()) {
      throw PersistentStorageException("Parameter not found in query",
                                       PersistentStorageException::Reason::MissingRow);
    }
    return entry->second;
  }
};

}  // namespace propertyservice::test
