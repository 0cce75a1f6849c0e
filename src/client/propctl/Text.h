#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace propctl {

/// A value as part of a line: backslash, line feed, carriage return and tab as `\\`, `\n`, `\r` and `\t`,
/// each byte of other control characters as `\xNN`. So a line stays a line, and no value speaks to a
/// terminal.
std::string escaped(std::string_view value);

/// The reverse. A backslash before anything else stands for itself.
std::string unescaped(std::string_view text);

struct Assignment {
  std::string name;
  std::string value;
  bool asked = false;  ///< "KEY=-": the value is read from standard input, and not repeated in errors.

  bool operator==(const Assignment&) const = default;
};

/// The arguments of "set": "KEY=VALUE…", each cut at its first "=", or "KEY VALUE" where KEY has none. Throws
/// `Failure` (usage) for anything else and for a name that is given twice.
std::vector<Assignment> toAssignments(const std::vector<std::string>& arguments);

/// Fills in the values that are asked for, each with a line of standard input. A terminal shows the name, and
/// not what is typed. Throws `Failure` (usage) at the end of the input.
void readAskedValues(std::vector<Assignment>& assignments);

/// The line "NAME=VALUE", with all escaped that would make another of it.
std::string toLine(const Assignment& assignment);

/// Reads the output of "dump": a line as of `toLine` each; empty lines and lines that begin with "#"
/// are skipped. Or a JSON object with texts, integers or booleans. Throws `Failure` with `source` and the
/// line.
std::vector<Assignment> readDump(const std::string& text, const std::string& source);

/// Returns the contents of a file, without a mark of its byte order; "-": standard input. Throws `Failure`.
std::string readText(const std::string& file);

/// Returns what "dump" has written to a file; "-": standard input.
std::vector<Assignment> readDumpFile(const std::string& file);

std::string withoutBlanks(const std::string& text);  ///< At both ends.

/// The parts of "A,B,…" without the blanks around them, and without empty ones.
std::vector<std::string> splitList(const std::string& text);

bool isPattern(std::string_view name);

/// Whether it names run-time state, which has no rules and no default.
bool isState(std::string_view name);

}  // namespace propctl
