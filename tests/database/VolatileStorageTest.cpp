#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sys/wait.h>
#include <unistd.h>

#include <json/json.h>
#include <leveldb/db.h>

#include "database/VolatileStorage.h"
#include "database/VolatileStorageException.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using test::LogCapture;
using test::TemporaryDirectory;

constexpr std::size_t kLargestValue = 64 << 10;

/// The files of a folder with `part` in their names.
std::vector<std::string> filesOf(const std::string& folder, const std::string& part) {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().filename().string().find(part) != std::string::npos) {
      files.push_back(entry.path());
    }
  }
  return files;
}

/// Writes into a file as it is.
void overwrite(const std::string& file, const std::string& text, std::size_t offset = 0) {
  std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
  stream.seekp(static_cast<std::streamoff>(offset));
  stream << text;
}

class VolatileStorageTest : public testing::Test {
 protected:
  using Storage = VolatileStorage<leveldb::DB>;

  static Property named(const std::string& key) { return Property({{"key", key}}); }

  Status set(const std::string& key, const Json::Value& value) {
    Property property = named(key);
    property.set("value", value);
    storage->set(property);
    return property.status();
  }

  Property got(const std::string& key) {
    Property property = named(key);
    storage->get(property);
    return property;
  }

  Status reset(const std::string& key) {
    Property property = named(key);
    storage->reset(property);
    return property.status();
  }

  TemporaryDirectory directory;
  const std::string path = directory.path("stateCache");
  std::optional<Storage> storage{path};
};

TEST_F(VolatileStorageTest, makesAMissingDirectory) {
  EXPECT_TRUE(std::filesystem::is_directory(path));
}

TEST_F(VolatileStorageTest, logsAndThrowsWhenItCannotBeOpened) {
  const std::string file = directory.write("file", "");
  LogCapture log;

  std::string thrown;
  try {
    Storage unopenable(file);
  } catch (const VolatileStorageException& failure) {
    thrown = failure.what();
  }

  EXPECT_EQ(thrown, "Database could not be initialized");
  EXPECT_EQ(log.linesWith("error database/VolatileStorage:").size(), 1U);
  EXPECT_EQ(log.linesWith("Volatile database cannot be initialized: " + file + " Error: IO error: ").size(),
            1U);
}

TEST_F(VolatileStorageTest, findsNothingUnderAKeyThatWasNeverWritten) {
  LogCapture log;

  const Property property = got("State.A");

  EXPECT_EQ(property.status(), Status::NotFound);
  EXPECT_EQ(property.get("value"), Json::Value(""));
  EXPECT_EQ(log.linesWith("warning database/VolatileStorage:").size(), 1U);
  EXPECT_EQ(log.linesWith("Get property failed for key: State.A").size(), 1U);
}

TEST_F(VolatileStorageTest, findsNothingWhenReadingFails) {
  set("State.A", "x");
  // The first start brings the value from the log into a table, the second opens the table when it is read.
  for (int start = 0; start < 2; ++start) {
    storage.reset();
    storage.emplace(path);
  }
  // The mark of the only block's compression, which is the first thing that LevelDB looks at.
  constexpr std::size_t kBlock = 3 + sizeof("State.A") - 1 + 8 + 1 + 2 * sizeof(std::uint32_t);
  for (const std::string& table : filesOf(path, ".ldb")) {
    overwrite(table, "\xff", kBlock);
  }
  LogCapture log;

  const Property property = got("State.A");

  EXPECT_EQ(property.status(), Status::NotFound);
  EXPECT_EQ(property.get("value"), Json::Value(""));
  EXPECT_EQ(log.linesWith("Get property failed for key: State.A").size(), 1U);
}

TEST_F(VolatileStorageTest, getsTheValueThatWasSet) {
  set("State.A", "x");

  EXPECT_EQ(got("State.A"), Property({{"key", "State.A"}, {"value", "x"}}));
}

TEST_F(VolatileStorageTest, leavesTheStatusOfAPropertyItFinds) {
  set("State.A", "x");
  Property property = named("State.A");
  property.setStatus(Status::InvalidRequest);

  storage->get(property);

  EXPECT_EQ(property.status(), Status::InvalidRequest);
}

TEST_F(VolatileStorageTest, changesAValueOnceAndLeavesTheSameOne) {
  EXPECT_EQ(set("State.A", "x"), Status::Changed);
  EXPECT_EQ(set("State.A", "x"), Status::Unchanged);
  EXPECT_EQ(set("State.A", "y"), Status::Changed);
}

