#include <filesystem>
#include <stdexcept>

#include "common/FileSystem.h"
#include "support/TemporaryDirectory.h"

namespace filesystem {
namespace {

using propertyservice::test::TemporaryDirectory;
using testing::AllOf;
using testing::HasSubstr;
using testing::ThrowsMessage;

class FileSystemTest : public testing::Test {
 protected:
  const TemporaryDirectory directory_;
};

TEST_F(FileSystemTest, readsEveryByteOfAFile) {
  const std::string content("first\nsecond\0\xff\r\n\n", 17);
  const std::string path = directory_.write("file", content);

  EXPECT_EQ(read(path), content);
}

TEST_F(FileSystemTest, readsAnEmptyFile) {
  EXPECT_EQ(read(directory_.write("file", "")), "");
}

TEST_F(FileSystemTest, readsALargeFile) {
  const std::string content(1'000'000, 'x');
  const std::string path = directory_.write("file", content);

  EXPECT_EQ(read(path), content);
}

TEST_F(FileSystemTest, readsAFileOfTheKernelThatHasNoSize) {
  ASSERT_EQ(std::filesystem::file_size("/proc/self/status"), 0U);

  EXPECT_THAT(read("/proc/self/status"), HasSubstr("\nPid:"));
}

TEST_F(FileSystemTest, throwsForAMissingFileWithItsPathAndTheReason) {
  const std::string path = directory_.path("missing");

  EXPECT_THAT([&] { read(path); }, ThrowsMessage<std::runtime_error>(
                                       AllOf(HasSubstr(path), HasSubstr("No such file or directory"))));
}

TEST_F(FileSystemTest, throwsForADirectoryWithItsPathAndTheReason) {
  const std::string path = directory_.path();

  EXPECT_THAT([&] { read(path); },
              ThrowsMessage<std::runtime_error>(AllOf(HasSubstr(path), HasSubstr("Is a directory"))));
}

TEST_F(FileSystemTest, removesAFile) {
  const std::string path = directory_.write("file", "text");

  EXPECT_TRUE(remove(path));
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(FileSystemTest, doesNotRemoveAMissingFile) {
  EXPECT_FALSE(remove(directory_.path("missing")));
}

TEST_F(FileSystemTest, doesNotRemoveADirectory) {
  const std::string path = directory_.path("directory");
  std::filesystem::create_directory(path);

  EXPECT_FALSE(remove(path));
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(FileSystemTest, makesAnEmptyFileForItsOwnerAlone) {
  const std::string path = directory_.path("file");

  create(path);

  EXPECT_EQ(read(path), "");
  EXPECT_EQ(std::filesystem::status(path).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(FileSystemTest, leavesAFileThatIsThereAsItIs) {
  const std::string path = directory_.write("file", "text");

  create(path);

  EXPECT_EQ(read(path), "text");
}

TEST_F(FileSystemTest, throwsForAFileThatCannotBeMade) {
  EXPECT_THAT([&] { create(directory_.path("missing/file")); },
              ThrowsMessage<std::runtime_error>(HasSubstr(directory_.path("missing/file"))));
}

TEST_F(FileSystemTest, synchronizesFilesAndFolders) {
  EXPECT_NO_THROW(synchronize(directory_.write("file", "text")));
  EXPECT_NO_THROW(synchronize(directory_.path()));
  EXPECT_THAT([&] { synchronize(directory_.path("missing")); },
              ThrowsMessage<std::runtime_error>(HasSubstr(directory_.path("missing"))));
}

TEST_F(FileSystemTest, findsAFileThatExists) {
  EXPECT_TRUE(checkFileExists(directory_.write("file", "")));
}

TEST_F(FileSystemTest, findsNoMissingFile) {
  EXPECT_FALSE(checkFileExists(directory_.path("missing")));
  EXPECT_FALSE(checkFileExists(directory_.path("missing/file")));
}

}  // namespace
}  // namespace filesystem
