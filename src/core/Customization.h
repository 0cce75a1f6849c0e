#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "core/DevicePaths.h"
#include "core/Property.h"
#include "database/PersistentStorage.h"

namespace propertyservice {

/// A line of a customisation file.
struct CustomizationEntry {
  std::string origin;  ///< The file and the number of the line, as in "/etc/nvm.conf.d/Update. 5.json:3".
  Property property;
};

/// Writes the values that the firmware carries for all devices and those for this device's model straight to
/// the storage: neither validators nor the bus see them. Where a column of a property is set more than once,
/// the last value counts and is the only one that is written. A missing file is logged and contributes
/// nothing.
///
/// Throws `std::out_of_range` when the model text has no " ADV", `std::runtime_error` when it cannot be read,
/// and `PersistentStorageException`, with file, line and key, for an entry that the storage refuses or whose
/// value the table cannot hold.
void applyCustomization(PersistentStorage& storage, const DevicePaths& paths);

/// The entries of a customisation file, one JSON object per line, in file order; blank lines are skipped. A
/// line that is not an object gives an entry without members. When the file cannot be read, or a line is
/// nested too deeply, that is logged, and there are only the entries before it.
std::vector<CustomizationEntry> parseCustomizationFile(const std::string& path);

/// Whether a line holds nothing but white space and comments.
bool isBlankLine(std::string_view line);

}  // namespace propertyservice
