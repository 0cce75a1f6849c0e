#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <regex.h>

#include "expressions/ExtendedExpression.h"
#include "fuzz/Fuzzing.h"

// An extended expression in the first line, texts in the lines after it. One that compiles must be one that
// the C library compiles, and must decide as it does. Prints at the end how many texts were compared.

namespace propertyservice::fuzz {
namespace {

constexpr std::size_t kLargestExpressionBytes = 96;
constexpr std::size_t kMostIntervals = 3;
constexpr int kMostRepetitions = 3;
constexpr std::size_t kMostTexts = 16;
constexpr std::size_t kLargestTextBytes = 64;

struct Compared {
  ~Compared() { std::printf("%zu texts compared\n", texts); }
  std::size_t texts = 0;
};
Compared compared;

/// Whether the C library can compile and match it without gigabytes: it copies out what an interval repeats.
bool isAffordable(const std::string& expression) {
  std::size_t intervals = 0;
  for (std::size_t at = expression.find('{'); at != std::string::npos; at = expression.find('{', at + 1)) {
    const std::string interval = expression.substr(at + 1, expression.find('}', at) - at - 1);
    const std::size_t comma = interval.find(',');
    const int most = std::max(std::atoi(interval.c_str()),
                              comma == std::string::npos ? 0 : std::atoi(interval.c_str() + comma + 1));
    if (++intervals > kMostIntervals || most > kMostRepetitions) {
      return false;
    }
  }
  return expression.size() <= kLargestExpressionBytes;
}

void compare(const std::string& expression, const std::vector<std::string>& texts) {
  const auto subject = ExtendedExpression::compile(expression);
  if (!subject) {
    return;
  }
  regex_t library;
  require(regcomp(&library, expression.c_str(), REG_EXTENDED | REG_NOSUB) == 0,
          "what compiles is what the library compiles");
  for (std::size_t i = 0; i < std::min(texts.size(), kMostTexts); ++i) {
    const std::string text = texts[i].substr(0, kLargestTextBytes);
    ++compared.texts;
    require(subject->matches(text) == (regexec(&library, text.c_str(), 0, nullptr, 0) == 0),
            "a text matches when the library says so");
  }
  regfree(&library);
}

}  // namespace
}  // namespace propertyservice::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace propertyservice::fuzz;

  const std::vector<std::string> lines = split(toText(data, size), "\n");
  if (isAffordable(lines.front())) {
    compare(lines.front(), {lines.begin() + 1, lines.end()});
  }
  return 0;
}
