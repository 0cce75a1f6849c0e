#pragma once

#include <string>

namespace mqtt {

/// Whether `text` is what MQTT takes for a text: UTF-8 of 1 to 65535 bytes without a NUL.
bool isText(const std::string& text);

/// Whether MQTT allows to publish on `topic`, which must not hold a wildcard.
bool isTopic(const std::string& topic);

bool isTopicFilter(const std::string& filter);

/// Whether `text` can be one level of a topic, without a wildcard and of at most 256 bytes.
bool isTopicLevel(const std::string& text);

bool matches(const std::string& filter, const std::string& topic);

/// Returns `topic` in quotes and cut to a length that suits a message to people.
std::string shown(const std::string& topic);

}  // namespace mqtt
