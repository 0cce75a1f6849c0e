#include "client/propctl/Text.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <memory>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/signalfd.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>

#include "client/check/JsonSource.h"
#include "client/propctl/ExitStatus.h"
#include "wire/Names.h"

namespace propctl {

namespace {

/// Some editors put it in front of UTF-8.
constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

constexpr std::string_view kHexDigits = "0123456789abcdef";

/// The letters after the backslash, for the characters that have one of their own.
constexpr std::pair<char, char> kLetters[] = {{'\\', '\\'}, {'\n', 'n'}, {'\r', 'r'}, {'\t', 't'}};

bool isControl(char byte) {
  const auto code = static_cast<unsigned char>(byte);
  return code < 0x20 || code == 0x7f;
}

/// U+0080 to U+009F, of which a terminal may take one for an escape with the bracket behind it.
bool beginsWithTwoByteControl(std::string_view text) {
  return text.size() >= 2 && text[0] == '\xc2' && (static_cast<unsigned char>(text[1]) & 0xe0U) == 0x80;
}

void appendHex(char byte, std::string& text) {
  const auto code = static_cast<unsigned char>(byte);
  text += {'\\', 'x', kHexDigits[code >> 4U], kHexDigits[code & 0xfU]};
}

void escape(char byte, std::string& text) {
  for (const auto& [character, letter] : kLetters) {
    if (byte == character) {
      text += {'\\', letter};
      return;
    }
  }
  if (isControl(byte)) {
    appendHex(byte, text);
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

/// The length of the part of a line that an error shows.
constexpr std::size_t kExcerpt = 80;

/// An assignment has an "=" and something before it.
bool isAssignment(const std::string& text) {
  const std::size_t equals = text.find('=');
  return equals != std::string::npos && equals != 0;
}

Assignment cut(const std::string& text) {
  const std::size_t equals = text.find('=');
  return {text.substr(0, equals), text.substr(equals + 1)};
}

/// Keeps the terminal from showing what is typed, for as long as this object lives. Signals that end the
/// program wait for it, so that none leaves the terminal so.
class WithoutEcho {
 public:
  WithoutEcho() {
    sigemptyset(&ends_);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP}) {
      sigaddset(&ends_, signal);
    }
    pthread_sigmask(SIG_BLOCK, &ends_, nullptr);
    tcgetattr(STDIN_FILENO, &before_);
    termios silent = before_;
    silent.c_lflag = (silent.c_lflag & ~static_cast<tcflag_t>(ECHO)) | ECHONL;
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
  }
  WithoutEcho(const WithoutEcho&) = delete;
  WithoutEcho& operator=(const WithoutEcho&) = delete;
  ~WithoutEcho() {
    tcsetattr(STDIN_FILENO, TCSANOW, &before_);
    pthread_sigmask(SIG_UNBLOCK, &ends_, nullptr);
  }

  /// Returns when there is a line to read, or a signal that ends the program.
  void wait() const {
    const int signals = signalfd(-1, &ends_, SFD_CLOEXEC);
    pollfd awaited[] = {{STDIN_FILENO, POLLIN, 0}, {signals, POLLIN, 0}};
    poll(awaited, std::size(awaited), -1);
    close(signals);
  }

  bool isToEnd() const {
    sigset_t pending;
    sigpending(&pending);
    return sigisemptyset(&pending) == 0;
  }

 private:
  sigset_t ends_{};
  termios before_{};
};

bool askOnTerminal(const std::string& name, std::string& value) {
  std::cerr << escaped(name) << ": " << std::flush;
  const WithoutEcho silence;
  silence.wait();
  return !silence.isToEnd() && static_cast<bool>(std::getline(std::cin, value));
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
      throw Failure(ExitStatus::refused, source + ':' + std::to_string(number) +
                                             ": NAME=VALUE expected: " + escaped(line.substr(0, kExcerpt)));
    }
    const auto [name, value, asked] = cut(line);
    assignments.push_back({unescaped(name), unescaped(value)});
  }
  return assignments;
}

