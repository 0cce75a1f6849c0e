#pragma once

#include <optional>
#include <string>

#include <json/value.h>

/// The one way between text and JSON.
namespace propclient::json {

/// Nothing for a text that does not parse, nested too deeply included.
std::optional<Json::Value> parse(const std::string& text);

/// `value` on one line. Bytes outside ASCII go as they are, so that the daemon judges them, not this side.
std::string write(const Json::Value& value);

/// The text that the daemon makes of a value when it stores it; JSON text for what it would not store.
std::string textOf(const Json::Value& value);

/// Whether the daemon's echo of a text is that text: bytes that are no UTF-8 come back replaced.
bool isEchoOf(const std::string& text, const Json::Value& echo);

}  // namespace propclient::json
