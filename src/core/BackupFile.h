#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "core/Property.h"

namespace propertyservice {

/// Stands before the database version in the last line of a backup file.
inline constexpr std::string_view kVersionMarker = "DatabaseVersion:";

/// The contents of a backup file: a line `key;value` for each property, then the database version.
struct BackupFile {
  /// All that follows the version marker, the line end included; empty without a marker.
  std::string version;

  /// "key" and "value" of each line, in the order of the file.
  std::vector<Property> properties;
};

/// Reads the text of a backup file, damaged or not. The first version marker that begins a line ends the
/// properties. Before it, a key reaches up to the next ";" and a value from there up to the next line break,
/// whatever else is in them. Where no further ";" comes, the reading ends.
BackupFile parseBackup(std::string_view text);

/// The same for the file at `path`. Throws `std::runtime_error` when it cannot be read.
BackupFile parseBackupFile(const std::string& path);

/// Throws `std::runtime_error`, with the first key that is missing, unless `text` is all that an export of
/// `properties` writes: the beginning of a line for each of them, and the version line as its last when
/// `withVersion` is set.
void requireWhole(std::string_view text, const std::vector<Property>& properties, bool withVersion);

}  // namespace propertyservice
