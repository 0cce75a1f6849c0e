#include "core/BackupFile.h"

#include <algorithm>
#include <stdexcept>
#include <unordered_set>

#include "common/FileSystem.h"
#include "core/Constants.h"

namespace propertyservice {

namespace {

Json::Value toJson(std::string_view text) {
  return {text.data(), text.data() + text.size()};
}

/// The position of the first version marker that begins a line.
std::size_t findVersionLine(std::string_view text) {
  std::size_t marker = text.find(kVersionMarker);
  while (marker != std::string_view::npos && marker > 0 && text[marker - 1] != '\n') {
    marker = text.find(kVersionMarker, marker + 1);
  }
  return marker;
}

/// As much of a key as stands at the beginning of a line and before a separator.
std::string_view firstCell(std::string_view text) {
  return text.substr(0, text.find_first_of(";\n"));
}

[[noreturn]] void throwNotWhole(const std::string& missing) {
  throw std::runtime_error("The exported file is not whole: it lacks " + missing);
}

}  // namespace

BackupFile parseBackup(std::string_view text) {
  BackupFile backup;

  const std::size_t marker = findVersionLine(text);
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

void requireWhole(std::string_view text, const std::vector<Property>& properties, bool withVersion) {
  std::unordered_set<std::string_view> lines;
  std::string_view last;
  while (!text.empty()) {
    const std::size_t length = text.find('\n');
    if (length == std::string_view::npos) {
      throwNotWhole("its last line end");
    }
    last = text.substr(0, length);
    lines.insert(firstCell(last));
    text.remove_prefix(length + 1);
  }
  if (withVersion && !last.starts_with(kVersionMarker)) {
    throwNotWhole("its version line");
  }
  for (const Property& property : properties) {
    const std::string key = property.text(column::kKey);
    if (!lines.contains(firstCell(key))) {
      throwNotWhole(key);
    }
  }
}

}  // namespace propertyservice
