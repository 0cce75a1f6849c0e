#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "common/JSONDefinitions.h"
#include "core/Constants.h"
#include "core/Dispatcher.h"
#include "core/JsonText.h"
#include "core/Log.h"
#include "core/Replies.h"

namespace propertyservice {

using namespace common::JSONDefinitions;

namespace {

/// "key, value ,flags" names three columns, each counted once however often it is named. One empty name
/// stands for all that do not exist and for empty pieces, so that only the text "" names nothing.
std::vector<std::string> readColumns(std::string text) {
  std::erase(text, ' ');
  std::vector<std::string> columns;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find(',', start), text.size());
    std::string_view name = std::string_view(text).substr(start, end - start);
    if (!column::exists(name)) {
      name = "";
    }
    if (std::ranges::find(columns, name) == columns.end()) {
      columns.emplace_back(name);
    }
    start = end + 1;
  }
  return columns;
}

void dropEmptyValue(Property& property) {
  const Json::Value& value = property.member(column::kValue);
  if (value.isNull() || value == Json::Value("")) {
    property.remove(column::kValue);
  }
}

void appendObject(std::string& text, const Property& property) {
  json::ObjectText object;
  for (const auto& [name, value] : property.members()) {
    object.add(name, value);
  }
  text += object.finish();
  text.pop_back();  // its line feed
}

}  // namespace

Property Dispatcher::requestedProperty(const Json::Value& request) {
  Property property;
  property.reserve(2);
  const std::string name = request[PROPERTY_PARAM].asString();
  const std::string field = request[PROPERTY_FIELD].asString();
  if (field.empty()) {
    property.set(column::kKey, name);
  } else if (field == column::kProvisioning || field == column::kWebui) {
    property.set(field, name);
  } else {
    logger().warning() << "Unknown field: " << excerpt(field);
  }
  if (const Json::Value& value = request[column::kValue.data()]; !value.empty()) {
    property.set(column::kValue, value);
  }
  return property;
}

std::string Dispatcher::getValue(const Json::Value& request) {
  Property property = requestedProperty(request);
  database_->get(property);
  return reply::withValue(property);
}

std::string Dispatcher::getColumns(const Json::Value& request) {
  const std::string pattern = request[PROPERTY_PARAM].asString();
  std::vector<Property> properties = database_->getMultiple(
      pattern, readColumns(request[PROPERTY_FIELDS].asString()), request[PROPERTY_FIELD].asString());

  json::ObjectText response;
  response.addText(PROPERTY_PARAM, pattern);
  if (properties.empty()) {
    return response.add(PROPERTY_STATUS, Json::nullValue).finish();
  }
  std::string result;
  std::string_view status;
  for (Property& property : properties) {
    reply::warnIfNotFound(property);
    dropEmptyValue(property);
    result += result.empty() ? '[' : ',';
    appendObject(result, property);
    status = reply::statusText(property.status());
  }
  result += ']';
  return response.addWritten(PROPERTY_RESULT, result).addText(PROPERTY_STATUS, status).finish();
}

std::string Dispatcher::getProvisioningDump() {
  Json::Value response;
  for (const auto& [name, value] : database_->getProvisioningDump()) {
    response[name] = value;
  }
  return json::write(response);
}

}  // namespace propertyservice
