#include "core/Replies.h"

#include "common/JSONDefinitions.h"
#include "core/Constants.h"
#include "core/JsonText.h"
#include "core/Log.h"

namespace propertyservice::reply {

using namespace common::JSONDefinitions;

namespace {

Json::Value withStatusMember(Status status) {
  const std::string_view text = statusText(status);
  Json::Value reply;
  reply[Json::StaticString(PROPERTY_STATUS)] = Json::Value(text.data(), text.data() + text.size());
  return reply;
}

Json::Value withKeyMember(const Property& property) {
  warnIfNotFound(property);
  Json::Value reply = withStatusMember(property.status());
  reply[Json::StaticString(PROPERTY_PARAM)] = asText(property.member(column::kKey));
  return reply;
}

}  // namespace

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
  return json::write(withStatusMember(status));
}

std::string withKey(const Property& property) {
  return json::write(withKeyMember(property));
}

std::string withValue(const Property& property) {
  Json::Value reply = withKeyMember(property);
  if (property.status() != Status::NotFound) {
    reply[Json::StaticString(PROPERTY_RESULT)] = asText(property.member(column::kValue));
  }
  return json::write(reply);
}

}  // namespace propertyservice::reply
