#include "client/check/Script.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <sqlite3.h>

#include "client/check/PropertyRules.h"
#include "client/check/SqlText.h"
#include "client/check/TableSchema.h"
#include "core/Constants.h"

namespace check {

namespace {

constexpr int kLongestCell = 1 << 20;
constexpr int kOperationsPerLook = 100'000;
constexpr int kMostLooks = 500;
constexpr std::size_t kMostFailures = 1000;
constexpr sqlite3_int64 kMostMemory = 256 << 20;
constexpr const char* kNote = "propctl_note";
constexpr const char* kForgetTrigger = "DROP TRIGGER IF EXISTS temp.propctl_note";

/// Functions that only the shell has that runs the script on the device.
constexpr std::array<std::string_view, 6> kShellOnly = {"generate_series", "regexp", "readfile", "sha3",
                                                        "decimal",         "base64"};

/// Those that change nothing but this database.
constexpr std::array<std::string_view, 10> kHarmlessPragmas = {
    "application_id", "auto_vacuum", "encoding",    "foreign_keys",       "integrity_check",
    "journal_mode",   "page_size",   "synchronous", "recursive_triggers", "user_version"};

/// A row on its way into the table.
struct NotedRow {
  std::optional<std::string> key;
  std::vector<std::string> faults;  ///< Why the table refuses it.
  bool taken = false;               ///< Its key is in the table already.
};

bool equal(std::string_view a, std::string_view b) {
  return a.size() == b.size() && sqlite3_strnicmp(a.data(), b.data(), static_cast<int>(a.size())) == 0;
}

/// Keeps SQLite, in the whole process, from taking much memory.
class MemoryLimit {
 public:
  MemoryLimit() = default;
  MemoryLimit(const MemoryLimit&) = delete;
  MemoryLimit& operator=(const MemoryLimit&) = delete;
  ~MemoryLimit() { sqlite3_hard_heap_limit64(before_); }

