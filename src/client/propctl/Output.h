#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <json/value.h>

#include "client/propctl/Text.h"

namespace propctl {

struct Style {
  bool json = false;         ///< One JSON document on standard output instead of text.
  bool quiet = false;        ///< Nothing but what was asked for, and errors.
  bool table = false;        ///< Aligned, with headings: for a terminal.
  bool colour = false;       ///< With colours: for a terminal whose user has nothing against them.
  std::string device = {};   ///< Not empty: one of several, whose number stands before each line.
  bool progress = false;     ///< Standard error is a terminal: show that something goes on.
  bool hideSecrets = false;  ///< For a terminal, at which others may look.
};

/// A line of a table. One that is marked is shown in another colour.
struct Row {
  std::vector<std::string> cells;
  bool marked = false;
};

/// The output of a command: results on standard output, everything else on standard error. Not safe for
/// concurrent use. Functions that print a result throw `Failure` when it cannot be written, at the latest
/// `flush`.
class Output {
 public:
  Output(std::ostream& out, std::ostream& errors, Style style)
      : out_(out),
        errors_(errors),
        style_(std::move(style)),
        prefix_(style_.device.empty() ? "" : escaped(style_.device) + ": ") {}

  const Style& style() const { return style_; }

  /// Whether there has been a line of results, an error or a remark.
  bool hasSpoken() const { return spoken_; }

  /// A line of results.
  void line(const std::string& text);

  /// A value as it is, or escaped on a terminal, which must not take it for a command.
  void value(const std::string& value);

  /// Returns the value of the property `name` as results show it: dots in place of a password that is to be
  /// hidden.
  std::string visible(const std::string& name, const std::string& value) const;

  void json(const Json::Value& document);

  /// Rows of columns: tabs between them, or aligned under `headings` on a terminal.
  void table(const std::vector<std::string>& headings, const std::vector<Row>& rows);

  /// The text, paler where there are colours.
  std::string pale(const std::string& text) const;

  /// Passes on, line by line, what another one has said.
  void pass(const std::string& results, const std::string& errors);

  /// An error, one line.
  void complain(const std::string& text);

  /// Prints as JSON, in place of a result, the device and the error reported last.
  void error();

  /// A remark, unless --quiet.
  void remark(const std::string& text);

  /// Overwrites what it said before, on a terminal; the empty text ends it.
  void progress(const std::string& text);

  void flush();

 private:
  void write(const std::string& text);
  std::string inColour(const char* colour, const std::string& text) const;
  [[noreturn]] static void giveUp(int reason);

  std::ostream& out_;
  std::ostream& errors_;
  const Style style_;
  const std::string prefix_;
  bool spoken_ = false;
  std::string complaint_;
};

}  // namespace propctl
