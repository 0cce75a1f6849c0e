#include "database/VolatileStorage.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <system_error>

#include <leveldb/db.h>
#include <leveldb/iterator.h>

#include "core/Constants.h"
#include "core/JsonText.h"
#include "core/Log.h"
#include "database/VolatileStorageException.h"

namespace propertyservice {

namespace {

constexpr std::size_t kLargestKeyBytes = 256;
constexpr std::size_t kLargestValueBytes = 64 * 1024;

/// Of all keys and values together.
constexpr std::size_t kLargestStoreBytes = 4 * 1024 * 1024;

/// Of what is in the tables but was replaced or removed since. LevelDB's own measure for merging tables is
/// the size of a level; by that, 20 MiB that were removed may stay beside 4 MiB that were not.
constexpr std::size_t kMostDeadBytes = 4 * 1024 * 1024;

/// Of a record and its removal, beside key and value.
constexpr std::size_t kRecordBytes = 32;

/// Both logs and each of up to 12 tables that wait for a merge are as large as this. With the default, 4 MiB,
/// a store of 4 MiB fills a disk of 24 MiB.
constexpr std::size_t kWriteBufferBytes = 512 * 1024;

/// Another process, or another object in this one, has the directory open.
bool isInUse(const leveldb::Status& status) {
  return status.ToString().starts_with("IO error: lock ");
}

}  // namespace

template <typename Db>
VolatileStorage<Db>::VolatileStorage(const std::string& path) : path_(path) {
  if (!open()) {
    throw VolatileStorageException("Database could not be initialized");
  }
}

template <typename Db>
VolatileStorage<Db>::~VolatileStorage() = default;

template <typename Db>
bool VolatileStorage<Db>::exists(Property& property) {
  std::string text;
  return read(property, text);
}

template <typename Db>
void VolatileStorage<Db>::get(Property& property) {
  std::string text;
  if (!read(property, text)) {
    property.setStatus(Status::NotFound);
    logger().warning() << "Get property failed for key: " << excerpt(property.text(column::kKey));
  }
  property.set(column::kValue, text);
}

template <typename Db>
void VolatileStorage<Db>::set(Property& property) {
  std::string stored;
  if (read(property, stored) && property.member(column::kValue) == Json::Value(stored)) {
    property.setStatus(Status::Unchanged);
  } else {
    insert(property);
  }
}

template <typename Db>
void VolatileStorage<Db>::reset(Property& property) {
  const bool writable = isWritable();
  std::string stored;
  if (!read(property, stored)) {
    property.setStatus(Status::NotFound);
    return;
  }
  const std::string key = property.text(column::kKey);
  const bool removed = writable && database_->Delete({}, key).ok();
  if (removed) {
    storedBytes_ -= key.size() + stored.size();
    bury(key.size() + stored.size());
  }
  conclude(property, removed, "Cannot delete value (");
}

template <typename Db>
void VolatileStorage<Db>::setMultiple(std::vector<Property>& properties) {
  for (Property& property : properties) {
    if (property.text(column::kKey).find(kVolatilePrefix) == std::string::npos) {
      property.setStatus(Status::InvalidRequest);
    } else {
      set(property);
    }
  }
}

template <typename Db>
void VolatileStorage<Db>::insert(Property& property) {
  const std::string key = property.text(column::kKey);
  const std::string value = property.text(column::kValue);
  if (key.size() > kLargestKeyBytes || value.size() > kLargestValueBytes) {
    property.setStatus(Status::ValueError);
    return;
  }
  const bool writable = isWritable();
  std::string replaced;
  const std::size_t replacedBytes = read(property, replaced) ? key.size() + replaced.size() : 0;
  const std::size_t bytes = storedBytes_ + key.size() + value.size() - replacedBytes;
  // A store from before there was a limit may be larger; it may still shrink.
  if (bytes > kLargestStoreBytes && bytes > storedBytes_) {
    logger().error() << "Volatile database is full (4 MiB); not written: " << key;
    property.setStatus(Status::DBError);
    return;
  }
  const bool written = writable && database_->Put({}, key, value).ok();
  if (written) {
    storedBytes_ = bytes;
    bury(replacedBytes);
  }
  conclude(property, written, "Value is not inserted: (");
}

template <typename Db>
bool VolatileStorage<Db>::open() {
  leveldb::Status status = tryToOpen();
  std::error_code error;
  if (!status.ok() && !isInUse(status) && std::filesystem::is_directory(path_, error)) {
    logger().error() << "Volatile database is removed and made anew: " << path_
                     << " Error: " << status.ToString();
    std::filesystem::remove_all(path_, error);
    status = tryToOpen();
  }
  if (!status.ok()) {
    logger().error() << "Volatile database cannot be initialized: " << path_
                     << " Error: " << status.ToString();
  }
  return status.ok();
}

template <typename Db>
leveldb::Status VolatileStorage<Db>::tryToOpen() {
  leveldb::Options options;
  options.create_if_missing = true;
  options.write_buffer_size = kWriteBufferBytes;
  Db* database = nullptr;
  leveldb::Status status = Db::Open(options, path_, &database);
  database_.reset(database);
  writeFailed_ = false;
  if (status.ok()) {
    status = measure();
  }
  if (!status.ok()) {
    database_.reset();
  }
  return status;
}

/// Reads everything, so that damage shows now and not at the first request or while tables are merged.
template <typename Db>
leveldb::Status VolatileStorage<Db>::measure() {
  leveldb::ReadOptions options;
  options.verify_checksums = true;
  options.fill_cache = false;
  const std::unique_ptr<leveldb::Iterator> record(database_->NewIterator(options));
  storedBytes_ = 0;
  for (record->SeekToFirst(); record->Valid(); record->Next()) {
    storedBytes_ += record->key().size() + record->value().size();
  }
  const std::size_t onDisk = bytesOnDisk("");
  deadBytes_ = onDisk - std::min(onDisk, storedBytes_);
  return record->status();
}

template <typename Db>
void VolatileStorage<Db>::bury(std::size_t bytes) {
  deadBytes_ += bytes + kRecordBytes;
  if (deadBytes_ > kMostDeadBytes) {
    deadBytes_ = 0;
    database_->CompactRange(nullptr, nullptr);
  }
}

template <typename Db>
std::size_t VolatileStorage<Db>::bytesOnDisk(const std::string& extension) const {
  std::size_t bytes = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(path_, error)) {
    if (extension.empty() || entry.path().extension() == extension) {
      const std::uintmax_t size = entry.file_size(error);
      bytes += error ? 0 : static_cast<std::size_t>(size);
    }
  }
  return bytes;
}

