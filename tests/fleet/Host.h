#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice::test {

/// A machine of its own: the places of a device and a network namespace that at first has nothing but
/// loopback (script/sandbox). It goes, with all that runs in it, when this object goes, and with the test
/// program.
class Host {
 public:
  explicit Host(std::string name);

  /// Starts `command` on this host; its output goes to the log.
  std::unique_ptr<Process> start(const std::vector<std::string>& command, const std::string& log) const;
  /// Runs `command` on this host to its end and returns its output; throws when it fails.
  std::string run(const std::vector<std::string>& command) const;

  /// Files of this host by their absolute paths.
  void write(const std::string& path, const std::string& content, unsigned mode = 0644) const;
  void install(const std::string& source, const std::string& path) const;

  const std::string& name() const { return name_; }
  std::string pid() const { return std::to_string(holder_->pid()); }

 private:
  std::vector<std::string> inside(const std::vector<std::string>& command) const;
  std::string outside(const std::string& path) const;

  const std::string name_;
  const TemporaryDirectory directory_;
  std::unique_ptr<Process> holder_;  ///< Does nothing, in the host's namespaces.
};

/// A cable between two hosts, which are `.1` and `.2` of the network `network` ("10.80.1").
class Link {
 public:
  Link(const Host& first, const Host& second, const std::string& network);

  /// A cable that is down loses what is sent, and tells neither end.
  void up() const;
  void down() const;

 private:
  void set(const char* state) const;

  const Host& first_;
  const std::string name_;
};

std::string readFile(const std::string& path);

}  // namespace propertyservice::test
