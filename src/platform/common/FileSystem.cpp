#include "common/FileSystem.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

#include "common/Descriptor.h"

namespace filesystem {

namespace {

[[noreturn]] void throwCannot(const char* operation, const std::string& path) {
  throw std::system_error(errno, std::generic_category(), std::string("Cannot ") + operation + " " + path);
}

}  // namespace

std::string read(const std::string& path) {
  const common::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) {
    throwCannot("read", path);
  }

  std::string content;
  std::array<char, 16384> chunk;
  for (;;) {
    const ssize_t count = ::read(file.get(), chunk.data(), chunk.size());
    if (count > 0) {
      content.append(chunk.data(), static_cast<std::size_t>(count));
    } else if (count == 0) {
      return content;
    } else if (errno != EINTR) {
      throwCannot("read", path);
    }
  }
}

bool remove(const std::string& path) {
  return unlink(path.c_str()) == 0;
}

bool checkFileExists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

void create(const std::string& path) {
  constexpr mode_t kOwner = 0600;
  const common::Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kOwner));
  if (file.get() < 0) {
    throwCannot("make", path);
  }
}

void synchronize(const std::string& path) {
  const common::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.get() < 0 || fsync(file.get()) != 0) {
    throwCannot("synchronize", path);
  }
}

}  // namespace filesystem
