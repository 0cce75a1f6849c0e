#pragma once

#include <vector>

#include "client/check/Findings.h"
#include "client/check/Script.h"

namespace check {

/// Tells about customisation files: each line by itself and, with a script, what it does to the table. The
/// file for all devices is applied before each of the others, and these one at a time. Warns of what two
/// files for one device set differently.
void checkCustomizations(const std::vector<const Source*>& sources, const Script* script, Findings& findings);

}  // namespace check
