#include <filesystem>

#include <gmock/gmock.h>

#include "client/propctl/Propctl.h"
#include "core/JsonText.h"
#include "support/Device.h"

namespace propertyservice::test {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

/// A broker with users, and the daemon as one of them.
class PropctlConnection : public ::testing::Test {
 protected:
  static std::string brokerConfiguration(const TemporaryDirectory& directory) {
    const std::string passwords = directory.path("passwords");
    run({"mosquitto_passwd", "-b", "-c", passwords, "prop-service", "p"});
    run({"mosquitto_passwd", "-b", passwords, "panel", "p"});
    run({"mosquitto_passwd", "-b", passwords, "field", "secret"});
    return "allow_anonymous false\npassword_file " + passwords +
           "\nacl_file " SOURCE_DIRECTORY "/device/mosquitto/propsrv.acl\n";
  }

  PropctlConnection() {
    device_.emplace(Device::defaultRows(), brokerConfiguration(directory_));
    Device::writeFile("/etc/ipc/prop-service.credentials", "prop-service\np\n");
    run({"chmod", "600", "/etc/ipc/prop-service.credentials"});
    device_->launch();
    write("credentials", "field\nsecret\n");
  }

  void write(const std::string& name, const std::string& content) {
    run({"chmod", "600", directory_.write(name, content)});
  }

  std::string file(const std::string& name) const { return directory_.path(name); }

  /// Returns what it prints once the daemon is there.
  Outcome askUntilAnswered(const std::string& arguments) {
    Outcome outcome{};
    eventually([&] { return (outcome = propctl("--timeout 1 " + arguments)).status != 3; });
    return outcome;
  }

  const TemporaryDirectory directory_;
  std::optional<Device> device_;
};

TEST_F(PropctlConnection, provesItselfWithAFileOfUserAndPassword) {
  EXPECT_EQ(askUntilAnswered("--password-file " + file("credentials") + " get Audio.Volume"), printed("5\n"));
}

TEST_F(PropctlConnection, findsItsPasswordInTheConfigurationOfTheSystem) {
  Device::writeFile("/etc/propctl.conf", "user = field\npassword-file = " + file("credentials") + '\n');
  askUntilAnswered("ping");

  EXPECT_EQ(propctl("get Audio.Volume"), printed("5\n"));
  EXPECT_EQ(shell("HOME=" + directory_.path() + " propctl get Audio.Volume"), printed("5\n"));
  std::filesystem::create_directory(file(".config"));
  write(".config/propctl.conf", "user = panel\npassword-file = ../panel\n");
  write("panel", "panel\nwrong\n");
  EXPECT_EQ(shell("HOME=" + directory_.path() + " propctl get Audio.Volume").status, 3);
  EXPECT_EQ(shell("HOME=" + directory_.path() + " PROPCTL_PASSWORD_FILE=" + file("credentials") +
                  " propctl get Audio.Volume"),
            printed("5\n"));

  Device::writeFile("/etc/propctl.conf", "port = 99999\n");
  const Outcome outcome = propctl("get Audio.Volume");
  std::filesystem::remove("/etc/propctl.conf");

  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.errors, StartsWith("propctl: /etc/propctl.conf:1: "));
}

TEST_F(PropctlConnection, takesAPasswordThatRootSharesWithAGroup) {
  run({"chmod", "640", file("credentials")});
  EXPECT_EQ(askUntilAnswered("--password-file " + file("credentials") + " get Audio.Volume"), printed("5\n"));

  run({"chmod", "660", file("credentials")});
  EXPECT_EQ(propctl("--password-file " + file("credentials") + " ping").status, 2);
}

TEST_F(PropctlConnection, provesItselfWithAUserAndAFileOfAPassword) {
  write("password", "secret");

  EXPECT_EQ(askUntilAnswered("--user field --password-file " + file("password") + " get Audio.Volume"),
            printed("5\n"));
}

TEST_F(PropctlConnection, takesUserAndFileFromTheEnvironment) {
  askUntilAnswered("--password-file " + file("credentials") + " ping");

  EXPECT_EQ(shell("PROPCTL_PASSWORD_FILE=" + file("credentials") + " propctl get Audio.Volume"),
            printed("5\n"));
}

TEST_F(PropctlConnection, saysWhetherAPasswordIsWrongOrMissing) {
  write("wrong", "field\nguessed\n");
  const std::string refused =
      "propctl: no connection to the broker at localhost:1883: Connection Refused: not authorised; ";

  EXPECT_EQ(propctl("--password-file " + file("wrong") + " get Audio.Volume"),
            failed(3, refused + "the password of \"field\" is wrong, or there is no such user\n"));
  EXPECT_EQ(propctl("--user field get Audio.Volume"),
            failed(3, refused + "\"field\" came without a password: --password-file names a file with it\n"));
  EXPECT_EQ(propctl("get Audio.Volume"),
            failed(3, refused + "no user was given: --user and --password-file say who asks\n"));
}

TEST_F(PropctlConnection, namesBothCausesWhenTheAccessListKeepsItFromAsking) {
  const Outcome outcome =
      propctl("--timeout 1 --password-file " + file("credentials") + " --name panel get Audio.Volume");

  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.errors, AllOf(HasSubstr("PropertyService is busy or hangs"), HasSubstr("access list"),
                                    HasSubstr("\"field\" ask as \"panel\"")));
}

TEST_F(PropctlConnection, saysThatNothingWasSentWhenTheDaemonIsAway) {
  askUntilAnswered("--password-file " + file("credentials") + " ping");
  device_->stop();

  EXPECT_EQ(propctl("--password-file " + file("credentials") + " get Audio.Volume"),
            failed(3, "propctl: localhost:1883: PropertyService is not running; nothing was sent\n"));
}

