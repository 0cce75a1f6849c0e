#include <poll.h>
#include <thread>

#include "propclient/Inbox.h"

namespace propclient {
namespace {

bool isReadable(const Inbox& inbox) {
  pollfd descriptor = {inbox.descriptor(), POLLIN, 0};
  return poll(&descriptor, 1, 0) == 1;
}

TEST(InboxTest, isReadableWhileThereIsWork) {
  Inbox inbox;
  EXPECT_FALSE(isReadable(inbox));

  inbox.put([] {});
  inbox.put([] {});
  EXPECT_TRUE(isReadable(inbox));

  inbox.take();
  EXPECT_FALSE(isReadable(inbox));
}

TEST(InboxTest, handsWorkOutInItsOrder) {
  Inbox inbox;
  std::vector<int> done;
  inbox.put([&] { done.push_back(1); });
  inbox.put([&] { done.push_back(2); });

  for (const Inbox::Work& work : inbox.take()) {
    work();
  }

  EXPECT_THAT(done, testing::ElementsAre(1, 2));
}

TEST(InboxTest, losesNothingOfSeveralThreads) {
  constexpr int kEach = 1000;
  Inbox inbox;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < kEach; ++n) {
        inbox.put([] {});
      }
    });
  }

  std::size_t taken = 0;
  while (taken < 4 * kEach) {
    taken += inbox.take().size();
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(taken + inbox.take().size(), 4U * kEach);
}

}  // namespace
}  // namespace propclient
