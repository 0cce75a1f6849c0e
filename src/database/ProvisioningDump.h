#pragma once

#include <string>
#include <utility>
#include <vector>

namespace propertyservice {

/// Provisioning name and value of each property that has a provisioning name, in no particular order.
using ProvisioningDump = std::vector<std::pair<std::string, std::string>>;

}  // namespace propertyservice