template <typename Db>
bool VolatileStorage<Db>::isReadable() {
  return database_ != nullptr || open();
}

template <typename Db>
bool VolatileStorage<Db>::isWritable() {
  if (!writeFailed_) {
    return isReadable();
  }
  if (!hasRoomToOpen()) {
    return false;
  }
  // LevelDB does not allow a directory to be opened twice: the old one goes first.
  database_.reset();
  return open();
}

/// LevelDB writes what its logs hold into tables when it opens a directory. An attempt without room for that
/// would cost the reads as well.
template <typename Db>
bool VolatileStorage<Db>::hasRoomToOpen() const {
  constexpr std::size_t kForTheRest = 64 * 1024;
  std::error_code error;
  return std::filesystem::space(path_, error).available >= bytesOnDisk(".log") + kForTheRest;
}

template <typename Db>
bool VolatileStorage<Db>::read(const Property& property, std::string& text) {
  return isReadable() && database_->Get({}, property.text(column::kKey), &text).ok();
}

template <typename Db>
void VolatileStorage<Db>::conclude(Property& property, bool written, const char* complaint) {
  if (written) {
    property.setStatus(Status::Changed);
    return;
  }
  writeFailed_ = database_ != nullptr;
  property.setStatus(Status::DBError);
  throw VolatileStorageException(complaint + excerpt(json::write(property.json())) + ")");
}

template class VolatileStorage<leveldb::DB>;

}  // namespace propertyservice
