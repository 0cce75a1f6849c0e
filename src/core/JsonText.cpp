#include "core/JsonText.h"

#include <json/reader.h>
#include <json/writer.h>

// Json::Reader and Json::FastWriter are marked as deprecated in favour of their builders, which are slower by
// a factor of two and more and write another text.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace propertyservice::json {

bool parse(const std::string& text, Json::Value& value) {
  // Collecting comments is quadratic in their number.
  constexpr bool kCollectComments = false;

  try {
    return Json::Reader().parse(text, value, kCollectComments);
  } catch (const Json::Exception&) {
    return false;
  }
}

std::string write(const Json::Value& value) {
  return Json::FastWriter().write(value);
}

}  // namespace propertyservice::json
