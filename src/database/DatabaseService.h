#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/Constants.h"
#include "core/Log.h"
#include "database/IDatabaseService.h"
#include "database/VolatileStorage.h"

namespace propertyservice {

/// Hands each request to the volatile storage, when its key begins with "State.", or to the persistent
/// database, which `PersistentPtr` points to. No lock of its own.
template <typename PersistentPtr>
class DatabaseService : public IDatabaseService {
 public:
  DatabaseService(PersistentPtr persistentDatabase,
                  std::unique_ptr<VolatileStorage<leveldb::DB>> volatileStorage)
      : persistent_(std::move(persistentDatabase)), volatile_(std::move(volatileStorage)) {}

  void get(Property& property) override {
    on(property, [&](auto& store) { store.get(property); });
  }

  void set(Property& property) override {
    on(property, [&](auto& store) { store.set(property); });
  }

  std::vector<Property> getMultiple(const std::string& keyPattern, const std::vector<std::string>& columns,
                                    const std::string& selector) override {
    if (isVolatile(keyPattern)) {
      logger().error() << "Cannot get multiple State properties in single query";
      return {};
    }
    return persistent_->getMultiple(keyPattern, columns, selector);
  }

  void setMultiple(std::vector<Property>& properties) override {
    if (!properties.empty()) {
      on(properties.front(), [&](auto& store) { store.setMultiple(properties); });
    }
  }

  void reset(Property& property) override {
    on(property, [&](auto& store) { store.reset(property); });
  }

  std::vector<Property> resetMultiple(const std::string& keyPattern) override {
    return persistent_->resetMultiple(keyPattern);
  }

  bool isWriterIdle() override { return persistent_->isWriterIdle(); }

  ProvisioningDump getProvisioningDump() override { return persistent_->getProvisioningDump(); }

  bool isWriterFailing() override { return persistent_->isWriterFailing(); }

  void hurry() override { persistent_->hurry(); }

 private:
  static bool isVolatile(const std::string& key) { return key.starts_with(kVolatilePrefix); }

  /// Calls `operation` with the store of the property.
  template <typename Operation>
  void on(const Property& property, const Operation& operation) {
    if (isVolatile(property.text(column::kKey))) {
      operation(*volatile_);
    } else {
      operation(*persistent_);
    }
  }

  PersistentPtr persistent_;
  std::unique_ptr<VolatileStorage<leveldb::DB>> volatile_;
};

}  // namespace propertyservice
