#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "client/check/Check.h"

namespace check {

/// A file that is looked at, whole.
class Source {
 public:
  /// `index` is its place among the files of one call.
  Source(std::size_t index, std::string path, std::string text);

  std::size_t index() const { return index_; }
  const std::string& path() const { return path_; }
  const std::string& text() const { return text_; }

  /// The file's own name.
  std::string name() const;

  /// The number of the line, from 1, that the byte at `offset` stands on.
  std::size_t lineAt(std::size_t offset) const;

 private:
  std::size_t index_;
  std::string path_;
  std::string text_;
  std::vector<std::size_t> lineStarts_;
};

/// Text of a file as a finding shows it: in quotes, in ASCII, and not at any length.
std::string inQuotes(std::string_view text);

/// The findings so far. Of one file, it keeps the first thousand.
class Findings {
 public:
  void error(const Source& source, std::size_t line, std::string text);
  void warning(const Source& source, std::size_t line, std::string text);
  void add(const Source& source, std::size_t line, Severity severity, std::string text);

  /// All, in the order of the files, then of the lines, then in which they were found.
  std::vector<Finding> sorted() &&;

 private:
  std::map<std::size_t, std::vector<Finding>> byFile_;
};

}  // namespace check
