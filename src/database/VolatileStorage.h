#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "core/Property.h"

namespace leveldb {
class DB;
class Status;
}  // namespace leveldb

namespace propertyservice {

/// The volatile properties, keys beginning with "State.": "key" and "value" as text in a LevelDB directory,
/// without metadata or rules. Exists for `leveldb::DB` alone.
///
/// A key has at most 256 bytes, a value 64 KiB, and all of them together 4 MiB.
///
/// Writes are not synced: what a power cut may take. A write that fails is reported as `DBError` and
/// `VolatileStorageException`. What LevelDB accepts after a failed write would be gone after a restart; so
/// the next write opens the directory anew first, and fails as long as that does.
///
/// A directory that cannot be opened or read, because it is damaged or its disk is full, is logged as an
/// error, removed and made anew: it holds nothing that should outlive a reboot.
///
/// Without a lock: one thread at a time.
template <typename Db>
class VolatileStorage {
 public:
  /// Opens the directory `path`, and makes it when it is missing. Throws `VolatileStorageException`, after
  /// logging the reason as an error, when another process has it open, it is not a directory, or it cannot be
  /// made anew.
  explicit VolatileStorage(const std::string& path);
  VolatileStorage(const VolatileStorage&) = delete;
  VolatileStorage& operator=(const VolatileStorage&) = delete;
  virtual ~VolatileStorage();

  /// False when reading fails, too.
  virtual bool exists(Property& property);

  /// Sets "value". `NotFound`, logged as a warning, and an empty "value" when the key is unknown or reading
  /// fails; the status stays otherwise.
  virtual void get(Property& property);

  /// `Changed`; `Unchanged`, when that very text is stored already; `ValueError`, when key or value is too
  /// large; `DBError`, when the store is full, which is logged as an error.
  virtual void set(Property& property);

  /// Removes the property: `Changed`, or `NotFound`.
  virtual void reset(Property& property);

  /// `set` on each, in order, but `InvalidRequest` for a key without "State." in it.
  virtual void setMultiple(std::vector<Property>& properties);

  /// Writes the property, whether it exists or not. The outcome is that of `set`, but never `Unchanged`.
  void insert(Property& property);

 private:
  bool open();
  leveldb::Status tryToOpen();
  leveldb::Status measure();
  bool isReadable();
  bool isWritable();
  bool hasRoomToOpen() const;
  std::size_t bytesOnDisk(const std::string& extension) const;

  /// Counts what the tables still hold although it was replaced or removed, and merges them when that is
  /// much.
  void bury(std::size_t bytes);

  bool read(const Property& property, std::string& text);

  /// Leaves the outcome of a write in the status; throws the complaint with the property after a failure.
  void conclude(Property& property, bool written, const char* complaint);

  const std::string path_;
  std::unique_ptr<Db> database_;  ///< Empty only while it cannot be opened again.
  bool writeFailed_ = false;      ///< Since it was opened.
  std::size_t storedBytes_ = 0;   ///< Of all keys and values.
  std::size_t deadBytes_ = 0;     ///< What a merge of the tables would free.
};

extern template class VolatileStorage<leveldb::DB>;

}  // namespace propertyservice
