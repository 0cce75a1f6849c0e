#include <atomic>
#include <latch>
#include <mutex>
#include <thread>

#include "queue/ActiveQueueBulk.h"
#include "support/Eventually.h"

namespace propertyservice {
namespace {

using test::eventually;

/// Collects the batches of a queue, and holds its worker in the first of them until `goOn`.
class Batches {
 public:
  void operator()(std::queue<int>& taken) {
    std::vector<int> batch;
    for (; !taken.empty(); taken.pop()) {
      batch.push_back(taken.front());
    }
    if (keep(batch) == 1) {
      inFirst_.count_down();
      mayGoOn_.wait();
    }
  }

  void waitForTheFirst() { inFirst_.wait(); }
  void goOn() { mayGoOn_.count_down(); }

  std::vector<std::vector<int>> batches() const {
    const std::scoped_lock lock(mutex_);
    return batches_;
  }

 private:
  std::size_t keep(const std::vector<int>& batch) {
    const std::scoped_lock lock(mutex_);
    batches_.push_back(batch);
    return batches_.size();
  }

  mutable std::mutex mutex_;
  std::vector<std::vector<int>> batches_;
  std::latch inFirst_{1};
  std::latch mayGoOn_{1};
};

class ActiveQueueBulkTest : public testing::Test {
 protected:
  static constexpr int kLater = 5;

  /// Holds the worker with the element 1, and pushes 2 to 5 behind it.
  void pileUp(ActiveQueueBulk<int>& queue) {
    queue.push(1);
    batches.waitForTheFirst();
    for (int element = 2; element <= kLater; ++element) {
      queue.push(element);
    }
  }

  Batches batches;
  const std::vector<std::vector<int>> inTwo = {{1}, {2, 3, 4, 5}};
};

TEST_F(ActiveQueueBulkTest, handsOverInOneCallWhatPiledUpBehindARunningHandler) {
  ActiveQueueBulk<int> queue([this](std::queue<int>& taken) { batches(taken); });
  pileUp(queue);

  batches.goOn();

  EXPECT_TRUE(eventually([&] { return batches.batches() == inTwo; }));
}

TEST_F(ActiveQueueBulkTest, handlesWhatPiledUpBehindARunningHandlerBeforeTheStop) {
  ActiveQueueBulk<int> queue([this](std::queue<int>& taken) { batches(taken); });
  pileUp(queue);

  std::thread stopper([&] { queue.stop(); });
  batches.goOn();
  stopper.join();

  EXPECT_EQ(batches.batches(), inTwo);
}

TEST(ActiveQueueBulk, handlesEverythingPushedBeforeItsDestruction) {
  int handled = 0;

  {
    ActiveQueueBulk<int> queue([&](std::queue<int>& taken) { handled += static_cast<int>(taken.size()); });
    for (int element = 0; element < 100; ++element) {
      queue.push(element);
    }
  }

  EXPECT_EQ(handled, 100);
}

TEST(ActiveQueueBulk, leavesItsHandlerAloneAtATimeOut) {
  std::atomic<bool> handled = false;
  ActiveQueueBulk<int> queue([&](std::queue<int>&) { handled = true; });

  EXPECT_FALSE(eventually([&] { return handled.load(); }, std::chrono::milliseconds(1200)));
}

TEST(ActiveQueueBulk, losesNothingToAStopAtAnyMoment) {
  for (int round = 0; round < 2000; ++round) {
    int handled = 0;

    {
      ActiveQueueBulk<int> queue([&](std::queue<int>& taken) { handled += static_cast<int>(taken.size()); });
      queue.push(1);
      std::this_thread::yield();
      queue.push(2);
    }

    ASSERT_EQ(handled, 2);
  }
}

}  // namespace
}  // namespace propertyservice
