#pragma once

#include <string>
#include <vector>

#include "core/DevicePaths.h"
#include "core/Property.h"
#include "database/PersistentStorage.h"

namespace propertyservice {

/// Writes the values that the firmware carries for all devices, then those for this device's model, straight
/// to the storage: neither validators nor the bus see them. A missing file is logged and contributes nothing.
/// Throws `std::out_of_range` when the model text has no " ADV", `std::runtime_error` when it cannot be read,
/// and what the storage throws for an entry it refuses.
void applyCustomization(PersistentStorage& storage, const DevicePaths& paths);

/// The entries of a customisation file, one JSON object per line, in file order. A line that is no object
/// gives an entry without members. When the file cannot be read, that is logged, and there are none.
std::vector<Property> parseCustomizationFile(const std::string& path);

}  // namespace propertyservice
