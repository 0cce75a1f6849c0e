#include <string>
#include <vector>

#include "common/JSONDefinitions.h"
#include "common/Quote.h"
#include "core/Constants.h"
#include "core/Dispatcher.h"
#include "core/Log.h"
#include "core/Replies.h"

namespace propertyservice {

using namespace common::JSONDefinitions;

namespace {

std::string withoutBlanks(std::string text) {
  std::erase(text, ' ');
  return text;
}

/// The members of `list` as properties that are named by the column `field`. Where that is not a column, they
/// remain without a name.
std::vector<Property> readList(const Json::Value& list, const std::string& field) {
  const bool hasColumn = column::exists(field);
  std::vector<Property> properties;
  properties.reserve(list.size());
  for (auto member = list.begin(); member != list.end(); ++member) {
    const Json::Value name = member.key();
    if (!name.isString() || name == Json::Value("")) {
      logger().error() << "Invalid parameter to set.";
      continue;
    }
    const std::string value = withoutBlanks(member->asString());
    properties.push_back(hasColumn
                             ? Property({{field, withoutBlanks(name.asString())}, {column::kValue, value}})
                             : Property({{column::kValue, value}}));
  }
  return properties;
}

/// Logs each failure. The last one counts when everything failed, and none does otherwise.
Status overallStatus(const std::vector<Property>& properties) {
  Status overall = Status::Ok;
  std::size_t remaining = properties.size();
  for (const Property& property : properties) {
    if (property.status() == Status::Ok) {
      continue;
    }
    logger().error() << "Could not set property: " << common::quote(excerpt(property.text(column::kKey)))
                     << ". Reason: " << reply::statusText(property.status()) << "["
                     << static_cast<int>(property.status()) << "].";
    if (--remaining == 0) {
      overall = property.status();
    }
  }
  return overall;
}

}  // namespace

std::string Dispatcher::setValue(const Json::Value& request) {
  Property property = requestedProperty(request);
  database_->set(property);
  messenger_->notify(property, true);
  return reply::withKey(property);
}

std::string Dispatcher::setList(const Json::Value& request) {
  const Json::Value& list = request[PROPERTY_LIST];
  std::string field = request[PROPERTY_FIELD].asString();
  if (field.empty()) {
    field = column::kKey;
  }

  std::vector<Property> properties = readList(list, field);
  logger().info() << "Set " << properties.size() << "/" << list.size() << " properties.";
  if (properties.empty()) {
    logger().warning() << "No properties provided.";
    return reply::withStatus(Status::InvalidRequest);
  }
  database_->setMultiple(properties);
  messenger_->notifyList(properties);
  return reply::withStatus(overallStatus(properties));
}

std::string Dispatcher::reset(const Json::Value& request) {
  const std::string name = request[PROPERTY_PARAM].asString();
  if (name.find(kSqlWildcard) == std::string::npos) {
    Property property;
    property.set(column::kKey, name);
    database_->reset(property);
    messenger_->notify(property, true);
    return reply::withStatus(property.status());
  }
  std::vector<Property> properties = database_->resetMultiple(name);
  messenger_->notifyList(properties);
  return reply::withStatus(properties.empty() ? Status::NotFound : properties.front().status());
}

std::string Dispatcher::restore() {
  return reply::withStatus(
      backup_->restore([this](std::vector<Property>& restored) { messenger_->notifyList(restored); }));
}

}  // namespace propertyservice
