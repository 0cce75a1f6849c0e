#include <future>
#include <sys/stat.h>

#include "platform/mqtt/ScriptedBroker.h"
#include "propclient/Client.h"
#include "support/Device.h"
#include "support/TcpProxy.h"

// Brokers that accept and refuse, as the client meets them.

namespace propclient {
namespace {

using namespace std::chrono_literals;
using propertyservice::test::Broker;
using propertyservice::test::Device;
using propertyservice::test::eventually;
using propertyservice::test::run;
using propertyservice::test::TcpProxy;
using propertyservice::test::TemporaryDirectory;
using testing::HasSubstr;
using testing::StartsWith;

constexpr auto kPatience = 20s;
constexpr auto kShortly = 300ms;

/// Returns the text that `connect` throws; empty where it does not.
std::string failureOf(const Options& options) {
  try {
    Client(options).connect();
    return "";
  } catch (const ConnectionError& error) {
    return error.what();
  }
}

TEST(Connection, namesTheBrokerThatRefusesIt) {
  EXPECT_EQ(failureOf({.host = "127.0.0.1", .port = 1999}),
            "no connection to the broker at 127.0.0.1:1999: Connection refused");
}

TEST(Connection, triesEachAddressOfTheHost) {
  Device::writeFile("/etc/hosts", "::1 twofold\n127.0.0.1 twofold\n");
  const Broker broker;

  EXPECT_EQ(failureOf({.host = "twofold", .timeout = kPatience}), "");
}

TEST(Connection, namesAHostThatIsUnknown) {
  Device::writeFile("/etc/hosts", "127.0.0.1 localhost\n");
  Device::writeFile("/etc/nsswitch.conf", "hosts: files\n");

  EXPECT_THAT(failureOf({.host = "nowhere"}), StartsWith("no connection to the broker at nowhere:1883: "));
}

TEST(Connection, givesUpABrokerThatDoesNotAnswerInTime) {
  Broker broker;
  broker.pause();
  const auto before = std::chrono::steady_clock::now();

  EXPECT_EQ(failureOf({.host = "127.0.0.1", .timeout = kShortly}),
            "no connection to the broker at 127.0.0.1:1883: the broker does not answer");

  EXPECT_LT(std::chrono::steady_clock::now() - before, kPatience);
}

TEST(Connection, canBeAskedForAgainAfterAFailure) {
  Client client({.host = "127.0.0.1", .timeout = kPatience});
  EXPECT_THROW(client.connect(), ConnectionError);
  const Broker broker;

  client.connect();
}

TEST(Connection, triesAgainUntilTheBrokerIsBack) {
  Broker broker;
  TcpProxy proxy(1884, 1883);
  Client client({.host = "127.0.0.1", .port = 1884, .timeout = kShortly});
  client.connect();
  broker.stop();
  ASSERT_TRUE(eventually([&] { return proxy.accepted() > 3; }));

  broker.start();

  EXPECT_TRUE(eventually([&] {
    try {
      client.connect();
      return true;
    } catch (const ConnectionError&) {
      return false;
    }
  }));
}

/// A broker that does what the test tells it to.
class Scripted : public testing::Test {
 protected:
  using Broker = mqtt::test::ScriptedBroker;
  using Packet = mqtt::test::Packet;

  Options options(std::chrono::milliseconds timeout = kPatience) {
    return {.host = "127.0.0.1", .port = broker_.port(), .name = "panel", .timeout = timeout};
  }

  /// Connects a client; the broker says `beforeReplies` after it has answered the first subscription.
  void connect(Client& client, const std::string& beforeReplies = "", bool grantsPresence = true) {
    auto connecting = std::async(std::launch::async, [&] { client.connect(); });
    broker_.open();
    presence_ = broker_.expect(Packet::subscribe);
    replies_ = broker_.expect(Packet::subscribe);
    broker_.send((grantsPresence ? Broker::granted(presence_.id()) : Broker::denied(presence_.id())) +
                 beforeReplies + Broker::granted(replies_.id()));
    connecting.get();
  }

