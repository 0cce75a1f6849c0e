#pragma once

#include <string>
#include <string_view>

#include <json/value.h>

/// The one way between text and JSON.
namespace propertyservice::json {

/// Reads `text` into `value`. Comments are accepted and not kept; what follows the first value is ignored.
/// Returns false when the text does not parse; `value` then holds what was read up to there, often null. Text
/// that is nested deeper than 100 levels, has more than 262,144 values or a number beyond a double does not
/// parse. Throws nothing.
bool parse(const std::string& text, Json::Value& value);

/// The same, but throws `Json::Exception` for what is nested too deeply.
bool parseOrThrow(const std::string& text, Json::Value& value);

/// Goes over the first object or array as the reader will, whose own limits differ between its versions.
/// False where there are too many values, a number is too large or a bracket ends what another began; throws
/// `Json::RuntimeError` where it is nested too deeply.
bool keepsLimits(const std::string& text);

/// `value` on one line, without blanks, all characters outside ASCII escaped, ended by a line feed.
std::string write(const Json::Value& value);

/// One object as text, byte for byte what `write` makes of it, without building it first.
/// REQUIRES: members come in the ascending order of their names.
class ObjectText {
 public:
  ObjectText() { text_.reserve(kUsualBytes); }

  ObjectText& addText(std::string_view name, std::string_view text);
  ObjectText& add(std::string_view name, const Json::Value& value);

  /// Adds a value that is JSON text already, without its line feed.
  ObjectText& addWritten(std::string_view name, std::string_view json);

  /// The whole text. To be called once, at the end.
  std::string finish();

 private:
  static constexpr std::size_t kUsualBytes = 128;

  void beginMember(std::string_view name);

  std::string text_;
};

}  // namespace propertyservice::json
