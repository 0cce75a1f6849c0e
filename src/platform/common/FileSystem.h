#pragma once

#include <string>

namespace filesystem {

/// The whole of a file, also of one without a size such as those under /proc. Throws `std::runtime_error`
/// with the path and the system's reason.
std::string read(const std::string& path);

/// Removes a file; returns false when there was none or it could not be removed.
bool remove(const std::string& path);

bool checkFileExists(const std::string& path);

/// Makes an empty file; leaves one that is there as it is. Throws `std::runtime_error` with the path and the
/// system's reason.
void create(const std::string& path);

/// Waits until what was written to a file, or what was made, renamed and removed in a folder, outlives a
/// power cut. Throws `std::runtime_error` with the path and the system's reason.
void synchronize(const std::string& path);

}  // namespace filesystem
