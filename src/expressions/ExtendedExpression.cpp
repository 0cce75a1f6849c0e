#include "expressions/ExtendedExpression.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <system_error>
#include <utility>

namespace propertyservice {

namespace {

constexpr std::size_t kMostPositions = 256;
constexpr std::size_t kBitsOfWord = 64;
constexpr std::size_t kMostWords = kMostPositions / kBitsOfWord;
constexpr std::size_t kMostNodes = 8 * kMostPositions;
constexpr std::size_t kMostNestedGroups = 32;
constexpr std::size_t kMostRepetitions = kMostPositions;

/// After a backslash these make a back-reference or a GNU operator.
constexpr std::string_view kOperators = "<>`'wWsSbB123456789";

}  // namespace

/// Makes an automaton of nodes, each of which leads to up to two others, and then one of positions alone.
class ExtendedExpression::Compiler {
 public:
  explicit Compiler(std::string_view text) : text_(text) {}

  std::optional<ExtendedExpression> compile() {
    Part all;
    if (text_.find('\0') != std::string_view::npos || !readAlternatives(all, 0) || at_ != text_.size()) {
      return std::nullopt;
    }
    nodes_[all.exit].next = add({Node::kMatch});

    ExtendedExpression made;
    made.words_ = positions_.size() <= kBitsOfWord ? 1 : kMostWords;
    const Reached begin = reach(all.entry, true, false);
    const Reached later = reach(all.entry, false, false);
    made.matchesAll_ = begin.isMatch;
    made.matchesEmptyText_ = reach(all.entry, true, true).isMatch;
    made.matchesAtEnd_ = reach(all.entry, false, true).isMatch;
    made.atBegin_.assign(begin.positions.data(), begin.positions.data() + made.words_);
    made.later_.assign(later.positions.data(), later.positions.data() + made.words_);
    made.acceptable_.resize(made.words_ * Bytes().size());
    made.last_.resize(made.words_);
    made.lastAtEnd_.resize(made.words_);
    for (std::size_t position = 0; position < positions_.size(); ++position) {
      const std::size_t word = position / kBitsOfWord;
      const Word bit = Word{1} << position % kBitsOfWord;
      const Node& node = nodes_[positions_[position]];
      for (std::size_t byte = 0; byte < Bytes().size(); ++byte) {
        made.acceptable_[byte * made.words_ + word] |= node.bytes[byte] ? bit : 0;
      }
      const Reached next = reach(node.next, false, false);
      made.next_.insert(made.next_.end(), next.positions.data(), next.positions.data() + made.words_);
      made.last_[word] |= next.isMatch ? bit : 0;
      made.lastAtEnd_[word] |= reach(node.next, false, true).isMatch ? bit : 0;
    }
    return made;
  }

 private:
  static constexpr std::size_t kNowhere = std::string_view::npos;

  struct Node {
    enum Kind { kPass, kBytes, kBeginOfText, kEndOfText, kMatch } kind;
    std::size_t next = kNowhere;
    std::size_t other = kNowhere;  ///< Another way on.
    Bytes bytes = {};
    std::size_t position = 0;
  };

  /// Nodes from `entry` to `exit`, whose `next` leads nowhere yet.
  struct Part {
    std::size_t entry;
    std::size_t exit;
  };

  struct Reached {
    std::array<Word, kMostWords> positions{};
    bool isMatch = false;
  };

  // The functions that read return false at what is not taken.

  bool readAlternatives(Part& part, std::size_t depth) {
    if (depth > kMostNestedGroups || !readSequence(part, depth)) {
      return false;
    }
    while (isAt('|')) {
      ++at_;
      Part alternative;
      if (!readSequence(alternative, depth)) {
        return false;
      }
      const std::size_t exit = add({Node::kPass});
      nodes_[part.exit].next = exit;
      nodes_[alternative.exit].next = exit;
      part = {add({Node::kPass, part.entry, alternative.entry}), exit};
    }
    return true;
  }

