#include "database/VolatileStorage.h"

#include <cstdint>
#include <filesystem>
#include <system_error>

#include <leveldb/db.h>

#include "core/Constants.h"
#include "core/JsonText.h"
#include "core/Log.h"
#include "database/VolatileStorageException.h"

namespace propertyservice {

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
  std::string text;
  if (read(property, text) && property.member(column::kValue) == Json::Value(text)) {
    property.setStatus(Status::Unchanged);
  } else {
    insert(property);
  }
}

template <typename Db>
void VolatileStorage<Db>::reset(Property& property) {
  if (!exists(property)) {
    property.setStatus(Status::NotFound);
    return;
  }
  const bool removed = isWritable() && database_->Delete({}, property.text(column::kKey)).ok();
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
  const bool written =
      isWritable() && database_->Put({}, property.text(column::kKey), property.text(column::kValue)).ok();
  conclude(property, written, "Value is not inserted: (");
}

template <typename Db>
bool VolatileStorage<Db>::open() {
  leveldb::Options options;
  options.create_if_missing = true;
  Db* database = nullptr;
  const leveldb::Status status = Db::Open(options, path_, &database);
  database_.reset(database);
  writeFailed_ = false;
  if (!status.ok()) {
    logger().error() << "Volatile database cannot be initialized: " << path_
                     << " Error: " << status.ToString();
  }
  return status.ok();
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
  constexpr std::uintmax_t kForTheRest = 64 * 1024;
  std::error_code error;
  std::uintmax_t needed = kForTheRest;
  for (const auto& entry : std::filesystem::directory_iterator(path_, error)) {
    if (entry.path().extension() == ".log") {
      needed += entry.file_size(error);
    }
  }
  return std::filesystem::space(path_, error).available >= needed;
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
  throw VolatileStorageException(complaint + json::write(property.json()) + ")");
}

template class VolatileStorage<leveldb::DB>;

}  // namespace propertyservice
