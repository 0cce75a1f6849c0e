#include "core/JsonText.h"

#include <algorithm>
#include <bitset>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <utility>

#include <json/reader.h>
#include <json/writer.h>

// Json::Reader and Json::FastWriter are marked as deprecated in favour of their builders, which are slower by
// a factor of two and more and write another text.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace propertyservice::json {

namespace {

constexpr std::size_t kDeepestNesting = 100;

/// A value takes up to 160 bytes when it is read. A member of an object needs 5 bytes of text, so that an
/// object of 1 MiB always keeps within this limit.
constexpr std::size_t kMostValues = std::size_t{256} * 1024;

std::size_t endOfString(std::string_view text, std::size_t begin) {
  std::size_t end = begin + 1;
  while (end < text.size() && text[end] != '"') {
    end += text[end] == '\\' ? 2 : 1;
  }
  return end + 1;
}

std::size_t endOfComment(std::string_view text, std::size_t begin) {
  const std::string_view rest = text.substr(begin);
  if (rest.starts_with("/*")) {
    const std::size_t end = rest.find("*/", 2);
    return end == std::string_view::npos ? text.size() : begin + end + 2;
  }
  return rest.starts_with("//") ? text.find_first_of("\r\n", begin) : begin + 1;
}

/// Some versions of the reader take a number beyond a double for infinity.
bool isBeyondDouble(const std::string& text, std::size_t begin, std::size_t end) {
  constexpr std::size_t kMostDigits = std::numeric_limits<double>::max_exponent10;
  const std::string_view number = std::string_view(text).substr(begin, end - begin);
  return (number.size() > kMostDigits || number.find_first_of("eE") != std::string_view::npos) &&
         std::isinf(std::strtod(text.c_str() + begin, nullptr));
}

bool isPlain(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte >= 0x20 && byte < 0x80 && character != '"' && character != '\\';
}

void appendWritten(std::string& text, const Json::Value& value) {
  text += write(value);
  text.pop_back();
}

void appendQuoted(std::string& text, std::string_view value) {
  if (std::all_of(value.begin(), value.end(), isPlain)) {
    text.append(1, '"').append(value).append(1, '"');
  } else {
    appendWritten(text, Json::Value(value.data(), value.data() + value.size()));
  }
}

}  // namespace

bool keepsLimits(const std::string& text) {
  std::bitset<kDeepestNesting> isArray;
  std::size_t depth = 0;
  std::size_t values = 0;
  for (std::size_t at = 0; at < text.size();) {
    switch (text[at]) {
      case '"':
        at = endOfString(text, at);
        continue;
      case '/':
        at = endOfComment(text, at);
        continue;
      case '[':
      case '{':
        if (depth == kDeepestNesting) {
          Json::throwRuntimeError("nested too deeply");
        }
        isArray[depth++] = text[at] == '[';
        [[fallthrough]];
      case ',':
        if (++values > kMostValues) {
          return false;
        }
        break;
      case ']':
      case '}':
        // After a comment in an object, the reader takes any token for a comma.
        if (depth == 0 || isArray[--depth] != (text[at] == ']')) {
          return false;
        }
        if (depth == 0) {
          return true;
        }
        break;
      default:
        if (text[at] == '-' || (text[at] >= '0' && text[at] <= '9')) {
          const std::size_t end = std::min(text.find_first_not_of("0123456789+-.eE", at), text.size());
          if (isBeyondDouble(text, at, end)) {
            return false;
          }
          at = end;
          continue;
        }
    }
    ++at;
  }
  return true;
}

bool parseOrThrow(const std::string& text, Json::Value& value) {
  // Collecting comments is quadratic in their number.
  constexpr bool kCollectComments = false;

  // To make one costs a tenth of reading a request.
  thread_local Json::Reader reader;

  return keepsLimits(text) && reader.parse(text.data(), text.data() + text.size(), value, kCollectComments);
}

bool parse(const std::string& text, Json::Value& value) {
  try {
    return parseOrThrow(text, value);
  } catch (const Json::Exception&) {
    return false;
  }
}

std::string write(const Json::Value& value) {
  return Json::FastWriter().write(value);
}

ObjectText& ObjectText::addText(std::string_view name, std::string_view text) {
  beginMember(name);
  appendQuoted(text_, text);
  return *this;
}

ObjectText& ObjectText::add(std::string_view name, const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  if (value.getString(&begin, &end)) {
    return addText(name, std::string_view(begin, static_cast<std::size_t>(end - begin)));
  }
  beginMember(name);
  appendWritten(text_, value);
  return *this;
}

ObjectText& ObjectText::addWritten(std::string_view name, std::string_view json) {
  beginMember(name);
  text_ += json;
  return *this;
}

std::string ObjectText::finish() {
  text_ += text_.empty() ? "{}\n" : "}\n";
  return std::move(text_);
}

void ObjectText::beginMember(std::string_view name) {
  text_ += text_.empty() ? '{' : ',';
  appendQuoted(text_, name);
  text_ += ':';
}

}  // namespace propertyservice::json
