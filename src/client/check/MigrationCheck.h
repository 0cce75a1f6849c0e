#pragma once

#include <vector>

#include "client/check/Findings.h"
#include "client/check/Script.h"

namespace check {

/// Tells about migration files: each by itself, whether they can be carried out one after the other, and,
/// with a script, whether they lead to its keys and its version. `scriptSource` is null exactly when `script`
/// is.
void checkMigrations(const std::vector<const Source*>& sources, const Script* script,
                     const Source* scriptSource, Findings& findings);

}  // namespace check
