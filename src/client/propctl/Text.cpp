#include "client/propctl/Text.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <sstream>

#include "client/propctl/ExitStatus.h"
#include "core/JsonText.h"
#include "wire/Names.h"

namespace propctl {

namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";

/// What stands behind the backslash, for the characters that have a letter of their own.
constexpr std::pair<char, char> kLetters[] = {{'\\', '\\'}, {'\n', 'n'}, {'\r', 'r'}, {'\t', 't'}};

bool isControl(char byte) {
  const auto code = static_cast<unsigned char>(byte);
  return code < 0x20 || code == 0x7f;
}

void escape(char byte, std::string& text) {
  for (const auto& [character, letter] : kLetters) {
    if (byte == character) {
      text += {'\\', letter};
      return;
    }
  }
  if (isControl(byte)) {
    const auto code = static_cast<unsigned char>(byte);
    text += {'\\', 'x', kHexDigits[code >> 4U], kHexDigits[code & 0xfU]};
  } else {
    text += byte;
  }
}

/// Takes one escape off the front of `text`, which begins with a backslash.
char takeEscape(std::string_view& text) {
  if (text.size() >= 2) {
    for (const auto& [character, letter] : kLetters) {
      if (text[1] == letter) {
        text.remove_prefix(2);
        return character;
      }
    }
  }
  if (text.size() >= 4 && text[1] == 'x') {
    const std::size_t high = kHexDigits.find(text[2]);
    const std::size_t low = kHexDigits.find(text[3]);
    if (high != std::string_view::npos && low != std::string_view::npos) {
      text.remove_prefix(4);
      return static_cast<char>(high << 4U | low);
    }
  }
  text.remove_prefix(1);
  return '\\';
}

/// Nothing in front of "=", or no "=" at all, is no assignment.
bool isAssignment(const std::string& text) {
  const std::size_t equals = text.find('=');
  return equals != std::string::npos && equals != 0;
}

Assignment cut(const std::string& text) {
  const std::size_t equals = text.find('=');
  return {text.substr(0, equals), text.substr(equals + 1)};
}

std::vector<Assignment> readLines(const std::string& text, const std::string& source) {
  std::vector<Assignment> assignments;
  std::istringstream lines(text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    if (line.empty() || line.front() == '#') {
      continue;
    }
    if (!isAssignment(line)) {
      throw Failure(ExitStatus::refused,
                    source + ':' + std::to_string(number) + ": NAME=VALUE expected: " + escaped(line));
    }
    auto [name, value] = cut(line);
    assignments.push_back({std::move(name), unescaped(value)});
  }
  return assignments;
}

std::vector<Assignment> readJson(const std::string& text, const std::string& source) {
  Json::Value object;
  if (!propertyservice::json::parse(text, object) || !object.isObject()) {
    throw Failure(ExitStatus::refused, source + ": no JSON object of names and values");
  }
  std::vector<Assignment> assignments;
  for (auto member = object.begin(); member != object.end(); ++member) {
    if (!member->isConvertibleTo(Json::stringValue)) {
      throw Failure(ExitStatus::refused, source + ": the value of " + escaped(member.name()) + " is no text");
    }
    assignments.push_back({member.name(), member->asString()});
  }
  return assignments;
}

void requireDistinct(const std::vector<Assignment>& assignments, ExitStatus status,
                     const std::string& source) {
  std::set<std::string_view> names;
  for (const Assignment& assignment : assignments) {
    if (!names.insert(assignment.name).second) {
      throw Failure(status, source + escaped(assignment.name) + " is given twice");
    }
  }
}

}  // namespace

std::string escaped(std::string_view value) {
  std::string text;
  text.reserve(value.size());
  for (const char byte : value) {
    escape(byte, text);
  }
  return text;
}

std::string unescaped(std::string_view text) {
  std::string value;
  value.reserve(text.size());
  while (!text.empty()) {
    if (text.front() == '\\') {
      value += takeEscape(text);
    } else {
      value += text.front();
      text.remove_prefix(1);
    }
  }
  return value;
}

std::vector<Assignment> toAssignments(const std::vector<std::string>& arguments) {
  if (arguments.size() == 2 && arguments[0].find('=') == std::string::npos) {
    return {{arguments[0], arguments[1]}};
  }
  std::vector<Assignment> assignments;
  for (const std::string& argument : arguments) {
    if (!isAssignment(argument)) {
      throw Failure(ExitStatus::usage, "KEY=VALUE expected: \"" + escaped(argument) + '"');
    }
    assignments.push_back(cut(argument));
  }
  requireDistinct(assignments, ExitStatus::usage, "");
  return assignments;
}

std::vector<Assignment> readDump(const std::string& text, const std::string& source) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  const bool isJson = first != std::string::npos && text[first] == '{';
  std::vector<Assignment> assignments = isJson ? readJson(text, source) : readLines(text, source);
  requireDistinct(assignments, ExitStatus::refused, source + ": ");
  return assignments;
}

std::vector<Assignment> readDumpFile(const std::string& file) {
  if (file == "-") {
    return readDump({std::istreambuf_iterator<char>(std::cin), {}}, "standard input");
  }
  std::ifstream stream(file, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(stream), {}};
  if (!stream.is_open() || stream.bad()) {
    throw Failure(ExitStatus::refused, file + ": cannot be read");
  }
  return readDump(text, file);
}

std::vector<std::string> splitList(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, ',');) {
    if (!part.empty()) {
      parts.push_back(part);
    }
  }
  return parts;
}

bool isPattern(std::string_view name) {
  return name.find('%') != std::string_view::npos;
}

bool isState(std::string_view name) {
  return name.starts_with(propertyservice::kVolatilePrefix);
}

}  // namespace propctl
