#pragma once

#include <string>
#include <string_view>

namespace check {

/// Whether the C library can be given the extended regular expression without fear for time, memory or stack:
/// its repetitions are copied out when it is compiled, and back-references make matching exponential.
bool isAffordable(std::string_view expression);

/// Whether it matches whole values only: each of its alternatives begins with "^" and ends with "$". Groups
/// around them are looked through.
bool isAnchored(std::string_view expression);

/// The first escape that other dialects know and this one takes for something else, such as "\\d", or a
/// backslash in brackets, where it stands for itself; empty without one.
std::string foreignEscape(std::string_view expression);

}  // namespace check
