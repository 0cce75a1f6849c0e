#include "cmdlineparser/CmdLineParser.h"

#include <algorithm>
#include <utility>

namespace cmdlineparser {

namespace {

enum Error { kNone, kUnknownOption, kUnexpectedValue, kStrayArgument };

constexpr std::string_view kPrefix = "--";

}  // namespace

void CmdLineParser::defineCmdLineOption(std::string name, std::string description, int /*attribute*/) {
  options_.push_back({std::move(name), std::move(description)});
}

int CmdLineParser::parse(int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    rejected_ = argv[i];
    std::string_view name = argv[i];
    if (!name.starts_with('-') || name == "-" || name == kPrefix) {
      return kStrayArgument;
    }
    if (!name.starts_with(kPrefix)) {
      return kUnknownOption;
    }
    name.remove_prefix(kPrefix.size());
    const std::size_t equals = name.find('=');

    const auto option = std::ranges::find(options_, name.substr(0, equals), &Option::name);
    if (option == options_.end()) {
      return kUnknownOption;
    }
    if (equals != std::string_view::npos) {
      return kUnexpectedValue;
    }
    option->passed = true;
  }
  return kNone;
}

std::string CmdLineParser::getErrorString(int error) const {
  switch (error) {
    case kUnknownOption:
      return "Unknown option \"" + rejected_ + '"';
    case kUnexpectedValue:
      return "The option takes no value: \"" + rejected_ + '"';
    case kStrayArgument:
      return "Unexpected argument \"" + rejected_ + '"';
    default:
      return "";
  }
}

bool CmdLineParser::checkOptionPassed(std::string_view name) const {
  const auto option = std::ranges::find(options_, name, &Option::name);
  return option != options_.end() && option->passed;
}

std::string CmdLineParser::getHelp() const {
  std::size_t width = 0;
  for (const Option& option : options_) {
    width = std::max(width, option.name.size());
  }

  std::string help;
  for (const Option& option : options_) {
    help.append("  ").append(kPrefix).append(option.name);
    help.append(width - option.name.size() + 2, ' ').append(option.description).append(1, '\n');
  }
  return help;
}

}  // namespace cmdlineparser
