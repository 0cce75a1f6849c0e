#include "core/BackupPlace.h"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <utility>

#include "common/FileSystem.h"
#include "core/Log.h"

namespace propertyservice {

namespace {

/// The size of the regular file at `path`, -1 where there is nothing. Throws for anything else.
off_t sizeOf(const std::string& path) {
  struct stat file {};
  if (lstat(path.c_str(), &file) != 0) {
    if (errno == ENOENT) {
      return -1;
    }
    throw std::system_error(errno, std::generic_category(), "Cannot examine " + path);
  }
  if (!S_ISREG(file.st_mode)) {
    throw std::runtime_error(path + " is not a regular file: remove it");
  }
  return file.st_size;
}

void move(const std::string& from, const std::string& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0) {
    throw std::system_error(errno, std::generic_category(), "Cannot rename " + from + " to " + to);
  }
}

void removeIfThere(const std::string& path) {
  if (!filesystem::remove(path) && errno != ENOENT) {
    throw std::system_error(errno, std::generic_category(), "Cannot remove " + path);
  }
}

}  // namespace

BackupPlace::BackupPlace(std::string path)
    : path_(std::move(path)),
      earlier_(path_ + ".earlier"),
      folder_(std::filesystem::path(path_).parent_path()) {
  sizeOf(path_);
  putEarlierBack();
}

BackupPlace::~BackupPlace() {
  try {
    if (replacing_) {
      putEarlierBack();
    }
  } catch (const std::exception& error) {
    // The next one to use the place tries again.
    logger().warning() << error.what();
  }
}

void BackupPlace::beginReplacing() {
  if (sizeOf(path_) > 0) {
    move(path_, earlier_);
  } else {
    filesystem::create(earlier_);
    removeIfThere(path_);
  }
  replacing_ = true;
}

/// The earlier file goes only when the folder is sure to have the new one.
void BackupPlace::finishReplacing() {
  filesystem::synchronize(path_);
  filesystem::synchronize(folder_);
  removeIfThere(earlier_);
  replacing_ = false;
  filesystem::synchronize(folder_);
}

void BackupPlace::clear() {
  try {
    removeIfThere(path_);
    filesystem::synchronize(folder_);
  } catch (const std::exception& error) {
    logger().warning() << error.what();
  }
}

void BackupPlace::putEarlierBack() {
  const off_t size = sizeOf(earlier_);
  if (size > 0) {
    move(earlier_, path_);
  } else if (size == 0) {
    removeIfThere(path_);
    removeIfThere(earlier_);
  }
}

}  // namespace propertyservice
