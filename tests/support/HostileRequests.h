#pragma once

#include <string>
#include <vector>

#include "support/Device.h"

namespace propertyservice::test {

/// The most properties that a device is made for, with keys of 3 to 6 different words of up to 64 characters;
/// each has its own value and both aliases. Every 16th is under an expression whose matches grow with each
/// text.
std::vector<Row> variedRows();

struct HostileRequest {
  std::string name;
  std::string payload;  ///< At most 1 MiB.
  bool isAnswered = true;
};

/// The requests that cost the most for their size, on a device with `rows`.
std::vector<HostileRequest> hostileRequests(const std::vector<Row>& rows);

}  // namespace propertyservice::test
