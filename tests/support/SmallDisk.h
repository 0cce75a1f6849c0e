#pragma once

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <sys/mount.h>

namespace propertyservice::test {

/// A small disk of its own in place of a folder. Needs a mount namespace.
class SmallDisk {
 public:
  explicit SmallDisk(std::string folder, const char* size = "256k") : folder_(std::move(folder)) {
    if (mount("disk", folder_.c_str(), "tmpfs", 0, (std::string("size=") + size).c_str()) != 0) {
      throw std::runtime_error("cannot mount a small disk");
    }
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  ~SmallDisk() { umount2(folder_.c_str(), MNT_DETACH); }

  void fill() const {
    std::ofstream filler(filler_, std::ios::binary);
    while (filler.write(std::string(4096, 'x').data(), 4096).flush()) {
    }
  }

  void free() const { std::filesystem::remove(filler_); }

  /// False while a file is open for writing.
  bool makeReadOnly() const { return remount(MS_RDONLY); }
  bool makeWritable() const { return remount(0); }

 private:
  bool remount(unsigned long flags) const {
    return mount(nullptr, folder_.c_str(), nullptr, MS_REMOUNT | flags, nullptr) == 0;
  }

  const std::string folder_;
  const std::string filler_ = folder_ + "/filler";
};

}  // namespace propertyservice::test
