#pragma once

#include <stdexcept>

namespace mqtt {

/// A failure of the bus; `what` names the reason.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace mqtt
