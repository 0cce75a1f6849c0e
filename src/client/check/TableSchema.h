#pragma once

#include <cstddef>
#include <string>

#include "client/check/Findings.h"

struct sqlite3;

namespace check {

/// Compares the table of the database with the one that the daemon wants. Returns whether the daemon could
/// read it.
bool checkSchema(sqlite3* database, const Source& source, std::size_t tableLine, Findings& findings);

/// The statement that has each row, before it is inserted, handed to the SQL function "propctl_note"; a row
/// for which that says 1 is left out. Empty where there is no table, or it has this trigger.
std::string noteTrigger(sqlite3* database);

}  // namespace check
