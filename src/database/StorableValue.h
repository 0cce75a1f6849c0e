#pragma once

#include <json/value.h>

namespace propertyservice {

/// Whether the table `settings` can hold the value: text of at most 256 characters, in UTF-8 and without a
/// NUL, or anything else that has a text, which an array or object has not.
bool isStorable(const Json::Value& value);

}  // namespace propertyservice
