#pragma once

#include <map>
#include <string>
#include <vector>

#include "core/Constants.h"
#include "database/IDatabaseService.h"

namespace propertyservice::test {

/// A database in a map. Knows keys and "webui" and "provisioning" names, no rules: a write ends with the
/// status that `refusals` holds for its key, else by comparing values.
class FakeDatabaseService : public IDatabaseService {
 public:
  std::map<std::string, Property> rows;
  std::map<std::string, Status> refusals;

  std::vector<std::vector<Property>> listWrites;  ///< What each `setMultiple` was given.

  /// So many answers of `isWriterIdle` are "no": the table lacks a write.
  int busyAnswers = 0;

  /// The table cannot be written: what was accepted waits, for ever.
  bool writerFails = false;

  void add(Property::Columns columns) {
    const Property row(columns);
    rows[row.text(column::kKey)] = row;
  }

  std::string valueOf(const std::string& key) const { return rows.at(key).text(column::kValue); }

  void get(Property& property) override {
    const Property* row = find(property);
    if (row == nullptr) {
      property.setStatus(Status::NotFound);
      return;
    }
    property = *row;
  }

  void set(Property& property) override {
    Property* row = find(property);
    if (row == nullptr) {
      property.setStatus(Status::NotFound);
      return;
    }
    const Json::Value value = property.get(column::kValue);
    const Json::Value before = row->get(column::kValue);
    property = *row;
    property.set(column::kValue, value);
    if (value == before) {
      property.setStatus(Status::Unchanged);
    } else if (const auto refusal = refusals.find(row->text(column::kKey)); refusal != refusals.end()) {
      property.setStatus(refusal->second);
    } else {
      row->set(column::kValue, value);
      property.setStatus(Status::Changed);
    }
  }

  std::vector<Property> getMultiple(const std::string& keyPattern, const std::vector<std::string>& columns,
                                    const std::string& selector) override {
    lastColumns = columns;
    lastSelector = selector;
    std::vector<Property> found;
    for (const auto& [key, row] : rows) {
      if (matches(keyPattern, row.text(selector.empty() ? column::kKey : selector))) {
        found.push_back(row);
      }
    }
    return found;
  }

  void setMultiple(std::vector<Property>& properties) override {
    listWrites.push_back(properties);
    for (Property& property : properties) {
      set(property);
    }
  }

  void reset(Property& property) override {
    Property* row = find(property);
    if (row == nullptr) {
      property.setStatus(Status::NotFound);
      return;
    }
    const std::string byDefault = row->text(column::kDefaultValues);
    const Status status = row->text(column::kValue) == byDefault ? Status::Unchanged : Status::Changed;
    row->set(column::kValue, byDefault);
    property = *row;
    property.setStatus(status);
  }

  std::vector<Property> resetMultiple(const std::string& keyPattern) override {
    std::vector<Property> found = getMultiple(keyPattern, {}, "");
    for (Property& property : found) {
      reset(property);
    }
    return found;
  }

  bool isWriterIdle() override { return busyAnswers-- <= 0 && !writerFails; }
  bool isWriterFailing() override { return writerFails && busyAnswers <= 0; }
  void hurry() override {}

  ProvisioningDump getProvisioningDump() override {
    ProvisioningDump dump;
    for (const auto& [key, row] : rows) {
      if (!row.member(column::kProvisioning).isNull()) {
        dump.emplace_back(row.text(column::kProvisioning), row.text(column::kValue));
      }
    }
    return dump;
  }

  std::vector<std::string> lastColumns;
  std::string lastSelector;

 private:
  static bool matches(const std::string& pattern, const std::string& text) {
    const std::size_t wildcard = pattern.find('%');
    return wildcard == std::string::npos ? text == pattern : text.starts_with(pattern.substr(0, wildcard));
  }

  Property* find(const Property& property) {
    for (const std::string_view name : {column::kKey, column::kProvisioning, column::kWebui}) {
      if (property.member(name).isNull()) {
        continue;
      }
      for (auto& [key, row] : rows) {
        if (row.member(name) == property.member(name)) {
          return &row;
        }
      }
    }
    return nullptr;
  }
};

}  // namespace propertyservice::test
