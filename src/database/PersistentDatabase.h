#pragma once

#include <memory>
#include <queue>
#include <string>
#include <utility>
#include <vector>

#include "core/Constants.h"
#include "database/IPersistentDatabase.h"
#include "database/StorableValue.h"
#include "database/WriteBehind.h"

namespace propertyservice {

/// The persistent properties: reads are answered by the cache alone; writes are validated, go to the cache at
/// once and to the storage in batches, on a worker of this object.
///
/// Owns its three parts, which are pointers to a `PersistentStorage`, a `PersistentDatabaseCache` and
/// `Validator`s. After construction the worker alone uses the storage; without a lock for the rest.
template <typename StoragePtr, typename CachePtr, typename ValidatorPtr>
class PersistentDatabase : public IPersistentDatabase {
 public:
  /// Loads the cache from the storage. A write has to pass the validators in their order; the first that
  /// refuses it decides its status. Throws what the storage throws.
  PersistentDatabase(StoragePtr storage, CachePtr cache, std::vector<ValidatorPtr> validators)
      : storage_(std::move(storage)), cache_(std::move(cache)), validators_(std::move(validators)) {
    cache_->load(storage_->selectMultiple(std::string(kSqlWildcard)));
    writer_ = std::make_unique<WriteBehind>(
        [this](std::queue<Property>& properties) { storage_->updateValues(properties); });
  }

  /// Returns after everything accepted has been handed to the storage, which no longer waits for locks as
  /// long as it used to.
  ~PersistentDatabase() override {
    storage_->hurry();
    writer_->stop();
  }

  void get(Property& property) override { cache_->get(property); }

  bool isWriterIdle() override { return writer_->isIdle(); }

  void set(Property& property) override {
    Property current = property;
    cache_->get(current);
    if (current.status() != Status::Ok) {
      property.setStatus(current.status());
      return;
    }
    if (current.member(column::kValue) == property.member(column::kValue)) {
      property.setStatus(Status::Unchanged);
      return;
    }
    current.set(column::kValue, property.get(column::kValue));
    property = std::move(current);
    if (!isAccepted(property)) {
      return;
    }
    cache_->set(property);
    store(property);
  }

  std::vector<Property> getMultiple(const std::string& keyPattern, const std::vector<std::string>& columns,
                                    const std::string& selector) override {
    std::vector<Property> properties = cache_->getMultiple(keyPattern, selector);
    if (!columns.empty()) {
      for (Property& property : properties) {
        property.keepOnly(columns);
      }
    }
    return properties;
  }

  void setMultiple(std::vector<Property>& properties) override {
    for (Property& property : properties) {
      set(property);
    }
  }

  void reset(Property& property) override {
    Property current = property;
    cache_->get(current);
    if (current.status() != Status::Ok) {
      property.setStatus(current.status());
      return;
    }
    const Json::Value before = current.get(column::kValue);
    property = std::move(current);
    cache_->reset(property);
    if (property.member(column::kValue) == before) {
      property.setStatus(Status::Unchanged);
      return;
    }
    store(property);
  }

  std::vector<Property> resetMultiple(const std::string& keyPattern) override {
    std::vector<Property> properties = cache_->getMultiple(keyPattern, "");
    for (Property& property : properties) {
      reset(property);
    }
    return properties;
  }

  ProvisioningDump getProvisioningDump() override { return cache_->getProvisioningDump(); }

  bool isWriterFailing() override { return writer_->isFailing(); }

  void hurry() override { storage_->hurry(); }

 private:
  /// Leaves the verdict in the status. A value that the table would refuse is refused here: what is answered
  /// with "Ok" survives.
  bool isAccepted(Property& property) {
    if (!isStorable(property.member(column::kValue))) {
      property.setStatus(Status::ValueError);
      return false;
    }
    for (const ValidatorPtr& validator : validators_) {
      if (!validator->validate(property)) {
        break;
      }
    }
    return property.status() == Status::Ok;
  }

  void store(Property& property) {
    Property change;
    change.reserve(2);
    change.set(column::kKey, property.get(column::kKey));
    change.set(column::kValue, property.get(column::kValue));
    writer_->push(std::move(change));
    property.setStatus(Status::Changed);
  }

  StoragePtr storage_;
  CachePtr cache_;
  std::vector<ValidatorPtr> validators_;
  std::unique_ptr<WriteBehind> writer_;
};

}  // namespace propertyservice
