#include "core/JsonText.h"

#include <algorithm>
#include <utility>

#include <json/reader.h>
#include <json/writer.h>

// Json::Reader and Json::FastWriter are marked as deprecated in favour of their builders, which are slower by
// a factor of two and more and write another text.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace propertyservice::json {

namespace {

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

bool parseOrThrow(const std::string& text, Json::Value& value) {
  // Collecting comments is quadratic in their number.
  constexpr bool kCollectComments = false;

  // To make one costs a tenth of reading a request.
  thread_local Json::Reader reader;

  return reader.parse(text.data(), text.data() + text.size(), value, kCollectComments);
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
