#include <atomic>
#include <cerrno>
#include <dlfcn.h>
#include <latch>
#include <mutex>
#include <numeric>
#include <optional>
#include <pthread.h>
#include <thread>

#include "queue/ActiveQueue.h"
#include "support/Eventually.h"

namespace {

std::atomic<bool> joinFails = false;

}  // namespace

/// Stands before the C library's.
extern "C" int pthread_join(pthread_t thread, void** result) {
  using Join = int (*)(pthread_t, void**);
  static const auto join = reinterpret_cast<Join>(dlsym(RTLD_NEXT, "pthread_join"));
  return joinFails ? EINVAL : join(thread, result);
}

namespace common {
namespace {

using propertyservice::test::eventually;

constexpr std::uint32_t kTimeoutMs = 1000;

/// Collects what the worker hands over.
class Sink {
 public:
  void operator()(int element) {
    const std::scoped_lock lock(mutex_);
    elements_.push_back(element);
  }

  std::vector<int> elements() const {
    const std::scoped_lock lock(mutex_);
    return elements_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<int> elements_;
};

class CountingQueue : public ActiveQueue<int> {
 public:
  explicit CountingQueue(std::uint32_t timeoutMs) : ActiveQueue({}, false, timeoutMs) { start(); }
  ~CountingQueue() override { stop(); }

  std::atomic<int> rounds = 0;
  std::atomic<bool> sawAnElement = false;

