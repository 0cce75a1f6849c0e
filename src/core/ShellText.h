#pragma once

#include <string>
#include <string_view>

namespace propertyservice {

/// `text` for a place between double quotes in a command `echo "..."` of /bin/sh (dash): what echo prints
/// there is exactly `text` up to its first line break or NUL, and the shell carries out nothing of it.
std::string escapeForEcho(std::string_view text);

}  // namespace propertyservice
