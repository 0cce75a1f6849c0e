#pragma once

#include <string>

namespace propertyservice {

/// The place of a backup file: it holds a regular file or nothing. A link, a folder, a FIFO or a device there
/// is an error.
///
/// An export replaces the file as a whole or not at all. Until the new one is whole and outlives a power cut,
/// the earlier one stands beside it under a name that ends in ".earlier", an empty one where there was none.
class BackupPlace {
 public:
  /// Puts the earlier file back where an export was cut off. Throws `std::runtime_error` when it cannot, and
  /// when the place holds anything but a regular file.
  explicit BackupPlace(std::string path);
  BackupPlace(const BackupPlace&) = delete;
  BackupPlace& operator=(const BackupPlace&) = delete;

  /// Puts the earlier file back where `finishReplacing` does not follow `beginReplacing`.
  ~BackupPlace();

  /// Frees the place. Throws `std::runtime_error`.
  void beginReplacing();

  /// Waits until the new file outlives a power cut and drops the earlier one. Throws `std::runtime_error`.
  void finishReplacing();

  /// Removes the file for good; what fails is logged as a warning.
  void clear();

 private:
  void putEarlierBack();

  const std::string path_;
  const std::string earlier_;
  const std::string folder_;
  bool replacing_ = false;
};

}  // namespace propertyservice
