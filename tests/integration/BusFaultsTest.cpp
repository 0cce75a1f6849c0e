#include <arpa/inet.h>
#include <fstream>
#include <memory>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

#include "support/Device.h"
#include "support/TcpProxy.h"

// The daemon and a bus that breaks, floods, and does not listen.

namespace propertyservice::test {
namespace {

constexpr auto kBackWithin = std::chrono::seconds(5);

/// Resident memory of the daemon in KiB.
long residentKiB(Device& device) {
  std::ifstream status("/proc/" + std::to_string(device.daemon().pid()) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) {
      return std::stol(line.substr(6));
    }
  }
  throw std::runtime_error("no resident memory is known");
}

bool answersWithin(std::chrono::milliseconds patience) {
  BusClient client("observer");
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (std::chrono::steady_clock::now() < deadline) {
    if (client.serviceIsAlive(std::chrono::milliseconds(100))) {
      return true;
    }
  }
  return false;
}

TEST(BusFaults, aBrokerKilledInABurstIsFoundAgainWithinFiveSeconds) {
  Device device;
  device.start();
  {
    BusClient client("burst");
    for (int i = 0; i < 2000; ++i) {
      client.sendRequest(makeRequest("setV", "Audio.Ringtone", std::to_string(i)));
    }
    ASSERT_TRUE(client.waitForMessages(client.replyTopic(), 50));
    device.broker().kill();
  }

  device.broker().start();

  EXPECT_TRUE(answersWithin(kBackWithin));
  EXPECT_TRUE(device.daemon().running());
  EXPECT_FALSE(device.logLines("Connection lost due to: ").empty());
}

TEST(BusFaults, aBrokerAwayForLongIsFoundAgainWithinFiveSeconds) {
  Device device;
  device.start();
  device.broker().kill();
  ASSERT_TRUE(device.waitForLog("Connection lost due to: "));
  std::this_thread::sleep_for(
      std::chrono::seconds(6));  // what is tested: the pauses between tries stay short

  device.broker().start();

  EXPECT_TRUE(answersWithin(kBackWithin));
}

TEST(BusFaults, aConnectionCutInMidMessageComesBackAndLosesNoRequest) {
  Device device;
  // The daemon reaches the broker through the relay, the client directly.
  device.broker().stop();
  Broker broker("allow_anonymous true\n", 1884);
  TcpProxy proxy(1883, 1884);
  device.launch();
  ASSERT_TRUE(device.waitForLog("Customization files not found"));
  BusClient client("cut", {}, 1884);
  ASSERT_TRUE(eventually([&] { return client.serviceIsAlive(std::chrono::milliseconds(200)); }));

  client.forget();
  proxy.cutAfter(1000);
  for (int i = 0; i < 200; ++i) {
    client.sendRequest(makeRequest("setV", "Audio.Ringtone", std::to_string(i)));
  }

  ASSERT_TRUE(client.waitForMessages(client.replyTopic(), 200));
  EXPECT_FALSE(device.logLines("Connection lost due to: ").empty());
  EXPECT_TRUE(Device::waitForValueInFile("Audio.Ringtone", "199"));
}

TEST(BusFaults, aBrokerThatFallsSilentIsLeftForOneThatAnswers) {
  Device device;
  device.broker().stop();
  Broker broker("allow_anonymous true\n", 1884);
  TcpProxy proxy(1883, 1884);
  device.launch();
  BusClient client("silence", {}, 1884);
  ASSERT_TRUE(eventually([&] { return client.serviceIsAlive(std::chrono::milliseconds(200)); }));

  proxy.silence(true);
  proxy.cutAfter(0);
  ASSERT_TRUE(device.waitForLog("Connection lost due to: "));
  const int accepted = proxy.accepted();
  ASSERT_TRUE(eventually(
      [&] { return proxy.accepted() > accepted + 1; }));  // it gave a silent one up, and tried again
  proxy.silence(false);

  EXPECT_TRUE(eventually([&] { return client.serviceIsAlive(std::chrono::milliseconds(200)); }));
}

TEST(BusFaults, aListenerThatNeverReadsCostsNobodyAnything) {
  Device device;
  device.start();
  // CONNECT as "deaf" and SUBSCRIBE to "#", byte by byte; then silence.
  const std::string greeting(
      "\x10\x10\x00\x04MQTT\x04\x02\x00\x00\x00\x04"
      "deaf\x82\x06\x00\x01\x00\x01#\x00",
      26);
  const int deaf = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int small = 4096;
  setsockopt(deaf, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(1883);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(deaf, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(send(deaf, greeting.data(), greeting.size(), 0), static_cast<ssize_t>(greeting.size()));
  const long before = residentKiB(device);

  constexpr std::size_t kChanges = 5000;
  const std::string filling(200, 'x');
  for (std::size_t i = 0; i < kChanges; ++i) {
    device.panel().sendRequest(makeRequest("setV", "Audio.Ringtone", filling + std::to_string(i)));
  }

  EXPECT_TRUE(device.panel().waitForMessages(device.panel().replyTopic(), kChanges));
  EXPECT_LT(residentKiB(device) - before, 32 * 1024);
  close(deaf);
}

TEST(BusFaults, fiftyClientsAtOnceEachGetTheirOwnReplies) {
  constexpr int kClients = 50;
  constexpr std::size_t kRequests = 40;
  Device device;
  device.start();
  std::vector<std::unique_ptr<BusClient>> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<BusClient>("client" + std::to_string(i)));
  }

  for (std::size_t request = 0; request < kRequests; ++request) {
    for (int i = 0; i < kClients; ++i) {
      const std::string key = "State.Client" + std::to_string(i) + "." + std::to_string(request);
      clients[static_cast<std::size_t>(i)]->sendRequest(makeRequest("setV", key, "x"));
    }
  }

  for (int i = 0; i < kClients; ++i) {
    BusClient& client = *clients[static_cast<std::size_t>(i)];
    ASSERT_TRUE(client.waitForMessages(client.replyTopic(), kRequests));
    std::vector<std::string> expected;
    for (std::size_t request = 0; request < kRequests; ++request) {
      expected.push_back("{\"param\":\"State.Client" + std::to_string(i) + "." + std::to_string(request) +
                         "\",\"status\":\"Ok\"}\n");
    }
    EXPECT_EQ(client.received(client.replyTopic()), expected);
  }
}

TEST(BusFaults, aFloodOfUnconfirmedRequestsIsServedInOrderWithBoundedMemory) {
  constexpr int kRequests = 100'000;
  Device device;
  device.start();
  const long before = residentKiB(device);
  BusClient flood("flood");

  for (int i = 0; i < kRequests; ++i) {
    flood.send(R"({"method":"getV","param":"Flood.)" + std::to_string(i) + "\"}", 0);
  }
  flood.send(R"({"param":"Are you alive?"})");

  // The broker may drop unconfirmed requests; those that arrive are answered in order.
  const std::string end = "{\"param\":\"Ok\"}\n";
  // To look at all replies takes them from the client's thread, so it is done seldom.
  ASSERT_TRUE(eventually(
      [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const auto replies = flood.received(flood.replyTopic());
        return !replies.empty() && replies.back() == end;
      },
      std::chrono::seconds(100)));
  int last = -1;
  for (const std::string& reply : flood.received(flood.replyTopic())) {
    if (reply != end) {
      const int number = std::stoi(reply.substr(reply.find("Flood.") + 6));
      EXPECT_GT(number, last);
      last = number;
    }
  }
  EXPECT_GE(last, 0);
  EXPECT_LT(residentKiB(device) - before, 96 * 1024);
}

}  // namespace
}  // namespace propertyservice::test
