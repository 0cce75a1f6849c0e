#include "client/check/JsonSource.h"

#include <algorithm>
#include <set>
#include <string_view>

#include <json/reader.h>

#include "client/check/Findings.h"
#include "core/JsonText.h"

// As in the daemon: the builders read other texts than this reader does.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace check {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";
constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

/// The offset of what follows blanks and comments; the text's size where nothing does.
std::size_t skipBlanks(std::string_view text, std::size_t offset) {
  for (;;) {
    offset = std::min(text.find_first_not_of(kBlanks, offset), text.size());
    const std::string_view rest = text.substr(offset);
    if (rest.starts_with("//")) {
      offset = std::min(text.find('\n', offset), text.size());
    } else if (rest.starts_with("/*")) {
      const std::size_t end = text.find("*/", offset + 2);
      offset = end == std::string_view::npos ? text.size() : end + 2;
    } else {
      return offset;
    }
  }
}

/// The offset behind the string that begins at `offset`.
std::size_t skipString(std::string_view text, std::size_t offset) {
  for (++offset; offset < text.size() && text[offset] != '"'; ++offset) {
    if (text[offset] == '\\') {
      ++offset;
    }
  }
  return std::min(offset + 1, text.size());
}

/// REQUIRES: the text has been read as JSON, so that a string before a colon is a member's name.
void findRepeatedMembers(std::string_view text, std::vector<JsonProblem>& problems) {
  std::vector<std::set<std::string_view>> objects;
  for (std::size_t at = skipBlanks(text, 0); at < text.size(); at = skipBlanks(text, at)) {
    const std::size_t begin = at;
    at = text[begin] == '"' ? skipString(text, begin) : begin + 1;
    if (text[begin] == '{') {
      objects.emplace_back();
    } else if (text[begin] == '}' && !objects.empty()) {
      objects.pop_back();
    } else if (text[begin] == '"' && text.substr(skipBlanks(text, at)).starts_with(':') && !objects.empty()) {
      const std::string_view name = text.substr(begin + 1, at - begin - 2);
      if (!objects.back().insert(name).second) {
        problems.push_back(
            {begin, "the member " + inQuotes(name) +
                        " stands twice in one object: the last one counts, the others are lost"});
      }
    }
  }
}

JsonProblem firstError(const Json::Reader& reader, const std::string& text) {
  const auto errors = reader.getStructuredErrors();
  if (errors.empty()) {
    return {0, "is no JSON"};
  }
  std::string message = errors.front().message;
  if (message.ends_with('.')) {
    message.pop_back();
  }
  const auto offset = static_cast<std::size_t>(std::max<std::ptrdiff_t>(errors.front().offset_start, 0));
  return {std::min(offset, text.size()), "is no JSON: " + message};
}

}  // namespace

JsonReading readJson(const std::string& text) {
  JsonReading reading;
  if (text.starts_with(kByteOrderMark)) {
    reading.problems.push_back({0, "begins with a byte order mark and so is no JSON"});
    return reading;
  }
  Json::Reader reader;
  bool keepsLimits = false;
  try {
    keepsLimits = propertyservice::json::keepsLimits(text);
    reading.valid = reader.parse(text, reading.value, false);
  } catch (const Json::Exception&) {
    reading.value = Json::Value();
    reading.tooDeep = true;
    reading.problems.push_back({0, "is nested too deeply to be read"});
    return reading;
  }
  if (reading.valid && !keepsLimits) {
    reading.valid = false;
    reading.problems.push_back({0, "has too many values or a number that is too large"});
    return reading;
  }
  if (!reading.valid) {
    reading.problems.push_back(firstError(reader, text));
    return reading;
  }
  const std::size_t end = skipBlanks(text, static_cast<std::size_t>(reading.value.getOffsetLimit()));
  reading.alone = end == text.size();
  if (!reading.alone) {
    reading.problems.push_back({end, "what stands behind the first JSON value is ignored"});
  }
  findRepeatedMembers(std::string_view(text).substr(0, end), reading.problems);
  return reading;
}

}  // namespace check
