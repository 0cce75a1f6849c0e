#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <time.h>
#include <unistd.h>

// A disk that is slow to synchronise, by LD_PRELOAD. In the program named SLOW_SYNC_PROGRAM alone, fsync and
// fdatasync take SLOW_SYNC_MS milliseconds longer and append the path of what they have synchronised to the
// file SLOW_SYNC_LOG.

namespace {

const char* variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

bool isMeant() {
  return std::strcmp(program_invocation_short_name, variable("SLOW_SYNC_PROGRAM")) == 0;
}

void sleepFor(long milliseconds) {
  timespec rest{milliseconds / 1000, milliseconds % 1000 * 1'000'000};
  while (nanosleep(&rest, &rest) != 0) {
  }
}

void note(int descriptor) {
  std::array<char, PATH_MAX> path;
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t length = readlink(link.c_str(), path.data(), path.size());
  const int log = open(variable("SLOW_SYNC_LOG"), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (length > 0 && log >= 0) {
    const std::string line = std::string(path.data(), static_cast<std::size_t>(length)) + '\n';
    [[maybe_unused]] const ssize_t written = write(log, line.data(), line.size());
  }
  close(log);
}

int synchronise(const char* function, int descriptor) {
  const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, function));
  const int result = real(descriptor);
  if (isMeant()) {
    const int error = errno;
    sleepFor(std::atol(variable("SLOW_SYNC_MS")));
    note(descriptor);
    errno = error;
  }
  return result;
}

}  // namespace

extern "C" int fsync(int descriptor) {
  return synchronise("fsync", descriptor);
}

extern "C" int fdatasync(int descriptor) {
  return synchronise("fdatasync", descriptor);
}
