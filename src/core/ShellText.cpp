#include "core/ShellText.h"

namespace propertyservice {

std::string escapeForEcho(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char character : text.substr(0, text.find_first_of(std::string_view("\n\0", 2)))) {
    switch (character) {
      case '\\':
        // The shell takes one level of backslashes off, echo itself another.
        escaped += R"(\\\\)";
        break;
      case '$':
      case '`':
      case '"':
        escaped += '\\';
        escaped += character;
        break;
      default:
        escaped += character;
    }
  }
  return escaped;
}

}  // namespace propertyservice
