#include "mqtt/Text.h"

#include <mosquitto.h>

namespace mqtt {

bool isText(const std::string& text) {
  constexpr std::size_t kLongest = 65535;
  return !text.empty() && text.size() <= kLongest &&
         mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

bool isTopic(const std::string& topic) {
  return isText(topic) && mosquitto_pub_topic_check2(topic.data(), topic.size()) == MOSQ_ERR_SUCCESS;
}

bool isTopicFilter(const std::string& filter) {
  return isText(filter) && mosquitto_sub_topic_check2(filter.data(), filter.size()) == MOSQ_ERR_SUCCESS;
}

bool isTopicLevel(const std::string& text) {
  constexpr std::size_t kLongest = 256;
  return isText(text) && text.size() <= kLongest && text.find_first_of("/+#") == std::string::npos;
}

bool matches(const std::string& filter, const std::string& topic) {
  bool matching = false;
  return mosquitto_topic_matches_sub2(filter.data(), filter.size(), topic.data(), topic.size(), &matching) ==
             MOSQ_ERR_SUCCESS &&
         matching;
}

std::string shown(const std::string& topic) {
  constexpr std::size_t kMostShown = 128;
  return '"' + topic.substr(0, kMostShown) + (topic.size() > kMostShown ? "...\"" : "\"");
}

}  // namespace mqtt
