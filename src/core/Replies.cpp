#include "core/Replies.h"

#include "common/JSONDefinitions.h"
#include "core/Constants.h"
#include "core/JsonText.h"
#include "core/Log.h"

namespace propertyservice::reply {

using namespace common::JSONDefinitions;

Json::Value asText(const Json::Value& value) {
  return value.isString() ? value : Json::Value(value.asString());
}

std::string_view statusText(Status status) {
  const auto text = toText(status);
  if (!text) {
    logger().error() << "Status conversion to string failed";
    return "";
  }
  return *text;
}

void warnIfNotFound(const Property& property) {
  if (property.status() == Status::NotFound) {
    logger().warning() << "Property not found in database, key: "
                       << [&] { return excerpt(property.text(column::kKey)); };
  }
}

std::string withStatus(Status status) {
  return json::ObjectText().addText(PROPERTY_STATUS, statusText(status)).finish();
}

std::string withKey(const Property& property) {
  warnIfNotFound(property);
  return json::ObjectText()
      .addText(PROPERTY_PARAM, property.text(column::kKey))
      .addText(PROPERTY_STATUS, statusText(property.status()))
      .finish();
}

std::string withValue(const Property& property) {
  if (property.status() == Status::NotFound) {
    return withKey(property);
  }
  return json::ObjectText()
      .addText(PROPERTY_PARAM, property.text(column::kKey))
      .addText(PROPERTY_RESULT, property.text(column::kValue))
      .addText(PROPERTY_STATUS, statusText(property.status()))
      .finish();
}

}  // namespace propertyservice::reply
