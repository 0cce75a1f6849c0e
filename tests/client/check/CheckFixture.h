#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/check/Check.h"
#include "core/Constants.h"
#include "support/TemporaryDirectory.h"

namespace check {

inline void PrintTo(const Finding& finding, std::ostream* out) {
  *out << finding.file << ':' << finding.line
       << (finding.severity == Severity::error ? ": error: " : ": warning: ") << finding.text;
}

}  // namespace check

namespace check::test {

/// A file with one mistake, and what is to be said about it.
struct Case {
  const char* name;
  std::string text;
  std::size_t line;
  Severity severity;
  std::string finding;  ///< A part of it.
};

inline void PrintTo(const Case& broken, std::ostream* out) {
  *out << broken.name;
}

inline std::string nameOf(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

MATCHER_P3(IsFinding, line, severity, part, "") {
  return arg.line == line && arg.severity == severity && arg.text.find(part) != std::string::npos;
}

inline auto isOnly(const Case& broken) {
  return testing::ElementsAre(IsFinding(broken.line, broken.severity, broken.finding));
}

/// Files in a directory of their own.
class CheckTest : public testing::Test {
 protected:
  /// Writes a file, to be looked at by `findings`.
  void add(const std::string& name, const std::string& text) {
    paths_.push_back(directory_.write(name, text));
  }

  std::vector<Finding> findings() const { return check(paths_).findings; }

  propertyservice::test::TemporaryDirectory directory_;
  std::vector<std::filesystem::path> paths_;
};

inline const std::string kTable = std::string(propertyservice::kCreateTable) + ";\n";

/// The rows that start-up needs.
inline const std::string kNeededRows =
    "INSERT INTO settings (key, defaultvalues, flags) VALUES ('NVM.Version', '5', 1), "
    "('NET.General.DeviceNameInNetwork', 'Halcyon', 14), ('NET.MAC.Address', '', 5), "
    "('System.General.Variant.Name', '', 5), ('System.General.Variant.MajorID', '3', 5), "
    "('System.General.Variant.MinorID', '1', 5), ('System.General.ExperimentalFeatures', '0', 1), "
    "('System.General.SoftwareVersion', '', 5), ('System.General.UserAgent', '', 5), "
    "('WebUI.PhoneModel', '1', 5), ('System.Debug.LevelMask.PROP-SRV', '14', 6);\n";

inline const std::string kCopyDefaults = "UPDATE settings SET value = defaultvalues;\n";

/// A script without a mistake around `statements`, which begin on its third line.
inline std::string scriptWith(const std::string& statements) {
  return kTable + kNeededRows + statements + "\n" + kCopyDefaults;
}

/// The same around the rows of a statement, the first on line 4, with the columns key, defaultvalues, flags,
/// range_min, range_max, enum, regexp, webui.
inline std::string scriptWithRows(const std::string& rows) {
  return scriptWith(
      "INSERT INTO settings (key, defaultvalues, flags, range_min, range_max, enum, regexp, webui) VALUES\n" +
      rows + ";");
}

}  // namespace check::test