/// Not null, and no fraction: as text it may be another than the file has.
bool isText(const Json::Value& value) {
  return value.isString() || value.isBool() || value.type() == Json::intValue ||
         value.type() == Json::uintValue;
}

std::vector<Assignment> readJson(const std::string& text, const std::string& source) {
  const check::JsonReading reading = check::readJson(text);
  if (!reading.problems.empty()) {
    const auto [offset, problem] = reading.problems.front();
    const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(offset), '\n');
    throw Failure(ExitStatus::refused, source + ':' + std::to_string(line) + ": " + problem);
  }
  std::vector<Assignment> assignments;
  for (auto member = reading.value.begin(); member != reading.value.end(); ++member) {
    if (!isText(*member)) {
      throw Failure(ExitStatus::refused, source + ": the value of " + escaped(member.name()) +
                                             " must be a text: put it in quotes");
    }
    assignments.push_back({member.name(), member->asString()});
  }
  return assignments;
}

std::string sourceName(const std::string& file) {
  return file == "-" ? "standard input" : escaped(file);
}

struct Close {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};

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
  for (; !value.empty(); value.remove_prefix(1)) {
    if (beginsWithTwoByteControl(value)) {
      appendHex(value.front(), text);
      value.remove_prefix(1);
      appendHex(value.front(), text);
    } else {
      escape(value.front(), text);
    }
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

std::string toLine(const Assignment& assignment) {
  std::string name;
  for (const char byte : escaped(assignment.name)) {
    const bool wouldBeAnother = byte == '=' || (name.empty() && (byte == '#' || byte == '{'));
    wouldBeAnother ? appendHex(byte, name) : name.push_back(byte);
  }
  return name + '=' + escaped(assignment.value);
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
    assignments.back().asked = assignments.back().value == "-";
  }
  requireDistinct(assignments, ExitStatus::usage, "");
  return assignments;
}

void readAskedValues(std::vector<Assignment>& assignments) {
  const bool isTerminal = isatty(STDIN_FILENO) != 0;
  for (auto& [name, value, asked] : assignments) {
    if (asked &&
        !(isTerminal ? askOnTerminal(name, value) : static_cast<bool>(std::getline(std::cin, value)))) {
      throw Failure(ExitStatus::usage, "standard input: no line with the value of " + escaped(name));
    }
  }
}

std::vector<Assignment> readDump(const std::string& text, const std::string& source) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  const bool isJson = first != std::string::npos && text[first] == '{';
  std::vector<Assignment> assignments = isJson ? readJson(text, source) : readLines(text, source);
  requireDistinct(assignments, ExitStatus::refused, source + ": ");
  return assignments;
}

std::string readText(const std::string& file) {
  const bool isInput = file == "-";
  const std::unique_ptr<std::FILE, Close> stream(isInput ? stdin : std::fopen(file.c_str(), "r"));
  std::string text;
  char part[4096];
  for (std::size_t bytes = 0; stream && (bytes = std::fread(part, 1, sizeof part, stream.get())) != 0;) {
    text.append(part, bytes);
  }
  if (!stream || std::ferror(stream.get()) != 0) {
    throw Failure(ExitStatus::refused, sourceName(file) + ": " + std::generic_category().message(errno));
  }
  if (text.starts_with(kByteOrderMark)) {
    text.erase(0, kByteOrderMark.size());
  }
  return text;
}

std::vector<Assignment> readDumpFile(const std::string& file) {
  return readDump(readText(file), sourceName(file));
}

std::string withoutBlanks(const std::string& text) {
  constexpr char kBlanks[] = " \t\r";
  const std::size_t first = text.find_first_not_of(kBlanks);
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::vector<std::string> splitList(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, ',');) {
    if (part = withoutBlanks(part); !part.empty()) {
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
