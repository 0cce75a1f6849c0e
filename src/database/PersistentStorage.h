#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <queue>
#include <string>
#include <vector>

#include "core/Property.h"

namespace SQLite {
class Database;
class Statement;
}  // namespace SQLite

namespace propertyservice {

/// Opens an existing database file for reading and writing; waits up to 5000 ms for other processes that hold
/// it. A transaction that has ended outlives a power cut. Throws `SQLite::Exception` when there is no such
/// file or it is not a database.
std::shared_ptr<SQLite::Database> openDatabase(const std::string& path);

/// The table `settings` of an SQLite database; the only code that speaks SQL.
///
/// Every operation throws `PersistentStorageException`, after logging it as an error unless it is just a row
/// that is missing; the storage stays usable. A member that a property lacks is NULL in the table.
///
/// Without a lock: used by the thread that starts up, then by the write-behind worker alone, but for `hurry`.
class PersistentStorage {
 public:
  /// Waits for locks of other processes as long as `database` did.
  explicit PersistentStorage(std::shared_ptr<SQLite::Database> database);
  PersistentStorage(const PersistentStorage&) = delete;
  PersistentStorage& operator=(const PersistentStorage&) = delete;
  virtual ~PersistentStorage();

  virtual void createTable();
  virtual void dropTable();

  virtual void insert(const Property& property);

  /// Rewrites the row of the property's key: the members that the property carries replace the stored ones,
  /// the others stay. A row that would not change is not written.
  virtual void update(const Property& property);

  /// Writes "value" of each property to the row of its key, in statements of 300 properties; keys without a
  /// row change nothing, and within one statement the first of two equal keys wins. Takes the properties out
  /// of the queue. When it throws, the statements before the failed one have been written, and no row of the
  /// failed one. A failure that repeats the one before is not logged again.
  ///
  /// A database file that was removed under the connection, or gave way to an empty one, is written anew from
  /// it; another that stands in its place is opened instead, and so is its own once a file that could only be
  /// read can be written.
  virtual void updateValues(std::queue<Property>& properties);

  /// Fills the property from the row of its "key". A NULL value is read as the empty text, any other NULL as
  /// no member.
  virtual void select(Property& property);

  /// The rows whose key matches the LIKE pattern, in SQLite's order; without a "%" the one row with that key,
  /// which must exist.
  virtual std::vector<Property> selectMultiple(const std::string& keyPattern);

  /// Allows all waiting for locks from the first call on, together with one that is under way, one second.
  /// From any thread.
  void hurry();

 private:
  using Clock = std::chrono::steady_clock;

  static int waitForLock(void* self, int waits);
  void waitForLocks();
  void writeBatch(const std::vector<Property>& batch);
  void executeBatch(const std::vector<Property>& batch);
  void reopen(bool moved);

  std::shared_ptr<SQLite::Database> database_;
  const std::size_t batchSize_ = 300;
  std::unique_ptr<SQLite::Statement> fullBatch_;  ///< Prepared when one is needed.
  std::string lastBatchFailure_;                  ///< Empty after a success.

  std::chrono::milliseconds patience_{0};  ///< With one lock.
  Clock::time_point waitingSince_;
  std::atomic<Clock::time_point> noWaitingAfter_ = Clock::time_point::max();
};

}  // namespace propertyservice
