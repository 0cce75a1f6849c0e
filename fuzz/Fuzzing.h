#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

/// Helpers of all fuzz targets. The entry point of each is `LLVMFuzzerTestOneInput`.
namespace propertyservice::fuzz {

/// Makes the input a finding unless the claim holds.
inline void require(bool holds, const char* claim) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", claim);
    std::abort();
  }
}

inline std::string_view toText(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// The parts of `text` between separators; at least one.
inline std::vector<std::string> split(std::string_view text, std::string_view separator) {
  std::vector<std::string> parts;
  for (std::size_t end; (end = text.find(separator)) != std::string_view::npos;) {
    parts.emplace_back(text.substr(0, end));
    text.remove_prefix(end + separator.size());
  }
  parts.emplace_back(text);
  return parts;
}

}  // namespace propertyservice::fuzz
