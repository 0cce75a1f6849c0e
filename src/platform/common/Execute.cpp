#include "common/Execute.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <set>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "common/Descriptor.h"

namespace os {

namespace {

using common::Descriptor;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kLargestOutputBytes = 1 << 20;

/// The capacity of a pipe, so that one read empties it.
constexpr std::size_t kPipeBytes = 64 << 10;

void check(int error, const char* operation) {
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), operation);
  }
}

class SpawnSettings {
 public:
  explicit SpawnSettings(int outputDescriptor) {
    posix_spawnattr_init(&attributes_);
    posix_spawn_file_actions_init(&actions_);

    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes_, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes_, &signals);
    posix_spawnattr_setpgroup(&attributes_, 0);
    posix_spawnattr_setflags(&attributes_,
                             POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

    // The output comes first: in a process without standard input it may be descriptor 0 itself.
    posix_spawn_file_actions_adddup2(&actions_, outputDescriptor, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions_, STDOUT_FILENO, STDERR_FILENO);
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;
  ~SpawnSettings() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }

  pid_t startShell(const std::string& command) const {
    std::string shell = "sh";
    std::string option = "-c";
    std::string text = command;
    const std::array<char*, 4> arguments{shell.data(), option.data(), text.data(), nullptr};
    pid_t pid = 0;
    check(posix_spawn(&pid, "/bin/sh", &actions_, &attributes_, arguments.data(), environ),
          "Cannot start /bin/sh");
    return pid;
  }

 private:
  posix_spawnattr_t attributes_;
  posix_spawn_file_actions_t actions_;
};

/// Becomes readable when the process ends. Invalid where the system has nothing like it (Linux before 5.3,
/// valgrind).
int openProcess(pid_t pid) {
  // The header of glibc 2.36 that declares pidfd_open does so for C only.
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

bool hasEnded(pid_t pid) {
  siginfo_t end{};
  return waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOHANG | WNOWAIT) != 0 || end.si_pid == pid;
}

void waitForEnd(pid_t pid) {
  siginfo_t end{};
  while (waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
  }
}

/// The shells that `execute` waits for. The lock keeps their process ids from being used again.
class Shells {
 public:
  pid_t start(const SpawnSettings& settings, const std::string& command) {
    const std::scoped_lock lock(mutex_);
    check(killed_ ? ECANCELED : 0, "Cannot start /bin/sh");
    return *running_.insert(settings.startShell(command)).first;
  }

  /// Returns the exit status. REQUIRES: the shell has ended.
  int reap(pid_t shell) {
    const std::scoped_lock lock(mutex_);
    running_.erase(shell);
    int status = 0;
    waitpid(shell, &status, 0);
    check(killed_ && WIFSIGNALED(status) ? ECANCELED : 0, "Command");
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }

  void killAll() {
    const std::scoped_lock lock(mutex_);
    killed_ = true;
    signalAll();
  }

  void killAllForGood() {
    mutex_.lock();
    signalAll();
    const Clock::time_point deadline = Clock::now() + kDeathWithin;
    const auto anyRuns = [this] { return !std::all_of(running_.begin(), running_.end(), hasEnded); };
    while (anyRuns() && Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

 private:
  /// Longer only for a process that the kernel holds, as on a disk that does not answer.
  static constexpr std::chrono::milliseconds kDeathWithin{300};

  void signalAll() const {
    for (const pid_t shell : running_) {
      kill(-shell, SIGKILL);
    }
  }

  std::mutex mutex_;
  std::set<pid_t> running_;  // guarded by mutex_
  bool killed_ = false;      // guarded by mutex_
};

Shells& shells() {
  // Never destroyed: a process may be told to end at any time.
  static auto* const instance = new Shells;
  return *instance;
}

int remainingMs(Clock::time_point deadline) {
  const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(remaining)>(remaining, 0, INT_MAX));
}

/// Takes what the pipe holds. Returns false when its last writer is gone.
bool drain(const Descriptor& pipe, std::string& output) {
  std::array<char, kPipeBytes> chunk;
  const ssize_t count = read(pipe.get(), chunk.data(), chunk.size());
  if (count <= 0) {
    return count < 0;
  }
  output.append(chunk.data(), std::min(static_cast<std::size_t>(count), kLargestOutputBytes - output.size()));
  return true;
}

/// Collects output until the shell ends. Returns false when it still ran at the deadline.
bool collect(const Descriptor& pipe, pid_t shell, Clock::time_point deadline, std::string& output) {
  constexpr int kBetweenLooksMs = 10;
  const Descriptor end(openProcess(shell));
  std::array<pollfd, 2> events{{{pipe.get(), POLLIN, 0}, {end.get(), POLLIN, 0}}};
  while (!hasEnded(shell)) {
    const int remaining = remainingMs(deadline);
    if (remaining == 0) {
      return false;
    }
    const int waitMs = end.get() < 0 ? std::min(remaining, kBetweenLooksMs) : remaining;
    if (poll(events.data(), events.size(), waitMs) > 0 && events[0].revents != 0 && !drain(pipe, output)) {
      events[0].fd = -1;
    }
  }
  return true;
}

}  // namespace

ExecuteResult execute(const std::string& command, unsigned timeoutMs) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  std::array<int, 2> ends;
  check(pipe2(ends.data(), O_CLOEXEC) == 0 ? 0 : errno, "Cannot make a pipe");
  const Descriptor readEnd(ends[0]);
  Descriptor writeEnd(ends[1]);
  fcntl(readEnd.get(), F_SETFL, O_NONBLOCK);

  const pid_t shell = shells().start(SpawnSettings(writeEnd.get()), command);
  writeEnd.reset();

  ExecuteResult result{};
  result.timedOut = !collect(readEnd, shell, deadline, result.output);
  if (result.timedOut) {
    kill(-shell, SIGKILL);
    waitForEnd(shell);
  }
  result.status = shells().reap(shell);
  drain(readEnd, result.output);
  return result;
}

void killCommands() {
  shells().killAll();
}

void killCommandsForGood() {
  shells().killAllForGood();
}

}  // namespace os
