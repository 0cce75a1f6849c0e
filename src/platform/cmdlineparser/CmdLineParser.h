#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace cmdlineparser {

/// The command line of a program: long options, written as `--name`. Not thread-safe.
class CmdLineParser {
 public:
  /// Defines the option `--name`. `attribute` 0 is a flag without a value, the only kind there is.
  void defineCmdLineOption(std::string name, std::string description, int attribute);

  /// Reads the arguments after the program's name. Returns 0, or an error for `getErrorString`: an option
  /// that is not defined, a value given to a flag, or an argument that is not an option. The first error ends
  /// the reading.
  int parse(int argc, const char* const* argv);

  /// Describes the error in one line that names the argument.
  std::string getErrorString(int error) const;

  bool checkOptionPassed(std::string_view name) const;

  /// The defined options in order, one line each, as `--help` shows them.
  std::string getHelp() const;

 private:
  struct Option {
    std::string name;
    std::string description;
    bool passed = false;
  };

  std::vector<Option> options_;
  std::string rejected_;  ///< The argument that ended the last `parse`.
};

}  // namespace cmdlineparser
