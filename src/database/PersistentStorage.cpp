#include "database/PersistentStorage.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>
#include <sqlite3.h>

#include "core/Constants.h"
#include "core/Integer.h"
#include "core/JsonText.h"
#include "core/Log.h"
#include "database/PersistentStorageException.h"

namespace propertyservice {

namespace {

using Reason = PersistentStorageException::Reason;

constexpr int kBusyTimeoutMs = 5000;
constexpr std::chrono::seconds kHurry(1);

/// The bits of SQLite's primary result code in an extended one.
constexpr int kPrimaryCode = 0xff;

constexpr const char* kDrop = "DROP TABLE IF EXISTS settings";
constexpr const char* kInsert =
    "INSERT INTO settings VALUES (:propertyName, :propertyValue, :webAliasName, :provAliasName, :tr69, "
    ":minRange, :maxRange, :validationMask, :validationValues, :flags, :defaultValue)";
constexpr const char* kUpdate =
    "UPDATE settings SET value=:propertyValue, webui=:webAliasName, provisioning=:provAliasName, "
    "tr069=:tr69, range_min=:minRange, range_max=:maxRange, regexp=:validationMask, enum=:validationValues, "
    "flags=:flags, defaultvalues=:defaultValue WHERE key=:propertyName";
constexpr const char* kSelectOne = "SELECT * FROM settings WHERE key = :keyName";
constexpr const char* kSelectByPattern = "SELECT * FROM settings WHERE key LIKE :keyName";

constexpr const char* kKeyParameter = ":keyName";

struct ColumnParameter {
  std::string_view column;
  const char* parameter;
};

constexpr std::array kTextParameters = {
    ColumnParameter{column::kKey, ":propertyName"},
    ColumnParameter{column::kValue, ":propertyValue"},
    ColumnParameter{column::kWebui, ":webAliasName"},
    ColumnParameter{column::kProvisioning, ":provAliasName"},
    ColumnParameter{column::kTr069, ":tr69"},
    ColumnParameter{column::kRegexp, ":validationMask"},
    ColumnParameter{column::kEnum, ":validationValues"},
    ColumnParameter{column::kDefaultValues, ":defaultValue"},
};

constexpr std::array kIntegerParameters = {
    ColumnParameter{column::kRangeMin, ":minRange"},
    ColumnParameter{column::kRangeMax, ":maxRange"},
    ColumnParameter{column::kFlags, ":flags"},
};

Reason reasonOf(const std::exception& error) {
  const auto* const failure = dynamic_cast<const SQLite::Exception*>(&error);
  const bool refused = failure != nullptr && (failure->getErrorCode() & kPrimaryCode) == SQLITE_CONSTRAINT;
  // Neither JsonCpp's own lack of memory nor a text that is too long for it is among these.
  const bool unbindable = dynamic_cast<const std::invalid_argument*>(&error) != nullptr ||
                          dynamic_cast<const std::out_of_range*>(&error) != nullptr ||
                          dynamic_cast<const Json::LogicError*>(&error) != nullptr;
  return refused || unbindable ? Reason::Constraint : Reason::Unavailable;
}

template <typename Operation>
auto reportingFailure(Operation operation) {
  try {
    return operation();
  } catch (const PersistentStorageException&) {
    throw;
  } catch (const std::exception& error) {
    logger().error() << error.what();
    throw PersistentStorageException(error.what(), reasonOf(error));
  }
}

/// A table may hold integers that are wider than those from text.
std::int64_t integerOf(const Json::Value& member) {
  return member.isInt64() ? member.asInt64() : toInteger(member.asString());
}

bool isText(std::string_view column) {
  return std::ranges::find(column::kText, column) != column::kText.end();
}

void bind(SQLite::Statement& statement, const Property& property) {
  for (const auto& [column, parameter] : kTextParameters) {
    if (const Json::Value& member = property.member(column); !member.isNull()) {
      statement.bind(parameter, member.asString());
    }
  }
  for (const auto& [column, parameter] : kIntegerParameters) {
    if (const Json::Value& member = property.member(column); !member.isNull()) {
      statement.bind(parameter, integerOf(member));
    }
  }
}

/// Of a row that has an alias or two and a rule or two.
constexpr std::size_t kUsualMembers = 8;

/// Reads the rows of a statement that selects all columns.
class RowReader {
 public:
  explicit RowReader(const SQLite::Statement& statement) : statement_(statement) {
    for (const std::string_view column : column::kAll) {
      cells_.push_back({column, isText(column), statement.getColumnIndex(column.data())});
    }
    // In the order of the members of a property, so that each is added after the one before.
    std::ranges::sort(cells_, {}, &Cell::column);
  }

