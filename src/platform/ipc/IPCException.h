#pragma once

#include <stdexcept>

namespace ipc {

/// A failure of the bus; `what` names the operation and the reason.
class IPCException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace ipc
