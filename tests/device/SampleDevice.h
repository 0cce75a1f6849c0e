#pragma once

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <optional>
#include <regex.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <SQLiteCpp/SQLiteCpp.h>

#include "core/Integer.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice::test {

/// A file of the sample device, whole.
inline std::string deviceFile(const std::string& path) {
  std::ifstream file(DEVICE_DIRECTORY "/" + path, std::ios::binary);
  if (!file) {
    throw std::runtime_error("cannot read " + path);
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

/// A row of the table `settings`, with the columns that say what its value may be.
struct Row {
  std::string key;
  std::string value;
  std::optional<std::string> regexp;
  std::optional<int> rangeMin;
  std::optional<int> rangeMax;
  std::optional<std::string> allowed;
};

/// A database that the sqlite3 shell makes of the sample device's script.
class SampleDatabase {
 public:
  SampleDatabase() : complaints_(runScript()), database_(directory_.path("nvm")) {}

  /// The shell's messages about the script.
  const std::string& complaints() const { return complaints_; }

  int count(const std::string& condition) {
    return database_.execAndGet("SELECT count(*) FROM settings WHERE " + condition).getInt();
  }

  std::string text(const std::string& query) { return database_.execAndGet(query).getString(); }

  bool has(const std::string& key) { return count("key = '" + key + "'") == 1; }

  /// The first column of each row.
  std::vector<std::string> texts(const std::string& query) {
    SQLite::Statement statement(database_, query);
    std::vector<std::string> found;
    while (statement.executeStep()) {
      found.push_back(statement.getColumn(0).getString());
    }
    return found;
  }

  /// All rows; `value` is the column of that name.
  std::vector<Row> rows(const std::string& value) {
    SQLite::Statement statement(
        database_, "SELECT key, " + value + ", regexp, range_min, range_max, enum FROM settings");
    std::vector<Row> found;
    while (statement.executeStep()) {
      found.push_back({statement.getColumn(0).getString(), statement.getColumn(1).getString(),
                       optionalText(statement.getColumn(2)), optionalInteger(statement.getColumn(3)),
                       optionalInteger(statement.getColumn(4)), optionalText(statement.getColumn(5))});
    }
    return found;
  }

 private:
  std::string runScript() const {
    const std::string command =
        "sqlite3 '" + directory_.path("nvm") + "' < '" DEVICE_DIRECTORY "/etc/propsrv.d/nvminit.sql' 2>&1";
    FILE* const shell = popen(command.c_str(), "r");
    if (shell == nullptr) {
      throw std::runtime_error("cannot start the shell");
    }
    std::string output;
    std::array<char, 1024> part{};
    while (std::fgets(part.data(), static_cast<int>(part.size()), shell) != nullptr) {
      output += part.data();
    }
    if (pclose(shell) != 0) {
      output += "failed";
    }
    return output;
  }

  static std::optional<std::string> optionalText(const SQLite::Column& column) {
    return column.isNull() ? std::nullopt : std::optional(column.getString());
  }

  static std::optional<int> optionalInteger(const SQLite::Column& column) {
    return column.isNull() ? std::nullopt : std::optional(column.getInt());
  }

  TemporaryDirectory directory_;
  const std::string complaints_;
  SQLite::Database database_;
};

inline bool matches(const std::string& pattern, const std::string& value) {
  regex_t expression;
  if (regcomp(&expression, pattern.c_str(), REG_EXTENDED) != 0) {
    return false;
  }
  const bool matched = regexec(&expression, value.c_str(), 0, nullptr, 0) == 0;
  regfree(&expression);
  return matched;
}

inline bool isWithin(const Row& row) {
  try {
    const int number = toInteger(row.value);
    return number >= row.rangeMin.value_or(number) && number <= row.rangeMax.value_or(number);
  } catch (const std::exception&) {
    return false;
  }
}

inline bool isOneOf(const std::string& list, const std::string& value) {
  std::istringstream pieces(list);
  for (std::string piece; std::getline(pieces, piece, ',');) {
    if (!piece.empty() && piece == value) {
      return true;
    }
  }
  return false;
}

inline bool obeysItsRules(const Row& row) {
  return (!row.regexp || matches(*row.regexp, row.value)) &&
         ((!row.rangeMin && !row.rangeMax) || isWithin(row)) &&
         (!row.allowed || isOneOf(*row.allowed, row.value));
}

inline std::vector<std::string> keysThatBreakTheirRules(const std::vector<Row>& rows) {
  std::vector<std::string> keys;
  for (const Row& row : rows) {
    if (!obeysItsRules(row)) {
      keys.push_back(row.key + " = " + row.value);
    }
  }
  return keys;
}

}  // namespace propertyservice::test
