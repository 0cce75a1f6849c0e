#include <algorithm>
#include <atomic>
#include <future>
#include <latch>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <sys/resource.h>

#include "database/PersistentStorageException.h"
#include "database/WriteBehind.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/SettingsFile.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using Reason = PersistentStorageException::Reason;
using test::eventually;
using test::LogCapture;

using Values = std::vector<std::string>;  // "key=value"

/// A storage that keeps what it is handed, and refuses what it is told to.
class FakeStorage {
 public:
  /// While set, every write fails for now.
  std::atomic<bool> diskFull = false;

  /// Refused for good.
  std::string refused;

  std::atomic<int> tries = 0;

  void updateValues(std::queue<Property>& properties) {
    if (tries++ == 0 && holdFirst_) {
      inFirst_.count_down();
      mayGoOn_.wait();
    }
    Values call;
    for (; !properties.empty(); properties.pop()) {
      call.push_back(properties.front().text("key") + "=" + properties.front().text("value"));
    }
    if (diskFull) {
      throw PersistentStorageException("database or disk is full", Reason::Unavailable);
    }
    if (std::find(call.begin(), call.end(), refused) != call.end()) {
      throw PersistentStorageException("CHECK constraint failed", Reason::Constraint);
    }
    const std::scoped_lock lock(mutex_);
    calls_.push_back(call);
  }

  /// The first write waits for `goOn`.
  void holdFirst() { holdFirst_ = true; }
  void waitForTheFirst() { inFirst_.wait(); }
  void goOn() { mayGoOn_.count_down(); }

  /// The values of each call.
  std::vector<Values> calls() const {
    const std::scoped_lock lock(mutex_);
    return calls_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Values> calls_;
  bool holdFirst_ = false;
  std::latch inFirst_{1};
  std::latch mayGoOn_{1};
};

class WriteBehindTest : public testing::Test {
 protected:
  void start() {
    writer =
        std::make_unique<WriteBehind>([this](std::queue<Property>& queue) { storage.updateValues(queue); });
  }

  void push(const std::string& key, const std::string& value) {
    writer->push(Property({{"key", key}, {"value", value}}));
  }

  /// Holds the worker in a write of "First", so that what is pushed next is taken together.
  void startHeld() {
    storage.holdFirst();
    start();
    push("First", "1");
    storage.waitForTheFirst();
  }

  void startWithAFullDisk() {
    storage.diskFull = true;
    start();
  }

  bool comesToCall(const std::vector<Values>& expected) {
    return eventually([&] { return storage.calls() == expected; });
  }

