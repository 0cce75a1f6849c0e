#include "core/BackupFile.h"

#include <algorithm>

#include "common/FileSystem.h"
#include "core/Constants.h"

namespace propertyservice {

namespace {

Json::Value toJson(std::string_view text) {
  return {text.data(), text.data() + text.size()};
}

}  // namespace

BackupFile parseBackup(std::string_view text) {
  BackupFile backup;

  const std::size_t marker = text.find(kVersionMarker);
  if (marker != std::string_view::npos) {
    backup.version = text.substr(marker + kVersionMarker.size());
  }

  std::string_view rest = text.substr(0, marker);
  for (std::size_t separator = rest.find(';'); separator != std::string_view::npos;
       separator = rest.find(';')) {
    const std::size_t lineEnd = std::min(rest.find('\n', separator), rest.size());
    Property& property = backup.properties.emplace_back();
    property.set(column::kKey, toJson(rest.substr(0, separator)));
    property.set(column::kValue, toJson(rest.substr(separator + 1, lineEnd - separator - 1)));
    rest.remove_prefix(std::min(lineEnd + 1, rest.size()));
  }
  return backup;
}

BackupFile parseBackupFile(const std::string& path) {
  return parseBackup(filesystem::read(path));
}

}  // namespace propertyservice
