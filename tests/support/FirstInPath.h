#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/TemporaryDirectory.h"

namespace propertyservice::test {

/// A shell script that programs started from here on find instead of the program `name`, while it lives.
class FirstInPath {
 public:
  FirstInPath(const std::string& name, const std::string& script) {
    directory_.write(name, "#!/bin/sh\n" + script);
    std::filesystem::permissions(directory_.path(name), std::filesystem::perms::owner_all);
    setenv("PATH", (directory_.path() + ":" + previous_).c_str(), 1);
  }
  FirstInPath(const FirstInPath&) = delete;
  FirstInPath& operator=(const FirstInPath&) = delete;
  ~FirstInPath() { setenv("PATH", previous_.c_str(), 1); }

  /// A file of the script's own, which does not exist at first; the script knows it as "$(dirname
  /// "$0")/NAME".
  std::string path(const std::string& name) const { return directory_.path(name); }

 private:
  const TemporaryDirectory directory_;
  const std::string previous_ = getenv("PATH");
};

}  // namespace propertyservice::test
