#include "client/check/SqlText.h"

#include <algorithm>
#include <cctype>

namespace check {

namespace {

constexpr std::string_view kBlanks = " \t\r\n\f";
constexpr std::size_t kMostComparisons = 2'000'000;

/// The offset behind the quoted text that begins at `offset`; a doubled quote is part of it.
std::size_t skipQuoted(std::string_view sql, std::size_t offset) {
  const char quote = sql[offset];
  std::size_t end = sql.find(quote, offset + 1);
  while (end != std::string_view::npos && sql.substr(end + 1).starts_with(quote)) {
    end = sql.find(quote, end + 2);
  }
  return end == std::string_view::npos ? sql.size() : end + 1;
}

std::string unquote(std::string_view literal) {
  const char quote = literal.front();
  std::string content;
  for (std::size_t at = 1; at + 1 < literal.size(); ++at) {
    content += literal[at];
    at += literal[at] == quote ? 1 : 0;
  }
  return content;
}

bool isQuote(char character) {
  return character == '\'' || character == '"' || character == '`';
}

bool isWordCharacter(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_';
}

/// How many characters two texts have in common at their ends.
std::size_t likeness(std::string_view a, std::string_view b) {
  const std::size_t shorter = std::min(a.size(), b.size());
  const auto begins = std::mismatch(a.begin(), a.begin() + static_cast<std::ptrdiff_t>(shorter), b.begin());
  const auto ends = std::mismatch(a.rbegin(), a.rbegin() + static_cast<std::ptrdiff_t>(shorter), b.rbegin());
  const auto common = static_cast<std::size_t>((begins.first - a.begin()) + (ends.first - a.rbegin()));
  return std::min(common, shorter);
}

}  // namespace

std::size_t skipSqlBlanks(std::string_view sql, std::size_t offset) {
  for (;;) {
    offset = std::min(sql.find_first_not_of(kBlanks, offset), sql.size());
    const std::string_view rest = sql.substr(offset);
    if (rest.starts_with("--")) {
      offset = std::min(sql.find('\n', offset), sql.size());
    } else if (rest.starts_with("/*")) {
      const std::size_t end = sql.find("*/", offset + 2);
      offset = end == std::string_view::npos ? sql.size() : end + 2;
    } else {
      return offset;
    }
  }
}

std::size_t endOfFaultyStatement(std::string_view sql, std::size_t offset) {
  bool ended = false;
  while (offset < sql.size()) {
    const std::size_t next = skipSqlBlanks(sql, offset);
    if (ended && sql.substr(offset, next - offset).find('\n') != std::string_view::npos) {
      return offset;
    }
    if (next == sql.size()) {
      break;
    }
    ended = sql[next] == ';';
    offset = isQuote(sql[next]) ? skipQuoted(sql, next) : next + 1;
  }
  return sql.size();
}

std::size_t findUnequalRow(std::string_view sql, std::size_t begin, std::size_t end) {
  const std::string_view text = sql.substr(0, end);
  std::size_t depth = 0;
  std::size_t row = begin;
  std::size_t cells = 0;
  std::size_t cellsBefore = 0;
  bool follows = false;  // Only a comma stands between the row before and this one.
  for (std::size_t at = skipSqlBlanks(text, begin); at < end; at = skipSqlBlanks(text, at)) {
    const char character = text[at];
    if (character == '(' && ++depth == 1) {
      row = at;
      cells = 1;
    } else if (character == ')' && depth > 0 && --depth == 0) {
      if (follows && cells != cellsBefore) {
        return row;
      }
      cellsBefore = cells;
      follows = true;
    } else if (depth == 0 && character != ',') {
      follows = false;
    } else if (depth == 1 && character == ',') {
      ++cells;
    }
    at = isQuote(character) ? skipQuoted(text, at) : at + 1;
  }
  return begin;
}

std::size_t findWord(std::string_view sql, std::size_t begin, std::size_t end, std::string_view word) {
  const std::string_view text = sql.substr(0, end);
  for (std::size_t at = text.find(word, begin); at != std::string_view::npos; at = text.find(word, at + 1)) {
    const std::size_t behind = at + word.size();
    const bool begins = at == 0 || !isWordCharacter(text[at - 1]);
    const bool ends = behind == text.size() || !isWordCharacter(text[behind]);
    if (begins && ends) {
      return at;
    }
  }
  return begin;
}

SqlLiterals::SqlLiterals(std::string_view sql, std::size_t begin, std::size_t end) : begin_(begin) {
  const std::string_view text = sql.substr(0, end);
  for (std::size_t at = skipSqlBlanks(text, begin); at < end; at = skipSqlBlanks(text, at)) {
    if (!isQuote(text[at])) {
      ++at;
      continue;
    }
    const std::size_t behind = skipQuoted(text, at);
    literals_.push_back({at, unquote(text.substr(at, behind - at))});
    at = behind;
  }
  for (auto literal = literals_.rbegin(); literal != literals_.rend(); ++literal) {
    unused_[literal->content].push_back(literal->offset);
  }
}

std::size_t SqlLiterals::locate(const std::string& content) {
  if (const auto found = unused_.find(content); found != unused_.end() && !found->second.empty()) {
    const std::size_t offset = found->second.back();
    found->second.pop_back();
    return lastUsed_[content] = offset;
  }
  const auto used = lastUsed_.find(content);
  return used != lastUsed_.end() ? used->second : mostAlike(content);
}

std::size_t SqlLiterals::mostAlike(std::string_view content) {
  std::size_t best = content.size() / 2;
  std::size_t offset = begin_;
  for (const Literal& literal : literals_) {
    if (++comparisons_ > kMostComparisons) {
      return begin_;
    }
    if (const std::size_t alike = likeness(literal.content, content); alike > best) {
      best = alike;
      offset = literal.offset;
    }
  }
  return offset;
}

}  // namespace check
