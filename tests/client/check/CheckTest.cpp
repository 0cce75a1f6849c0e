#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>
#include <sys/stat.h>

#include "client/check/CheckFixture.h"
#include "dbg/Debug.h"
#include "support/LogCapture.h"

namespace check::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr Severity kError = Severity::error;

std::string deviceFile(const std::string& path) {
  std::ifstream file(DEVICE_DIRECTORY "/etc/" + path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(CheckTest, findsNothingInTheSampleDevice) {
  const Report report = check({DEVICE_DIRECTORY "/etc"});

  EXPECT_THAT(report.findings, IsEmpty());
  EXPECT_EQ(report.files, 5U);
  EXPECT_FALSE(report.unreadable);
}

TEST_F(CheckTest, findsNothingInTheSampleDevicesScriptByItself) {
  EXPECT_THAT(check({DEVICE_DIRECTORY "/etc/propsrv.d/nvminit.sql"}).findings, IsEmpty());
}

TEST_F(CheckTest, tellsInTheOrderOfTheFilesThenOfTheLines) {
  add("migration_5.json", "{\"rename\":[\n\"A\",\n\"B\"]}");
  add("Update.Common.json", "x\n[]\n");

  EXPECT_THAT(findings(),
              ElementsAre(AllOf(Field(&Finding::file, paths_[0].string()), Field(&Finding::line, 2)),
                          AllOf(Field(&Finding::file, paths_[0].string()), Field(&Finding::line, 3)),
                          AllOf(Field(&Finding::file, paths_[1].string()), Field(&Finding::line, 1)),
                          AllOf(Field(&Finding::file, paths_[1].string()), Field(&Finding::line, 2))));
}

TEST_F(CheckTest, looksIntoDirectoriesForTheFilesItKnows) {
  std::filesystem::create_directories(directory_.path("etc/propsrv.d"));
  directory_.write("etc/propsrv.d/migration_5.json", "");
  directory_.write("etc/model", "Halcyon 5 ADV\n");
  directory_.write("etc/other.json", "{");

  const Report report = check({directory_.path("etc")});

  EXPECT_EQ(report.files, 1U);
  EXPECT_THAT(report.findings,
              ElementsAre(Field(&Finding::file, directory_.path("etc/propsrv.d/migration_5.json"))));
}

TEST_F(CheckTest, recognisesAScriptOfAnotherName) {
  add("settings.txt", kTable);

  EXPECT_THAT(findings(), ElementsAre(IsFinding(0U, kError, "puts no property into the table")));
}

TEST_F(CheckTest, comparesNothingWithTwoScripts) {
  add("a.sql", scriptWith(""));
  add("b.sql", scriptWith(""));
  add("Update.Common.json", R"({"key":"No.Such","value":"x"})");

  EXPECT_THAT(findings(), ElementsAre(IsFinding(0U, Severity::warning, "is the second database script")));
}

class RefusalTest : public CheckTest {
 protected:
  void expectRefusal(const std::string& path, const std::string& reason) {
    const Report report = check({path});

    EXPECT_TRUE(report.unreadable);
    EXPECT_EQ(report.files, 0U);
    EXPECT_THAT(report.findings,
                ElementsAre(AllOf(Field(&Finding::file, path), IsFinding(0U, kError, reason))));
  }
};

TEST_F(RefusalTest, isForAMissingFile) {
  expectRefusal(directory_.path("nvminit.sql"), "cannot be read: No such file or directory");
}

TEST_F(RefusalTest, isForAnEmptyName) {
  expectRefusal("", "cannot be read: No such file or directory");
}

TEST_F(RefusalTest, isForAFileOfAnotherKind) {
  expectRefusal(directory_.write("readme.txt", "Hello\n"), "is neither a database script");
}

TEST_F(RefusalTest, isForADirectoryWithoutFiles) {
  expectRefusal(directory_.path(), "holds no database script");
}

TEST_F(RefusalTest, isForAPipe) {
  ASSERT_EQ(mkfifo(directory_.path("nvminit.sql").c_str(), 0600), 0);

  expectRefusal(directory_.path("nvminit.sql"), "is neither a file nor a directory");
}

TEST_F(RefusalTest, isForAHugeFile) {
  std::ofstream(directory_.path("nvminit.sql"));
  std::filesystem::resize_file(directory_.path("nvminit.sql"), (16U << 20U) + 1);

  expectRefusal(directory_.path("nvminit.sql"), "is larger than 16 MiB");
}

TEST_F(RefusalTest, isForAHugeJsonFile) {
  std::ofstream(directory_.path("Update.Common.json"));
  std::filesystem::resize_file(directory_.path("Update.Common.json"), (1U << 20U) + 1);

  expectRefusal(directory_.path("Update.Common.json"), "is larger than 1 MiB");
}

TEST_F(RefusalTest, isForAFileThatCannotBeRead) {
  std::filesystem::create_symlink("/proc/self/mem", directory_.path("nvminit.sql"));

  expectRefusal(directory_.path("nvminit.sql"), "cannot be read: Input/output error");
}

TEST_F(CheckTest, keepsTheLogSilentAndLeavesItAsItWas) {
  add("nvminit.sql", scriptWith("INSERT INTO settings (key, enum, regexp) VALUES ('A.B', 'x', '(');"));
  propertyservice::test::LogCapture log;
  dbg::DebugStreamBuf::setMask(30);

  findings();

  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(dbg::DebugStreamBuf::mask(), 30U);
}

TEST_F(CheckTest, keepsAFindingOnOnePrintableLine) {
  add("Update.Common.json", "{\"key\":\"A\\n\\u001b[2J\xff\",\"valeu\":\"x\"}\n");

  const std::vector<Finding> found = findings();

  ASSERT_THAT(found, SizeIs(1));
  EXPECT_TRUE(std::all_of(found[0].text.begin(), found[0].text.end(), [](char character) {
    return character >= ' ' && character <= '~';
  })) << found[0].text;
}

TEST_F(CheckTest, stopsTellingOfAFileAfterAThousandFindings) {
  std::string text;
  for (int line = 0; line < 5000; ++line) {
    text += "x\n";
  }
  add("Update.Common.json", text);

  EXPECT_THAT(findings(),
              AllOf(SizeIs(1001), Contains(IsFinding(0U, kError, "further findings are left out"))));
}

TEST_F(CheckTest, writesNothing) {
  const std::string target = directory_.path("written");
  add("nvminit.sql", scriptWith("ATTACH '" + target + "' AS a; VACUUM INTO '" + target + "';\n.output " +
                                target + "\nSELECT writefile('" + target + "', 'x');"));

  EXPECT_THAT(findings(), Not(IsEmpty()));
  EXPECT_FALSE(std::filesystem::exists(target));
}

/// A file of the sample device, damaged.
class DamageTest : public CheckTest, public testing::WithParamInterface<const char*> {};

TEST_P(DamageTest, atEveryByteEndsInAFindingOrNone) {
  const std::string whole = deviceFile(GetParam());
  const std::string name = std::filesystem::path(GetParam()).filename().string();
  ASSERT_FALSE(whole.empty());
  const std::size_t step = whole.size() > 4096 ? 211 : 1;

  for (std::size_t size = 0; size < whole.size(); size += step) {
    const Report report = check({directory_.write(name, whole.substr(0, size))});

    EXPECT_THAT(report.findings, Each(Field(&Finding::text, Not(IsEmpty())))) << size;
  }
}

TEST_P(DamageTest, ofAnyByteEndsInAFindingOrNone) {
  const std::string whole = deviceFile(GetParam());
  const std::string name = std::filesystem::path(GetParam()).filename().string();
  std::mt19937 random(1);

  for (int round = 0; round < 100; ++round) {
    std::string damaged = whole;
    for (int i = 0; i < 3; ++i) {
      damaged[random() % damaged.size()] = static_cast<char>(random());
    }
    const Report report = check({directory_.write(name, damaged)});

    EXPECT_THAT(report.findings, Each(Field(&Finding::text, Not(IsEmpty())))) << round;
  }
}

INSTANTIATE_TEST_SUITE_P(SampleDevice, DamageTest,
                         testing::Values("propsrv.d/nvminit.sql", "propsrv.d/migration_5.json",
                                         "nvm.conf.d/Update.Common.json"));

TEST_F(CheckTest, tellsOfEveryPlaceAtWhichAScriptIsCutOff) {
  const std::string whole =
      "BEGIN;\n" + scriptWithRows("('A.B', 'x', 8, NULL, NULL, 'x', NULL, NULL)") + "COMMIT";

  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_THAT(check({directory_.write("nvminit.sql", whole.substr(0, size))}).findings, Not(IsEmpty()))
        << size;
  }
}

}  // namespace
}  // namespace check::test
