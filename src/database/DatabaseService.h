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
    isVolatile(property) ? volatile_->get(property) : persistent_->get(property);
  }

  void set(Property& property) override {
    isVolatile(property) ? volatile_->set(property) : persistent_->set(property);
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
    if (properties.empty()) {
      return;
    }
    isVolatile(properties.front()) ? volatile_->setMultiple(properties)
                                   : persistent_->setMultiple(properties);
  }

  void reset(Property& property) override {
    isVolatile(property) ? volatile_->reset(property) : persistent_->reset(property);
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
  static bool isVolatile(const Property& property) { return isVolatile(property.text(column::kKey)); }

  PersistentPtr persistent_;
  std::unique_ptr<VolatileStorage<leveldb::DB>> volatile_;
};

}  // namespace propertyservice
