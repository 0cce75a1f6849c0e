#pragma once

#include <cstdint>
#include <memory>
#include <queue>
#include <string>
#include <string_view>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <sqlite3.h>

#include "core/Property.h"
#include "database/PersistentStorage.h"

namespace propertyservice::test {

/// A database file with the table `settings`, looked at through connections of its own.
class SettingsFile {
 public:
  explicit SettingsFile(std::string path) : path_(std::move(path)) {
    SQLite::Database(path_, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    PersistentStorage(openDatabase(path_)).createTable();
  }

  const std::string& path() const { return path_; }

  /// Adds rows K0, K1, ... with the value "old".
  void fill(int rows) const {
    SQLite::Database database(path_, SQLite::OPEN_READWRITE, kBusyTimeoutMs);
    SQLite::Statement insert(
        database,
        "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i + 1 < ?) "
        "INSERT INTO settings(key, value) SELECT 'K' || i, 'old' FROM n");
    insert.bind(1, rows);
    insert.exec();
  }

  /// The first cell of the answer as text; "(none)" without a row, "(null)" for NULL.
  std::string ask(const std::string& sql) const {
    const SQLite::Database database(path_, SQLite::OPEN_READONLY, kBusyTimeoutMs);
    SQLite::Statement query(database, sql);
    if (!query.executeStep()) {
      return "(none)";
    }
    const SQLite::Column cell = query.getColumn(0);
    return cell.isNull() ? "(null)" : cell.getString();
  }

  std::string valueOf(const std::string& key) const {
    return ask("SELECT value FROM settings WHERE key = '" + key + "'");
  }

  int rowsWith(const std::string& value) const {
    return std::stoi(ask("SELECT count(*) FROM settings WHERE value = '" + value + "'"));
  }

 private:
  static constexpr int kBusyTimeoutMs = 5000;

  const std::string path_;
};

/// Keeps other connections from writing while it lives, as a process that reads does.
class Reader {
 public:
  explicit Reader(const std::string& path)
      : database_(path, SQLite::OPEN_READONLY, kBusyTimeoutMs), query_(database_, "SELECT * FROM settings") {
    query_.executeStep();
  }

 private:
  static constexpr int kBusyTimeoutMs = 5000;

  SQLite::Database database_;
  SQLite::Statement query_;
};

/// The statements that a connection runs while this lives.
class StatementTrace {
 public:
  explicit StatementTrace(SQLite::Database& database) : handle_(database.getHandle()) {
    sqlite3_trace_v2(
        handle_, SQLITE_TRACE_STMT,
        [](unsigned, void* self, void*, void* text) {
          static_cast<StatementTrace*>(self)->statements.emplace_back(static_cast<const char*>(text));
          return 0;
        },
        this);
  }
  StatementTrace(const StatementTrace&) = delete;
  StatementTrace& operator=(const StatementTrace&) = delete;
  ~StatementTrace() { sqlite3_trace_v2(handle_, 0, nullptr, nullptr); }

  std::vector<std::string> statements;

 private:
  sqlite3* const handle_;
};

inline Property change(const std::string& key, const std::string& value) {
  return Property({{"key", key}, {"value", value}});
}

inline std::queue<Property> queueOf(const std::vector<Property>& properties) {
  return std::queue<Property>({properties.begin(), properties.end()});
}

/// Changes of K0, K1, ...
inline std::queue<Property> changes(int count, const std::string& value) {
  std::queue<Property> queue;
  for (int i = 0; i < count; ++i) {
    queue.push(change("K" + std::to_string(i), value));
  }
  return queue;
}

}  // namespace propertyservice::test
