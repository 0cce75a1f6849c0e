#pragma once

#include <string>
#include <string_view>

#include "dbg/Debug.h"

namespace propertyservice {

/// The log of this daemon, tag "PROP-SRV". Usable before `main` and until the process ends.
dbg::Debug& logger();

/// What a log entry shows of text that a client sent: all of it up to 4 KiB, else its first 4 KiB and its
/// size.
std::string excerpt(std::string_view text);

}  // namespace propertyservice
