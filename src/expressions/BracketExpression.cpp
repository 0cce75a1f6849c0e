#include "expressions/BracketExpression.h"

#include <cctype>
#include <optional>
#include <string>
#include <utility>

namespace propertyservice {

namespace {

constexpr std::pair<std::string_view, int (*)(int)> kClasses[] = {
    {"alnum", std::isalnum}, {"alpha", std::isalpha}, {"blank", std::isblank}, {"cntrl", std::iscntrl},
    {"digit", std::isdigit}, {"graph", std::isgraph}, {"lower", std::islower}, {"print", std::isprint},
    {"punct", std::ispunct}, {"space", std::isspace}, {"upper", std::isupper}, {"xdigit", std::isxdigit}};

/// Its functions return false at an error.
class Reader {
 public:
  Reader(std::string_view text, std::size_t at) : text_(text), at_(at) {}

  bool read(Bytes& bytes) {
    const bool isNegated = at_ < text_.size() && text_[at_] == '^';
    at_ += isNegated ? 1 : 0;
    Token token = nextToken();
    if (token.kind == Token::kClosing) {
      token.kind = Token::kByte;
    }
    for (bool isFirst = true; isFirst || token.kind != Token::kClosing; isFirst = false) {
      Element first;
      if ((token.kind == Token::kHyphen && !isFirst && peekToken().kind != Token::kClosing) ||
          !readElement(token, first)) {
        return false;
      }
      token = nextToken();
      if (token.kind != Token::kHyphen || !first.bound) {
        bytes |= first.bytes;
      } else if (peekToken().kind == Token::kClosing) {
        bytes |= first.bytes;
        token.kind = Token::kByte;
      } else {
        Element last;
        if (!readElement(nextToken(), last) || !last.bound || *first.bound > *last.bound) {
          return false;
        }
        for (std::size_t byte = *first.bound; byte <= *last.bound; ++byte) {
          bytes.set(byte);
        }
        token = nextToken();
      }
    }
    if (isNegated) {
      bytes.flip();
    }
    return true;
  }

  std::size_t at() const { return at_; }

 private:
  /// An opening one stands for the "[." and the like that it begins with.
  struct Token {
    enum Kind { kByte, kHyphen, kOpening, kClosing, kEnd } kind;
    char byte = '\0';
  };

  /// A part of a bracket expression. Only a single byte can bound a range.
  struct Element {
    Bytes bytes;
    std::optional<unsigned char> bound;

    void set(char byte) {
      bound = static_cast<unsigned char>(byte);
      bytes.set(*bound);
    }
  };

  bool readElement(Token token, Element& element) {
    if (token.kind != Token::kOpening) {
      element.set(token.byte);
      return token.kind != Token::kEnd;
    }
    const std::size_t end = text_.find(std::string{token.byte, ']'}, at_);
    if (end == std::string_view::npos) {
      return false;
    }
    const std::string_view name = text_.substr(at_, end - at_);
    at_ = end + 2;
    if (token.byte == ':') {
      return readClass(name, element.bytes);
    }
    if (name.size() != 1) {
      return false;
    }
    element.set(name.front());
    if (token.byte == '=') {
      element.bound.reset();
    }
    return true;
  }

  static bool readClass(std::string_view wanted, Bytes& bytes) {
    for (const auto& [name, contains] : kClasses) {
      if (name == wanted) {
        for (int byte = 0; byte < 256; ++byte) {
          bytes[static_cast<std::size_t>(byte)] = contains(byte) != 0;
        }
        return true;
      }
    }
    return false;
  }

  Token peekToken() const { return Reader(*this).nextToken(); }

  Token nextToken() {
    const std::string_view rest = text_.substr(at_);
    if (rest.empty()) {
      return {Token::kEnd};
    }
    ++at_;
    switch (rest.front()) {
      case ']':
        return {Token::kClosing, ']'};
      case '-':
        return {Token::kHyphen, '-'};
      case '[':
        if (rest.size() > 1 && std::string_view(".=:").find(rest[1]) != std::string_view::npos) {
          return {Token::kOpening, text_[at_++]};
        }
        [[fallthrough]];
      default:
        return {Token::kByte, rest.front()};
    }
  }

  std::string_view text_;
  std::size_t at_;
};

}  // namespace

bool readBracketExpression(std::string_view expression, std::size_t& at, Bytes& bytes) {
  Reader reader(expression, at);
  const bool isRead = reader.read(bytes);
  at = reader.at();
  return isRead;
}

}  // namespace propertyservice
