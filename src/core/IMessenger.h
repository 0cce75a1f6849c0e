#pragma once

#include <string>
#include <utility>
#include <vector>

#include <json/value.h>

#include "core/Property.h"

namespace propertyservice {

/// Announces changed properties to whoever listens on the bus. Every operation but `stop` returns at once.
class IMessenger {
 public:
  virtual ~IMessenger() = default;

  /// Announces a property whose status is `Changed` to its group and, with `alsoAll`, on the all-changes
  /// topic, sets its status to `Ok`, and returns its key and value. Any other is left alone and gives an
  /// empty key and null.
  virtual std::pair<std::string, Json::Value> notify(Property& property, bool alsoAll) = 0;

  /// Announces each changed property to its group, then all of them in one message on the all-changes topic.
  virtual void notifyList(std::vector<Property>& properties) = 0;

  virtual void publishGroup(const std::string& group, std::string payload) = 0;
  virtual void publishAll(std::string payload) = 0;

  /// Returns after everything announced so far has been handed to the bus; from then on each announcement is
  /// before it returns. For a messenger without a queue that is always so.
  virtual void stop() {}
};

}  // namespace propertyservice
