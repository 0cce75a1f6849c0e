#include "support/FaultyVfs.h"

#include <new>

namespace propertyservice::test {

/// One open file: SQLite's handle, then ours, then the real one in the memory behind.
struct FaultyFile {
  sqlite3_file base;
  FaultyVfs* vfs;
  std::string* path;

  sqlite3_file* real() { return reinterpret_cast<sqlite3_file*>(this + 1); }

  static FaultyFile* of(sqlite3_file* file) { return reinterpret_cast<FaultyFile*>(file); }
  static sqlite3_file* realOf(sqlite3_file* file) { return of(file)->real(); }
  static FaultyVfs& owner(sqlite3_vfs* vfs) { return *static_cast<FaultyVfs*>(vfs->pAppData); }

  std::string content() {
    sqlite3_int64 size = 0;
    real()->pMethods->xFileSize(real(), &size);
    std::string bytes(static_cast<std::size_t>(size), '\0');
    real()->pMethods->xRead(real(), bytes.data(), static_cast<int>(size), 0);
    return bytes;
  }

  static int close(sqlite3_file* file) {
    delete of(file)->path;
    return realOf(file)->pMethods->xClose(realOf(file));
  }

  static int read(sqlite3_file* file, void* bytes, int size, sqlite3_int64 offset) {
    return realOf(file)->pMethods->xRead(realOf(file), bytes, size, offset);
  }

  static int write(sqlite3_file* file, const void* bytes, int size, sqlite3_int64 offset) {
    if (const int code = of(file)->vfs->next(FaultyVfs::Operation::Write); code != SQLITE_OK) {
      return code;
    }
    return realOf(file)->pMethods->xWrite(realOf(file), bytes, size, offset);
  }

  static int truncate(sqlite3_file* file, sqlite3_int64 size) {
    return realOf(file)->pMethods->xTruncate(realOf(file), size);
  }

  static int sync(sqlite3_file* file, int flags) {
    if (const int code = of(file)->vfs->next(FaultyVfs::Operation::Sync); code != SQLITE_OK) {
      return code;
    }
    const int result = realOf(file)->pMethods->xSync(realOf(file), flags);
    of(file)->vfs->synced(*of(file)->path, of(file)->content());
    return result;
  }

  static int fileSize(sqlite3_file* file, sqlite3_int64* size) {
    return realOf(file)->pMethods->xFileSize(realOf(file), size);
  }

  static int lock(sqlite3_file* file, int level) {
    if (const int code = of(file)->vfs->next(FaultyVfs::Operation::Lock); code != SQLITE_OK) {
      return code;
    }
    return realOf(file)->pMethods->xLock(realOf(file), level);
  }

  static int unlock(sqlite3_file* file, int level) {
    return realOf(file)->pMethods->xUnlock(realOf(file), level);
  }

  static int checkReservedLock(sqlite3_file* file, int* held) {
    return realOf(file)->pMethods->xCheckReservedLock(realOf(file), held);
  }

  static int fileControl(sqlite3_file* file, int operation, void* argument) {
    return realOf(file)->pMethods->xFileControl(realOf(file), operation, argument);
  }

  static int sectorSize(sqlite3_file* file) { return realOf(file)->pMethods->xSectorSize(realOf(file)); }

  static int deviceCharacteristics(sqlite3_file* file) {
    return realOf(file)->pMethods->xDeviceCharacteristics(realOf(file));
  }

  static int open(sqlite3_vfs* shim, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
    // Without memory mapping and shared memory: every byte passes through here.
    static const sqlite3_io_methods methods = {1,
                                               close,
                                               read,
                                               write,
                                               truncate,
                                               sync,
                                               fileSize,
                                               lock,
                                               unlock,
                                               checkReservedLock,
                                               fileControl,
                                               sectorSize,
                                               deviceCharacteristics,
                                               nullptr,
                                               nullptr,
                                               nullptr,
                                               nullptr,
                                               nullptr,
                                               nullptr};

    FaultyVfs& vfs = owner(shim);
    file->pMethods = nullptr;
    if (const int code = vfs.next(FaultyVfs::Operation::Open); code != SQLITE_OK) {
      return code;
    }
    const int result = vfs.real_->xOpen(vfs.real_, name, realOf(file), flags, outFlags);
    if (result == SQLITE_OK) {
      of(file)->vfs = &vfs;
      of(file)->path = new std::string(name != nullptr ? name : "");
      file->pMethods = &methods;
    }
    return result;
  }

  static int remove(sqlite3_vfs* shim, const char* name, int syncDirectory) {
    FaultyVfs& vfs = owner(shim);
    const int result = vfs.real_->xDelete(vfs.real_, name, syncDirectory);
    vfs.deleted(name);
    return result;
  }
};

namespace {

/// Of the pages in `content` those of the first half.
void overwriteFirstHalf(std::string& file, const std::string& content) {
  constexpr std::size_t kPageBytes = 4096;
  const std::size_t half = content.size() / 2 / kPageBytes * kPageBytes;
  file.replace(0, half, content, 0, half);
}

}  // namespace

FaultyVfs::FaultyVfs() : real_(sqlite3_vfs_find(nullptr)), shim_(*real_) {
  shim_.iVersion = 1;
  shim_.szOsFile = static_cast<int>(sizeof(FaultyFile)) + real_->szOsFile;
  shim_.zName = "faulty";
  shim_.pAppData = this;
  shim_.xOpen = FaultyFile::open;
  shim_.xDelete = FaultyFile::remove;
  sqlite3_vfs_register(&shim_, 1);
}

FaultyVfs::~FaultyVfs() {
  sqlite3_vfs_unregister(&shim_);
  sqlite3_vfs_register(real_, 1);
}

void FaultyVfs::fail(Operation operation, int nth, int code) {
  const std::lock_guard lock(mutex_);
  faults_[static_cast<std::size_t>(operation)] = {nth, code};
}

void FaultyVfs::heal() {
  const std::lock_guard lock(mutex_);
  faults_ = {};
}

int FaultyVfs::count(Operation operation) const {
  const std::lock_guard lock(mutex_);
  return counts_[static_cast<std::size_t>(operation)];
}

std::vector<FaultyVfs::Disk> FaultyVfs::powerCuts() const {
  const std::lock_guard lock(mutex_);
  return powerCuts_;
}

int FaultyVfs::next(Operation operation) {
  const std::lock_guard lock(mutex_);
  ++counts_[static_cast<std::size_t>(operation)];
  Fault& fault = faults_[static_cast<std::size_t>(operation)];
  if (fault.code == SQLITE_OK || --fault.countdown > 0) {
    return SQLITE_OK;
  }
  return fault.code;
}

void FaultyVfs::synced(const std::string& path, std::string content) {
  const std::lock_guard lock(mutex_);
  powerCuts_.push_back(disk_);
  powerCuts_.push_back(disk_);
  overwriteFirstHalf(powerCuts_.back()[path], content);
  disk_[path] = std::move(content);
  powerCuts_.push_back(disk_);
}

void FaultyVfs::deleted(const std::string& path) {
  const std::lock_guard lock(mutex_);
  disk_.erase(path);
  powerCuts_.push_back(disk_);
}

}  // namespace propertyservice::test
