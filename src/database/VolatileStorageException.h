#pragma once

#include <exception>
#include <string>
#include <utility>

namespace propertyservice {

/// A failure of the store of volatile properties.
class VolatileStorageException : public std::exception {
 public:
  explicit VolatileStorageException(std::string message) : message_(std::move(message)) {}

  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

}  // namespace propertyservice
