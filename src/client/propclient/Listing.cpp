#include "propclient/Listing.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <string_view>
#include <utility>

#include "wire/Columns.h"

namespace propclient {

namespace column = propertyservice::column;

namespace {

constexpr const char* kAllNames = "%";

/// Pieces that are asked for ahead: together they stay below what the broker keeps for a client.
constexpr std::size_t kMostAsked = 4;

/// The daemon takes a pattern of at most 256 bytes, and each byte may need a backslash.
constexpr std::size_t kLongestBeginning = 120;

std::string columnOf(Field field) {
  return std::string(field == Field::web            ? column::kWebui
                     : field == Field::provisioning ? column::kProvisioning
                                                    : column::kKey);
}

/// The length of the character of UTF-8 that begins at `at`.
std::size_t lengthOfCharacter(const std::string& text, std::size_t at) {
  std::size_t end = at + 1;
  while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xc0U) == 0x80) {
    ++end;
  }
  return end - at;
}

/// An expression for a beginning of names. A "%" of a name cannot be told from the wildcard, and the daemon
/// replaces bytes that are not UTF-8 when it lists them.
std::string expressionFor(const std::string& beginning) {
  std::string expression;
  for (std::size_t at = 0; at < beginning.size();) {
    const std::size_t length = lengthOfCharacter(beginning, at);
    const std::string character = beginning.substr(at, length);
    if (character == "%") {
      expression += '.';
    } else if (character == "\xef\xbf\xbd") {
      expression += ".*";
    } else if (std::string_view("\\.[*^$").find(character) != std::string_view::npos) {
      expression += '\\' + character;
    } else {
      expression += character;
    }
    at += length;
  }
  return expression;
}

using Names = std::set<std::string>;
using Name = Names::const_iterator;

/// Makes patterns for names, from the first character on until few enough begin alike.
class Splitter {
 public:
  Splitter(const Names& wanted, std::size_t most) : wanted_(wanted), most_(most) {}

  /// Splits names that have the first `length` bytes in common.
  void split(Name first, Name last, std::size_t length) {
    if (!has(first, last)) {
      return;
    }
    const std::string beginning = expressionFor(first->substr(0, length));
    if (countOf(first, last) <= most_ || length > kLongestBeginning) {
      patterns_.push_back(beginning + kAllNames);
      return;
    }
    if (first->size() == length) {
      if (has(first, std::next(first))) {
        patterns_.push_back(*first);
      }
      ++first;
    }
    // Alternatives for the next character that one piece has room for.
    std::string alternatives;
    std::size_t count = 0;
    const auto finishPiece = [&] {
      if (!alternatives.empty()) {
        patterns_.push_back(beginning + '[' + alternatives + ']' + kAllNames);
      }
      alternatives.clear();
      count = 0;
    };
    for (Name end = first; first != last; first = end) {
      const std::size_t longer = length + lengthOfCharacter(*first, length);
      const std::string alike = first->substr(0, longer);
      end = std::find_if_not(first, last, [&](const std::string& name) { return name.starts_with(alike); });
      const std::size_t more = countOf(first, end);
      if (more > most_ || std::isalnum(static_cast<unsigned char>(alike.back())) == 0) {
        split(first, end, longer);
      } else if (has(first, end)) {
        if (count + more > most_) {
          finishPiece();
        }
        alternatives += alike.back();
        count += more;
      }
    }
    finishPiece();
  }

  std::vector<std::string> patterns() && { return std::move(patterns_); }

 private:
  static std::size_t countOf(Name first, Name last) {
    return static_cast<std::size_t>(std::distance(first, last));
  }

  bool has(Name first, Name last) const {
    return std::any_of(first, last, [this](const std::string& name) { return wanted_.contains(name); });
  }

  const Names& wanted_;
  const std::size_t most_;
  std::vector<std::string> patterns_;
};

}  // namespace

std::vector<std::string> splitNames(const std::set<std::string>& names, const std::set<std::string>& wanted,
                                    std::size_t most) {
  Splitter splitter(wanted, most);
  splitter.split(names.begin(), names.end(), 0);
  return std::move(splitter).patterns();
}

void Listing::start(Question question, std::function<void(Request)> ask, Take take, Done done) {
  const bool isPattern = question.pattern.find(kAllNames) != std::string::npos;
  if (!isPattern || question.columns == std::vector{columnOf(question.field)}) {
    ask(request::list(question.pattern, question.columns, question.field, [take, done](const Rows& answer) {
      if (!answer.ok() || take(answer.value, answer.value.size())) {
        done(answer.status);
      }
    }));
    return;
  }
  const auto listing =
      std::make_shared<Listing>(std::move(question), std::move(ask), std::move(take), std::move(done));
  listing->readNames(listing->question_.pattern, &Listing::namesRead);
}

Listing::Listing(Question question, std::function<void(Request)> ask, Take take, Done done)
    : question_(std::move(question)),
      ask_(std::move(ask)),
      take_(std::move(take)),
      done_(std::move(done)),
      name_(columnOf(question_.field)),
      columns_(question_.columns) {
  if (!columns_.empty() && std::find(columns_.begin(), columns_.end(), name_) == columns_.end()) {
    columns_.push_back(name_);
  }
}

void Listing::readNames(const std::string& pattern, Then then) {
  ask_(
      request::list(pattern, {name_}, question_.field, [self = shared_from_this(), then](const Rows& answer) {
        if (!answer.ok()) {
          self->finish(answer.status);
          return;
        }
        Names names;
        for (const Columns& row : answer.value) {
          if (const auto name = row.find(self->name_); name != row.end()) {
            names.insert(name->second);
          }
        }
        (*self.*then)(names);
      }));
}

void Listing::namesRead(const Names& names) {
  due_ = names;
  if (question_.wants) {
    std::erase_if(due_, [this](const std::string& name) { return !question_.wants(name); });
  }
  all_ = due_.size();
  if (due_.empty()) {
    finish(Status::ok);
  } else if (names.size() <= kMostRows) {
    pieces_ = {question_.pattern};
    readNext();
  } else if (question_.pattern == kAllNames) {
    split(names);
  } else {
    // A piece matches by the beginning alone, so all names count.
    readNames(kAllNames, &Listing::split);
  }
}

void Listing::split(const Names& names) {
  pieces_ = splitNames(names, due_, kMostRows);
  readNext();
}

void Listing::readNext() {
  if (pieces_.empty() && asked_ == 0) {
    finish(Status::ok);
  }
  while (done_ && !pieces_.empty() && asked_ < kMostAsked) {
    const std::string pattern = std::move(pieces_.back());
    pieces_.pop_back();
    ++asked_;
    ask_(request::list(pattern, columns_, question_.field,
                       [self = shared_from_this()](const Rows& answer) { self->rowsRead(answer); }));
  }
}

void Listing::rowsRead(const Rows& answer) {
  --asked_;
  if (!done_) {
    return;
  }
  if (answer.status != Status::ok && answer.status != Status::notFound) {
    finish(answer.status);
    return;
  }
  std::vector<Columns> rows;
  for (Columns row : answer.value) {
    if (due_.erase(row[name_]) != 0) {
      if (columns_.size() > question_.columns.size()) {
        row.erase(name_);
      }
      rows.push_back(std::move(row));
    }
  }
  if (take_(std::move(rows), all_)) {
    readNext();
  } else {
    done_ = nullptr;
  }
}

void Listing::finish(Status status) {
  if (const Done done = std::exchange(done_, nullptr)) {
    done(status);
  }
}

}  // namespace propclient
