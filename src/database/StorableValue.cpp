#include "database/StorableValue.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace propertyservice {

namespace {

constexpr std::size_t kMostCharacters = 256;

/// The length in bytes of the character that `text` begins with, nothing where that is not UTF-8.
std::optional<std::size_t> characterLength(std::string_view text) {
  struct Form {
    std::uint8_t mask, lead;
    char32_t smallest;
  };
  constexpr Form kForms[] = {{0x80, 0x00, 0}, {0xe0, 0xc0, 0x80}, {0xf0, 0xe0, 0x800}, {0xf8, 0xf0, 0x10000}};
  constexpr char32_t kLargest = 0x10ffff, kFirstSurrogate = 0xd800, kLastSurrogate = 0xdfff;

  const auto byteAt = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  std::size_t length = 0;
  for (const auto& [mask, lead, smallest] : kForms) {
    ++length;
    if ((byteAt(0) & mask) != lead) {
      continue;
    }
    if (length > text.size()) {
      return std::nullopt;
    }
    char32_t character = byteAt(0) & static_cast<std::uint8_t>(~mask);
    for (std::size_t i = 1; i < length; ++i) {
      if ((byteAt(i) & 0xc0) != 0x80) {
        return std::nullopt;
      }
      character = character << 6 | (byteAt(i) & 0x3f);
    }
    const bool surrogate = character >= kFirstSurrogate && character <= kLastSurrogate;
    if (character < smallest || character > kLargest || surrogate) {
      return std::nullopt;
    }
    return length;
  }
  return std::nullopt;
}

bool isStorableText(std::string_view text) {
  std::size_t characters = 0;
  while (!text.empty()) {
    const std::optional<std::size_t> length = characterLength(text);
    if (!length || text.front() == '\0' || ++characters > kMostCharacters) {
      return false;
    }
    text.remove_prefix(*length);
  }
  return true;
}

}  // namespace

bool isStorable(const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  if (value.isString()) {
    return !value.getString(&begin, &end) || isStorableText({begin, static_cast<std::size_t>(end - begin)});
  }
  return !value.isArray() && !value.isObject();
}

}  // namespace propertyservice
