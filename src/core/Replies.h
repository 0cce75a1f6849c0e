#pragma once

#include <string>
#include <string_view>

#include "core/Property.h"
#include "core/Status.h"

/// What the replies to requests have in common. Safe from any thread.
namespace propertyservice::reply {

/// The text of a status. A number that is no status is logged as an error and gives the empty text.
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
