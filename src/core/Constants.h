#pragma once

#include <string_view>

#include "wire/Columns.h"
#include "wire/Names.h"

namespace propertyservice {

inline constexpr std::string_view kTableName = "settings";

/// Turns a key prefix into a LIKE pattern, and marks a key pattern in requests.
inline constexpr std::string_view kSqlWildcard = "%";
inline constexpr std::string_view kRegexpWildcard = ".*";

inline constexpr std::string_view kDatabasePath = "/usr/sbin/nvm";
inline constexpr std::string_view kUnfinishedSuffix = ".unfinished";
inline constexpr std::string_view kCreationScriptPath = "/etc/propsrv.d/nvminit.sql";
inline constexpr std::string_view kVolatileStorePath = "/var/volatile/stateCache";

}  // namespace propertyservice
