#pragma once

/// Bits of the column "flags".
namespace propertyservice::flag {

inline constexpr int kReadOnly = 1;  ///< Requests may not write the property.
inline constexpr int kDump = 4;      ///< System dumps hold it.
inline constexpr int kUser = 8;      ///< Backups of the user's settings hold it.
inline constexpr int kKept = 16;     ///< A factory reset leaves its value.

/// These, and 2, which backups of all settings and for a version change select as they select kUser.
inline constexpr int kKnown = 31;

}  // namespace propertyservice::flag
