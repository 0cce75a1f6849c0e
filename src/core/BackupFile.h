#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "core/Property.h"

namespace propertyservice {

/// Stands before the database version in the last line of a backup file.
inline constexpr std::string_view kVersionMarker = "DatabaseVersion:";

/// What a backup file holds: a line `key;value` for each property, then the database version.
struct BackupFile {
  /// All that follows the first version marker, the line end included; empty without a marker.
  std::string version;

  /// "key" and "value" of each line, in the order of the file.
  std::vector<Property> properties;
};

/// Reads the text of a backup file, damaged or not. A key reaches up to the next ";" and a value from there
/// up to the next line break, whatever else is in them; neither reaches into the version marker. Where no
/// further ";" comes before the marker, the reading ends.
BackupFile parseBackup(std::string_view text);

/// The same for the file at `path`. Throws `std::runtime_error` when it cannot be read.
BackupFile parseBackupFile(const std::string& path);

}  // namespace propertyservice
