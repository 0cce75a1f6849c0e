#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "common/Execute.h"
#include "common/Signal.h"
#include "support/Eventually.h"

namespace common::signal {
namespace {

using namespace std::chrono_literals;
using propertyservice::test::eventually;
using std::chrono::steady_clock;
using testing::ExitedWithCode;

std::atomic<int> calls{0};
std::atomic<int> lastSignal{0};
std::mutex mutex;

void count(int signal) {
  lastSignal = signal;
  ++calls;
}

[[noreturn]] void finish(bool success) {
  _exit(success ? 0 : 1);
}

void raiseForTheProcess(int signal) {
  kill(getpid(), signal);
}

/// Whether SIGTERM and SIGINT were blocked when the first constructor of this program ran.
bool blockedBeforeConstructors = false;

[[gnu::constructor(101)]] void noteBlockedSignals() {
  sigset_t blocked;
  sigprocmask(SIG_BLOCK, nullptr, &blocked);
  blockedBeforeConstructors = sigismember(&blocked, SIGTERM) == 1 && sigismember(&blocked, SIGINT) == 1;
}

/// Signals belong to a process, so every case runs in one of its own, started anew.
class SignalTest : public testing::Test {
 protected:
  SignalTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(SignalTest, callsTheHandlerOfSigterm) {
  EXPECT_EXIT(
      {
        registerHandler();
        registerCustomHandler(SIGTERM, count);

        raiseForTheProcess(SIGTERM);

        finish(eventually([] { return calls > 0; }) && lastSignal == SIGTERM);
      },
      ExitedWithCode(0), "");
}

TEST_F(SignalTest, callsTheHandlerOfSigtermForSigint) {
  EXPECT_EXIT(
      {
        registerHandler();
        registerCustomHandler(SIGTERM, count);

        raiseForTheProcess(SIGINT);

        finish(eventually([] { return calls > 0; }) && lastSignal == SIGINT);
      },
      ExitedWithCode(0), "");
}

TEST_F(SignalTest, doesNotCallTheHandlerOfSigintForSigterm) {
  EXPECT_EXIT(
      {
        static std::atomic<bool> announced{false};
        registerHandler();
        registerCustomHandler(SIGINT, count);
        registerCustomHandler(SIGTERM, [](int) { announced = true; });

        raiseForTheProcess(SIGTERM);

        finish(eventually([] { return announced.load(); }) && calls == 0);
      },
      ExitedWithCode(0), "");
}

TEST_F(SignalTest, keepsATerminationThatComesBeforeTheRegistration) {
  EXPECT_EXIT(
      {
        raiseForTheProcess(SIGTERM);
        registerCustomHandler(SIGTERM, count);
        registerHandler();

        finish(eventually([] { return calls > 0; }));
      },
      ExitedWithCode(0), "");
}

TEST_F(SignalTest, blocksTheTerminationSignalsInThreadsStartedBeforeTheRegistration) {
  EXPECT_EXIT(
      {
        static std::atomic<bool> end{false};
        std::thread bystander([] {
          while (!end) {
            std::this_thread::sleep_for(1ms);
          }
        });
        registerHandler();
        registerCustomHandler(SIGTERM, count);

        raiseForTheProcess(SIGTERM);

        const bool called = eventually([] { return calls > 0; });
        end = true;
        bystander.join();
        finish(called);
      },
      ExitedWithCode(0), "");
}

TEST_F(SignalTest, announcesATerminationAgainEvery500Ms) {
  EXPECT_EXIT(
      {
        registerHandler();
        registerCustomHandler(SIGTERM, count);

        raiseForTheProcess(SIGTERM);

        if (!eventually([] { return calls == 1; })) {
          finish(false);
        }
        const auto first = steady_clock::now();
        const bool again = eventually([] { return calls >= 3; });
        finish(again && steady_clock::now() - first > 900ms);
      },
      ExitedWithCode(0), "");
}

TEST_F(SignalTest, announcesAPastTerminationToAHandlerThatComesLate) {
  EXPECT_EXIT(
      {
        registerHandler();
        registerCustomHandler(SIGTERM, count);
        raiseForTheProcess(SIGTERM);
        eventually([] { return calls > 0; });
        static std::atomic<bool> late{false};

        registerCustomHandler(SIGTERM, [](int) { late = true; });

        finish(eventually([] { return late.load(); }));
      },
      ExitedWithCode(0), "");
}

TEST_F(SignalTest, changesNothingAtAFurtherTermination) {
  EXPECT_EXIT(
      {
        registerHandler();
        registerCustomHandler(SIGTERM, count);
        raiseForTheProcess(SIGTERM);
        eventually([] { return calls == 1; });
        const auto first = steady_clock::now();

        raiseForTheProcess(SIGINT);
        raiseForTheProcess(SIGTERM);

        const bool again = eventually([] { return calls == 2; });
        finish(again && steady_clock::now() - first > 400ms && lastSignal == SIGTERM);
      },
      ExitedWithCode(0), "");
}

TEST_F(SignalTest, startsOneThreadHoweverOftenItIsRegistered) {
  EXPECT_EXIT(
      {
        registerHandler();
        registerHandler();
        registerCustomHandler(SIGTERM, count);

        raiseForTheProcess(SIGTERM);
        raiseForTheProcess(SIGINT);

        if (!eventually([] { return calls > 0; })) {
          finish(false);
        }
        sigset_t pending;
        sigpending(&pending);
        finish(sigismember(&pending, SIGTERM) + sigismember(&pending, SIGINT) == 1);
      },
      ExitedWithCode(0), "");
}

TEST_F(SignalTest, callsEveryHandler) {
  EXPECT_EXIT(
      {
        static std::atomic<bool> other{false};
        registerHandler();
        registerCustomHandler(SIGTERM, count);
        registerCustomHandler(SIGTERM, [](int) { other = true; });

        raiseForTheProcess(SIGTERM);

        finish(eventually([] { return calls > 0 && other; }));
      },
      ExitedWithCode(0), "");
}

TEST_F(SignalTest, letsAHandlerLockAndRegisterAnother) {
  EXPECT_EXIT(
      {
        registerHandler();
        registerCustomHandler(SIGTERM, [](int) {
          const std::lock_guard lock(mutex);
          registerCustomHandler(SIGTERM, count);
        });
        std::unique_lock lock(mutex);

        raiseForTheProcess(SIGTERM);
        lock.unlock();

        finish(eventually([] { return calls > 0; }));
      },
      ExitedWithCode(0), "");
}

TEST_F(SignalTest, survivesSighupAndSigpipe) {
  EXPECT_EXIT(
      {
        registerHandler();

        raiseForTheProcess(SIGHUP);
        raiseForTheProcess(SIGPIPE);

        finish(true);
      },
      ExitedWithCode(0), "");
}

TEST_F(SignalTest, blocksTheTerminationSignalsBeforeAnyConstructorRuns) {
  EXPECT_TRUE(blockedBeforeConstructors);
}

TEST_F(SignalTest, exitsAtATerminationBeforeTheRegistration) {
  for (const int signal : {SIGTERM, SIGINT}) {
    EXPECT_EXIT(
        {
          registerCustomHandler(SIGTERM, [](int) { finish(false); });
          raiseForTheProcess(signal);
          exitUntilRegistered();

          std::this_thread::sleep_for(20s);
          finish(false);
        },
        ExitedWithCode(0), "");
  }
}

TEST_F(SignalTest, killsWhatRunsWhenItExitsBeforeTheRegistration) {
  EXPECT_EXIT(
      {
        exitUntilRegistered();
        os::execute("kill -TERM $PPID; trap '' TERM; sleep 20; echo survived >&2", 30'000);
        finish(false);
      },
      ExitedWithCode(0), "^$");
}

TEST_F(SignalTest, announcesATerminationAfterTheRegistration) {
  EXPECT_EXIT(
      {
        exitUntilRegistered();
        registerHandler();
        registerCustomHandler(SIGTERM, count);
        const bool before = isTerminating();

        raiseForTheProcess(SIGTERM);

        finish(eventually([] { return calls > 0; }) && !before && isTerminating());
      },
      ExitedWithCode(0), "");
}

TEST_F(SignalTest, cutsAStopOffThatTakesLongerThanFourSeconds) {
  const auto start = steady_clock::now();
  EXPECT_EXIT(
      {
        registerHandler();
        registerCustomHandler(SIGTERM, [](int) { std::this_thread::sleep_for(1h); });

        raiseForTheProcess(SIGTERM);

        std::this_thread::sleep_for(20s);
        finish(false);
      },
      ExitedWithCode(0), "is cut off; changes that could not be written are lost");
  EXPECT_GT(steady_clock::now() - start, 3s);
}

TEST_F(SignalTest, killsACommandThatOutlastsTheStop) {
  EXPECT_EXIT(
      {
        registerHandler();
        raiseForTheProcess(SIGTERM);
        try {
          os::execute("sleep 20", 30'000);
        } catch (const std::system_error&) {
          finish(true);
        }
        finish(false);
      },
      ExitedWithCode(0), "^$");
}

TEST_F(SignalTest, endsAProcessThatLeavesMainWhileTheThreadWaits) {
  EXPECT_EXIT(
      {
        registerHandler();
        registerCustomHandler(SIGTERM, count);
        raiseForTheProcess(SIGTERM);
        eventually([] { return calls > 0; });

        std::exit(0);
      },
      ExitedWithCode(0), "");
}

}  // namespace
}  // namespace common::signal