  FakeStorage storage;
  std::unique_ptr<WriteBehind> writer;
};

TEST_F(WriteBehindTest, handsOverWhatIsPushed) {
  start();

  push("A", "x");

  EXPECT_TRUE(comesToCall({{"A=x"}}));
}

TEST_F(WriteBehindTest, handsOverInOneCallAndInPushOrderWhatPiledUp) {
  startHeld();
  push("A", "x");
  push("C", "y");
  push("B", "z");

  storage.goOn();

  EXPECT_TRUE(comesToCall({{"First=1"}, {"A=x", "C=y", "B=z"}}));
}

TEST_F(WriteBehindTest, handsOverTheLastValueOfARepeatedKeyOnceMore) {
  startHeld();
  push("A", "1");
  push("B", "1");
  push("A", "2");
  push("C", "1");
  push("A", "3");

  storage.goOn();

  EXPECT_TRUE(comesToCall({{"First=1"}, {"A=1", "B=1", "A=2", "C=1", "A=3"}, {"A=3"}}));
}

TEST_F(WriteBehindTest, writesEverythingBeforeItsDestruction) {
  startHeld();
  push("A", "x");
  storage.goOn();

  writer.reset();

  EXPECT_EQ(storage.calls(), (std::vector<Values>{{"First=1"}, {"A=x"}}));
}

TEST_F(WriteBehindTest, isIdleOnlyAfterTheStorageHasTakenEverything) {
  startHeld();

  EXPECT_FALSE(writer->isIdle());
  storage.goOn();
  EXPECT_TRUE(eventually([&] { return writer->isIdle(); }));
  EXPECT_EQ(storage.calls().size(), 1U);
}

TEST_F(WriteBehindTest, triesAgainByItselfWithinTheTimeOut) {
  startWithAFullDisk();
  push("A", "x");
  ASSERT_TRUE(eventually([&] { return storage.tries == 1; }));

  storage.diskFull = false;

  EXPECT_TRUE(eventually([&] { return !storage.calls().empty(); }, std::chrono::milliseconds(1500)));
  EXPECT_EQ(storage.calls(), std::vector<Values>{{"A=x"}});
}

TEST_F(WriteBehindTest, writesWhatWaitedTogetherWithWhatIsPushedNext) {
  startWithAFullDisk();
  push("A", "x");
  ASSERT_TRUE(eventually([&] { return storage.tries == 1 && writer->isWaiting(); }));

  push("B", "y");
  storage.diskFull = false;

  EXPECT_TRUE(comesToCall({{"A=x", "B=y"}}));
}

TEST_F(WriteBehindTest, keepsTheLastValueOfEachKeyWhileTheStorageFails) {
  startWithAFullDisk();
  push("A", "1");
  push("B", "1");
  push("A", "2");
  ASSERT_TRUE(eventually([&] { return storage.tries >= 2 && writer->isWaiting(); }));

  storage.diskFull = false;

  EXPECT_TRUE(comesToCall({{"B=1", "A=2"}}));
}

TEST_F(WriteBehindTest, triesOnceMoreAtItsEndWhatWaits) {
  startWithAFullDisk();
  push("A", "x");
  ASSERT_TRUE(eventually([&] { return storage.tries == 1; }));

  storage.diskFull = false;
  writer.reset();

  EXPECT_EQ(storage.calls(), std::vector<Values>{{"A=x"}});
}

TEST_F(WriteBehindTest, isFailingAndNeverIdleUntilTheStorageHasTakenEverything) {
  startWithAFullDisk();
  EXPECT_FALSE(writer->isFailing());

  push("A", "x");
  ASSERT_TRUE(eventually([&] { return writer->isFailing(); }));
  while (storage.tries < 3) {
    ASSERT_FALSE(writer->isIdle());
    ASSERT_TRUE(writer->isFailing());
  }

  storage.diskFull = false;
  EXPECT_TRUE(eventually([&] { return writer->isIdle(); }));
  EXPECT_FALSE(writer->isFailing());
  EXPECT_EQ(storage.calls(), std::vector<Values>{{"A=x"}});
}

TEST_F(WriteBehindTest, handsOverOnlyTheLastValueOfEachKeyOfMoreThanFillsAStatement) {
  startHeld();
  for (int i = 0; i < 200; ++i) {
    push("A", std::to_string(i));
    push("B", std::to_string(i));
  }
  push("C", "only");
  push("A", "last");

  storage.goOn();

  EXPECT_TRUE(comesToCall({{"First=1"}, {"B=199", "C=only", "A=last"}}));
}

TEST_F(WriteBehindTest, handsOverEverythingThatFillsAStatement) {
  startHeld();
  for (int i = 0; i < 300; ++i) {
    push("A", std::to_string(i));
  }

  storage.goOn();

  ASSERT_TRUE(eventually([&] { return storage.calls().size() == 3; }));
  EXPECT_EQ(storage.calls()[1].size(), 300U);
  EXPECT_EQ(storage.calls()[2], Values{"A=299"});
}

TEST_F(WriteBehindTest, doesNotHammerAFailingStorageWithEachPush) {
  startWithAFullDisk();
  push("A", "x");
  ASSERT_TRUE(eventually([&] { return storage.tries == 1 && writer->isWaiting(); }));

  for (int i = 0; i < 50; ++i) {
    push("A", std::to_string(i));
    ASSERT_TRUE(eventually([&] { return writer->isWaiting(); }));
  }

  EXPECT_LE(storage.tries, 3);
}

TEST_F(WriteBehindTest, logsBeginningAndEndOfTheTroubleOnceEach) {
  LogCapture log;
  startWithAFullDisk();
  push("A", "x");
  ASSERT_TRUE(eventually([&] { return storage.tries >= 3; }));

  storage.diskFull = false;
  writer.reset();

  EXPECT_EQ(log.linesWith("error").size(), 1U);
  EXPECT_EQ(log.linesWith("wait for it: 1, reason: database or disk is full").size(), 1U);
  EXPECT_EQ(log.linesWith("info").size(), 1U);
  EXPECT_EQ(log.linesWith("had been waiting: 1").size(), 1U);
}

TEST_F(WriteBehindTest, logsHowManyPropertiesAreLostAtItsEnd) {
  LogCapture log;
  startWithAFullDisk();
  push("A", "x");
  push("B", "y");

  writer.reset();

  EXPECT_EQ(log.linesWith("Lost, because the database could not be written: 2").size(), 1U);
}

TEST_F(WriteBehindTest, writesTheNeighboursOfARefusedPropertyOneByOne) {
  storage.refused = "B=bad";
  startHeld();
  push("A", "1");
  push("B", "bad");
  push("C", "1");

  storage.goOn();

  EXPECT_TRUE(comesToCall({{"First=1"}, {"A=1"}, {"C=1"}}));
}

TEST_F(WriteBehindTest, leavesTheLastValueOfARepeatedKeyWhenItWritesOneByOne) {
  storage.refused = "B=bad";
  startHeld();
  push("A", "1");
  push("B", "bad");
  push("A", "2");

  storage.goOn();

  EXPECT_TRUE(comesToCall({{"First=1"}, {"A=1"}, {"A=2"}}));
}

TEST_F(WriteBehindTest, logsARefusedPropertyOnceWithKeyAndReason) {
  LogCapture log;
  storage.refused = "B=bad";
  start();

  push("B", "bad");
  writer.reset();

  EXPECT_EQ(log.linesWith("error").size(), 1U);
  EXPECT_EQ(log.linesWith("Database refused the value of B: CHECK constraint failed").size(), 1U);
}

TEST_F(WriteBehindTest, goesOnAfterARefusedProperty) {
  storage.refused = "B=bad";
  start();
  push("B", "bad");
  ASSERT_TRUE(eventually([&] { return storage.tries >= 2 && writer->isWaiting(); }));

  push("A", "1");

  EXPECT_TRUE(comesToCall({{"A=1"}}));
}

TEST(WriteBehind, keepsWhatIsLeftWhenTheDiskFillsUpBetweenSingleWrites) {
  std::atomic<bool> full = false;
  std::mutex mutex;
  Values written;
  std::latch piledUp(1);
  WriteBehind writer([&](std::queue<Property>& properties) {
    piledUp.wait();
    if (properties.size() > 1) {
      throw PersistentStorageException("refused", Reason::Constraint);
    }
    if (full) {
      throw PersistentStorageException("full", Reason::Unavailable);
    }
    const std::scoped_lock lock(mutex);
    written.push_back(properties.front().text("key"));
    full = written.size() == 2;
  });
  const auto writtenNow = [&] {
    const std::scoped_lock lock(mutex);
    return written;
  };

  for (const char* key : {"0", "1", "2", "3"}) {
    writer.push(Property({{"key", key}}));
  }
  piledUp.count_down();
  ASSERT_TRUE(eventually([&] { return full.load() && writer.isWaiting(); }));
  full = false;

  EXPECT_TRUE(eventually([&] { return writtenNow() == Values{"0", "1", "2", "3"}; }));
}

TEST(WriteBehind, writesAtALowerPriorityThanThePushingThread) {
  std::promise<int> niceness;
  const int own = getpriority(PRIO_PROCESS, 0);
  WriteBehind writer([&](std::queue<Property>& queue) {
    queue = {};
    niceness.set_value(getpriority(PRIO_PROCESS, 0));
  });

  writer.push(Property({{"key", "A"}, {"value", "x"}}));

  EXPECT_EQ(niceness.get_future().get(), std::min(own + 10, 19));
  EXPECT_EQ(getpriority(PRIO_PROCESS, 0), own);
}

TEST(WriteBehind, takesAnyOtherExceptionOfItsStorageForAFailureThatPasses) {
  std::atomic<int> calls = 0;
  std::atomic<int> written = 0;
  WriteBehind writer([&](std::queue<Property>& properties) {
    switch (calls++) {
      case 0:
        throw std::runtime_error("unexpected");
      case 1:
        throw std::bad_alloc();
      default:
        written = static_cast<int>(properties.size());
    }
  });

  writer.push(Property({{"key", "A"}, {"value", "x"}}));

  EXPECT_TRUE(eventually([&] { return written == 1 && writer.isIdle(); }));
  EXPECT_EQ(calls, 3);
}

/// The table in a file behind the writer; its connection does not wait for locks.
class WriteBehindFileTest : public testing::Test {
 protected:
  void SetUp() override { file.fill(10); }

