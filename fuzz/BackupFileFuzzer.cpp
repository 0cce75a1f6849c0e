#include "core/BackupFile.h"
#include "core/Constants.h"
#include "fuzz/Fuzzing.h"

// The text of a backup file. What the parser finds, written down again line by line, must be the text up to
// the place after the last line.

namespace propertyservice::fuzz {
namespace {

std::string toLines(const std::vector<Property>& properties) {
  std::string lines;
  for (const Property& property : properties) {
    lines += property.text(column::kKey) + ';' + property.text(column::kValue) + '\n';
  }
  return lines;
}

void parse(std::string_view text) {
  const BackupFile backup = parseBackup(text);

  // A line break in front of everything moves the one that the marker follows to where the marker was.
  const std::size_t marker = ('\n' + std::string(text)).find('\n' + std::string(kVersionMarker));
  const std::string_view data = text.substr(0, marker);
  require(backup.version == (marker == std::string_view::npos ? std::string_view()
                                                              : text.substr(marker + kVersionMarker.size())),
          "the version is all that follows the first marker that begins a line");

  const std::string lines = toLines(backup.properties);
  if (data.starts_with(lines)) {
    require(data.find(';', lines.size()) == std::string_view::npos, "no line is left out");
  } else {
    require(lines == std::string(data) + '\n', "the lines are those of the file");
  }
}

}  // namespace
}  // namespace propertyservice::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  propertyservice::fuzz::parse(propertyservice::fuzz::toText(data, size));
  return 0;
}
