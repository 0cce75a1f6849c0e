#pragma once

#include <string>
#include <string_view>

#include "dbg/Debug.h"

namespace propertyservice {

/// The log of this daemon, tag "PROP-SRV". Usable before `main` and until the process ends.
dbg::Debug& logger();

/// Returns the part of a client's text that a log entry shows: all of it up to 4 KiB, else the first 4 KiB
/// and its size.
std::string excerpt(std::string_view text);

}  // namespace propertyservice