TEST_F(PropctlConnection, namesTheCausesWhenTheDaemonDoesNotAnswer) {
  askUntilAnswered("--password-file " + file("credentials") + " ping");
  device_->daemon().signal(SIGSTOP);

  const Outcome outcome = propctl("--timeout 1 --password-file " + file("credentials") + " get Audio.Volume");

  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.errors, StartsWith("propctl: no answer from localhost:1883 within 1 s: "
                                         "PropertyService is busy or hangs, or"));
  EXPECT_THAT(
      propctl("--timeout 0.2 --password-file " + file("credentials") + " reset Audio.Volume").errors,
      StartsWith(
          "propctl: no answer from localhost:1883 within 0.2 s: PropertyService is busy or hangs, or"));
}

/// A daemon that answers a few requests and is gone.
class PropctlCutOff : public ::testing::Test {
 protected:
  static constexpr char kRequests[] = "field/prop-service";

  void answer(const std::string& payload) {
    Json::Value request;
    ASSERT_TRUE(json::parse(payload, request));
    Json::Value reply;
    if (request["method"] != "resetVal") {
      reply["param"] = request["param"];
    }
    reply["status"] = request["method"] == "getColsL" ? Json::Value() : Json::Value("Ok");
    daemon_.publish("prop-service/field", json::write(reply));
  }

  const TemporaryDirectory directory_;
  Broker broker_;
  BusClient daemon_{"prop-service", {"+/prop-service"}};
};

TEST_F(PropctlCutOff, tellsWhichWritesWereNotAnswered) {
  Process propctl({PROPCTL, "--name", "field", "--timeout", "2", "set", "A.First=1", "A.Second=2"},
                  directory_.path("output"));
  ASSERT_TRUE(daemon_.waitForMessages(kRequests, 3));
  const std::vector<std::string> requests = daemon_.received(kRequests);

  answer(requests[0]);
  answer(requests[1]);

  EXPECT_EQ(propctl.wait(), 3);
  EXPECT_THAT(propctl.output(),
              StartsWith("propctl: A.Second: NoAnswer: no answer; the write may still be carried out\n"
                         "propctl: no answer from localhost:1883 within 2 s; "
                         "the write may still be carried out: PropertyService is away, or"));
}

TEST_F(PropctlCutOff, tellsWhichWritesWereNotSent) {
  std::vector<std::string> command = {PROPCTL, "--name", "field", "set"};
  for (int i = 10; i < 35; ++i) {
    command.push_back("A.Key" + std::to_string(i) + "=1");
  }
  Process propctl(command, directory_.path("output"));
  ASSERT_TRUE(daemon_.waitForMessages(kRequests, 21));

  daemon_.publish("services/prop-service/online", "0");
  for (const std::string& request : daemon_.received(kRequests)) {
    answer(request);
  }

  EXPECT_EQ(propctl.wait(), 3);
  EXPECT_THAT(propctl.output(),
              AllOf(StartsWith("propctl: A.Key30: Away: PropertyService is not running; this was not sent\n"),
                    EndsWith("propctl: localhost:1883: PropertyService is not running; "
                             "5 of 25 were not sent\n")));
}

TEST_F(PropctlCutOff, tellsThatAResetWasAnsweredThoughTheNewValueIsUnknown) {
  Process propctl({PROPCTL, "--name", "field", "reset", "A.Key"}, directory_.path("output"));
  ASSERT_TRUE(daemon_.waitForMessages(kRequests, 2));
  for (const std::string& request : daemon_.received(kRequests)) {
    answer(request);
  }
  ASSERT_TRUE(daemon_.waitForMessages(kRequests, 3));

  daemon_.publish("services/prop-service/online", "0");
  answer(daemon_.received(kRequests).back());

  EXPECT_EQ(propctl.wait(), 3);
  EXPECT_EQ(propctl.output(),
            "propctl: A.Key: the reset was answered, but the new values are unknown: "
            "localhost:1883: PropertyService is not running; nothing was sent\n");
}

TEST_F(PropctlConnection, refusesAPasswordFileThatOthersMayRead) {
  run({"chmod", "644", file("credentials")});

  EXPECT_EQ(propctl("--password-file " + file("credentials") + " ping"),
            failed(2, "propctl: " + file("credentials") +
                          ": must be a file that only its owner may read: chmod 600\n"));
}

TEST_F(PropctlConnection, refusesAPasswordFileThatIsNotThere) {
  EXPECT_EQ(propctl("--password-file /nowhere ping"),
            failed(2, "propctl: /nowhere: No such file or directory\n"));
}

TEST_F(PropctlConnection, refusesAPasswordWithoutAUser) {
  write("password", "secret");

  EXPECT_EQ(propctl("--password-file " + file("password") + " ping"),
            failed(2, "propctl: " + file("password") + ": holds a password alone; give --user as well\n"));
}

TEST_F(PropctlConnection, refusesTheFileOfAnotherUser) {
  EXPECT_EQ(propctl("--user panel --password-file " + file("credentials") + " ping"),
            failed(2, "propctl: " + file("credentials") + ": belongs to the user field, not to panel\n"));
}

TEST_F(PropctlConnection, saysThatThereIsNoBroker) {
  EXPECT_EQ(propctl("--port 1 ping"), failed(3,
                                             "propctl: no connection to the broker at localhost:1: "
                                             "Connection refused; --host and --port say where it is\n"));
}

TEST_F(PropctlConnection, saysThatAnAuthoritysFileIsMissing) {
  const Outcome outcome = propctl("--cafile /nowhere ping");

  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.errors, StartsWith("propctl: no connection to the broker at localhost:8883: "));
}

}  // namespace
}  // namespace propertyservice::test
