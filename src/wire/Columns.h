#pragma once

#include <algorithm>
#include <array>
#include <string_view>

/// The columns of the table `settings`. Each name is at once the column in SQLite, the member of a property's
/// JSON form on the bus and in backups, and the name by which validators and the cache read a property. Every
/// name is null-terminated.
namespace propertyservice::column {

inline constexpr std::string_view kKey = "key";
inline constexpr std::string_view kValue = "value";
inline constexpr std::string_view kWebui = "webui";
inline constexpr std::string_view kProvisioning = "provisioning";
inline constexpr std::string_view kTr069 = "tr069";
inline constexpr std::string_view kRangeMin = "range_min";
inline constexpr std::string_view kRangeMax = "range_max";
inline constexpr std::string_view kRegexp = "regexp";
inline constexpr std::string_view kEnum = "enum";
inline constexpr std::string_view kFlags = "flags";
inline constexpr std::string_view kDefaultValues = "defaultvalues";

inline constexpr std::array kText = {kKey,   kValue,  kWebui, kProvisioning,
                                     kTr069, kRegexp, kEnum,  kDefaultValues};

/// The maximum stands before the minimum, the reverse of the table's order.
inline constexpr std::array kInteger = {kRangeMax, kRangeMin, kFlags};

/// The text columns, then the integer columns.
inline constexpr std::array kAll = {kKey,  kValue,         kWebui,    kProvisioning, kTr069, kRegexp,
                                    kEnum, kDefaultValues, kRangeMax, kRangeMin,     kFlags};

inline bool exists(std::string_view column) {
  return std::find(kAll.begin(), kAll.end(), column) != kAll.end();
}

}  // namespace propertyservice::column
