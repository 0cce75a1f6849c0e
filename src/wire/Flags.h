#pragma once

/// Bits of the column "flags".
namespace propertyservice::flag {

inline constexpr int kReadOnly = 1;  ///< Requests may not write the property.
inline constexpr int kSetting = 2;   ///< Backups of all settings hold it.
inline constexpr int kDump = 4;      ///< System dumps hold it.
inline constexpr int kUser = 8;      ///< Backups of the user's settings hold it.
inline constexpr int kKept = 16;     ///< A factory reset leaves its value.

inline constexpr int kKnown = kReadOnly | kSetting | kDump | kUser | kKept;

}  // namespace propertyservice::flag