  static std::string presence(const std::string& value) {
    return Broker::message("services/prop-service/online", value, 1, 1, true);
  }

  Broker broker_;
  Packet presence_;
  Packet replies_;
};

TEST_F(Scripted, subscribesToThePresenceFirstAndToItsReplies) {
  Client client(options());

  connect(client);

  EXPECT_EQ(presence_.topicFilter(), "services/prop-service/online");
  EXPECT_EQ(replies_.topicFilter(), "prop-service/panel");
  EXPECT_EQ(replies_.body.back(), 1);
  EXPECT_EQ(client.present(), std::nullopt);
}

TEST_F(Scripted, asksOnceEvenIfTheNetworkRepeats) {
  Client client(options());
  connect(client);

  client.ping([](const auto&) {});

  EXPECT_EQ(broker_.expect(Packet::publish).qos(), 2);
}

TEST_F(Scripted, sendsNothingToAServiceThatIsAwayWhenItConnects) {
  Client client(options());
  connect(client, presence("0"));

  EXPECT_EQ(client.present(), false);
  EXPECT_EQ(client.get("A").status, Status::away);

  while (const auto packet = broker_.receive(100ms)) {
    EXPECT_NE(packet->type(), Packet::publish);
  }
}

TEST_F(Scripted, knowsAServiceThatIsThere) {
  Client client(options());

  connect(client, presence("1"));

  EXPECT_EQ(client.present(), true);
}

TEST_F(Scripted, worksWhereItMayNotReadThePresence) {
  Client client(options());

  connect(client, "", false);
  client.ping([](const auto&) {});

  EXPECT_EQ(client.present(), std::nullopt);
  broker_.expect(Packet::publish);
}

TEST_F(Scripted, unsubscribesFromAWatchThatDoesNotBegin) {
  Client client(options(200ms));
  connect(client);

  EXPECT_THROW(client.watch({}, [](const Change&) {}), ConnectionError);

  broker_.expect(Packet::subscribe);
  EXPECT_EQ(broker_.expect(Packet::unsubscribe).topicFilter(), "+/any");
}

TEST_F(Scripted, saysWhenAWatchDoesNotBeginBecauseTheServiceIsAway) {
  Client client(options(200ms));
  connect(client, presence("0"));

  try {
    client.watch({}, [](const Change&) {});
    FAIL();
  } catch (const ConnectionError& error) {
    EXPECT_THAT(error.what(), HasSubstr("the daemon is away"));
  }
}

TEST_F(Scripted, disconnectsWhenItEnds) {
  {
    Client client(options());
    connect(client);
  }

  broker_.expect(Packet::kDisconnect);
}

/// The broker as the device has it: names are proved by passwords, and the access list holds.
class Access : public testing::Test {
 protected:
  static constexpr const char* kCredentials = "/etc/ipc/prop-service.credentials";

  Access() : device_(Device::defaultRows(), brokerConfiguration()) {
    Device::writeFile(kCredentials, "prop-service\nsecret of prop-service\n");
    chmod(kCredentials, 0600);
    device_.launch();
  }

  static std::string brokerConfiguration() {
    Device::writeFile("/etc/mosquitto/propsrv.passwd", "");
    for (const std::string user : {"prop-service", "panel"}) {
      run({"mosquitto_passwd", "-b", "/etc/mosquitto/propsrv.passwd", user, "secret of " + user});
    }
    Device::writeFile("/etc/mosquitto/propsrv.acl",
                      Device::readFile(SOURCE_DIRECTORY "/device/mosquitto/propsrv.acl"));
    return "allow_anonymous false\n"
           "password_file /etc/mosquitto/propsrv.passwd\n"
           "acl_file /etc/mosquitto/propsrv.acl\n";
  }

  static Options panel(std::chrono::milliseconds timeout) {
    return {.host = "127.0.0.1", .user = "panel", .password = "secret of panel", .timeout = timeout};
  }

