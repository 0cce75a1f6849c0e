#pragma once

namespace propertyservice {

/// The daemon's client name on the bus, and the root of every topic it serves or publishes on.
inline constexpr char kServiceName[] = "prop-service";

/// Where the broker of the bus runs.
inline constexpr char kBusHost[] = "localhost";

}  // namespace propertyservice
