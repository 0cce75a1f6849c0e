#pragma once

#include <string_view>

#include "wire/Columns.h"
#include "wire/Names.h"

namespace propertyservice {

/// Where the broker of the bus runs.
inline constexpr char kBusHost[] = "localhost";

inline constexpr std::string_view kTableName = "settings";

/// Creates the table of the properties.
inline constexpr char kCreateTable[] =
    "CREATE TABLE settings(key TEXT PRIMARY KEY check(length(key) <= 64), "
    "value TEXT check(length(value) <= 256), webui TEXT, provisioning TEXT, tr069 TEXT, "
    "range_min INTEGER, range_max INTEGER, regexp TEXT, enum TEXT, flags INTEGER, "
    "defaultvalues TEXT check(length(defaultvalues) <= 256))";

/// Turns a key prefix into a LIKE pattern, and marks a key pattern in requests.
inline constexpr std::string_view kSqlWildcard = "%";
inline constexpr std::string_view kRegexpWildcard = ".*";

inline constexpr std::string_view kDatabasePath = "/usr/sbin/nvm";
inline constexpr std::string_view kUnfinishedSuffix = ".unfinished";
inline constexpr std::string_view kCreationScriptPath = "/etc/propsrv.d/nvminit.sql";
inline constexpr std::string_view kVolatileStorePath = "/var/volatile/stateCache";

}  // namespace propertyservice
