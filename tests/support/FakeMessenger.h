#pragma once

#include <string>
#include <utility>
#include <vector>

#include "core/Constants.h"
#include "core/IMessenger.h"

namespace propertyservice::test {

/// Remembers what it is to announce, as it was when it came, and treats it as a messenger does.
class FakeMessenger : public IMessenger {
 public:
  std::vector<std::pair<Property, bool>> notified;  ///< What each `notify` was given.
  std::vector<std::vector<Property>> lists;         ///< What each `notifyList` was given.
  std::vector<std::string> payloads;                ///< What was to be published as it is.

  std::pair<std::string, Json::Value> notify(Property& property, bool alsoAll) override {
    notified.emplace_back(property, alsoAll);
    return announce(property);
  }

  void notifyList(std::vector<Property>& properties) override {
    lists.push_back(properties);
    for (Property& property : properties) {
      announce(property);
    }
  }

  void publishGroup(const std::string& group, std::string payload) override {
    payloads.push_back(group + " " + payload);
  }

  void publishAll(std::string payload) override { payloads.push_back(std::move(payload)); }

 private:
  static std::pair<std::string, Json::Value> announce(Property& property) {
    if (property.status() != Status::Changed) {
      return {};
    }
    property.setStatus(Status::Ok);
    return {property.text(column::kKey), property.get(column::kValue)};
  }
};

}  // namespace propertyservice::test
