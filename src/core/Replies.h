#pragma once

#include <string>
#include <string_view>

#include <json/value.h>

#include "core/Property.h"
#include "core/Status.h"

/// Members that requests and replies share. Safe from any thread.
namespace propertyservice::reply {

/// The value as a JSON string; empty for null. Throws `Json::LogicError` for an array or an object.
Json::Value asText(const Json::Value& value);

/// The text of a status. A number that is not a status is logged as an error and gives the empty text.
std::string_view statusText(Status status);

/// Logs a warning for a property that was not found.
void warnIfNotFound(const Property& property);

/// {"status": ...}
std::string withStatus(Status status);

/// {"param": KEY, "status": ...}
std::string withKey(const Property& property);

/// {"param": KEY, "result": VALUE, "status": ...}, without "result" for a property that was not found.
std::string withValue(const Property& property);

}  // namespace propertyservice::reply