  bool readSequence(Part& part, std::size_t depth) {
    bool isFirst = true;
    while (at_ < text_.size() && !isAt('|') && !isAt(')')) {
      Part next;
      if (!readRepeated(next, depth) || nodes_.size() > kMostNodes) {
        return false;
      }
      part = std::exchange(isFirst, false) ? next : join(part, next);
    }
    return !isFirst;
  }

  bool readRepeated(Part& part, std::size_t depth) {
    const std::size_t begin = at_;
    const bool isAnchor = isAt('^') || isAt('$');
    if (!readOne(part, depth)) {
      return false;
    }
    std::size_t least = 1;
    std::optional<std::size_t> most = 1;
    if (at_ == text_.size() || !readRepetition(least, most)) {
      return at_ == text_.size() || std::string_view("*+?{").find(text_[at_]) == std::string_view::npos;
    }
    if (isAnchor ||
        (at_ < text_.size() && std::string_view("*+?{").find(text_[at_]) != std::string_view::npos)) {
      return false;
    }

    // The same text is read again for each time that it has to match.
    const std::size_t end = at_;
    const std::size_t times = most ? *most : std::max<std::size_t>(least, 1);
    for (std::size_t time = 1; time <= times; ++time) {
      Part copy = part;
      if (time > 1) {
        at_ = begin;
        if (!readOne(copy, depth)) {
          return false;
        }
      }
      if (!most && time == times) {
        repeat(copy);
      }
      if (time > least) {
        makeOptional(copy);
      }
      part = time > 1 ? join(part, copy) : copy;
    }
    at_ = end;
    return true;
  }

  bool readOne(Part& part, std::size_t depth) {
    const char byte = text_[at_++];
    Bytes bytes;
    switch (byte) {
      case '(':
        if (!readAlternatives(part, depth + 1) || !isAt(')')) {
          return false;
        }
        ++at_;
        return true;
      case '^':
      case '$':
        part.entry = part.exit = add({byte == '^' ? Node::kBeginOfText : Node::kEndOfText});
        return true;
      case '*':
      case '+':
      case '?':
      case '{':
        return false;
      case '[':
        if (!readBracketExpression(text_, at_, bytes)) {
          return false;
        }
        break;
      case '.':
        bytes.set();
        break;
      case '\\':
        if (at_ == text_.size() || kOperators.find(text_[at_]) != std::string_view::npos) {
          return false;
        }
        bytes.set(static_cast<unsigned char>(text_[at_++]));
        break;
      default:
        bytes.set(static_cast<unsigned char>(byte));
    }
    if (positions_.size() == kMostPositions) {
      return false;
    }
    part.entry = part.exit = add({Node::kBytes, kNowhere, kNowhere, bytes, positions_.size()});
    positions_.push_back(part.entry);
    return true;
  }

  /// Leaves `at_` alone where nothing that is taken stands there.
  bool readRepetition(std::size_t& least, std::optional<std::size_t>& most) {
    switch (text_[at_]) {
      case '*':
        least = 0;
        most.reset();
        break;
      case '+':
        most.reset();
        break;
      case '?':
        least = 0;
        break;
      case '{':
        return readInterval(least, most);
      default:
        return false;
    }
    ++at_;
    return true;
  }

  bool readInterval(std::size_t& least, std::optional<std::size_t>& most) {
    const char* const end = text_.data() + text_.size();
    const auto [afterLeast, noLeast] = std::from_chars(text_.data() + at_ + 1, end, least);
    if (noLeast != std::errc() || afterLeast == end) {
      return false;
    }
    const char* closing = afterLeast;
    most = least;
    if (*closing == ',') {
      const auto [afterMost, noMost] = std::from_chars(closing + 1, end, most.emplace(0));
      if (noMost == std::errc::result_out_of_range) {
        return false;
      }
      if (noMost != std::errc()) {
        most.reset();
      }
      closing = afterMost;
    }
    if (closing == end || *closing != '}' || least > kMostRepetitions || most.value_or(least) < least ||
        most == 0 || most.value_or(1) > kMostRepetitions) {
      return false;
    }
    at_ = static_cast<std::size_t>(closing + 1 - text_.data());
    return true;
  }

