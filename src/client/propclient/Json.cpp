#include "propclient/Json.h"

#include <memory>

#include <json/reader.h>
#include <json/writer.h>

namespace propclient::json {

namespace {

Json::StreamWriterBuilder writerBuilder(bool rawBytes) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = rawBytes;
  return builder;
}

}  // namespace

std::optional<Json::Value> parse(const std::string& text) {
  static const Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
      return std::nullopt;
    }
  } catch (const Json::Exception&) {
    return std::nullopt;
  }
  return value;
}

std::string write(const Json::Value& value) {
  static const Json::StreamWriterBuilder builder = writerBuilder(true);
  return Json::writeString(builder, value);
}

std::string textOf(const Json::Value& value) {
  return value.isArray() || value.isObject() ? write(value) : value.asString();
}

bool isEchoOf(const std::string& text, const Json::Value& echo) {
  static const Json::StreamWriterBuilder escaping = writerBuilder(false);
  return echo.isString() && (echo.asString() == text || Json::writeString(escaping, echo) ==
                                                            Json::writeString(escaping, Json::Value(text)));
}

}  // namespace propclient::json
