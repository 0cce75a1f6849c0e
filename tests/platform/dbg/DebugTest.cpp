#include <array>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <regex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "dbg/Debug.h"
#include "support/LogCapture.h"

namespace dbg {
namespace {

using propertyservice::test::LogCapture;
using testing::EndsWith;
using testing::ExitedWithCode;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr SourceLocation kPlace{"core/Dispatcher.cpp", 42};

class DebugTest : public testing::Test {
 protected:
  /// The text of the one entry made for `text`.
  static std::string written(std::string_view text) {
    LogCapture capture;
    Debug("TAG").error(kPlace) << text;
    const std::string& line = capture.text();
    const std::string before = " TAG error core/Dispatcher:42 ";
    const std::size_t start = line.find(before);
    return start == std::string::npos ? "" : line.substr(start + before.size());
  }

  const Debug log_{"TAG"};
};

TEST_F(DebugTest, writesTimeTagLevelPlaceAndTextInOneLine) {
  LogCapture capture;

  log_.error(kPlace) << "text";

  EXPECT_THAT(capture.text(), MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
                                           "TAG error core/Dispatcher:42 text\n"));
}

TEST_F(DebugTest, stampsEntriesWithUniversalTime) {
  setenv("TZ", "XXX-5", 1);
  tzset();
  LogCapture capture;

  log_.error(kPlace) << "text";

  std::tm stamp{};
  ASSERT_NE(strptime(capture.text().c_str(), "%Y-%m-%dT%H:%M:%S", &stamp), nullptr);
  EXPECT_NEAR(static_cast<double>(timegm(&stamp)), static_cast<double>(std::time(nullptr)), 60);
}

TEST_F(DebugTest, namesTheFourLevels) {
  LogCapture capture;

  log_.error(kPlace) << "e";
  log_.warning(kPlace) << "w";
  log_.info(kPlace) << "i";
  log_.debug(kPlace) << "d";

  EXPECT_THAT(capture.linesWith(" TAG error core/Dispatcher:42 e"), SizeIs(1));
  EXPECT_THAT(capture.linesWith(" TAG warning core/Dispatcher:42 w"), SizeIs(1));
  EXPECT_THAT(capture.linesWith(" TAG info core/Dispatcher:42 i"), SizeIs(1));
  EXPECT_THAT(capture.linesWith(" TAG debug core/Dispatcher:42 d"), SizeIs(1));
}

TEST_F(DebugTest, recordsTheCallersPlace) {
  LogCapture capture;

  const int line = __LINE__ + 1;
  log_.error() << "text";

  EXPECT_THAT(capture.text(), EndsWith("DebugTest:" + std::to_string(line) + " text\n"));
}

TEST_F(DebugTest, joinsTextNumbersAndCallables) {
  LogCapture capture;

  log_.error(kPlace) << "a " << std::string("b ") << -5 << " " << 18'446'744'073'709'551'615U << " "
                     << [] { return "c"; };

  EXPECT_THAT(capture.text(), EndsWith(" a b -5 18446744073709551615 c\n"));
}

TEST_F(DebugTest, writesAnEmptyEntry) {
  EXPECT_EQ(written(""), "\n");
}

TEST_F(DebugTest, keepsAnEntryWithLineBreaksOneLine) {
  EXPECT_EQ(written("first\nsecond\r\nthird"), "first\\nsecond\\x0d\\nthird\n");
}

TEST_F(DebugTest, dropsOneLineBreakAtTheEnd) {
  EXPECT_EQ(written("text\n"), "text\n");
  EXPECT_EQ(written("text\n\n"), "text\\n\n");
}

TEST_F(DebugTest, writesEveryOtherControlCharacterAsAnEscape) {
  EXPECT_EQ(written(std::string_view("\0\x1b[31m\x1f\x7f\t", 9)), "\\x00\\x1b[31m\\x1f\\x7f\\x09\n");
}

TEST_F(DebugTest, leavesBackslashesAndBytesBeyondAsciiAlone) {
  EXPECT_EQ(written("a\\n \xc3\xa4 \xff %s {}"), "a\\n \xc3\xa4 \xff %s {}\n");
}

TEST_F(DebugTest, writesALongEntryWhole) {
  const std::string text(1'000'000, 'x');

  EXPECT_EQ(written(text), text + '\n');
}

TEST_F(DebugTest, startsWithAllLevelsButDebug) {
  EXPECT_EQ(DebugStreamBuf::mask(), 14U);
}

TEST_F(DebugTest, writesOnlyLevelsInTheMask) {
  for (const unsigned mask : {0U, 1U, 2U, 4U, 7U, 8U, 14U, 16U, 31U}) {
    LogCapture capture;
    DebugStreamBuf::setMask(mask);

    log_.error(kPlace) << "text";
    log_.warning(kPlace) << "text";
    log_.info(kPlace) << "text";
    log_.debug(kPlace) << "text";

    EXPECT_EQ(capture.linesWith(" error ").size(), (mask & 2) / 2);
    EXPECT_EQ(capture.linesWith(" warning ").size(), (mask & 4) / 4);
    EXPECT_EQ(capture.linesWith(" info ").size(), (mask & 8) / 8);
    EXPECT_EQ(capture.linesWith(" debug ").size(), (mask & 16) / 16);
  }
}

TEST_F(DebugTest, doesNotCallTheCallablesOfAMaskedEntry) {
  LogCapture capture;
  DebugStreamBuf::setMask(14);
  bool called = false;

  log_.debug(kPlace) << [&] {
    called = true;
    return "text";
  };

  EXPECT_FALSE(called);
  EXPECT_THAT(capture.text(), IsEmpty());
}

TEST_F(DebugTest, neverMixesTheEntriesOfSeveralThreads) {
  constexpr std::size_t kThreads = 8;
  constexpr std::size_t kEntries = 100;
  LogCapture capture;

  {
    std::vector<std::jthread> threads;
    for (std::size_t thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([this, thread] {
        const std::string text(2000, static_cast<char>('a' + thread));
        for (std::size_t i = 0; i < kEntries; ++i) {
          log_.error(kPlace) << text;
        }
      });
    }
  }

  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    const std::string text(2000, static_cast<char>('a' + thread));
    const std::vector<std::string> lines = capture.linesWith(" " + text);
    EXPECT_THAT(lines, SizeIs(kEntries));
    EXPECT_THAT(lines, testing::Each(EndsWith("error core/Dispatcher:42 " + text)));
  }
}

