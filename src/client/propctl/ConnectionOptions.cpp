#include "client/propctl/ConnectionOptions.h"

#include <cerrno>
#include <fstream>
#include <sys/stat.h>
#include <system_error>

#include "client/propctl/ExitStatus.h"
#include "client/propctl/Text.h"

namespace propctl {

namespace {

constexpr std::uint16_t kPort = 1883;
constexpr std::uint16_t kTlsPort = 8883;

/// The user on the first line and the password on the second, as in a device's credentials files; a file of
/// one line is the password of the user given.
void readPasswordFile(const std::string& path, propclient::Options& options) {
  struct stat file {};
  if (stat(path.c_str(), &file) != 0) {
    throw Failure(ExitStatus::usage, escaped(path) + ": " + std::generic_category().message(errno));
  }
  // Root may share a password with a group.
  const mode_t others = file.st_uid == 0 ? S_IWGRP | S_IRWXO : S_IRWXG | S_IRWXO;
  if (!S_ISREG(file.st_mode) || (file.st_mode & others) != 0) {
    throw Failure(ExitStatus::usage,
                  escaped(path) + ": must be a file that only its owner may read: chmod 600");
  }
  std::ifstream lines(path);
  if (!lines) {
    throw Failure(ExitStatus::usage, escaped(path) + ": " + std::generic_category().message(errno) +
                                         "; ask as root, as a member of the file's group, or with --user and "
                                         "--password-file of your own");
  }
  std::string first;
  std::string second;
  if (!std::getline(lines, first) || first.empty()) {
    throw Failure(ExitStatus::usage, escaped(path) + ": holds no password");
  }
  if (!std::getline(lines, second)) {
    options.password = first;
    if (options.user.empty()) {
      throw Failure(ExitStatus::usage, escaped(path) + ": holds a password alone; give --user as well");
    }
    return;
  }
  if (!options.user.empty() && options.user != first) {
    throw Failure(ExitStatus::usage, escaped(path) + ": belongs to the user " + escaped(first) + ", not to " +
                                         escaped(options.user));
  }
  options.user = first;
  options.password = second;
}

}  // namespace

propclient::Options toOptions(const ConnectionOptions& given, std::chrono::milliseconds defaultTimeout) {
  propclient::Options options;
  options.host = given.host;
  options.name = given.name;
  options.user = given.user;
  if (!given.passwordFile.empty()) {
    readPasswordFile(given.passwordFile, options);
  }
  if (!given.caFile.empty()) {
    options.tls = propclient::Tls{given.caFile, given.certificateFile, given.keyFile};
  } else if (!given.certificateFile.empty() || !given.keyFile.empty()) {
    throw Failure(ExitStatus::usage, "--cert and --key go with --cafile");
  }
  options.port = given.port != 0 ? static_cast<std::uint16_t>(given.port) : options.tls ? kTlsPort : kPort;
  options.timeout =
      given.timeout > 0 ? std::chrono::milliseconds(static_cast<long>(given.timeout * 1000)) : defaultTimeout;
  return options;
}

}  // namespace propctl
