#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include "core/Log.h"

namespace propertyservice {

namespace {

constexpr unsigned kErrorsOnly = 2;
constexpr unsigned kAllButDebug = 14;

/// Standard error goes nowhere while this exists: the entry is made and written, and nobody pays for reading
/// it.
class SilentStandardError {
 public:
  SilentStandardError() {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDERR_FILENO);
    close(nowhere);
  }
  ~SilentStandardError() {
    dup2(original_, STDERR_FILENO);
    close(original_);
  }

 private:
  const int original_ = dup(STDERR_FILENO);
};

void logEntry(benchmark::State& state, unsigned mask) {
  const SilentStandardError silence;
  const unsigned before = dbg::DebugStreamBuf::mask();
  dbg::DebugStreamBuf::setMask(mask);
  const std::string topic = "prop-service/panel";
  for (auto iteration : state) {
    logger().info() << "Delivery completed on topic " << [&] { return '"' + topic + '"'; };
  }
  dbg::DebugStreamBuf::setMask(before);
}
BENCHMARK_CAPTURE(logEntry, masked, kErrorsOnly);
BENCHMARK_CAPTURE(logEntry, written, kAllButDebug);

}  // namespace

}  // namespace propertyservice
