#include "common/Signal.h"

#include <chrono>
#include <csignal>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace common::signal {

namespace {

constexpr std::chrono::milliseconds kAnnouncementInterval{500};

sigset_t terminationSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

/// Runs before `main`, while there is one thread, whose mask all later ones inherit.
[[maybe_unused]] const bool kPrepared = [] {
  const sigset_t signals = terminationSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
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

/// A further termination signal stays pending, since nobody waits for it any more.
[[noreturn]] void announceTermination() {
  const sigset_t signals = terminationSignals();
  int signal = 0;
  sigwait(&signals, &signal);
  for (;;) {
    handlers().call(signal);
    std::this_thread::sleep_for(kAnnouncementInterval);
  }
}

}  // namespace

void registerHandler() {
  static std::once_flag started;
  std::call_once(started, [] { std::thread(announceTermination).detach(); });
}

void registerCustomHandler(int signal, Handler handler) {
  handlers().add(signal, handler);
}

}  // namespace common::signal