  void read(Property& property) const {
    property.reserve(kUsualMembers);
    for (const auto& [column, isText, index] : cells_) {
      const SQLite::Column cell = statement_.getColumn(index);
      if (!isText) {
        if (!cell.isNull()) {
          property.set(column, Json::Int64{cell.getInt64()});
        }
      } else if (const char* const text = cell.getText(nullptr)) {
        property.set(column, Json::Value(text, text + cell.getBytes()));
      } else if (column == column::kValue) {
        property.set(column, "");
      }
    }
  }

 private:
  struct Cell {
    std::string_view column;
    bool isText;
    int index;
  };

  const SQLite::Statement& statement_;
  std::vector<Cell> cells_;
};

/// Returns `member` as it would be read back from that column.
Json::Value asStored(std::string_view column, const Json::Value& member) {
  return isText(column) ? Json::Value(member.asString()) : Json::Value(Json::Int64{integerOf(member)});
}

/// Takes over the members that `property` carries; false when the row holds them all already.
bool merge(const Property& property, Property& row) {
  bool changed = false;
  for (const std::string_view column : column::kAll) {
    const Json::Value& member = property.member(column);
    if (member.isNull()) {
      continue;
    }
    Json::Value stored = asStored(column, member);
    if (row.member(column) != stored) {
      row.set(column, std::move(stored));
      changed = true;
    }
  }
  return changed;
}

Property withKey(const std::string& key) {
  return Property({{column::kKey, key}});
}

std::string batchStatement(std::size_t size) {
  std::ostringstream statement;
  statement << "UPDATE " << kTableName << " SET value = (case ";
  for (std::size_t i = 0; i < size; ++i) {
    statement << "when key = :key" << i << " then :value" << i << ' ';
  }
  statement << "END) WHERE key IN (";
  for (std::size_t i = 0; i < size; ++i) {
    statement << (i == 0 ? "" : ",") << ":key" << i;
  }
  statement << ')';
  return statement.str();
}

/// Binds the text of the member itself where it can, which has to stay as it is until the statement has run.
void bindText(SQLite::Statement& statement, int parameter, const Json::Value& member) {
  const char* begin = nullptr;
  const char* end = nullptr;
  if (member.getString(&begin, &end) && std::find(begin, end, '\0') == end) {
    statement.bindNoCopy(parameter, begin);
  } else {
    statement.bind(parameter, member.asString());
  }
}

void writeValues(SQLite::Statement& statement, const std::vector<Property>& batch) {
  // Bound by position, which is the order of first appearance: SQLite looks a name up by comparing it with
  // all of them.
  int parameter = 0;
  for (const Property& property : batch) {
    const Json::Value& key = property.member(column::kKey);
    bindText(statement, ++parameter, key);
    bindText(statement, ++parameter, property.member(column::kValue));
    logger().debug() << "Applying updated values for parameter: " << [&] { return json::write(key); };
  }
  statement.exec();
}

}  // namespace

std::shared_ptr<SQLite::Database> openDatabase(const std::string& path) {
  auto database = std::make_shared<SQLite::Database>(path, SQLite::OPEN_READWRITE, kBusyTimeoutMs);
  // The removal of the journal ends a transaction; without this it may be undone by a power cut.
  database->exec("PRAGMA synchronous = EXTRA");
  return database;
}

PersistentStorage::PersistentStorage(std::shared_ptr<SQLite::Database> database)
    : database_(std::move(database)) {
  if (database_ != nullptr) {
    patience_ = std::chrono::milliseconds(database_->execAndGet("PRAGMA busy_timeout").getInt());
    waitForLocks();
  }
}

PersistentStorage::~PersistentStorage() {
  if (database_ != nullptr) {
    fullBatch_.reset();
    sqlite3_busy_timeout(database_->getHandle(), static_cast<int>(patience_.count()));
  }
}

void PersistentStorage::createTable() {
  reportingFailure([&] { SQLite::Statement(*database_, kCreateTable).exec(); });
}

void PersistentStorage::dropTable() {
  reportingFailure([&] { SQLite::Statement(*database_, kDrop).exec(); });
}

void PersistentStorage::insert(const Property& property) {
  reportingFailure([&] {
    SQLite::Statement statement(*database_, kInsert);
    bind(statement, property);
    statement.exec();
  });
}

void PersistentStorage::update(const Property& property) {
  reportingFailure([&] {
    Property row = withKey(property.text(column::kKey));
    select(row);
    if (!merge(property, row)) {
      return;
    }
    SQLite::Statement statement(*database_, kUpdate);
    bind(statement, row);
    statement.exec();
  });
}

void PersistentStorage::updateValues(std::queue<Property>& properties) {
  std::vector<Property> batch;
  batch.reserve(std::min(properties.size(), batchSize_));
  while (!properties.empty()) {
    batch.push_back(std::move(properties.front()));
    properties.pop();
    if (batch.size() == batchSize_ || properties.empty()) {
      writeBatch(batch);
      batch.clear();
    }
  }
}

void PersistentStorage::select(Property& property) {
  reportingFailure([&] {
    SQLite::Statement statement(*database_, kSelectOne);
    statement.bind(kKeyParameter, property.text(column::kKey));
    if (!statement.executeStep()) {
      throw PersistentStorageException("Parameter not found in query", Reason::MissingRow);
    }
    RowReader(statement).read(property);
  });
}

std::vector<Property> PersistentStorage::selectMultiple(const std::string& keyPattern) {
  std::vector<Property> rows;
  if (keyPattern.find(kSqlWildcard) == std::string::npos) {
    select(rows.emplace_back(withKey(keyPattern)));
    return rows;
  }
  reportingFailure([&] {
    SQLite::Statement statement(*database_, kSelectByPattern);
    statement.bind(kKeyParameter, keyPattern);
    const RowReader reader(statement);
    while (statement.executeStep()) {
      reader.read(rows.emplace_back());
    }
  });
  return rows;
}

void PersistentStorage::hurry() {
  Clock::time_point never = Clock::time_point::max();
  noWaitingAfter_.compare_exchange_strong(never, Clock::now() + kHurry);
}

/// Called by SQLite each time that a lock is in the way, with the number of calls before for the same lock.
/// Returns whether to try again.
int PersistentStorage::waitForLock(void* self, int waits) {
  constexpr std::array kDelaysMs = {1, 2, 5, 10, 15, 20, 25, 25, 25, 50, 50, 100};
  auto& storage = *static_cast<PersistentStorage*>(self);
  const Clock::time_point now = Clock::now();
  if (waits == 0) {
    storage.waitingSince_ = now;
  }
  const Clock::time_point end =
      std::min(storage.waitingSince_ + storage.patience_, storage.noWaitingAfter_.load());
  if (now >= end) {
    return 0;
  }
  const std::size_t step = std::min(static_cast<std::size_t>(waits), kDelaysMs.size() - 1);
  std::this_thread::sleep_for(
      std::min<Clock::duration>(std::chrono::milliseconds(kDelaysMs[step]), end - now));
  return 1;
}

void PersistentStorage::waitForLocks() {
  sqlite3_busy_handler(database_->getHandle(), waitForLock, this);
}

void PersistentStorage::writeBatch(const std::vector<Property>& batch) {
  try {
    try {
      executeBatch(batch);
    } catch (const SQLite::Exception& error) {
      // Of these a connection never recovers: a file that could only be read when it was opened, or that is
      // no longer the one at its path.
      if ((error.getErrorCode() & kPrimaryCode) != SQLITE_READONLY) {
        throw;
      }
      reopen(error.getExtendedErrorCode() == SQLITE_READONLY_DBMOVED);
      executeBatch(batch);
    }
    lastBatchFailure_.clear();
  } catch (const std::exception& error) {
    // One that met a lock counts as running, and no other statement's changes are committed while it does.
    fullBatch_.reset();
    // The writer tries again and again while the disk fails; that is one event, not one a second.
    if (lastBatchFailure_ != error.what()) {
      lastBatchFailure_ = error.what();
      logger().error() << error.what();
    }
    throw PersistentStorageException(error.what(), reasonOf(error));
  }
}

void PersistentStorage::executeBatch(const std::vector<Property>& batch) {
  if (batch.size() < batchSize_) {
    SQLite::Statement statement(*database_, batchStatement(batch.size()));
    writeValues(statement, batch);
    return;
  }
  // Kept, because preparing so long a statement takes longer than running it.
  if (fullBatch_ == nullptr) {
    fullBatch_ = std::make_unique<SQLite::Statement>(*database_, batchStatement(batchSize_));
  }
  fullBatch_->tryReset();
  writeValues(*fullBatch_, batch);
}

void PersistentStorage::reopen(bool moved) {
  const std::string path = database_->getFilename();
  // A sqlite3 shell that is asked for a missing file leaves an empty one.
  const bool removed = !std::filesystem::exists(path) || std::filesystem::is_empty(path);
  if (removed) {
    const std::string unfinished = path + ".new";
    std::filesystem::remove(unfinished);
    SQLite::Statement copy(*database_, "VACUUM INTO :path");
    copy.bind(":path", unfinished);
    copy.exec();
    std::filesystem::rename(unfinished, path);
  }
  fullBatch_.reset();
  database_ = openDatabase(path);
  waitForLocks();
  if (removed || moved) {
    logger().warning() << "Database file was " << (removed ? "removed and is written anew: " : "replaced: ")
                       << path;
  }
}

}  // namespace propertyservice
