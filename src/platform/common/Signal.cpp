#include "common/Signal.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "common/Execute.h"
#include "dbg/Debug.h"

namespace common::signal {

namespace {

using namespace std::chrono_literals;

constexpr auto kAnnouncementInterval = 500ms;
constexpr auto kCommandsEndWithin = 2s;
constexpr auto kProcessEndsWithin = 3300ms;
constexpr auto kLogWithin = 100ms;

sigset_t terminationSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

/// A system call of its own: the sanitizers' wrappers of `pthread_sigmask` do not work yet where this runs.
void blockTerminationSignals(int /*argc*/, char** /*argv*/, char** /*environment*/) {
  const std::uint64_t signals = std::uint64_t{1} << (SIGTERM - 1) | std::uint64_t{1} << (SIGINT - 1);
  syscall(SYS_rt_sigprocmask, SIG_BLOCK, &signals, nullptr, sizeof signals);
}

/// Runs before the constructors of the program and its libraries, while there is one thread, whose mask all
/// later ones inherit.
using Initialiser = void (*)(int, char**, char**);
[[gnu::section(".preinit_array"), gnu::used]] const Initialiser kFirstInstruction = blockTerminationSignals;

[[maybe_unused]] const bool kPrepared = [] {
  std::signal(SIGHUP, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
  return true;
}();

class Handlers {
 public:
  void add(int signal, Handler handler) {
    const std::lock_guard lock(mutex_);
    handlers_.emplace_back(signal, handler);
  }

  void call(int signal) {
    // A handler may register another one.
    for (const auto& [awaited, handler] : copy()) {
      if (awaited == signal || awaited == SIGTERM) {
        handler(signal);
      }
    }
  }

 private:
  using List = std::vector<std::pair<int, Handler>>;

  List copy() {
    const std::lock_guard lock(mutex_);
    return handlers_;
  }

  std::mutex mutex_;
  List handlers_;  // guarded by mutex_
};

Handlers& handlers() {
  // Never destroyed: the thread outlives `main`.
  static auto* const instance = new Handlers;
  return *instance;
}

/// Decides what the first termination does: it ends the process, or is announced.
class Termination {
 public:
  void exit() {
    const std::scoped_lock lock(mutex_);
    startThread();
  }

  void announce() {
    const std::scoped_lock lock(mutex_);
    announced_ = true;
    startThread();
  }

  bool isTerminating() const { return terminating_; }

 private:
  void startThread() {
    if (!started_) {
      std::thread(&Termination::run, this).detach();
      started_ = true;
    }
  }

  /// A further termination signal stays pending, since nobody waits for it any more.
  [[noreturn]] void run() {
    const sigset_t signals = terminationSignals();
    int signal = 0;
    sigwait(&signals, &signal);
    {
      const std::scoped_lock lock(mutex_);
      if (!announced_) {
        os::killCommandsForGood();
        _exit(EXIT_SUCCESS);
      }
    }
    terminating_ = true;
    std::thread(limitTime).detach();
    for (;;) {
      handlers().call(signal);
      std::this_thread::sleep_for(kAnnouncementInterval);
    }
  }

  /// Runs on a thread of its own, since a handler may block; logs on another one, since the log may block.
  [[noreturn]] static void limitTime() {
    std::this_thread::sleep_for(kCommandsEndWithin);
    os::killCommands();
    std::this_thread::sleep_for(kProcessEndsWithin - kCommandsEndWithin);
    std::thread([] {
      dbg::Debug("SIGNAL").error() << "The stop is not finished within "
                                   << std::chrono::milliseconds(kProcessEndsWithin).count()
                                   << " ms and is cut off; changes that could not be written are lost";
    }).detach();
    std::this_thread::sleep_for(kLogWithin);
    os::killCommandsForGood();
    _exit(EXIT_SUCCESS);
  }

  std::mutex mutex_;
  bool started_ = false;    // guarded by mutex_
  bool announced_ = false;  // guarded by mutex_
  std::atomic<bool> terminating_ = false;
};

Termination& termination() {
  // Never destroyed, as the handlers.
  static auto* const instance = new Termination;
  return *instance;
}

}  // namespace

void exitUntilRegistered() {
  termination().exit();
}

void registerHandler() {
  termination().announce();
}

bool isTerminating() {
  return termination().isTerminating();
}

void registerCustomHandler(int signal, Handler handler) {
  handlers().add(signal, handler);
}

}  // namespace common::signal
