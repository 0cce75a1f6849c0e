#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <json/value.h>

namespace propctl {

struct Style {
  bool json = false;        ///< One JSON document on standard output instead of text.
  bool quiet = false;       ///< Nothing but what was asked for, and errors.
  bool table = false;       ///< Aligned, with headings and colours: for a terminal.
  std::string device = {};  ///< Not empty: one of several, whose number stands before each line.
  bool progress = false;    ///< Standard error is a terminal: show that something goes on.
};

/// What a command says: results on standard output, everything else on standard error. Not safe for
/// concurrent use.
class Output {
 public:
  Output(std::ostream& out, std::ostream& errors, Style style)
      : out_(out),
        errors_(errors),
        style_(std::move(style)),
        prefix_(style_.device.empty() ? "" : style_.device + ": ") {}

  const Style& style() const { return style_; }

  /// Whether there has been a line of results, an error or a remark.
  bool hasSpoken() const { return spoken_; }

  /// A line of results.
  void line(const std::string& text);

  /// A value as it is, or escaped on a terminal, which must not take it for a command.
  void value(const std::string& value);

  void json(const Json::Value& document);

  /// Rows of columns: tabs between them, or aligned under `headings` on a terminal.
  void table(const std::vector<std::string>& headings, const std::vector<std::vector<std::string>>& rows);

  /// An error, one line.
  void complain(const std::string& text);

  /// A remark, unless --quiet.
  void remark(const std::string& text);

  /// Overwrites what it said before, on a terminal; the empty text ends it.
  void progress(const std::string& text);

  /// Throws `Failure` when what was written does not arrive.
  void flush();

 private:
  std::ostream& out_;
  std::ostream& errors_;
  const Style style_;
  const std::string prefix_;
  bool spoken_ = false;
};

}  // namespace propctl
