#pragma once

/// The names of the members of requests, replies and notifications on the bus.
namespace common::JSONDefinitions {

inline constexpr char PROPERTY_METHOD[] = "method";
inline constexpr char PROPERTY_PARAM[] = "param";
inline constexpr char PROPERTY_VALUE[] = "value";
inline constexpr char PROPERTY_LIST[] = "list";
inline constexpr char PROPERTY_FIELD[] = "field";
inline constexpr char PROPERTY_FIELDS[] = "fields";
inline constexpr char PROPERTY_RESULT[] = "result";
inline constexpr char PROPERTY_STATUS[] = "status";

}  // namespace common::JSONDefinitions
