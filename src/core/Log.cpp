#include "core/Log.h"

namespace propertyservice {

namespace {

constexpr std::size_t kLargestExcerptBytes = 4096;

}  // namespace

dbg::Debug& logger() {
  // Never destroyed: workers may log until the very end.
  static auto* const log = new dbg::Debug("PROP-SRV");
  return *log;
}

std::string excerpt(std::string_view text) {
  if (text.size() <= kLargestExcerptBytes) {
    return std::string(text);
  }
  return std::string(text.substr(0, kLargestExcerptBytes)) + "... (" + std::to_string(text.size()) +
         " bytes)";
}

}  // namespace propertyservice
