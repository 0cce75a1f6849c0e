#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <json/value.h>

namespace check {

struct JsonProblem {
  std::size_t offset;  ///< In bytes, from the beginning of the text.
  std::string text;
};

struct JsonReading {
  Json::Value value;   ///< As far as it could be read; every value in it knows its offset.
  bool valid = false;  ///< A whole JSON value stands at the beginning of the text.
  bool alone = false;  ///< Nothing but blanks and comments stands behind it.
  bool tooDeep = false;

  /// Why it is not valid or alone, and members that stand twice in an object.
  std::vector<JsonProblem> problems;
};

/// Reads as the daemon does, and tells what the daemon passes over.
JsonReading readJson(const std::string& text);

}  // namespace check
