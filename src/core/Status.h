#pragma once

#include <optional>
#include <string_view>

namespace propertyservice {

/// The outcome of a request for one property, or of a maintenance operation. The numbers are part of the
/// log's wording and never change.
enum class Status : int {
  Ok = 0,
  NotFound = 1,
  RegExpError = 2,
  ValueError = 3,
  ValueOutOfBounds = 4,
  ReadOnly = 5,
  Changed = 6,    ///< Written; sent as "Ok".
  Unchanged = 7,  ///< The stored value was equal already; sent as "Ok".
  DBError = 8,
  InvalidRequest = 9,
};

/// The text of a status in a reply, or nothing for a number that is not a status. Safe from any thread.
std::optional<std::string_view> toText(Status status);

}  // namespace propertyservice
