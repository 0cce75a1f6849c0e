#pragma once

#include <vector>

#include "common/Descriptor.h"
#include "core/DevicePaths.h"

namespace propertyservice {

/// The right to use the stores, which one process at a time has, for as long as this object lives.
///
/// It is a lock on the folders that hold the stores. Taking it writes nothing, so that it works on a full and
/// on a read-only disk. It ends with the process, however that ends, and child processes do not get it.
class StoreLock {
 public:
  /// Throws `std::runtime_error` when another process has the lock or a folder cannot be opened.
  explicit StoreLock(const DevicePaths& paths);

 private:
  std::vector<common::Descriptor> folders_;
};

}  // namespace propertyservice
