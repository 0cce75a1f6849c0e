#include <algorithm>
#include <csignal>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

#include <gmock/gmock.h>

#include "client/propctl/Propctl.h"
#include "support/Device.h"
#include "support/Eventually.h"
#include "support/TcpProxy.h"

namespace propertyservice::test {
namespace {

using ::testing::ContainsRegex;
using ::testing::MatchesRegex;

constexpr char kTime[] = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";

class PropctlWatch : public ::testing::Test {
 protected:
  PropctlWatch() { device_.start(); }

  /// Returns once it knows the present values: it then tells the old one of what changes.
  void watch(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {PROPCTL, "watch"});
    watcher_.emplace(arguments, directory_.path("output"));
    int turn = 0;
    ASSERT_TRUE(eventually([&] {
      device_.set("Audio.Ringtone", std::to_string(++turn));
      const std::string output = watcher_->output();
      return output.find("(was ") != std::string::npos || output.find("\"old\":\"") != std::string::npos;
    }));
  }

  bool printsAtLast(const std::string& text) {
    return eventually([&] { return watcher_->output().find(text) != std::string::npos; });
  }

  const TemporaryDirectory directory_;
  Device device_;
  std::optional<Process> watcher_;
};

TEST_F(PropctlWatch, printsAChangeWithTimeAndOldValue) {
  watch({});

  device_.set("Audio.Volume", "7");

  ASSERT_TRUE(printsAtLast("Audio.Volume=7 (was 5)\n"));
  EXPECT_THAT(watcher_->output(), ContainsRegex(std::string(kTime) + "Audio\\.Volume=7 \\(was 5\\)\n"));
}

TEST_F(PropctlWatch, leavesOutOldValues) {
  Process watcher({PROPCTL, "watch", "--no-old"}, directory_.path("output"));

  int volume = 0;
  EXPECT_TRUE(eventually([&] {
    device_.set("Audio.Volume", std::to_string(++volume % 10));
    return std::ranges::count(watcher.output(), '\n') >= 3;
  }));

  EXPECT_THAT(watcher.output(), MatchesRegex("(" + std::string(kTime) + "Audio\\.Volume=[0-9]\n)+"));
}

TEST_F(PropctlWatch, printsWhatItsNamesStandFor) {
  device_.set("State.Call", "idle");
  struct Watcher {
    std::vector<std::string> names;
    std::set<std::string> keys;
    std::unique_ptr<Process> process = nullptr;

    std::set<std::string> printed() const {
      std::set<std::string> printed;
      std::istringstream lines(process->output());
      for (std::string time, change; lines >> time && std::getline(lines, change);) {
        printed.insert(change.substr(1, change.find('=') - 1));
      }
      return printed;
    }
  };
  const std::set<std::string> all = {"Audio.Ringtone", "Audio.Volume", "Pointless", "State.Call",
                                     "State.New"};
  Watcher watchers[] = {
      {{}, all},
      {{"%"}, all},
      {{"Audio.Volume"}, {"Audio.Volume"}},
      {{"AUDIO", "state"}, {"Audio.Ringtone", "Audio.Volume", "State.Call", "State.New"}},
      {{"Audio.[A-R]%"}, {"Audio.Ringtone"}},
      {{"%Volume", "State.Call"}, {"Audio.Volume", "State.Call"}},
      {{"State.C%"}, {"State.Call"}},
      {{"Pointless"}, {"Pointless"}},
      {{"--allow-unknown", "State.New", "Audio.Nothing"}, {"State.New"}},
  };
  for (Watcher& watcher : watchers) {
    std::vector<std::string> command = {PROPCTL, "watch", "--no-old"};
    command.insert(command.end(), watcher.names.begin(), watcher.names.end());
    watcher.process =
        std::make_unique<Process>(command, directory_.path(std::to_string(&watcher - watchers)));
  }

  int turn = 0;
  EXPECT_TRUE(eventually([&] {
    ++turn;
    for (const std::string& key : all) {
      device_.set(key, std::to_string(turn % 10));
    }
    return std::ranges::all_of(watchers,
                               [](const Watcher& watcher) { return watcher.printed() == watcher.keys; });
  }));

  for (const Watcher& watcher : watchers) {
    EXPECT_EQ(watcher.printed(), watcher.keys) << ::testing::PrintToString(watcher.names);
  }
}

TEST_F(PropctlWatch, refusesANameThatStandsForNothing) {
  for (const char* name : {"Audio.Loudness", "Loudness", "Video.%", "'[%'", "State.Call", "audio/any"}) {
    const Outcome outcome = propctl(std::string("watch Audio.Volume ") + name);

    EXPECT_EQ(outcome.status, 1) << name;
    EXPECT_THAT(outcome.errors, ContainsRegex(": no such key or group, and nothing matches; ")) << name;
  }
}

TEST_F(PropctlWatch, printsThatAKeyWasRemoved) {
  watch({});
  device_.set("State.Call", "idle");

  propctl("reset State.Call");

  EXPECT_TRUE(printsAtLast("State.Call removed (was idle)\n"));
}

TEST_F(PropctlWatch, printsJson) {
  watch({"--json"});

  device_.set("Audio.Volume", "7");

  ASSERT_TRUE(printsAtLast("\"Audio.Volume\""));
  EXPECT_THAT(
      watcher_->output(),
      ContainsRegex("\\{\"key\":\"Audio\\.Volume\",\"old\":\"5\",\"time\":\"[-0-9]+T[:.0-9]+[-+][0-9]{4}\","
                    "\"value\":\"7\"\\}\n"));
}

TEST_F(PropctlWatch, endsOnCtrlC) {
  watch({});

  watcher_->signal(SIGINT);

  EXPECT_EQ(watcher_->wait(), 0);
}

TEST_F(PropctlWatch, endsAfterSoManyChanges) {
  Process watcher({PROPCTL, "watch", "--count", "2", "audio"}, directory_.path("output"));

  int volume = 0;
  EXPECT_TRUE(eventually([&] {
    device_.set("Audio.Volume", std::to_string(++volume % 10));
    return !watcher.running();
  }));

  EXPECT_EQ(watcher.wait(), 0);
  EXPECT_EQ(std::ranges::count(watcher.output(), '\n'), 2);
}

TEST_F(PropctlWatch, endsWhenTheReaderHasGone) {
  const Outcome outcome = shell(
      "{ propctl watch; echo $? >&2; } | head -n 1 >/dev/null & reader=$!\n"
      "turn=0; while kill -0 $reader 2>/dev/null; do propctl set State.Turn=$((turn += 1)); done\n"
      "propctl set State.Turn=last; wait");

  EXPECT_EQ(outcome.errors, "141\n");
}

TEST_F(PropctlWatch, doesNotTakeTheConnectionForAClosedOutput) {
  const Outcome outcome = shell(
      "propctl watch >&- & watcher=$!\n"
      "turn=0; while kill -0 $watcher 2>/dev/null; do propctl set State.Turn=$((turn += 1)); done\n"
      "wait $watcher");

  EXPECT_EQ(outcome, failed(1, "propctl: cannot write the output: Bad file descriptor\n"));
}

TEST_F(PropctlWatch, saysThatTheDaemonIsAway) {
  device_.stop();

  EXPECT_EQ(propctl("watch"),
            failed(3, "propctl: localhost:1883: PropertyService is not running; nothing was sent\n"));
}

TEST_F(PropctlWatch, tellsThatDaemonAndBrokerGoAndComeBackAndReadsAgain) {
  watch({});
  auto rows = Device::defaultRows();
  rows.front().value = "8";
  device_.writeScript(rows);

  device_.stop();
  ASSERT_TRUE(printsAtLast(" localhost:1883: PropertyService is not running\n"));
  device_.start({"--force-db-init"});
  EXPECT_TRUE(printsAtLast(" localhost:1883: PropertyService is running again\n"));
  EXPECT_TRUE(printsAtLast("Audio.Volume=8 (was 5)\n"));

  device_.broker().stop();
  ASSERT_TRUE(printsAtLast(" localhost:1883: the connection to the broker is lost\n"));
  device_.broker().start();
  EXPECT_TRUE(printsAtLast(" localhost:1883: connected to the broker again"));
}

TEST_F(PropctlWatch, goesOnAfterTheBrokerHasBeenRestarted) {
  watch({});

  device_.broker().restart();

  int volume = 0;
  EXPECT_TRUE(eventually([&] {
    propctl("set --timeout 1 Audio.Volume=" + std::to_string(++volume % 10));
    return watcher_->output().find("Audio.Volume=") != std::string::npos;
  }));
}

TEST_F(PropctlWatch, printsWhatChangedAfterARestartOfTheBrokerThatItMissed) {
  watch({});
  watcher_->signal(SIGSTOP);
  device_.broker().restart();
  ASSERT_TRUE(eventually([] { return propctl("set --timeout 1 Audio.Volume=7").status == 0; }));

  watcher_->signal(SIGCONT);

  EXPECT_TRUE(printsAtLast("Audio.Volume=7 (was 5)\n"));
}

TEST_F(PropctlWatch, printsWhatChangedWhileItWasCutOff) {
  std::optional<TcpProxy> relay(std::in_place, std::uint16_t{1884}, std::uint16_t{1883});
  watch({"--port", "1884"});
  relay.reset();

  device_.set("Audio.Volume", "7");
  relay.emplace(std::uint16_t{1884}, std::uint16_t{1883});

  EXPECT_TRUE(printsAtLast("Audio.Volume=7 (was 5)\n"));
}

}  // namespace
}  // namespace propertyservice::test
