#pragma once

#include <string>
#include <vector>

#include "client/propclient/Client.h"

namespace propctl {

using propclient::Columns;
using propclient::Status;

/// Returns the daemon's answer to a write of `value`, judged by its own rules. `property` has all columns.
Status judge(const std::string& value, const Columns& property);

/// Why a write of `value` was refused: the rule of `property` (empty where it is not known) that it breaks. A
/// secret is not repeated.
std::string reasonFor(Status status, const std::string& value, const Columns& property,
                      bool isSecret = false);

/// Whether `cautionFor` may have to say something, whatever the property is.
bool mayNeedCaution(const std::string& value);

/// Returns a caution about a value that `property`, given with all columns, takes. Empty for most.
std::string cautionFor(const std::string& value, const Columns& property);

/// Why there is nothing to read or to reset by `name`, which may be a pattern.
std::string whyNot(const std::string& name, Status status);

/// The rules that a value has to obey, a line each.
std::vector<std::string> rulesOf(const Columns& property);

/// The flags as words, "none" without one.
std::string flagsInWords(const Columns& property);

/// A column, or the empty text.
const std::string& columnOf(const Columns& property, std::string_view column);

/// Whether the value is another than the default.
bool isChanged(const Columns& property);

}  // namespace propctl