  bool isAt(char byte) const { return at_ < text_.size() && text_[at_] == byte; }

  std::size_t add(const Node& node) {
    nodes_.push_back(node);
    return nodes_.size() - 1;
  }

  Part join(const Part& first, const Part& second) {
    nodes_[first.exit].next = second.entry;
    return {first.entry, second.exit};
  }

  void repeat(Part& part) {
    const std::size_t exit = add({Node::kPass, kNowhere, part.entry});
    nodes_[part.exit].next = exit;
    part.exit = exit;
  }

  void makeOptional(Part& part) {
    const std::size_t exit = add({Node::kPass});
    nodes_[part.exit].next = exit;
    part = {add({Node::kPass, part.entry, exit}), exit};
  }

  /// All that can be reached from a node without reading a byte.
  Reached reach(std::size_t from, bool isAtBegin, bool isAtEnd) const {
    Reached reached;
    std::vector<bool> isSeen(nodes_.size());
    std::vector<std::size_t> waiting{from};
    while (!waiting.empty()) {
      const std::size_t index = waiting.back();
      waiting.pop_back();
      if (index == kNowhere || isSeen[index]) {
        continue;
      }
      isSeen[index] = true;
      const Node& node = nodes_[index];
      if (node.kind == Node::kBytes) {
        reached.positions[node.position / kBitsOfWord] |= Word{1} << node.position % kBitsOfWord;
      } else if (node.kind == Node::kMatch) {
        reached.isMatch = true;
      } else if ((node.kind != Node::kBeginOfText || isAtBegin) &&
                 (node.kind != Node::kEndOfText || isAtEnd)) {
        waiting.push_back(node.next);
        waiting.push_back(node.other);
      }
    }
    return reached;
  }

  std::string_view text_;
  std::size_t at_ = 0;
  std::vector<Node> nodes_;
  std::vector<std::size_t> positions_;  ///< The node of each.
};

std::optional<ExtendedExpression> ExtendedExpression::compile(std::string_view expression) {
  return Compiler(expression).compile();
}

bool ExtendedExpression::matches(std::string_view text) const {
  text = text.substr(0, text.find('\0'));
  return matchesAll_ || (text.empty()  ? matchesEmptyText_
                         : words_ == 1 ? run<1>(text)
                                       : run<kMostWords>(text));
}

template <std::size_t kWords>
bool ExtendedExpression::run(std::string_view text) const {
  std::array<Word, kWords> waiting{};
  std::array<Word, kWords> taken{};
  const auto hasTaken = [&](const Set& set) {
    Word common = 0;
    for (std::size_t word = 0; word < kWords; ++word) {
      common |= taken[word] & set[word];
    }
    return common != 0;
  };

  std::copy_n(atBegin_.begin(), kWords, waiting.begin());
  for (const char character : text) {
    const Word* const acceptable = &acceptable_[static_cast<unsigned char>(character) * kWords];
    for (std::size_t word = 0; word < kWords; ++word) {
      taken[word] = waiting[word] & acceptable[word];
      waiting[word] = later_[word];
    }
    if (hasTaken(last_)) {
      return true;
    }
    Word all = 0;
    for (std::size_t word = 0; word < kWords; ++word) {
      for (Word left = taken[word]; left != 0; left &= left - 1) {
        const std::size_t position = word * kBitsOfWord + static_cast<std::size_t>(std::countr_zero(left));
        for (std::size_t i = 0; i < kWords; ++i) {
          waiting[i] |= next_[position * kWords + i];
        }
      }
      all |= taken[word] | later_[word];
    }
    if (all == 0) {
      return matchesAtEnd_;
    }
  }
  return matchesAtEnd_ || hasTaken(lastAtEnd_);
}

}  // namespace propertyservice
