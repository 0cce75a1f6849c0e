#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <random>
#include <sys/mount.h>
#include <unistd.h>

#include <json/json.h>
#include <leveldb/db.h>

#include "core/JsonText.h"
#include "database/PersistentStorage.h"
#include "database/PersistentStorageException.h"
#include "database/VolatileStorage.h"
#include "database/VolatileStorageException.h"
#include "database/WriteBehind.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/SettingsFile.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using test::change;
using test::eventually;
using test::LogCapture;
using test::queueOf;
using test::SettingsFile;
using test::TemporaryDirectory;

/// A small file system of the test's own. Needs a mount namespace.
class SmallDisk {
 public:
  explicit SmallDisk(const std::string& size = "4m") {
    if (mount("small", directory_.path().c_str(), "tmpfs", 0, ("size=" + size).c_str()) != 0) {
      throw std::runtime_error("cannot mount a file system");
    }
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  ~SmallDisk() { umount2(directory_.path().c_str(), MNT_DETACH); }

  std::string path(const std::string& name) const { return directory_.path(name); }

  /// Leaves no space.
  void fill() const {
    const int file = open(path("ballast").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    for (const std::size_t size : {std::size_t{4096}, std::size_t{1}}) {
      const std::string block(size, 'x');
      while (write(file, block.data(), block.size()) > 0) {
      }
    }
    close(file);
  }

  void free() const { std::filesystem::remove(path("ballast")); }

  /// REQUIRES: no file on it is open for writing.
  void makeReadOnly() const {
    ASSERT_EQ(mount("small", directory_.path().c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr), 0);
  }

  void makeWritable() const {
    ASSERT_EQ(mount("small", directory_.path().c_str(), "tmpfs", MS_REMOUNT, nullptr), 0);
  }

 private:
  TemporaryDirectory directory_;
};

class FullDiskTest : public testing::Test {
 protected:
  SmallDisk disk;
  SettingsFile file{disk.path("nvm")};
  std::optional<PersistentStorage> storage{openDatabase(file.path())};

  /// The text of the failure to write "new" to K0, and whether it may pass.
  std::pair<std::string, bool> failureOfWrite() {
    std::queue<Property> queue = queueOf({change("K0", "new")});
    try {
      storage->updateValues(queue);
    } catch (const PersistentStorageException& failure) {
      return {failure.what(), failure.reason() == PersistentStorageException::Reason::Unavailable};
    }
    return {"", true};
  }
};

TEST_F(FullDiskTest, failsForNowAndLeavesTheFileIntact) {
  file.fill(10);
  disk.fill();

  EXPECT_EQ(failureOfWrite(), std::pair(std::string("database or disk is full"), true));

  EXPECT_EQ(file.rowsWith("old"), 10);
  EXPECT_EQ(file.ask("PRAGMA integrity_check"), "ok");
}

TEST_F(FullDiskTest, writesAgainOnTheSameConnectionOnceSpaceIsFreed) {
  file.fill(10);
  disk.fill();
  failureOfWrite();

  disk.free();

  EXPECT_EQ(failureOfWrite().first, "");
  EXPECT_EQ(file.valueOf("K0"), "new");
}

TEST_F(FullDiskTest, failsForNowOnAReadOnlyDisk) {
  file.fill(10);
  storage.reset();
  disk.makeReadOnly();
  storage.emplace(openDatabase(file.path()));

  EXPECT_EQ(failureOfWrite(), std::pair(std::string("attempt to write a readonly database"), true));

  EXPECT_EQ(storage->selectMultiple("%").size(), 10U);
}

TEST_F(FullDiskTest, writesOnceADiskThatWasReadOnlyCanBeWritten) {
  file.fill(10);
  storage.reset();
  disk.makeReadOnly();
  storage.emplace(openDatabase(file.path()));
  failureOfWrite();

  disk.makeWritable();

  EXPECT_EQ(failureOfWrite().first, "");
  EXPECT_EQ(file.valueOf("K0"), "new");
}

TEST_F(FullDiskTest, isLoggedOnceWhileTheDiskIsReadOnly) {
  file.fill(10);
  storage.reset();
  disk.makeReadOnly();
  storage.emplace(openDatabase(file.path()));
  LogCapture log;

  failureOfWrite();
  failureOfWrite();

  EXPECT_EQ(log.linesWith("error database/PersistentStorage:").size(), 1U);
}

TEST_F(FullDiskTest, bringsTheLastAcceptedValuesToTheFileOnceSpaceIsFreed) {
  file.fill(10);
  disk.fill();
  WriteBehind writer([this](std::queue<Property>& properties) { storage->updateValues(properties); });
  writer.push(change("K0", "first"));
  writer.push(change("K1", "only"));
  writer.push(change("K0", "last"));
  ASSERT_TRUE(eventually([&] { return writer.isWaiting(); }));

  disk.free();

  EXPECT_TRUE(eventually([&] { return file.valueOf("K0") == "last" && file.valueOf("K1") == "only"; }));
}

TEST_F(FullDiskTest, isLoggedOnceByEachSideWhileItLasts) {
  file.fill(10);
  disk.fill();
  LogCapture log;
  {
    WriteBehind writer([this](std::queue<Property>& properties) { storage->updateValues(properties); });
    writer.push(change("K0", "first"));
    ASSERT_TRUE(eventually([&] { return writer.isWaiting(); }));
    writer.push(change("K0", "last"));
    ASSERT_FALSE(eventually([&] { return file.valueOf("K0") != "old"; }, std::chrono::milliseconds(2500)));

    disk.free();
  }

  EXPECT_EQ(log.linesWith("error database/PersistentStorage:").size(), 1U);
  EXPECT_EQ(log.linesWith("error database/WriteBehind:").size(), 1U);
  EXPECT_EQ(file.valueOf("K0"), "last");
}

class FullVolatileDiskTest : public testing::Test {
 protected:
  using Storage = VolatileStorage<leveldb::DB>;

  static Property state(int number) {
    return Property({{"key", "State.K" + std::to_string(number)}, {"value", std::string(1000, 'v')}});
  }

  /// Writes until the disk is full, which is in the middle of a record of the log; the property that was not
  /// written.
  Property writeUntilFull() {
    Property first = state(0);
    storage->set(first);
    disk.fill();
    for (int number = 1;; ++number) {
      Property property = state(number);
      try {
        storage->set(property);
      } catch (const VolatileStorageException& failure) {
        complaint = failure.what();
        return property;
      }
    }
  }

  SmallDisk disk;
  const std::string path = disk.path("stateCache");
  std::optional<Storage> storage{path};
  std::string complaint;
};

TEST_F(FullVolatileDiskTest, reportsAFailedWrite) {
  const Property property = writeUntilFull();

  EXPECT_EQ(property.status(), Status::DBError);
  EXPECT_EQ(complaint, "Value is not inserted: (" + json::write(property.json()) + ")");
}

TEST_F(FullVolatileDiskTest, keepsWhatItAcceptsAfterAFailureOverARestart) {
  constexpr int kCount = 300;
  writeUntilFull();
  disk.free();
  for (int number = 0; number < kCount; ++number) {
    Property property = state(number);
    property.set("value", "after");
    storage->set(property);
    ASSERT_EQ(property.status(), Status::Changed);
  }

  storage.reset();
  storage.emplace(path);

  int kept = 0;
  for (int number = 0; number < kCount; ++number) {
    Property property = state(number);
    storage->get(property);
    kept += property.text("value") == "after" ? 1 : 0;
  }
  EXPECT_EQ(kept, kCount);
}

TEST_F(FullVolatileDiskTest, goesOnReadingAfterFailedWrites) {
  Property property({{"key", "State.A"}, {"value", "x"}});
  storage->set(property);
  Property unwritten = writeUntilFull();
  EXPECT_THROW(storage->insert(unwritten), VolatileStorageException);

  Property found({{"key", "State.A"}});
  storage->get(found);

  EXPECT_EQ(found.text("value"), "x");
}

TEST_F(FullVolatileDiskTest, keepsWhatWasWrittenBeforeTheFailure) {
  Property property({{"key", "State.A"}, {"value", "x"}});
  storage->set(property);
  writeUntilFull();
  disk.free();
  Property other({{"key", "State.B"}, {"value", "y"}});
  storage->set(other);

  storage.reset();
  storage.emplace(path);

  Property found({{"key", "State.A"}});
  storage->get(found);
  EXPECT_EQ(found.text("value"), "x");
}

TEST_F(FullVolatileDiskTest, isMadeAnewWhenItsDiskIsTooFullToOpenIt) {
  for (int number = 0; number < 400; ++number) {
    Property property = state(number);
    storage->set(property);
  }
  storage.reset();
  disk.fill();
  LogCapture log;

  storage.emplace(path);

  EXPECT_EQ(
      log.linesWith("Volatile database is removed and made anew: " + path + " Error: IO error: ").size(), 1U);
  Property property({{"key", "State.A"}, {"value", "x"}});
  storage->set(property);
  EXPECT_EQ(property.status(), Status::Changed);
}

TEST_F(FullVolatileDiskTest, cannotBeMadeWhereOthersHaveFilledTheDisk) {
  storage.reset();
  std::filesystem::remove_all(path);
  disk.fill();
  LogCapture silent;

  EXPECT_THROW(storage.emplace(path), VolatileStorageException);
  disk.free();
  EXPECT_NO_THROW(storage.emplace(path));
}

/// A store that clients keep as full as they can, on the disk of a telephone.
class BusyVolatileStorageTest : public testing::Test {
 protected:
  using Storage = VolatileStorage<leveldb::DB>;

  /// Writes text that cannot be compressed.
  Status set(const std::string& key, std::size_t bytes) {
    Property property({{"key", key}, {"value", noise_.substr(random_() % (noise_.size() - bytes), bytes)}});
    storage.set(property);
    return property.status();
  }

  Status reset(const std::string& key) {
    Property property({{"key", key}});
    storage.reset(property);
    return property.status();
  }

  static std::string key(std::size_t number) { return "State." + std::to_string(1'000'000 + number); }

  const SmallDisk disk_{"24m"};
  std::mt19937 random_{20261121};
  const std::string noise_ = [this] {
    std::string noise(1U << 20, ' ');
    std::generate(noise.begin(), noise.end(), [this] { return static_cast<char>(random_()); });
    return noise;
  }();
  Storage storage{disk_.path("stateCache")};
};

TEST_F(BusyVolatileStorageTest, fitsOnItsDiskHoweverOftenItIsRewritten) {
  for (const std::size_t bytes : {60'000U, 1'000U}) {
    const std::size_t keys = 4'000'000 / (bytes + 20);
    for (std::size_t write = 0; write < 100'000'000 / bytes; ++write) {
      ASSERT_EQ(set(key(random_() % keys), bytes), Status::Changed) << write << " of " << bytes;
    }
    for (std::size_t number = 0; number < keys; ++number) {
      reset(key(number));
    }
  }
}

TEST_F(BusyVolatileStorageTest, fitsOnItsDiskHoweverOftenItIsEmptied) {
  for (const std::size_t bytes : {60'000U, 1'000U}) {
    const std::size_t keys = 4'000'000 / (bytes + 20);
    for (std::size_t first = 0; first < 20 * keys; first += keys) {
      for (std::size_t number = first; number < first + keys; ++number) {
        ASSERT_EQ(set(key(number), bytes), Status::Changed) << number << " of " << bytes;
      }
      for (std::size_t number = first; number < first + keys; ++number) {
        ASSERT_EQ(reset(key(number)), Status::Changed) << number << " of " << bytes;
      }
    }
  }
}

TEST_F(BusyVolatileStorageTest, fitsOnItsDiskWithAsManyKeysAsItTakes) {
  LogCapture silent;
  std::size_t keys = 0;
  while (set(key(keys), 0) == Status::Changed) {
    ++keys;
  }

  EXPECT_EQ(keys, (4U << 20) / key(0).size());
  for (std::size_t number = 0; number < keys; ++number) {
    ASSERT_EQ(reset(key(number)), Status::Changed) << number;
  }
  for (std::size_t number = 0; number < keys; ++number) {
    ASSERT_EQ(set(key(number), 0), Status::Changed) << number;
  }
}

TEST_F(FullVolatileDiskTest, reportsAFailedRemoval) {
  Property property({{"key", "State.A"}, {"value", "x"}});
  storage->set(property);
  disk.fill();

  // The log's last page has room for a few more of them.
  std::string thrown;
  for (int i = 0; i < 10000 && thrown.empty(); ++i) {
    try {
      storage->reset(property);
      storage->insert(property);
    } catch (const VolatileStorageException& failure) {
      thrown = failure.what();
    }
  }

  EXPECT_EQ(property.status(), Status::DBError);
  EXPECT_NE(thrown, "");
}

}  // namespace
}  // namespace propertyservice
