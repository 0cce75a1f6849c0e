#include "client/check/TableSchema.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <sqlite3.h>

#include "client/check/PropertyRules.h"
#include "core/Constants.h"
#include "database/PersistentStorage.h"

namespace check {

namespace {

using Rows = std::vector<std::vector<std::string>>;

struct Column {
  std::string name;
  std::string type;
  bool key = false;
};

int appendRow(void* rows, int count, char** cells, char** /*names*/) {
  auto& row = static_cast<Rows*>(rows)->emplace_back();
  for (int i = 0; i < count; ++i) {
    row.emplace_back(cells[i] == nullptr ? "" : cells[i]);
  }
  return 0;
}

Rows query(sqlite3* database, const std::string& sql) {
  Rows rows;
  sqlite3_exec(database, sql.c_str(), &appendRow, &rows, nullptr);
  return rows;
}

bool succeeds(sqlite3* database, const std::string& sql) {
  return sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char letter) {
    return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 32) : letter;
  });
  return text;
}

std::vector<Column> columnsOf(sqlite3* database) {
  std::vector<Column> columns;
  for (const auto& row : query(database, "SELECT name, type, pk FROM pragma_table_info('settings')")) {
    columns.push_back({row[0], upper(row[1]), row[2] != "0"});
  }
  return columns;
}

/// The columns of the table that the daemon itself would make.
std::vector<Column> wantedColumns() {
  const auto database =
      std::make_shared<SQLite::Database>(":memory:", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
  propertyservice::PersistentStorage(database).createTable();
  return columnsOf(database->getHandle());
}

const Column* find(const std::vector<Column>& columns, const std::string& name) {
  const auto found =
      std::find_if(columns.begin(), columns.end(), [&](const Column& column) { return column.name == name; });
  return found == columns.end() ? nullptr : &*found;
}

/// Whether the table takes a row whose key, value or default is so long.
bool takes(sqlite3* database, std::string_view name, std::size_t length) {
  const std::string text(length, 'x');
  const std::string key = name == propertyservice::column::kKey ? text : "propctl.probe";
  const std::string other(name == propertyservice::column::kKey ? "value" : name);
  succeeds(database, "SAVEPOINT probe");
  const bool taken =
      succeeds(database, "INSERT INTO settings(key, " + other + ") VALUES ('" + key + "', '" +
                             text.substr(0, name == propertyservice::column::kKey ? 1 : length) + "')");
  succeeds(database, "ROLLBACK TO probe");
  succeeds(database, "RELEASE probe");
  return taken;
}

void checkLimits(sqlite3* database, const Source& source, std::size_t line, Findings& findings) {
  constexpr std::array<std::pair<std::string_view, std::size_t>, 3> kLimits = {
      std::pair{propertyservice::column::kKey, kLongestKey},
      std::pair{propertyservice::column::kValue, kLongestValue},
      std::pair{propertyservice::column::kDefaultValues, kLongestValue}};
  for (const auto& [name, longest] : kLimits) {
    const std::string wanted = " check(length(" + std::string(name) + ") <= " + std::to_string(longest) + ")";
    if (!takes(database, name, longest)) {
      findings.error(source, line,
                     "the table refuses a \"" + std::string(name) + "\" of " + std::to_string(longest) +
                         " characters, which the daemon takes for allowed: write" + wanted);
    } else if (takes(database, name, longest + 1)) {
      findings.error(source, line, "the column \"" + std::string(name) + "\" has no limit: write" + wanted);
    }
  }
}

}  // namespace

bool checkSchema(sqlite3* database, const Source& source, std::size_t tableLine, Findings& findings) {
  const auto kind = query(database, "SELECT type FROM sqlite_master WHERE name = 'settings' COLLATE NOCASE");
  if (kind.empty() || kind.front().front() != "table") {
    findings.error(source, tableLine, "makes no table \"settings\": the daemon does not start");
    return false;
  }
  const std::vector<Column> wanted = wantedColumns();
  const std::vector<Column> present = columnsOf(database);
  bool readable = true;
  for (const Column& column : wanted) {
    const std::string name = "the column \"" + column.name + '"';
    const Column* const found = find(present, column.name);
    if (found == nullptr) {
      readable = false;
      findings.error(source, tableLine, name + " is missing: the daemon does not start");
    } else if (found->type != column.type) {
      findings.error(source, tableLine,
                     name + " is declared " + (found->type.empty() ? "without a type" : found->type) +
                         ", not " + column.type + ": its cells are stored as something else");
    } else if (found->key != column.key) {
      findings.error(source, tableLine,
                     name + (column.key ? " is not the" : " is part of the") +
                         " primary key, which is \"key\" alone: a duplicate key would not be noticed");
    }
  }
  for (const Column& column : present) {
    if (find(wanted, column.name) == nullptr) {
      findings.error(source, tableLine, "the column \"" + column.name + "\" is none that the daemon knows");
    }
  }
  const bool sameOrder = std::equal(wanted.begin(), wanted.end(), present.begin(), present.end(),
                                    [](const Column& a, const Column& b) { return a.name == b.name; });
  if (readable && present.size() == wanted.size() && !sameOrder) {
    findings.warning(source, tableLine,
                     "the columns stand in another order than in system dumps, which have no heading");
  }
  if (readable) {
    checkLimits(database, source, tableLine, findings);
  }
  return readable;
}

std::string noteTrigger(sqlite3* database) {
  const std::vector<Column> columns = columnsOf(database);
  if (columns.empty() ||
      !query(database, "SELECT 1 FROM sqlite_temp_master WHERE name = 'propctl_note'").empty()) {
    return "";
  }
  const auto cell = [&](std::string_view name) {
    return find(columns, std::string(name)) == nullptr ? "NULL" : "NEW." + std::string(name);
  };
  const std::string key = cell(propertyservice::column::kKey);
  const std::string present =
      key == "NULL" ? "0" : "EXISTS(SELECT 1 FROM main.settings AS other WHERE other.key = NEW.key)";
  return "CREATE TEMP TRIGGER propctl_note BEFORE INSERT ON main.settings BEGIN SELECT CASE WHEN "
         "propctl_note(" +
         key + ", length(" + key + "), length(" + cell(propertyservice::column::kValue) + "), length(" +
         cell(propertyservice::column::kDefaultValues) + "), " + present + ") THEN RAISE(IGNORE) END; END";
}

}  // namespace check
