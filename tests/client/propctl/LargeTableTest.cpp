#include <algorithm>

#include <gmock/gmock.h>

#include "client/propctl/Propctl.h"
#include "core/JsonText.h"
#include "support/Device.h"
#include "support/Eventually.h"

// As many properties as a device can have, each as long as it can be, on a broker with the limits of the
// device's.

namespace propertyservice::test {
namespace {

constexpr int kProperties = 4096;
const int kLong = kProperties - static_cast<int>(Device::defaultRows().size());
constexpr char kBroker[] =
    "allow_anonymous true\nmessage_size_limit 1048576\n"
    "max_inflight_messages 100\nmax_queued_messages 10000\nmax_queued_bytes 8388608\n";

/// 256 characters, every second time such that take six bytes each in a reply.
std::string value(int number, const char* end) {
  std::string text = std::to_string(number) + end;
  for (int length = static_cast<int>(text.size()); length < 256; ++length) {
    text += number % 2 == 0 ? "x" : "\u4e2d";
  }
  return text;
}

std::vector<Row> largeTable() {
  std::vector<Row> rows = Device::defaultRows();
  for (int i = 0; i < kLong; ++i) {
    const std::string number = std::to_string(10000 + i);
    // One group has more than a reply can take, and a key may look like a pattern.
    const std::string key = (i % 8 == 0 ? "Net.[a-z]*," : "Audio.Extension") + number;
    rows.push_back({.key = key,
                    .value = value(i, " now "),
                    .defaultValue = value(i, " default "),
                    .flags = 2,
                    .webui = "W" + number,
                    .provisioning = "P," + number});
  }
  return rows;
}

int count(const std::string& part, const std::string& text) {
  int count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) {
    ++count;
  }
  return count;
}

int countLongOnesWith(char digit) {
  int found = 0;
  for (int i = 0; i < kLong; ++i) {
    found += std::to_string(10000 + i).find(digit) != std::string::npos ? 1 : 0;
  }
  return found;
}

TEST(PropctlOnALargeTable, readsWatchesAndResetsEverything) {
  Device device(largeTable(), kBroker);
  device.start();
  const struct {
    const char* arguments;
    int lines;
  } readings[] = {
      {"list", kProperties},
      {"list --changed Net.%", (kLong + 7) / 8},
      {"list --columns tr069,webui,key,regexp Audio.E%", kLong - (kLong + 7) / 8},
      {"get %", kProperties},
      {"get --by web W%", kLong},
      {"get 'Net.\\[a-z\\]\\*,%'", (kLong + 7) / 8},
      {"get %7", countLongOnesWith('7')},
      {"dump", kLong + 2},
  };
  for (const auto& [arguments, lines] : readings) {
    const Outcome outcome = propctl(arguments);

    EXPECT_EQ(outcome.status, 0) << arguments;
    EXPECT_EQ(outcome.errors, "") << arguments;
    EXPECT_EQ(count("\n", outcome.output), lines) << arguments;
  }

  BusClient observer("observer", {"lister/prop-service"});
  EXPECT_EQ(count("\n", propctl("--name lister list --columns key").output), kProperties);
  observer.settle();
  EXPECT_THAT(observer.received("lister/prop-service"),
              ::testing::ElementsAre(::testing::HasSubstr("\"?"),  // the marker of a new connection
                                     R"({"fields":"key","method":"getColsL","param":"%"})"));

  EXPECT_THAT(shell("script --quiet --return --command '" PROPCTL " get % >/dev/null' /dev/null").output,
              ::testing::HasSubstr("4096 of 4096 properties"));

  const TemporaryDirectory directory;
  Process watcher({PROPCTL, "watch", "--no-old"}, directory.path("watched"));
  int turn = 0;
  ASSERT_TRUE(eventually([&] {
    device.set("Audio.Extension10001", "turn " + std::to_string(++turn));
    return watcher.output().find("Audio.Extension10001=turn") != std::string::npos;
  }));
  const Outcome reset = propctl("reset %");
  EXPECT_EQ(reset.status, 0) << reset.errors;
  EXPECT_EQ(count(" default", reset.output), kLong);
  EXPECT_TRUE(eventually([&] { return count(" default", watcher.output()) == kLong; }))
      << count(" default", watcher.output());
}

}  // namespace
}  // namespace propertyservice::test
