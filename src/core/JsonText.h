#pragma once

#include <string>

#include <json/value.h>

/// The one way between text and JSON.
namespace propertyservice::json {

/// Reads `text` into `value`. Comments are accepted and not kept; what stands behind the first value is
/// ignored. Returns false when the text does not parse, nested deeper than the reader bears (1000 levels)
/// included; `value` then holds what was read up to there, often null. Throws nothing.
bool parse(const std::string& text, Json::Value& value);

/// `value` on one line, without blanks, all characters outside ASCII escaped, ended by a line feed.
std::string write(const Json::Value& value);

}  // namespace propertyservice::json
