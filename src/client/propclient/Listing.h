#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "propclient/Request.h"

namespace propclient {

/// A reading of all properties that match a pattern, however many there are. One reply with all of them may
/// be longer than the broker lets pass. So the names are read first, then the rows in pieces of at most
/// `kMostRows`, by patterns made of the beginnings of the names. A single name, and names alone, take one
/// request.
///
/// For one thread alone. Lives until its last reply.
class Listing : public std::enable_shared_from_this<Listing> {
 public:
  /// A row takes 16 KiB at most, unless the texts of its rules are longer than its value and its names.
  static constexpr std::size_t kMostRows = 64;

  struct Question {
    std::string pattern;
    std::vector<std::string> columns;  ///< Empty: all.
    Field field = Field::key;
    std::function<bool(const std::string& name)> wants = {};  ///< Which of the names; empty: all.
  };

  /// The receiver of the rows of a piece, and of how many there are in all. It returns whether to go on.
  using Take = std::function<bool(std::vector<Columns> rows, std::size_t all)>;

  /// The receiver of `ok` once all rows are taken, or of the status of the first piece that failed.
  using Done = std::function<void(Status)>;

  /// Begins to read. `ask` sends a request.
  static void start(Question question, std::function<void(Request)> ask, Take take, Done done);

  Listing(Question question, std::function<void(Request)> ask, Take take, Done done);

 private:
  using Rows = Answer<std::vector<Columns>>;
  using Then = void (Listing::*)(const std::set<std::string>& names);

  void readNames(const std::string& pattern, Then then);
  void namesRead(const std::set<std::string>& names);
  void split(const std::set<std::string>& names);
  void readNext();
  void rowsRead(const Rows& answer);
  void finish(Status status);

  const Question question_;
  const std::function<void(Request)> ask_;
  const Take take_;
  Done done_;  ///< Empty once it was called.

  const std::string name_;            ///< The column that holds the names.
  std::vector<std::string> columns_;  ///< With that one.
  std::set<std::string> due_;         ///< Names whose rows are still to come.
  std::size_t all_ = 0;
  std::vector<std::string> pieces_;  ///< Patterns, the next one last.
  std::size_t asked_ = 0;            ///< Pieces that are not answered yet.
};

/// Returns patterns that together match all of `names` and, each, at most `most` of them where the names
/// allow it; without those that match no name of `wanted`.
std::vector<std::string> splitNames(const std::set<std::string>& names, const std::set<std::string>& wanted,
                                    std::size_t most);

}  // namespace propclient
