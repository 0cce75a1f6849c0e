#include "core/Property.h"

#include <algorithm>
#include <exception>

#include "core/Constants.h"
#include "core/Integer.h"
#include "core/Log.h"

namespace propertyservice {

namespace {

bool isIntegerColumn(std::string_view column) {
  return std::find(column::kInteger.begin(), column::kInteger.end(), column) != column::kInteger.end();
}

}  // namespace

Property::Property(Columns columns) {
  members_.reserve(columns.size());
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
  if (!json.isObject()) {
    return property;
  }
  property.isObject_ = true;
  for (auto member = json.begin(); member != json.end(); ++member) {
    property.members_.emplace_back(member.name(), std::move(*member));
  }
  return property;
}

const Json::Value& Property::member(std::string_view column) const {
  const auto found = std::ranges::find(members_, column, &Member::first);
  return found != members_.end() ? found->second : Json::Value::nullSingleton();
}

void Property::set(std::string_view column, Json::Value value) {
  isObject_ = true;
  const auto place = std::ranges::lower_bound(members_, column, {}, &Member::first);
  if (place != members_.end() && place->first == column) {
    place->second = std::move(value);
  } else {
    members_.emplace(place, column, std::move(value));
  }
}

void Property::remove(std::string_view column) {
  std::erase_if(members_, [column](const Member& member) { return member.first == column; });
}

void Property::keepOnly(const std::vector<std::string>& columns) {
  std::erase_if(members_, [&columns](const Member& member) {
    return std::find(columns.begin(), columns.end(), member.first) == columns.end();
  });
}

Json::Value Property::json() const {
  Json::Value json(isObject_ ? Json::objectValue : Json::nullValue);
  for (const auto& [name, value] : members_) {
    json[name] = value;
  }
  return json;
}

}  // namespace propertyservice