  Device device_;
};

TEST_F(Access, asksUnderTheUsersName) {
  Client client(panel(1s));
  client.connect();

  EXPECT_TRUE(eventually([&] { return client.get("Audio.Volume").value == "5"; }));  // once the daemon is up
}

TEST_F(Access, hasNoAnswerWhereTheAccessListForbidsTheName) {
  Client allowed(panel(1s));
  allowed.connect();
  ASSERT_TRUE(eventually([&] { return allowed.ping().ok(); }));
  Options options = panel(kShortly);
  options.name = "web";
  Client client(options);
  client.connect();

  EXPECT_EQ(client.set("Audio.Volume", "7").status, Status::noAnswer);

  EXPECT_EQ(allowed.get("Audio.Volume").value, "5");
}

TEST_F(Access, namesAPasswordThatIsWrong) {
  Options options = panel(kPatience);
  options.password = "guessed";

  EXPECT_THAT(failureOf(options),
              AllOf(StartsWith("no connection to the broker at 127.0.0.1:1883: "), HasSubstr("authori")));
}

TEST_F(Access, namesThatAPasswordIsMissing) {
  EXPECT_THAT(failureOf({.host = "127.0.0.1", .timeout = kPatience}), HasSubstr("authori"));
}

/// A broker with a certificate for 127.0.0.1, made in the test.
class Encrypted : public testing::Test {
 protected:
  static constexpr std::uint16_t kPort = 8883;

  Encrypted() {
    makeAuthority("authority");
    makeAuthority("stranger");
    files_.write("extensions", "subjectAltName=IP:127.0.0.1,DNS:localhost\n");
    makeCertificate("broker", "-extfile " + files_.path("extensions"));
    makeCertificate("panel", "");
  }

  void makeAuthority(const std::string& name) const {
    shell("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=" + name +
          " -keyout " + files_.path(name + ".key") + " -out " + files_.path(name + ".crt"));
  }

  void makeCertificate(const std::string& name, const std::string& extensions) const {
    shell("openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=" + name + " -keyout " +
          files_.path(name + ".key") + " -out " + files_.path(name + ".csr"));
    shell("openssl x509 -req -days 2 -in " + files_.path(name + ".csr") + " -CA " +
          files_.path("authority.crt") + " -CAkey " + files_.path("authority.key") + " -CAcreateserial " +
          extensions + " -out " + files_.path(name + ".crt"));
  }

  static void shell(const std::string& command) { run({"sh", "-c", command + " 2>&1"}); }

  std::string brokerConfiguration() const {
    return "allow_anonymous true\nlistener " + std::to_string(kPort) + " 127.0.0.1\ncafile " +
           files_.path("authority.crt") + "\ncertfile " + files_.path("broker.crt") + "\nkeyfile " +
           files_.path("broker.key") + "\nrequire_certificate true\n";
  }

  Options options(const std::string& authority) const {
    return {.host = "127.0.0.1",
            .port = kPort,
            .tls = Tls{.caFile = files_.path(authority + ".crt"),
                       .certificateFile = files_.path("panel.crt"),
                       .keyFile = files_.path("panel.key")},
            .timeout = kPatience};
  }

  const TemporaryDirectory files_;
};

TEST_F(Encrypted, reachesTheDaemon) {
  Device device(Device::defaultRows(), brokerConfiguration());
  device.launch();
  Options patient = options("authority");
  patient.timeout = 6s;
  Client client(patient);

  client.connect();

  ASSERT_TRUE(eventually([&] { return client.ping().ok(); }));  // once the daemon is up
  EXPECT_EQ(client.get("Audio.Volume").value, "5");
  EXPECT_EQ(client.list("%").value.size(), Device::defaultRows().size());
}

TEST_F(Encrypted, refusesABrokerThatAStrangerVouchesFor) {
  const Broker broker(brokerConfiguration());

  EXPECT_THAT(failureOf(options("stranger")), StartsWith("no connection to the broker at 127.0.0.1:8883: "));
}

TEST_F(Encrypted, namesFilesThatCannotBeRead) {
  Options unreadable = options("authority");
  unreadable.tls->caFile = files_.path("nothing.crt");

  EXPECT_THAT(failureOf(unreadable), HasSubstr("certificate files: "));
}

}  // namespace
}  // namespace propclient
