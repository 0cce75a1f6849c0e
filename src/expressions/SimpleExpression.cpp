#include "expressions/SimpleExpression.h"

#include <array>
#include <utility>

namespace propertyservice {

namespace {

constexpr std::size_t kMostUnits = 256;
constexpr std::size_t kBitsOfWord = 64;

/// Enough for the states before each unit and after the last.
constexpr std::size_t kMostWords = kMostUnits / kBitsOfWord + 1;

}  // namespace

/// Reads an expression as the C library does. Its functions return false, or nothing, at an error.
class SimpleExpression::Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  std::optional<SimpleExpression> read() {
    std::vector<Unit> units;
    bool isFirst = true;
    while (at_ < text_.size()) {
      if (text_.substr(at_) == "$") {
        return SimpleExpression(units, true);
      }
      Unit unit;
      if (units.size() == kMostUnits || !readUnit(unit, std::exchange(isFirst, false))) {
        return std::nullopt;
      }
      units.push_back(unit);
    }
    return SimpleExpression(units, false);
  }

 private:
  /// A "*" that nothing precedes stands for itself.
  bool readUnit(Unit& unit, bool isFirst) {
    const char byte = text_[at_++];
    if (byte == '[') {
      if (!readBracketExpression(text_, at_, unit.bytes)) {
        return false;
      }
    } else if (byte == '.') {
      unit.bytes.set();
    } else if (byte == '\\') {
      if (at_ == text_.size()) {
        return false;
      }
      unit.bytes.set(static_cast<unsigned char>(text_[at_++]));
    } else if (byte != '*' || isFirst) {
      unit.bytes.set(static_cast<unsigned char>(byte));
    } else {
      return false;  // A second "*".
    }
    if (at_ < text_.size() && text_[at_] == '*') {
      unit.isRepeated = true;
      ++at_;
    }
    return true;
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

std::optional<SimpleExpression> SimpleExpression::compile(std::string_view expression) {
  return Reader(expression).read();
}

SimpleExpression::SimpleExpression(const std::vector<Unit>& units, bool isAnchoredAtEnd)
    : words_(units.size() < kBitsOfWord ? 1 : kMostWords),
      end_(units.size()),
      isAnchoredAtEnd_(isAnchoredAtEnd),
      repeated_(words_),
      acceptable_(words_ * Bytes().size()) {
  for (std::size_t state = 0; state < units.size(); ++state) {
    const std::size_t word = state / kBitsOfWord;
    const Word bit = Word{1} << state % kBitsOfWord;
    if (units[state].isRepeated) {
      repeated_[word] |= bit;
    }
    for (std::size_t byte = 0; byte < Bytes().size(); ++byte) {
      if (units[state].bytes[byte]) {
        acceptable_[byte * words_ + word] |= bit;
      }
    }
  }
}

bool SimpleExpression::matches(std::string_view text) const {
  text = text.substr(0, text.find('\0'));
  return words_ == 1 ? run<1>(text) : run<kMostWords>(text);
}

template <std::size_t kWords>
bool SimpleExpression::run(std::string_view text) const {
  std::array<Word, kWords> states{};

  // Adds the states that are reached from others without reading, past repeated units. In the sum, a carry
  // runs from each state before a repeated unit up to the first state that is not before one.
  const auto enter = [&](std::size_t word, Word entered, Word& carry) {
    const Word partial = (entered & repeated_[word]) + repeated_[word];
    const Word sum = partial + carry;
    carry = partial < repeated_[word] || sum < partial ? 1 : 0;
    states[word] = entered | (sum ^ repeated_[word]);
  };
  const auto isAtEnd = [&] { return (states[end_ / kBitsOfWord] >> end_ % kBitsOfWord & 1) != 0; };

  Word carry = 0;
  for (std::size_t word = 0; word < kWords; ++word) {
    enter(word, word == 0 ? 1 : 0, carry);
  }
  for (const char character : text) {
    if (isAtEnd() && !isAnchoredAtEnd_) {
      return true;
    }
    const Word* const acceptable = &acceptable_[static_cast<unsigned char>(character) * kWords];
    Word all = 0;
    Word shifted = 0;
    carry = 0;
    for (std::size_t word = 0; word < kWords; ++word) {
      const Word taken = states[word] & acceptable[word];
      enter(word, (taken & repeated_[word]) | taken << 1 | shifted, carry);
      shifted = taken >> (kBitsOfWord - 1);
      all |= states[word];
    }
    if (all == 0) {
      return false;
    }
  }
  return isAtEnd();
}

}  // namespace propertyservice