TEST_F(VolatileStorageTest, storesANumberAsItsTextAndNeverFindsItUnchanged) {
  EXPECT_EQ(set("State.A", 5), Status::Changed);
  EXPECT_EQ(set("State.A", 5), Status::Changed);

  EXPECT_EQ(got("State.A").get("value"), Json::Value("5"));
}

TEST_F(VolatileStorageTest, storesKeyAndValueAlone) {
  Property property({{"key", "State.A"}, {"value", "x"}, {"webui", "w"}, {"flags", "1"}});

  storage->set(property);

  EXPECT_EQ(got("State.A"), Property({{"key", "State.A"}, {"value", "x"}}));
}

TEST_F(VolatileStorageTest, takesEmptyKeysNulsAndLargeValues) {
  const std::string key("State.\0A", 8);
  const std::string value = std::string(kLargestValue - 1, 'v') + std::string("\0", 1);

  set(key, value);
  set("", "x");

  EXPECT_EQ(got(key).text("value"), value);
  EXPECT_EQ(got("").text("value"), "x");
}

TEST_F(VolatileStorageTest, refusesWhatIsTooLarge) {
  const auto keyOf = [](std::size_t bytes) { return "State." + std::string(bytes - 6, 'k'); };

  EXPECT_EQ(set(keyOf(256), "x"), Status::Changed);
  EXPECT_EQ(set(keyOf(257), "x"), Status::ValueError);
  EXPECT_EQ(set("State.A", std::string(kLargestValue, 'v')), Status::Changed);
  EXPECT_EQ(set("State.A", std::string(kLargestValue + 1, 'v')), Status::ValueError);

  LogCapture silent;
  EXPECT_EQ(got(keyOf(257)).status(), Status::NotFound);
  EXPECT_EQ(got("State.A").text("value").size(), kLargestValue);
}

/// A store without room for another large value.
class FullVolatileStorageTest : public VolatileStorageTest {
 protected:
  static constexpr std::size_t kLimit = 4 << 20;

  FullVolatileStorageTest() {
    for (std::size_t bytes = 0; bytes + sizeOf(1000) + kLargestValue <= kLimit;
         bytes += sizeOf(1000) + kLargestValue) {
      EXPECT_EQ(set(nameOf(values++), large('a')), Status::Changed);
    }
  }

  static std::string nameOf(int number) { return "State." + std::to_string(1000 + number); }
  static std::size_t sizeOf(int number) { return nameOf(number).size(); }
  static std::string large(char character) { return std::string(kLargestValue, character); }

  int values = 0;
};

TEST_F(FullVolatileStorageTest, takesNoMoreAndSaysSo) {
  LogCapture log;

  EXPECT_EQ(set("State.More", large('b')), Status::DBError);

  EXPECT_EQ(log.linesWith("error database/VolatileStorage:").size(), 1U);
  EXPECT_EQ(log.linesWith("Volatile database is full (4 MiB); not written: State.More").size(), 1U);
  EXPECT_EQ(got("State.More").status(), Status::NotFound);
}

TEST_F(FullVolatileStorageTest, isFullToTheByte) {
  const std::size_t rest = kLimit - static_cast<std::size_t>(values) * (sizeOf(0) + kLargestValue);
  LogCapture silent;

  EXPECT_EQ(set("State.L", std::string(rest - 6, 'x')), Status::DBError);
  EXPECT_EQ(set("State.L", std::string(rest - 7, 'x')), Status::Changed);
  EXPECT_EQ(set("State.L", std::string(rest - 6, 'x')), Status::DBError);
  EXPECT_EQ(set("State.L", ""), Status::Changed);
}

TEST_F(FullVolatileStorageTest, changesAndRemovesWhatItHolds) {
  EXPECT_EQ(set(nameOf(0), large('b')), Status::Changed);
  EXPECT_EQ(set(nameOf(0), large('b')), Status::Unchanged);
  EXPECT_EQ(reset(nameOf(1)), Status::Changed);

  EXPECT_EQ(set("State.More", large('b').substr(100)), Status::Changed);
}

TEST_F(FullVolatileStorageTest, isFullAfterARestart) {
  storage.reset();
  storage.emplace(path);
  LogCapture silent;

  EXPECT_EQ(set("State.More", large('b')), Status::DBError);
  EXPECT_EQ(reset(nameOf(0)), Status::Changed);
  EXPECT_EQ(set("State.More", large('b')), Status::Changed);
}

