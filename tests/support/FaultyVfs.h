#pragma once

#include <array>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <sqlite3.h>

namespace propertyservice::test {

/// SQLite's default file system with faults on demand: operations that fail, and power cuts. While it lives
/// every connection that is opened goes through it; connections must be closed before it goes. Safe from any
/// thread.
class FaultyVfs {
 public:
  enum class Operation { Open, Write, Sync, Lock };

  /// Every file that had been synced, by path, with its content at that time.
  using Disk = std::map<std::string, std::string>;

  FaultyVfs();
  FaultyVfs(const FaultyVfs&) = delete;
  FaultyVfs& operator=(const FaultyVfs&) = delete;
  ~FaultyVfs();

  /// From now on the `nth` such operation (1 is the next) and all after it fail with `code`, until `heal`.
  void fail(Operation operation, int nth, int code);
  void heal();

  /// So many of these operations were asked for since the beginning.
  int count(Operation operation) const;

  /// Returns the contents of the disk after a power cut: at each sync so far, once before it took effect,
  /// once when half of the file had reached the disk, and once after. Anything else that was written but not
  /// synced is gone.
  std::vector<Disk> powerCuts() const;

 private:
  friend struct FaultyFile;

  struct Fault {
    int countdown = 0;
    int code = SQLITE_OK;
  };

  /// The code to fail with, or SQLITE_OK.
  int next(Operation operation);
  void synced(const std::string& path, std::string content);
  void deleted(const std::string& path);

  sqlite3_vfs* const real_;
  sqlite3_vfs shim_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::array<Fault, 4> faults_{};
  std::array<int, 4> counts_{};
  Disk disk_;
  std::vector<Disk> powerCuts_;
};

}  // namespace propertyservice::test