 private:
  const sqlite3_int64 before_ = sqlite3_hard_heap_limit64(kMostMemory);
};

struct Finalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

/// Runs one script.
class Runner {
 public:
  Runner(const Source& source, Findings& findings)
      : source_(source), sql_(source.text()), findings_(findings) {
    script_.database =
        std::make_shared<SQLite::Database>(":memory:", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    database_ = script_.database->getHandle();
    sqlite3_exec(database_, "PRAGMA temp_store = MEMORY", nullptr, nullptr, nullptr);
    sqlite3_limit(database_, SQLITE_LIMIT_LENGTH, kLongestCell);
    sqlite3_set_authorizer(database_, &Runner::authorize, this);
    sqlite3_progress_handler(database_, kOperationsPerLook, &Runner::lookAtTime, script_.looks.get());
    sqlite3_create_function(database_, kNote, 5, SQLITE_UTF8, this, &Runner::noteRow, nullptr, nullptr);
  }

  Script run() && {
    runAll();
    finish();
    return std::move(script_);
  }

 private:
  void runAll() {
    const MemoryLimit limit;
    for (std::size_t at = skipSqlBlanks(sql_, 0); at < sql_.size() && !stopped_;
         at = skipSqlBlanks(sql_, at)) {
      const bool atLineStart = at == 0 || sql_[at - 1] == '\n';
      const bool forShell = atLineStart && (sql_[at] == '.' || sql_[at] == '#');
      at = forShell ? runShellLine(at) : runStatement(at);
    }
  }

  static int authorize(void* self, int action, const char* first, const char* second,
                       const char* /*database*/, const char* trigger) {
    const auto text = [](const char* argument) {
      return std::string_view(argument == nullptr ? "" : argument);
    };
    return static_cast<Runner*>(self)->allow(action, text(first), text(second), trigger != nullptr);
  }

  static int lookAtTime(void* looks) { return ++*static_cast<int*>(looks) > kMostLooks ? 1 : 0; }

  /// Arguments: key, its length, the length of value and default, and whether the key is there already.
  static void noteRow(sqlite3_context* context, int /*count*/, sqlite3_value** arguments) {
    auto* const runner = static_cast<Runner*>(sqlite3_user_data(context));
    NotedRow row;
    if (const auto* const key = sqlite3_value_text(arguments[0]); key != nullptr) {
      row.key.emplace(reinterpret_cast<const char*>(key),
                      static_cast<std::size_t>(sqlite3_value_bytes(arguments[0])));
    }
    const auto measure = [&](int argument, std::string_view name, std::size_t most) {
      const sqlite3_int64 length = sqlite3_value_int64(arguments[argument]);
      if (length > static_cast<sqlite3_int64>(most)) {
        row.faults.push_back("its " + std::string(name) + " has " + std::to_string(length) + " characters, " +
                             std::to_string(most) + " at most are allowed");
      }
    };
    measure(1, "key", kLongestKey);
    measure(2, "value", kLongestValue);
    measure(3, "default", kLongestValue);
    row.taken = sqlite3_value_int(arguments[4]) != 0;
    const bool refused = row.taken || !row.faults.empty();
    runner->noted_.push_back(std::move(row));
    sqlite3_result_int(context, runner->skipping_ && refused ? 1 : 0);
  }

  int allow(int action, std::string_view first, std::string_view second, bool inTrigger) {
    switch (action) {
      case SQLITE_ATTACH:
        // VACUUM attaches a database without a name.
        return first.empty() ? SQLITE_OK : block("ATTACH or VACUUM INTO");
      case SQLITE_CREATE_VTABLE:
        return block("a virtual table");
      case SQLITE_FUNCTION:
        return equal(second, "load_extension") ? block("load_extension") : SQLITE_OK;
      case SQLITE_PRAGMA:
        if (std::none_of(kHarmlessPragmas.begin(), kHarmlessPragmas.end(),
                         [&](std::string_view harmless) { return equal(first, harmless); })) {
          skippedPragma_ = first;
          return SQLITE_IGNORE;
        }
        return SQLITE_OK;
      case SQLITE_TRANSACTION:
        begins_ = begins_ || first == "BEGIN";
        return SQLITE_OK;
      case SQLITE_CREATE_TABLE:
      case SQLITE_CREATE_VIEW:
        creates_ = creates_ || equal(first, propertyservice::kTableName);
        return SQLITE_OK;
      case SQLITE_ALTER_TABLE:
        creates_ = true;
        return SQLITE_OK;
      case SQLITE_UPDATE:
      case SQLITE_DELETE:
        changesRows_ = changesRows_ || (!inTrigger && equal(first, propertyservice::kTableName));
        return SQLITE_OK;
      default:
        return SQLITE_OK;
    }
  }

  int block(const char* what) {
    blocked_ = what;
    return SQLITE_DENY;
  }

  void fail(std::size_t line, std::string text) {
    findings_.error(source_, line, std::move(text));
    script_.complete = false;
    stopped_ = stopped_ || ++failures_ > kMostFailures;
  }

  /// A line that the shell does not hand to SQLite; returns the offset behind it.
  std::size_t runShellLine(std::size_t at) {
    const std::size_t end = std::min(sql_.find('\n', at), sql_.size());
    const std::string_view command = sql_.substr(at, std::min(sql_.find_first_of(" \t\r\n", at), end) - at);
    if (command.front() == '#') {
      return end;
    }
    const std::size_t line = source_.lineAt(at);
    if (std::string_view(".quit").starts_with(command) || std::string_view(".exit").starts_with(command)) {
      if (command.size() > 1 && skipSqlBlanks(sql_, end) < sql_.size()) {
        findings_.warning(source_, line,
                          inQuotes(command) + " ends the script here: what follows is not run");
        stopped_ = true;
        return end;
      }
    }
    findings_.warning(source_, line,
                      inQuotes(command) +
                          " is a command of the sqlite3 shell and is not followed here: write "
                          "its effect as SQL, so that it can be checked");
    script_.complete = false;
    return end;
  }

  /// Returns the offset behind it.
  std::size_t runStatement(std::size_t at) {
    begins_ = creates_ = changesRows_ = false;
    blocked_ = nullptr;
    skippedPragma_.clear();

    sqlite3_stmt* prepared = nullptr;
    const char* tail = nullptr;
    const int status = sqlite3_prepare_v2(database_, sql_.data() + at, -1, &prepared, &tail);
    const Statement statement(prepared);
    const std::size_t line = source_.lineAt(at);
    if (status != SQLITE_OK) {
      reportUnreadable(at);
      return endOfFaultyStatement(sql_, at);
    }
    const auto end = static_cast<std::size_t>(tail - sql_.data());
    if (!skippedPragma_.empty()) {
      findings_.warning(source_, line, "PRAGMA " + skippedPragma_ + " is not carried out here");
    }
    if (statement != nullptr) {
      execute(statement.get(), at, end);
    }
    return end;
  }

  void reportUnreadable(std::size_t at) {
    const int offset = sqlite3_error_offset(database_);
    const std::string message = sqlite3_errmsg(database_);
    const std::size_t line =
        source_.lineAt(offset >= 0 ? at + static_cast<std::size_t>(offset) : locate(message, at));
    const bool forShell = std::any_of(kShellOnly.begin(), kShellOnly.end(), [&](std::string_view name) {
      return message.ends_with(": " + std::string(name));
    });
    if (forShell) {
      findings_.warning(source_, line,
                        message + ", which only the sqlite3 shell has: the statement cannot be checked");
      script_.complete = false;
    } else {
      reportFailure(line, message);
    }
  }

  /// The offset of what a message without a place speaks of.
  std::size_t locate(const std::string& message, std::size_t at) const {
    const std::size_t end = endOfFaultyStatement(sql_, at);
    if (message.ends_with("VALUES must have the same number of terms")) {
      return findUnequalRow(sql_, at, end);
    }
    const std::size_t word = message.rfind(' ') + 1;
    return findWord(sql_, at, end, std::string_view(message).substr(word));
  }

  void reportFailure(std::size_t line, const std::string& message) {
    if (blocked_ != nullptr) {
      fail(line,
           std::string(blocked_) +
               " reaches outside of the script: it is not carried out here, and a database script has no "
               "need of it");
    } else {
      fail(line, message + ": the statement is left out");
    }
  }

  void execute(sqlite3_stmt* statement, std::size_t at, std::size_t end) {
    const std::size_t line = source_.lineAt(at);
    const bool changing = changesRows_;
    noted_.clear();
    int status = stepToEnd(statement);
    const bool refused = (status & 0xff) == SQLITE_CONSTRAINT && !noted_.empty();
    if (refused) {
      // Again, past the rows that the table refuses, so that the others are looked at as well.
      noted_.clear();
      skipping_ = true;
      status = stepToEnd(statement);
      skipping_ = false;
    }
    keepNoted(at, end, refused);
    if (*script_.looks > kMostLooks) {
      stopped_ = true;
      fail(line, "takes too long: the device gives the whole script ten seconds");
    } else if (status != SQLITE_DONE) {
      reportFailure(line, sqlite3_errmsg(database_));
    } else if (changing && script_.complete && sqlite3_changes(database_) == 0) {
      findings_.warning(source_, line, "changes no row: is the key right, and is it inserted before?");
    }
    noteState(line);
  }

  static int stepToEnd(sqlite3_stmt* statement) {
    int status = SQLITE_ROW;
    while (status == SQLITE_ROW) {
      status = sqlite3_step(statement);
    }
    sqlite3_reset(statement);
    return status;
  }

  /// Takes down where the rows of a statement stand. One that was `refused` fails as a whole on the device.
  void keepNoted(std::size_t at, std::size_t end, bool refused) {
    if (noted_.empty()) {
      return;
    }
    const std::string rows = std::to_string(noted_.size());
    const std::string consequence = !refused ? ": the statement lets only one of the two stand"
                                    : noted_.size() == 1
                                        ? ": the row is left out"
                                        : ": all " + rows + " rows of the statement are left out";
    SqlLiterals literals(sql_, at, end);
    for (const NotedRow& row : noted_) {
      if (!row.key) {
        findings_.error(source_, source_.lineAt(at), "brings a row without a key: nothing can read it");
        continue;
      }
      const std::string& key = *row.key;
      const std::size_t line = source_.lineAt(literals.locate(key));
      if (row.taken) {
        findings_.error(source_, line, "duplicate key " + inQuotes(key) + firstPlace(key) + consequence);
      }
      for (const std::string& fault : row.faults) {
        findings_.error(source_, line, inQuotes(key).append(": ").append(fault).append(consequence));
      }
      if (!refused || !row.taken) {
        script_.lines[key] = line;
      }
    }
  }

  std::string firstPlace(const std::string& key) const {
    const auto first = script_.lines.find(key);
    return first == script_.lines.end() ? "" : " (first on line " + std::to_string(first->second) + ")";
  }

  void noteState(std::size_t line) {
    if (begins_) {
      beginLine_ = line;
    }
    if (creates_) {
      tableLine_ = line;
      sqlite3_set_authorizer(database_, nullptr, nullptr);
      sqlite3_exec(database_, noteTrigger(database_).c_str(), nullptr, nullptr, nullptr);
      sqlite3_set_authorizer(database_, &Runner::authorize, this);
    }
  }

  void finish() {
    sqlite3_set_authorizer(database_, nullptr, nullptr);
    *script_.looks = 0;
    if (sqlite3_get_autocommit(database_) == 0) {
      findings_.error(source_, beginLine_,
                      "the transaction that begins here is never committed: nothing of it reaches the table");
      sqlite3_exec(database_, "COMMIT", nullptr, nullptr, nullptr);
    }
    sqlite3_exec(database_, kForgetTrigger, nullptr, nullptr, nullptr);
    // The script may have made triggers that call it.
    sqlite3_create_function(database_, kNote, 5, SQLITE_UTF8, nullptr, nullptr, nullptr, nullptr);
    script_.readable = checkSchema(database_, source_, tableLine_, findings_);
    if (script_.readable && script_.complete) {
      forgetRemoved();
    }
  }

  /// Rows may be deleted and keys changed by later statements.
  void forgetRemoved() {
    SQLite::Statement present(*script_.database, "SELECT 1 FROM settings WHERE key = ?");
    std::erase_if(script_.lines, [&present](const auto& entry) {
      present.reset();
      present.bind(1, entry.first);
      return !present.executeStep();
    });
  }

  const Source& source_;
  const std::string_view sql_;
  Findings& findings_;
  Script script_;
  sqlite3* database_ = nullptr;

  std::vector<NotedRow> noted_;  // of the statement that runs
  bool skipping_ = false;
  bool begins_ = false;
  bool creates_ = false;
  bool changesRows_ = false;
  const char* blocked_ = nullptr;
  std::string skippedPragma_;

  std::size_t beginLine_ = 0;
  std::size_t tableLine_ = 0;
  std::size_t failures_ = 0;
  bool stopped_ = false;
};

}  // namespace

Script runScript(const Source& source, Findings& findings) {
  if (const std::size_t nul = source.text().find('\0'); nul != std::string::npos) {
    findings.error(source, source.lineAt(nul),
                   "holds a NUL character: it is no text in UTF-8, and the shell reads only part of it");
    Script nothing;
    nothing.complete = false;
    return nothing;
  }
  return Runner(source, findings).run();
}

}  // namespace check
