#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <thread>

#include "support/Device.h"

// The daemon killed while its database is being made.

namespace propertyservice::test {
namespace {

constexpr const char* kMark = "/usr/sbin/nvm.unfinished";
constexpr int kRows = 2000;
constexpr int kKills = 12;

std::vector<Row> manyRows() {
  std::vector<Row> rows = Device::defaultRows();
  for (int i = 0; i < kRows; ++i) {
    rows.push_back({.key = "Boot.Key" + std::to_string(i), .value = "x", .defaultValue = "x"});
  }
  return rows;
}

std::vector<pid_t> childrenOf(pid_t process) {
  const std::string id = std::to_string(process);
  std::ifstream list("/proc/" + id + "/task/" + id + "/children");
  return {std::istream_iterator<pid_t>(list), {}};
}

/// Sends a signal to the daemon and to the shell that it has started, at one moment.
void signalWithShell(Process& daemon, int number) {
  daemon.signal(SIGSTOP);
  for (const pid_t shell : childrenOf(daemon.pid())) {
    kill(-shell, number);
  }
  daemon.signal(number);
  daemon.signal(SIGCONT);
}

struct Interruption {
  const char* name;
  int signal;
  std::vector<std::string> options;
  bool inOneTransaction;
};

class FirstBoot : public testing::TestWithParam<Interruption> {};

TEST_P(FirstBoot, servesEveryRowAfterItWasInterruptedAtAnyMoment) {
  const std::vector<Row> rows = manyRows();
  Device device(rows);
  if (!GetParam().inOneTransaction) {
    std::string script = Device::readFile(Device::kScript);
    script.erase(0, script.find('\n') + 1);
    Device::writeFile(Device::kScript, script.substr(0, script.rfind("COMMIT")));
  }
  const auto isMarked = [] { return Device::exists(kMark); };
  const auto seed = std::random_device()();
  std::cout << "seed " << seed << '\n';
  std::mt19937 random(seed);

  device.launch();
  ASSERT_TRUE(eventually(isMarked));
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_TRUE(eventually([&] { return !isMarked(); }));
  const auto duration = std::chrono::steady_clock::now() - begin;
  device.daemon().kill();

  int unfinished = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    SCOPED_TRACE(kill);
    if (GetParam().options.empty()) {
      std::filesystem::remove(Device::kDatabase);
    }
    device.launch(GetParam().options);
    ASSERT_TRUE(eventually(isMarked));
    std::this_thread::sleep_for(duration * std::uniform_real_distribution(0.0, 1.1)(random));
    signalWithShell(device.daemon(), GetParam().signal);
    ASSERT_TRUE(device.daemon().wait());
    unfinished += isMarked() ? 1 : 0;

    device.start();

    ASSERT_EQ(device.getValue("Boot.Key" + std::to_string(kRows - 1)), "x");
    ASSERT_EQ(device.getValue("Audio.Volume"), "5");
    ASSERT_EQ(Device::valuesInFile().size(), rows.size());
    ASSERT_FALSE(isMarked());
    device.set("Audio.Volume", "9");
    device.daemon().kill();
  }
  EXPECT_GT(unfinished, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Interruptions, FirstBoot,
    testing::Values(Interruption{"killed", SIGKILL, {}, true},
                    Interruption{"killedInASlowScript", SIGKILL, {}, false},
                    Interruption{"killedWhenForced", SIGKILL, {"--force-db-init"}, false},
                    Interruption{"terminated", SIGTERM, {}, true},
                    Interruption{"terminatedInASlowScript", SIGTERM, {}, false},
                    Interruption{"terminatedWhenForced", SIGTERM, {"--force-db-init"}, false}),
    [](const auto& interruption) { return interruption.param.name; });

}  // namespace
}  // namespace propertyservice::test
