#pragma once

#include <stdexcept>
#include <string>

namespace propertyservice {

/// A failure of the table `settings`, with SQLite's own text.
class PersistentStorageException : public std::runtime_error {
 public:
  enum class Reason {
    MissingRow,
    Constraint,   ///< The table refuses this property, now and ever.
    Unavailable,  ///< Anything else, such as locked, disk full, I/O error: the same operation may succeed
                  ///< later.
  };

  PersistentStorageException(const std::string& text, Reason reason)
      : std::runtime_error(text), reason_(reason) {}

  Reason reason() const { return reason_; }

 private:
  Reason reason_;
};

}  // namespace propertyservice
