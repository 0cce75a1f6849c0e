#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "core/BackupFile.h"
#include "core/DatabaseBackup.h"
#include "fuzz/Fuzzing.h"
#include "support/TemporaryDirectory.h"

// A database version, put into the command that stamps a backup file and given to /bin/sh: the line that the
// shell writes must hold the version as it is, up to its first line break or NUL, and nothing else may
// happen.

namespace propertyservice::fuzz {
namespace {

/// A system call, made again when a signal interrupts it: libFuzzer has an alarm every second.
auto unlessInterrupted(const auto& call) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) {
      return result;
    }
  }
}

/// One shell for all inputs; to start one takes as long as a hundred commands. It stands in an empty
/// directory and finds no programs, so that text that escapes does no harm.
class Shell {
  static constexpr std::array<const char*, 2> kNoPrograms = {"PATH=/nowhere", nullptr};

 public:
  Shell() {
    std::array<int, 2> commands{};
    std::array<int, 2> output{};
    require(pipe2(commands.data(), O_CLOEXEC) == 0 && pipe2(output.data(), O_CLOEXEC) == 0,
            "there are pipes");
    require(signal(SIGPIPE, SIG_IGN) != SIG_ERR, "a shell that ends is an error, not the end");
    const pid_t pid = fork();
    if (pid == 0) {
      dup2(commands[0], STDIN_FILENO);
      dup2(output[1], STDOUT_FILENO);
      if (chdir(directory_.path().c_str()) == 0) {
        execle("/bin/sh", "sh", nullptr, kNoPrograms.data());
      }
      _exit(127);
    }
    require(pid > 0, "there is a shell");
    close(commands[0]);
    close(output[1]);
    commands_ = commands[1];
    output_ = output[0];
  }

  void run(const std::string& command) const {
    const std::string line = command + '\n';
    const ssize_t written = unlessInterrupted([&] { return write(commands_, line.data(), line.size()); });
    require(written == static_cast<ssize_t>(line.size()), "the shell takes a command");
  }

  /// Returns the shell's output, at most `size` bytes; less when nothing more comes for 10 s.
  std::string read(std::size_t size) const {
    constexpr int kPatienceMs = 10'000;
    std::string text(size, '\0');
    std::size_t count = 0;
    pollfd ready{output_, POLLIN, 0};
    while (count < size && unlessInterrupted([&] { return poll(&ready, 1, kPatienceMs); }) == 1) {
      const ssize_t part =
          unlessInterrupted([&] { return ::read(output_, text.data() + count, size - count); });
      if (part <= 0) {
        break;
      }
      count += static_cast<std::size_t>(part);
    }
    text.resize(count);
    return text;
  }

 private:
  const test::TemporaryDirectory directory_;
  int commands_ = -1;
  int output_ = -1;
};

void stamp(std::string_view version) {
  static const Shell shell;
  static constexpr std::string_view kStop("\n\0", 2);
  static constexpr std::string_view kEnd = "end\n";

  shell.run(stampCommand(version, "/dev/stdout"));
  shell.run("echo end");

  const std::string expected = std::string(kVersionMarker) +
                               std::string(version.substr(0, version.find_first_of(kStop))) + '\n' +
                               std::string(kEnd);
  require(shell.read(expected.size()) == expected, "the shell writes the version as it is");
}

}  // namespace
}  // namespace propertyservice::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  propertyservice::fuzz::stamp(propertyservice::fuzz::toText(data, size));
  return 0;
}
