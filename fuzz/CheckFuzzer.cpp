#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "client/check/Check.h"
#include "fuzz/Fuzzing.h"
#include "support/TemporaryDirectory.h"

// A text that the linter is given as a database script, a customisation file and a migration file at once.

namespace propertyservice::fuzz {
namespace {

bool isPrintable(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char character) { return character >= ' ' && character <= '~'; });
}

void judge(const check::Report& report, std::size_t files) {
  require(report.files == files, "every file is looked at");
  for (const check::Finding& finding : report.findings) {
    require(!finding.text.empty(), "a finding says something");
    require(isPrintable(finding.text), "a finding is one printable line");
    require(!finding.file.empty(), "a finding is about a file");
  }
}

}  // namespace
}  // namespace propertyservice::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace propertyservice;

  static const test::TemporaryDirectory directory;
  const std::string text(fuzz::toText(data, size));
  const std::vector<std::filesystem::path> files = {directory.write("nvminit.sql", text),
                                                    directory.write("Update.Common.json", text),
                                                    directory.write("migration_1.json", text)};
  fuzz::judge(check::check(files), files.size());
  return 0;
}