TEST_F(VolatileStorageTest, lastsWithoutRoomForMoreWhenItIsLargerThanItMayBe) {
  storage.reset();
  {
    leveldb::DB* opened = nullptr;
    leveldb::DB::Open({}, path, &opened);
    const std::unique_ptr<leveldb::DB> unlimited(opened);
    for (int number = 0; number < 6; ++number) {
      unlimited->Put({}, "State." + std::to_string(number), std::string(1 << 20, 'v'));
    }
  }
  storage.emplace(path);
  LogCapture silent;

  EXPECT_EQ(got("State.5").text("value").size(), 1U << 20);
  EXPECT_EQ(set("State.6", "x"), Status::DBError);
  EXPECT_EQ(set("State.5", "smaller"), Status::Changed);
  EXPECT_EQ(reset("State.4"), Status::Changed);
  EXPECT_EQ(reset("State.3"), Status::Changed);
  EXPECT_EQ(set("State.6", "x"), Status::Changed);
}

/// Something that happens to a file of the store while no process has it open.
struct Damage {
  const char* name;
  void (*inflict)(const std::string& file);
};

class DamagedVolatileStorageTest : public VolatileStorageTest, public testing::WithParamInterface<Damage> {
 protected:
  /// With values in a table and in the log.
  void fill() {
    std::filesystem::remove_all(path);
    for (const int first : {0, 100}) {
      storage.emplace(path);
      for (int number = first; number < first + 100; ++number) {
        set("State." + std::to_string(number), std::string(500, static_cast<char>('a' + number % 26)));
      }
      storage.reset();
    }
  }
};

