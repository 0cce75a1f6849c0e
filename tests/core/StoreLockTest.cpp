#include <filesystem>
#include <optional>

#include "common/Execute.h"
#include "core/StoreLock.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice {
namespace {

using test::TemporaryDirectory;
using testing::HasSubstr;
using testing::ThrowsMessage;

/// Two stores in folders of their own.
class StoreLockTest : public testing::Test {
 protected:
  StoreLockTest() {
    std::filesystem::create_directories(paths_.databaseFolder());
    std::filesystem::create_directories(paths_.volatileStoreFolder());
  }

  DevicePaths pathsWith(const std::string& database, const std::string& volatileStore) const {
    DevicePaths paths;
    paths.database = directory_.path(database);
    paths.volatileStore = directory_.path(volatileStore);
    return paths;
  }

  const TemporaryDirectory directory_;
  const DevicePaths paths_ = pathsWith("sbin/nvm", "volatile/stateCache");
};

TEST_F(StoreLockTest, keepsASecondOneOffEitherStore) {
  std::filesystem::create_directory(directory_.path("other"));
  const StoreLock lock(paths_);

  for (const DevicePaths& shared :
       {paths_, pathsWith("sbin/nvm", "other/stateCache"), pathsWith("other/nvm", "volatile/stateCache")}) {
    EXPECT_THAT([&] { StoreLock second(shared); },
                ThrowsMessage<std::runtime_error>(HasSubstr("Another process uses the stores")));
  }
}

TEST_F(StoreLockTest, seesThroughOtherPathsToTheSameFolder) {
  std::filesystem::create_directory_symlink(directory_.path("sbin"), directory_.path("link"));
  const StoreLock lock(paths_);

  EXPECT_THROW(StoreLock second(pathsWith("link/nvm", "volatile/stateCache")), std::runtime_error);
}

TEST_F(StoreLockTest, allowsBothStoresInOneFolder) {
  EXPECT_NO_THROW(StoreLock lock(pathsWith("sbin/nvm", "sbin/stateCache")));
}

TEST_F(StoreLockTest, endsWithTheObject) {
  std::optional<StoreLock> lock(paths_);

  lock.reset();

  EXPECT_NO_THROW(StoreLock second(paths_));
}

TEST_F(StoreLockTest, isNotInheritedByAShell) {
  std::optional<StoreLock> lock(paths_);
  os::execute("sleep 60 >/dev/null 2>&1 & echo $! >" + directory_.path("pid"), 10'000);

  lock.reset();

  EXPECT_NO_THROW(StoreLock second(paths_));
  os::execute("kill $(cat " + directory_.path("pid") + ")", 10'000);
}

TEST_F(StoreLockTest, makesAndChangesNothing) {
  const auto before = std::filesystem::last_write_time(paths_.databaseFolder());

  const StoreLock lock(paths_);

  EXPECT_TRUE(std::filesystem::is_empty(paths_.databaseFolder()));
  EXPECT_TRUE(std::filesystem::is_empty(paths_.volatileStoreFolder()));
  EXPECT_EQ(std::filesystem::last_write_time(paths_.databaseFolder()), before);
}

TEST_F(StoreLockTest, needsItsFolders) {
  EXPECT_THAT([&] { StoreLock lock(pathsWith("sbin/nvm", "missing/stateCache")); },
              ThrowsMessage<std::runtime_error>(HasSubstr(directory_.path("missing"))));
}

}  // namespace
}  // namespace propertyservice
