#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace check {

enum class Severity {
  error,    ///< The device would not do what the file says, or would not start.
  warning,  ///< Legal, but hardly meant.
};

/// Something wrong in a file.
struct Finding {
  std::string file;      ///< The path as it was given; for a file found in a directory, below that.
  std::size_t line = 0;  ///< From 1; 0 where the finding is about the file as a whole.
  Severity severity = Severity::error;
  std::string text;  ///< One line of printable ASCII: what is wrong, and what comes of it or what to do.
};

struct Report {
  std::vector<Finding> findings;  ///< In the order of the files, then of their lines.
  std::size_t files = 0;          ///< How many files were looked at.

  /// Something was not looked at: a path that cannot be read, a file of another kind, a directory without
  /// such files. A finding says so, too.
  bool unreadable = false;
};

/// Looks for mistakes in database scripts, customisation files and migration files, each by itself and, as
/// far as they are among `paths`, against each other. A directory stands for the files of these kinds below
/// it. Reads nothing but these, and writes nothing. The log is silent meanwhile. Throws nothing but
/// `std::bad_alloc`. One call at a time.
Report check(const std::vector<std::filesystem::path>& paths);

}  // namespace check
