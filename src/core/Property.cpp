#include "core/Property.h"

#include <algorithm>
#include <exception>

#include "core/Constants.h"
#include "core/Integer.h"
#include "core/Log.h"

namespace propertyservice {

namespace {

/// A member name with the life of the program is neither copied into the object nor again with each copy of
/// it.
Json::Value& memberFor(Json::Value& object, std::string_view column) {
  const auto known = std::find(column::kAll.begin(), column::kAll.end(), column);
  if (known != column::kAll.end()) {
    return object[Json::StaticString(known->data())];
  }
  return object[std::string(column)];
}

bool isIntegerColumn(std::string_view column) {
  return std::find(column::kInteger.begin(), column::kInteger.end(), column) != column::kInteger.end();
}

}  // namespace

Property::Property(Columns columns) {
  try {
    for (const auto& [column, text] : columns) {
      set(column, isIntegerColumn(column) ? Json::Value(toInteger(text)) : Json::Value(text));
    }
  } catch (const std::exception& error) {
    logger().warning() << error.what();
  }
}

Property Property::fromJson(Json::Value json) {
  Property property;
  if (json.isObject()) {
    property.json_ = std::move(json);
  }
  return property;
}

const Json::Value& Property::member(std::string_view column) const {
  const Json::Value* found = json_.find(column.data(), column.data() + column.size());
  return found != nullptr ? *found : Json::Value::nullSingleton();
}

void Property::set(std::string_view column, Json::Value value) {
  memberFor(json_, column) = std::move(value);
}

void Property::remove(std::string_view column) {
  json_.removeMember(column.data(), column.data() + column.size(), nullptr);
}

}  // namespace propertyservice
