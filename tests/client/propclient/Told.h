#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "propclient/Client.h"
#include "support/Eventually.h"

namespace propclient {

/// The changes that a watch tells, as "KEY OLD>NEW", with "-" for nothing. Safe from any thread.
class Told {
 public:
  std::function<void(const Change&)> callback() {
    return [this](const Change& change) {
      const std::lock_guard lock(mutex_);
      changes_.push_back(change.key + ' ' + change.old.value_or("-") + ">" + change.value.value_or("-"));
    };
  }

  std::vector<std::string> all() {
    const std::lock_guard lock(mutex_);
    return changes_;
  }

  bool waitFor(std::size_t count) {
    return propertyservice::test::eventually([&] { return all().size() >= count; });
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> changes_;
};

}  // namespace propclient
