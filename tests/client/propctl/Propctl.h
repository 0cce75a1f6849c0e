#pragma once

#include <cstdlib>
#include <fstream>
#include <optional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <vector>

#include "support/TemporaryDirectory.h"

namespace propertyservice::test {

/// The output of a run of propctl, and how it ended.
struct Outcome {
  int status;
  std::string output;
  std::string errors;

  bool operator==(const Outcome&) const = default;

  friend std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
    return stream << "status " << outcome.status << "\noutput:\n"
                  << outcome.output << "errors:\n"
                  << outcome.errors;
  }
};

/// Runs a shell command in which "propctl" is the program under test, for 20 s at most.
inline Outcome shell(const std::string& command) {
  const TemporaryDirectory directory;
  const std::string script =
      directory.write("command", "propctl() { '" PROPCTL "' \"$@\"; }\n" + command + "\n");
  const std::string run = "timeout --kill-after 1 20 bash " + script + " >" + directory.path("output") +
                          " 2>" + directory.path("errors") + " </dev/null";
  const int status = std::system(run.c_str());
  const auto read = [&directory](const char* name) {
    std::ostringstream text;
    text << std::ifstream(directory.path(name), std::ios::binary).rdbuf();
    return text.str();
  };
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read("output"), read("errors")};
}

inline Outcome propctl(const std::string& arguments) {
  return shell("propctl " + arguments);
}

inline Outcome printed(const std::string& output) {
  return {0, output, ""};
}

inline Outcome failed(int status, const std::string& errors) {
  return {status, "", errors};
}

}  // namespace propertyservice::test
