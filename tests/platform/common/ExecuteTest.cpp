#include <array>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <thread>
#include <unistd.h>

#include "common/Descriptor.h"
#include "common/Execute.h"
#include "common/FileSystem.h"
#include "common/Signal.h"
#include "support/Eventually.h"
#include "support/TemporaryDirectory.h"

namespace os {
namespace {

using propertyservice::test::eventually;
using propertyservice::test::TemporaryDirectory;

constexpr unsigned kLongMs = 30'000;

/// A process that ended and that nobody has waited for yet has ended, too.
bool runs(pid_t pid) {
  try {
    const std::string stat = filesystem::read("/proc/" + std::to_string(pid) + "/stat");
    return stat.at(stat.rfind(')') + 2) != 'Z';
  } catch (const std::runtime_error&) {
    return false;
  }
}

/// The signals 1 to 31 of a set in /proc/PID/status; the C library keeps the next two for itself.
std::uint64_t ordinarySignals(const std::string& status, const std::string& set) {
  return std::stoull(status.substr(status.find(set + ":\t") + set.size() + 2), nullptr, 16) & 0x7fffffff;
}

TEST(Execute, returnsTheOutputOfACommandThatSucceeds) {
  const ExecuteResult result = execute("echo one; echo two", kLongMs);

  EXPECT_EQ(result.status, 0);
  EXPECT_FALSE(result.timedOut);
  EXPECT_EQ(result.output, "one\ntwo\n");
}

TEST(Execute, returnsTheExitStatus) {
  EXPECT_EQ(execute("exit 7", kLongMs).status, 7);
}

TEST(Execute, returnsStatus127ForACommandThatDoesNotExist) {
  EXPECT_EQ(execute("/no/such/command", kLongMs).status, 127);
}

TEST(Execute, returns128AndTheNumberOfTheSignalThatEndedTheShell) {
  EXPECT_EQ(execute("kill -TERM $$", kLongMs).status, 128 + SIGTERM);
}

TEST(Execute, collectsStandardErrorWithStandardOutputInOrder) {
  EXPECT_EQ(execute("echo one; echo two >&2; echo three", kLongMs).output, "one\ntwo\nthree\n");
}

TEST(Execute, givesTheCommandAnEmptyStandardInput) {
  EXPECT_EQ(execute("cat; echo end", kLongMs).output, "end\n");
}

TEST(Execute, handsTheCommandToTheShellByteForByte) {
  EXPECT_EQ(execute(R"(printf '%s' "a  b" '$x' \')", kLongMs).output, "a  b$x'");
}

TEST(Execute, runsTheCommandInAProcessGroupOfItsOwn) {
  const ExecuteResult result = execute("set -- $(cat /proc/$$/stat); echo $$ $5", kLongMs);

  const std::size_t blank = result.output.find(' ');
  EXPECT_EQ(result.output.substr(0, blank) + '\n', result.output.substr(blank + 1));
}

TEST(Execute, givesTheCommandTheDefaultSignalHandling) {
  common::signal::registerCustomHandler(SIGTERM,
                                        [](int) {});  // has signals blocked and ignored in this process
  ASSERT_NE(ordinarySignals(filesystem::read("/proc/self/status"), "SigBlk"), 0U);
  ASSERT_NE(ordinarySignals(filesystem::read("/proc/self/status"), "SigIgn"), 0U);

  const std::string status = execute("cat /proc/self/status", kLongMs).output;

  EXPECT_EQ(ordinarySignals(status, "SigBlk"), 0U);
  EXPECT_EQ(ordinarySignals(status, "SigIgn"), 0U);
}

TEST(Execute, handsNoOtherDescriptorToTheCommand) {
  const common::Descriptor kept(open("/dev/null", O_RDONLY));  // without close-on-exec

  const std::string open = execute("ls /proc/$$/fd", kLongMs).output;

  EXPECT_EQ(open, "0\n1\n2\n");
}

TEST(Execute, worksInAProcessWithoutStandardDescriptors) {
  EXPECT_EXIT(
      {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        const std::string output = execute("cat; echo one; echo two >&2", kLongMs).output;
        _exit(output == "one\ntwo\n" ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(Execute, leaksNoDescriptorOfItsOwn) {
  const auto openDescriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = openDescriptors();

  execute("true", kLongMs);
  execute("sleep 60", 300);

  EXPECT_EQ(openDescriptors(), before);
}

TEST(Execute, keepsTheFirstMebibyteOfTheOutput) {
  const ExecuteResult result = execute("printf start; head -c 3000000 /dev/zero; exit 3", kLongMs);

  EXPECT_EQ(result.output.size(), 1U << 20);
  EXPECT_EQ(result.output.substr(0, 5), "start");
  EXPECT_EQ(result.status, 3);
}

TEST(Execute, collectsTheWholeOutputOfManyQuickCommands) {
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(execute("head -c 50000 /dev/zero", kLongMs).output.size(), 50'000U);
  }
}

TEST(Execute, killsTheWholeGroupAtTheTimeOut) {
  const ExecuteResult result = execute("sleep 60 & echo $!; sleep 60", 300);

  EXPECT_TRUE(result.timedOut);
  EXPECT_EQ(result.status, 128 + SIGKILL);
  ASSERT_FALSE(result.output.empty());
  EXPECT_TRUE(eventually([child = std::stoi(result.output)] { return !runs(child); }));
}

TEST(Execute, killsACommandThatIgnoresTermination) {
  EXPECT_TRUE(execute("trap '' TERM INT HUP; sleep 60", 100).timedOut);
}

TEST(Execute, killsACommandThatWritesWithoutEnd) {
  EXPECT_TRUE(execute("yes", 100).timedOut);
}

TEST(Execute, killsACommandThatHasClosedItsOutput) {
  EXPECT_TRUE(execute("exec >&- 2>&-; sleep 60", 100).timedOut);
}

TEST(Execute, waitsForACommandThatHasClosedItsOutput) {
  EXPECT_EQ(execute("exec >&- 2>&-; sleep 0.1; exit 5", kLongMs).status, 5);
}

TEST(Execute, doesNotWaitForAProcessThatTheShellLeavesBehind) {
  const ExecuteResult result = execute("sleep 60 & echo $!", kLongMs);

  EXPECT_FALSE(result.timedOut);
  const pid_t leftBehind = std::stoi(result.output);
  EXPECT_TRUE(runs(leftBehind));
  kill(leftBehind, SIGKILL);
}

TEST(Execute, doesNotWaitForAProcessLeftBehindThatWritesWithoutEnd) {
  const ExecuteResult result = execute("yes & echo $! >&2", kLongMs);

  EXPECT_FALSE(result.timedOut);
}

TEST(Execute, runsCommandsOfSeveralThreadsAtOnce) {
  std::array<std::string, 8> outputs;
  {
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < outputs.size(); ++i) {
      threads.emplace_back(
          [i, &outputs] { outputs[i] = execute("echo " + std::to_string(i), kLongMs).output; });
    }
  }

  for (std::size_t i = 0; i < outputs.size(); ++i) {
    EXPECT_EQ(outputs[i], std::to_string(i) + '\n');
  }
}

/// Kills for good, so it belongs into a process of its own.
TEST(Execute, throwsOnceCommandsHaveBeenKilled) {
  EXPECT_EXIT(
      {
        int thrown = 0;
        const auto run = [&thrown] {
          try {
            execute("sleep 60", kLongMs);
          } catch (const std::system_error&) {
            ++thrown;
          }
        };
        std::thread killer([] {
          while (execute("pgrep -x sleep -P $(pgrep -P $PPID sh | head -1)", kLongMs).status != 0) {
          }
          killCommands();
        });

        run();
        run();

        killer.join();
        _exit(thrown == 2 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(Execute, throwsWhenTheShellCannotBeStarted) {
  const std::string tooLong(8'000'000, 'x');

  EXPECT_THROW(execute(tooLong, kLongMs), std::system_error);
}

}  // namespace
}  // namespace os