 private:
  void processQueue(std::unique_lock<std::mutex>& /*lock*/) override {
    sawAnElement = sawAnElement || !queue_.empty();
    ++rounds;
  }
};

TEST(ActiveQueue, handsOverEachElementInPushOrder) {
  Sink sink;
  std::vector<int> pushed(1000);
  std::iota(pushed.begin(), pushed.end(), 0);
  ActiveQueue<int> queue([&](int& element) { sink(element); }, true, kTimeoutMs);

  for (const int element : pushed) {
    queue.push(element);
  }

  EXPECT_TRUE(eventually([&] { return sink.elements() == pushed; }));
}

TEST(ActiveQueue, handlesEverythingPushedBeforeItsDestruction) {
  Sink sink;

  {
    ActiveQueue<int> queue([&](int& element) { sink(element); }, true, kTimeoutMs);
    for (int element = 0; element < 100; ++element) {
      queue.push(element);
    }
  }

  EXPECT_EQ(sink.elements().size(), 100U);
}

TEST(ActiveQueue, handlesWhatIsPushedBehindARunningHandlerBeforeTheStop) {
  Sink sink;
  std::latch handling(1);
  std::latch mayGoOn(1);
  ActiveQueue<int> queue(
      [&](int& element) {
        sink(element);
        if (element == 1) {
          handling.count_down();
          mayGoOn.wait();
        }
      },
      true, kTimeoutMs);
  queue.push(1);
  handling.wait();

  queue.push(2);
  std::thread stopper([&] { queue.stop(); });
  mayGoOn.count_down();
  stopper.join();

  EXPECT_EQ(sink.elements(), (std::vector<int>{1, 2}));
}

TEST(ActiveQueue, dropsAnElementPushedAfterTheStop) {
  Sink sink;
  {
    ActiveQueue<int> queue([&](int& element) { sink(element); }, true, kTimeoutMs);
    queue.push(1);
    queue.stop();

    queue.push(2);
  }

  EXPECT_EQ(sink.elements(), std::vector<int>{1});
}

TEST(ActiveQueue, mayBeStoppedTwice) {
  ActiveQueue<int> queue([](int&) {}, true, kTimeoutMs);

  queue.stop();
  queue.stop();

  EXPECT_FALSE(queue.isWaiting());
}

TEST(ActiveQueue, mayBeStoppedByTwoThreadsAtOnce) {
  constexpr int kRounds = 1000;
  for (int round = 0; round < kRounds; ++round) {
    std::atomic<int> handled = 0;
    ActiveQueue<int> queue([&](int&) { ++handled; }, true, kTimeoutMs);
    queue.push(1);
    std::latch bothRun(2);
    const auto stop = [&] {
      bothRun.arrive_and_wait();
      queue.stop();
      EXPECT_EQ(handled, 1);
    };

    std::thread first(stop);
    std::thread second(stop);
    first.join();
    second.join();
  }
}

TEST(ActiveQueue, mayBeStoppedByItsHandlerWhileAnotherThreadWaitsForIt) {
  std::latch handling(1);
  std::latch mayStop(1);
  std::optional<ActiveQueue<int>> queue;
  queue.emplace(
      [&](int&) {
        handling.count_down();
        mayStop.wait();
        queue->stop();
      },
      true, kTimeoutMs);
  queue->push(1);
  handling.wait();

  std::thread stopper([&] { queue->stop(); });
  mayStop.count_down();
  stopper.join();

  EXPECT_FALSE(queue->isWaiting());
}

TEST(ActiveQueue, ignoresThatItsWorkerCannotBeWaitedFor) {
  Sink sink;
  ActiveQueue<int> queue([&](int& element) { sink(element); }, true, kTimeoutMs);
  queue.push(1);

  joinFails = true;
  EXPECT_NO_THROW(queue.stop());
  joinFails = false;
  queue.stop();

  EXPECT_EQ(sink.elements(), std::vector<int>{1});
}

TEST(ActiveQueue, mayBeStoppedFromItsOwnHandler) {
  std::optional<ActiveQueue<int>> queue;
  std::atomic<bool> stopped = false;
  queue.emplace(
      [&](int&) {
        queue->stop();
        stopped = true;
      },
      true, kTimeoutMs);

  queue->push(1);

  EXPECT_TRUE(eventually([&] { return stopped.load(); }));
}

TEST(ActiveQueue, returnsFromItsDestructionWhenNoWorkerWasStarted) {
  bool handled = false;

  {
    ActiveQueue<int> queue([&](int&) { handled = true; }, false, kTimeoutMs);
    queue.push(1);
  }

  EXPECT_FALSE(handled);
}

TEST(ActiveQueue, wakesAtEachTimeOutWithNothingToProcess) {
  constexpr std::chrono::milliseconds kShort(20);
  const auto begin = std::chrono::steady_clock::now();
  CountingQueue queue(kShort.count());

  EXPECT_TRUE(eventually([&] { return queue.rounds >= 3; }));

  EXPECT_GE(std::chrono::steady_clock::now() - begin, 3 * kShort);
  EXPECT_FALSE(queue.sawAnElement);
}

TEST(ActiveQueue, sleepsForTheTimeOutWhenNothingIsPushed) {
  CountingQueue queue(kTimeoutMs);

  EXPECT_FALSE(eventually([&] { return queue.rounds > 0; }, std::chrono::milliseconds(500)));
}

TEST(ActiveQueue, isWaitingWhileItsWorkerSleeps) {
  ActiveQueue<int> queue([](int&) {}, true, kTimeoutMs);

  EXPECT_TRUE(eventually([&] { return queue.isWaiting(); }));
}

TEST(ActiveQueue, isNotWaitingFromAPushUntilItsElementIsHandled) {
  std::atomic<int> handled = 0;
  ActiveQueue<int> queue([&](int&) { ++handled; }, true, kTimeoutMs);
  constexpr int kPushes = 2000;

  for (int pushes = 1; pushes <= kPushes; ++pushes) {
    ASSERT_TRUE(eventually([&] { return queue.isWaiting(); }));
    queue.push(pushes);
    if (queue.isWaiting()) {
      ASSERT_EQ(handled, pushes);
    }
  }
}

TEST(ActiveQueue, lendsTheHandlerAnElementWithoutHoldingUpProducers) {
  std::latch handling(1);
  std::latch mayGoOn(1);
  std::atomic<int> handled = 0;
  ActiveQueue<int> queue(
      [&](int&) {
        if (handled++ == 0) {
          handling.count_down();
          mayGoOn.wait();
        }
      },
      true, kTimeoutMs);
  queue.push(1);
  handling.wait();

  queue.push(2);
  mayGoOn.count_down();

  EXPECT_TRUE(eventually([&] { return handled == 2; }));
}

TEST(ActiveQueue, keepsTheOrderOfEachProducer) {
  Sink sink;
  constexpr int kProducers = 4;
  constexpr int kPushes = 1000;

  {
    ActiveQueue<int> queue([&](int& element) { sink(element); }, true, kTimeoutMs);
    std::vector<std::thread> producers;
    for (int producer = 0; producer < kProducers; ++producer) {
      producers.emplace_back([&queue, producer] {
        for (int i = 0; i < kPushes; ++i) {
          queue.push(producer * kPushes + i);
        }
      });
    }
    for (std::thread& producer : producers) {
      producer.join();
    }
  }

  std::vector<int> next(kProducers, 0);
  for (const int element : sink.elements()) {
    EXPECT_EQ(element % kPushes, next[static_cast<std::size_t>(element / kPushes)]++);
  }
  EXPECT_EQ(next, std::vector<int>(kProducers, kPushes));
}

}  // namespace
}  // namespace common