TEST_P(DamagedVolatileStorageTest, isUsableAgainWhicheverFileItHits) {
  storage.reset();
  for (const char* const file : {"CURRENT", "MANIFEST-", ".log", ".ldb", "LOCK"}) {
    SCOPED_TRACE(file);
    fill();
    const std::vector<std::string> hit = filesOf(path, file);
    ASSERT_FALSE(hit.empty());
    for (const std::string& name : hit) {
      GetParam().inflict(name);
    }
    LogCapture silent;

    storage.emplace(path);

    int found = 0;
    for (int number = 0; number < 200; ++number) {
      const Property property = got("State." + std::to_string(number));
      if (property.status() == Status::Ok) {
        ++found;
        EXPECT_EQ(property.text("value"), std::string(500, static_cast<char>('a' + number % 26)));
      }
    }
    EXPECT_EQ(set("State.New", "x"), Status::Changed);
    EXPECT_EQ(set("State.0", "y"), Status::Changed);
    EXPECT_EQ(reset("State.New"), Status::Changed);
    storage.reset();
    storage.emplace(path);
    EXPECT_EQ(got("State.0").text("value"), "y");
    storage.reset();
    if (testing::Test::HasFailure()) {
      return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, DamagedVolatileStorageTest,
    testing::Values(Damage{"emptied", [](const std::string& file) { std::filesystem::resize_file(file, 0); }},
                    Damage{"cutOffInTheMiddle",
                           [](const std::string& file) {
                             std::filesystem::resize_file(file, std::filesystem::file_size(file) / 2);
                           }},
                    Damage{"cutOffAtTheEnd",
                           [](const std::string& file) {
                             const auto size = std::filesystem::file_size(file);
                             std::filesystem::resize_file(file, size - std::min<std::uintmax_t>(size, 1));
                           }},
                    Damage{"garbage",
                           [](const std::string& file) {
                             overwrite(file, std::string(std::filesystem::file_size(file), '\xa5'));
                           }},
                    Damage{"garbageInTheMiddle",
                           [](const std::string& file) {
                             overwrite(file, std::string(16, '\xa5'), std::filesystem::file_size(file) / 2);
                           }},
                    Damage{"longer",
                           [](const std::string& file) {
                             overwrite(file, "garbage", std::filesystem::file_size(file));
                           }},
                    Damage{"removed", [](const std::string& file) { std::filesystem::remove(file); }},
                    Damage{"replacedByAFolder",
                           [](const std::string& file) {
                             std::filesystem::remove(file);
                             std::filesystem::create_directory(file);
                             std::ofstream(file + "/content") << "x";
                           }}),
    [](const auto& damage) { return damage.param.name; });

TEST_F(VolatileStorageTest, isMadeAnewWithOneErrorWhenItIsDamaged) {
  set("State.A", "x");
  storage.reset();
  overwrite(path + "/CURRENT", "MANIFEST-garbage");
  LogCapture log;

  storage.emplace(path);

  EXPECT_EQ(log.linesWith("error ").size(), 1U);
  EXPECT_EQ(log.linesWith("Volatile database is removed and made anew: " + path + " Error: ").size(), 1U);
  EXPECT_EQ(got("State.A").status(), Status::NotFound);
}

/// A process of its own that has the store open, as LevelDB does it.
class Holder {
 public:
  explicit Holder(const std::string& lockFile) {
    std::array<int, 2> ready{};
    EXPECT_EQ(pipe(ready.data()), 0);
    pid_ = fork();
    if (pid_ == 0) {
      struct flock lock {};
      lock.l_type = F_WRLCK;
      lock.l_whence = SEEK_SET;
      const int file = open(lockFile.c_str(), O_RDWR);
      const bool locked = file >= 0 && fcntl(file, F_SETLK, &lock) == 0;
      static_cast<void>(write(ready[1], locked ? "y" : "n", 1));
      pause();
      _exit(0);
    }
    char answer = 'n';
    EXPECT_EQ(read(ready[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    close(ready[0]);
    close(ready[1]);
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;
  ~Holder() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

 private:
  pid_t pid_ = -1;
};

TEST_F(VolatileStorageTest, leavesAStoreAloneThatAnotherProcessHolds) {
  set("State.A", "x");
  storage.reset();
  overwrite(path + "/CURRENT", "MANIFEST-garbage");
  {
    const Holder holder(path + "/LOCK");
    LogCapture log;

    EXPECT_THROW(Storage other(path), VolatileStorageException);

    EXPECT_EQ(log.linesWith("made anew").size(), 0U);
    EXPECT_EQ(log.linesWith("Volatile database cannot be initialized: ").size(), 1U);
  }
  EXPECT_FALSE(filesOf(path, "MANIFEST-").empty());
}

TEST_F(VolatileStorageTest, leavesAStoreAloneThatThisProcessHolds) {
  set("State.A", "x");
  LogCapture log;

  EXPECT_THROW(Storage other(path), VolatileStorageException);

  EXPECT_EQ(log.linesWith("made anew").size(), 0U);
  EXPECT_EQ(got("State.A").text("value"), "x");
}

TEST_F(VolatileStorageTest, keepsItsValuesOverARestart) {
  set("State.A", "x");

  storage.reset();
  storage.emplace(path);

  EXPECT_EQ(got("State.A").text("value"), "x");
}

TEST_F(VolatileStorageTest, tellsWhetherAKeyExists) {
  set("State.A", "");
  Property present = named("State.A");
  Property absent = named("State.B");

  EXPECT_TRUE(storage->exists(present));
  EXPECT_FALSE(storage->exists(absent));
}

TEST_F(VolatileStorageTest, insertsWhatIsThereAlready) {
  set("State.A", "x");
  Property property({{"key", "State.A"}, {"value", "x"}});

  storage->insert(property);

  EXPECT_EQ(property.status(), Status::Changed);
}

TEST_F(VolatileStorageTest, findsNothingToResetUnderAnAbsentKey) {
  EXPECT_EQ(reset("State.A"), Status::NotFound);
}

TEST_F(VolatileStorageTest, removesAPropertyThatIsReset) {
  set("State.A", "x");

  EXPECT_EQ(reset("State.A"), Status::Changed);

  EXPECT_EQ(got("State.A").status(), Status::NotFound);
}

TEST_F(VolatileStorageTest, refusesInAListOnlyKeysWithoutItsMark) {
  std::vector<Property> list = {Property({{"key", "State.A"}, {"value", "a"}}),
                                Property({{"key", "Web.Bar"}, {"value", "b"}}),
                                Property({{"key", "Web.State.C"}, {"value", "c"}})};

  storage->setMultiple(list);

  EXPECT_EQ(list[0].status(), Status::Changed);
  EXPECT_EQ(list[1].status(), Status::InvalidRequest);
  EXPECT_EQ(list[2].status(), Status::Changed);
  EXPECT_EQ(got("State.A").text("value"), "a");
  EXPECT_EQ(got("Web.Bar").status(), Status::NotFound);
  EXPECT_EQ(got("Web.State.C").text("value"), "c");
}

}  // namespace
}  // namespace propertyservice
