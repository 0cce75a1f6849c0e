#pragma once

#include <functional>
#include <string>
#include <vector>

namespace propctl {

/// An option in a configuration file: its long name and its value.
struct Setting {
  std::string name;
  std::string value;
  std::string source;  ///< FILE:LINE.

  bool operator==(const Setting&) const = default;
};

/// The options in a file of lines "NAME = VALUE"; empty lines and lines that begin with "#" are skipped. A
/// file name among the values is relative to the file's folder. A file that is missing gives none.
/// Throws `Failure`.
std::vector<Setting> readConfiguration(const std::string& path);

/// Returns the options that the files of the user and of the system, in this order, add to the `given` ones.
///
/// - An option that is there already stays.
/// - A file speaks of one broker. Where another host or port is there already, only "timeout" and "jobs"
/// count.
/// - "user", "password-file" and "name" belong together: where there is one of the first two, none is added.
std::vector<Setting> addConfiguration(const std::vector<Setting>& given,
                                      const std::vector<std::vector<Setting>>& files);

/// The user's file and the system's.
std::vector<std::string> configurationPaths();

}  // namespace propctl
