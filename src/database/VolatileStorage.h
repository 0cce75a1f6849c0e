#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/Property.h"

namespace leveldb {
class DB;
}  // namespace leveldb

namespace propertyservice {

/// The volatile properties, keys beginning with "State.": "key" and "value" as text in a LevelDB directory,
/// without metadata or rules. Exists for `leveldb::DB` alone.
///
/// Writes are not synced: what a power cut may take. A write that fails is reported as `DBError` and
/// `VolatileStorageException`. What LevelDB accepts after a failed write would be gone after a restart; so
/// the next write opens the directory anew first, and fails as long as that does.
///
/// Without a lock: one thread at a time.
template <typename Db>
class VolatileStorage {
 public:
  /// Opens the directory `path`, and makes it when it is missing. Throws `VolatileStorageException`, after
  /// logging the reason as an error.
  explicit VolatileStorage(const std::string& path);
  VolatileStorage(const VolatileStorage&) = delete;
  VolatileStorage& operator=(const VolatileStorage&) = delete;
  virtual ~VolatileStorage();

  /// False when reading fails, too.
  virtual bool exists(Property& property);

  /// Sets "value". `NotFound`, logged as a warning, and an empty "value" when the key is unknown or reading
  /// fails; the status stays otherwise.
  virtual void get(Property& property);

  /// `Changed`; or `Unchanged`, when that very text is stored already.
  virtual void set(Property& property);

  /// Removes the property: `Changed`, or `NotFound`.
  virtual void reset(Property& property);

  /// `set` on each, in order, but `InvalidRequest` for a key without "State." in it.
  virtual void setMultiple(std::vector<Property>& properties);

  /// Writes the property, whether it exists or not: `Changed`.
  void insert(Property& property);

 private:
  bool open();
  bool isReadable();
  bool isWritable();
  bool hasRoomToOpen() const;
  bool read(const Property& property, std::string& text);

  /// Leaves the outcome of a write in the status; throws the complaint with the property after a failure.
  void conclude(Property& property, bool written, const char* complaint);

  const std::string path_;
  std::unique_ptr<Db> database_;  ///< Empty only while it cannot be opened again.
  bool writeFailed_ = false;      ///< Since it was opened.
};

extern template class VolatileStorage<leveldb::DB>;

}  // namespace propertyservice
