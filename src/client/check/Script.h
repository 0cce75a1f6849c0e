#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "client/check/Findings.h"

namespace SQLite {
class Database;
}

namespace check {

/// The table that a database script makes, in memory.
struct Script {
  /// How much SQLite has worked on it; it stops when that is too much. Outlives the database.
  std::shared_ptr<int> looks = std::make_shared<int>(0);

  std::shared_ptr<SQLite::Database> database;

  /// The line of each key that the script means to insert, also of those the table refuses.
  std::map<std::string, std::size_t> lines;

  /// The table is there and has its columns.
  bool readable = false;

  /// Nothing was left out: a key that is not in `lines` is not meant to be there.
  bool complete = true;

  bool has(const std::string& key) const { return lines.contains(key); }

  /// 0 for a key that came in by ways that cannot be followed.
  std::size_t lineOf(const std::string& key) const {
    const auto found = lines.find(key);
    return found == lines.end() ? 0 : found->second;
  }
};

/// Runs the script as the device's shell does, on a database in memory, and tells about its statements and
/// its table. Nothing in it reaches anything outside; it is stopped when it takes more than seconds.
Script runScript(const Source& source, Findings& findings);

}  // namespace check