  test::TemporaryDirectory directory;
  test::SettingsFile file{directory.path("nvm")};
  PersistentStorage storage{std::make_shared<SQLite::Database>(file.path(), SQLite::OPEN_READWRITE)};
  WriteBehind writer{[this](std::queue<Property>& properties) { storage.updateValues(properties); }};
};

TEST_F(WriteBehindFileTest, losesNothingToAReaderThatHoldsTheFile) {
  std::optional<test::Reader> reader(file.path());
  writer.push(test::change("K0", "first"));
  writer.push(test::change("K1", "only"));
  ASSERT_TRUE(eventually([&] { return writer.isWaiting(); }));
  writer.push(test::change("K0", "last"));
  ASSERT_TRUE(eventually([&] { return writer.isWaiting(); }));

  reader.reset();

  EXPECT_TRUE(eventually([&] { return file.valueOf("K0") == "last" && file.valueOf("K1") == "only"; }));
}

TEST_F(WriteBehindFileTest, losesOnlyTheValueThatTheTableRefuses) {
  std::optional<test::Reader> reader(file.path());
  writer.push(test::change("K0", "new"));
  writer.push(test::change("K1", std::string(257, 'v')));
  writer.push(test::change("K2", "new"));

  reader.reset();

  EXPECT_TRUE(eventually([&] { return file.rowsWith("new") == 2; }));
  EXPECT_EQ(file.valueOf("K1"), "old");
}

TEST_F(WriteBehindFileTest, leavesTheLastValueOfAKeyThatIsRepeatedInABatch) {
  std::optional<test::Reader> reader(file.path());
  for (const char* value : {"1", "2", "3"}) {
    writer.push(test::change("K0", value));
  }
  reader.reset();

  writer.stop();

  EXPECT_EQ(file.valueOf("K0"), "3");
}

}  // namespace
}  // namespace propertyservice
