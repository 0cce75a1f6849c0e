#pragma once

#include "wire/Names.h"

namespace propertyservice {

/// Where the broker of the bus runs.
inline constexpr char kBusHost[] = "localhost";

}  // namespace propertyservice