TEST_F(DebugTest, letsTheMaskChangeWhileOthersLog) {
  LogCapture capture;

  {
    std::jthread logging([this] {
      for (int i = 0; i < 100; ++i) {
        log_.error(kPlace) << "text";
      }
    });
    for (unsigned i = 0; i < 100; ++i) {
      DebugStreamBuf::setMask(i % 2 == 0 ? 2 : 0);
    }
  }

  EXPECT_THAT(capture.linesWith(""), testing::Each(EndsWith("error core/Dispatcher:42 text")));
}

/// Where the log goes is settled at the first entry, so these cases run in processes of their own.
class DebugOutputTest : public DebugTest {
 protected:
  DebugOutputTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  static void claimToBeTheJournal(ino_t inodeOffset = 0) {
    struct stat file {};
    fstat(STDERR_FILENO, &file);
    setenv("JOURNAL_STREAM",
           (std::to_string(file.st_dev) + ':' + std::to_string(file.st_ino + inodeOffset)).c_str(), 1);
  }
};

TEST_F(DebugOutputTest, putsThePriorityInPlaceOfTheTimeForTheJournal) {
  EXPECT_EXIT(
      {
        claimToBeTheJournal();
        DebugStreamBuf::setMask(31);
        log_.error(kPlace) << "e";
        log_.warning(kPlace) << "w";
        log_.info(kPlace) << "i";
        log_.debug(kPlace) << "d";
        std::exit(0);
      },
      ExitedWithCode(0),
      testing::Eq("<3>TAG error core/Dispatcher:42 e\n"
                  "<4>TAG warning core/Dispatcher:42 w\n"
                  "<6>TAG info core/Dispatcher:42 i\n"
                  "<7>TAG debug core/Dispatcher:42 d\n"));
}

TEST_F(DebugOutputTest, keepsTheTimeWhereStandardErrorIsNotTheJournal) {
  EXPECT_EXIT(
      {
        claimToBeTheJournal(1);
        log_.error(kPlace) << "text";
        std::exit(0);
      },
      ExitedWithCode(0), MatchesRegex("[0-9T:.-]+ TAG error core/Dispatcher:42 text\n"));
}

TEST_F(DebugOutputTest, losesNoEntryWhenTheProcessAborts) {
  EXPECT_DEATH(
      {
        log_.error(kPlace) << "last words";
        std::abort();
      },
      testing::HasSubstr(" last words\n"));
}

TEST_F(DebugOutputTest, survivesAClosedStandardError) {
  EXPECT_EXIT(
      {
        close(STDERR_FILENO);
        log_.error(kPlace) << "text";
        _exit(0);
      },
      ExitedWithCode(0), "");
}

TEST_F(DebugOutputTest, survivesAFullStandardErrorAndGoesOnAfterwards) {
  EXPECT_EXIT(
      {
        const int kept = dup(STDERR_FILENO);
        dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        log_.error(kPlace) << "lost";
        dup2(kept, STDERR_FILENO);
        log_.error(kPlace) << "kept";
        _exit(0);
      },
      ExitedWithCode(0), MatchesRegex("[^\n]* kept\n"));
}

}  // namespace
}  // namespace dbg
