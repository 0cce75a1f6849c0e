#pragma once

#include <functional>
#include <future>
#include <string>
#include <vector>

namespace mqtt {

using Addresses = std::vector<std::string>;

/// Looks up the numeric addresses of `host` on a thread of its own, since a name server may stay silent for
/// long, and calls `done` there when the result is available. The result may be an `Error`. The thread
/// inherits the caller's signal mask and may outlive everything but what `done` holds.
std::future<Addresses> resolve(const std::string& host, std::function<void()> done);

}  // namespace mqtt
