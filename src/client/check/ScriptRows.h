#pragma once

#include <string>

#include "client/check/Findings.h"
#include "client/check/Script.h"
#include "core/Property.h"

namespace check {

/// The property that holds the database version.
constexpr const char* kVersionKey = "NVM.Version";

/// The version that its row holds; the default, where nothing has copied that to the value.
std::string versionIn(const propertyservice::Property& row);

/// Tells about the rows that the script leaves in its table: each by itself, names that two of them share,
/// and properties that the daemon needs.
void checkRows(const Script& script, const Source& source, Findings& findings);

}  // namespace check
