#include <sstream>

#include <gmock/gmock.h>

#include "support/Device.h"

// The example as somebody else builds it: against the installed library, in a directory of his own.

namespace propertyservice::test {
namespace {

class Examples : public testing::Test {
 protected:
  Examples() {
    run({CMAKE_PROGRAM, "--install", BUILD_DIRECTORY, "--prefix", prefix_, "--component", "propclient"});
    device_.start();
  }

  const TemporaryDirectory directory_;
  const std::string prefix_ = directory_.path("installed");
  Device device_;
};

TEST_F(Examples, areBuiltWithCMakeAndRun) {
  const std::string build = directory_.path("build");
  run({CMAKE_PROGRAM, "-S", SOURCE_DIRECTORY "/examples", "-B", build, "-D", "CMAKE_PREFIX_PATH=" + prefix_,
       "-D", "CMAKE_CXX_COMPILER=" COMPILER});
  run({CMAKE_PROGRAM, "--build", build});

  EXPECT_EQ(run({build + "/volume"}), "was 5, set to 7: Ok\n");
}

TEST_F(Examples, areBuiltWithPkgConfigAndRun) {
  const std::string program = directory_.path("volume");
  run({"sh", "-c",
       "PKG_CONFIG_PATH=" + prefix_ +
           "/" LIBRARY_DIRECTORY "/pkgconfig && export PKG_CONFIG_PATH && " COMPILER
           " -std=c++20 -Wall -Wextra -Werror " SOURCE_DIRECTORY
           "/examples/volume.cpp $(pkg-config --cflags --libs propclient) -o " +
           program});

  EXPECT_EQ(run({program}), "was 5, set to 7: Ok\n");
}

TEST_F(Examples, sayThatThereIsNoBroker) {
  const std::string program = directory_.path("volume");
  run({"sh", "-c",
       COMPILER " -std=c++20 " SOURCE_DIRECTORY "/examples/volume.cpp $(PKG_CONFIG_PATH=" + prefix_ +
           "/" LIBRARY_DIRECTORY "/pkgconfig pkg-config --cflags --libs propclient) -o " + program});

  device_.broker().stop();

  EXPECT_EQ(run({"sh", "-c", program + " 2>&1; echo $?"}),
            "no connection to the broker at localhost:1883: Connection refused\n1\n");
}

/// The client that was written from the manual page of the protocol.
class PythonExample : public testing::Test {
 protected:
  PythonExample() { device_.start(); }

  /// Returns its output for one command, and how it ends.
  static std::string volume(const std::string& arguments) {
    return run({"sh", "-c", std::string(kProgram) + ' ' + arguments + " 2>&1; echo $?"});
  }

  static constexpr const char* kProgram = SOURCE_DIRECTORY "/examples/volume.py";

  const TemporaryDirectory directory_;
  Device device_;
};

TEST_F(PythonExample, readsWritesAndLists) {
  device_.set("State.Call", "idle");
  const std::pair<const char*, const char*> cases[] = {
      {"get Audio.Volume", "5\n0\n"},
      {"set Audio.Volume 7", "0\n"},
      {"get Audio.Volume", "7\n0\n"},
      {"set Audio.Volume 11", "ValueOutOfBounds\n1\n"},
      {"get Audio.Loudness", "no such property\n1\n"},
      {"get State.Call", "idle\n0\n"},
      {"list Audio.%", "Audio.Codec=opus\nAudio.Ringtone=bell\nAudio.Volume=7\n0\n"},
      {"list Video.%", "0\n"},
  };
  for (const auto& [arguments, said] : cases) {
    EXPECT_EQ(volume(arguments), said) << arguments;
  }

  device_.stop();
  EXPECT_EQ(volume("set Audio.Volume 3"), "the service is away; nothing was sent\n3\n");
  device_.start();
  EXPECT_EQ(volume("get Audio.Volume"), "7\n0\n");
}

TEST_F(PythonExample, doesNotTakeALateReplyForALaterOne) {
  const std::string program = directory_.write("late.py", R"(
import os, signal, subprocess, sys
from volume import Failure, Properties

daemon = int(sys.argv[1])
properties = Properties()
print(properties.get("Audio.Volume"))
for value in ("6", "7"):
    os.kill(daemon, signal.SIGSTOP)
    properties.timeout = 0.5
    try:
        properties.get("Audio.Volume")
    except Failure as failure:
        print(failure)
    subprocess.run(["mosquitto_pub", "-q", "2", "-t", "other/prop-service", "-m",
                    '{"method":"setV","param":"Audio.Volume","value":"%s"}' % value], check=True)
    os.kill(daemon, signal.SIGCONT)
    properties.timeout = 20
    print(properties.get("Audio.Volume"))
)");

  EXPECT_EQ(run({"env", "PYTHONDONTWRITEBYTECODE=1", "PYTHONPATH=" SOURCE_DIRECTORY "/examples",
                 "/usr/bin/python3", program, std::to_string(device_.daemon().pid())}),
            "5\nno answer; whether it was done, or will be, is unknown\n6\n"
            "no answer; whether it was done, or will be, is unknown\n7\n");
}

TEST_F(PythonExample, watchesAcrossRestarts) {
  Process watcher({kProgram, "watch", "Audio.Volume", "State.Call"}, directory_.path("output"));
  std::vector<std::string> expected;
  // Complaints about the broker and the daemon aside.
  const auto printed = [&] {
    std::vector<std::string> lines;
    std::istringstream output(watcher.output());
    for (std::string line; std::getline(output, line);) {
      if (line.starts_with("Audio.") || line.starts_with("State.")) {
        lines.push_back(line);
      }
    }
    return lines;
  };
  const auto prints = [&](const std::string& line) {
    expected.push_back(line);
    eventually([&] { return printed().size() >= expected.size(); });
    EXPECT_EQ(printed(), expected);
  };
  const auto changeWhileItIsAway = [&](const std::string& value) {
    run({"sqlite3", Device::kDatabase,
         "UPDATE settings SET value = " + value + " WHERE key = 'Audio.Volume'"});
    device_.start();
  };

  prints("Audio.Volume=5");
  prints("State.Call is not there");
  volume("set Audio.Volume 7");
  prints("Audio.Volume=7");
  volume("set State.Call idle");
  prints("State.Call=idle");
  run({"mosquitto_rr", "-t", "other/prop-service", "-e", "prop-service/other", "-m",
       R"({"method":"resetVal","param":"State.Call"})"});
  prints("State.Call is not there");

  device_.stop();
  changeWhileItIsAway("3");
  prints("Audio.Volume=3");
  device_.daemon().kill();
  changeWhileItIsAway("4");
  prints("Audio.Volume=4");
  device_.broker().restart();
  ASSERT_TRUE(eventually([] { return volume("set Audio.Volume 8") == "0\n"; }));
  prints("Audio.Volume=8");
}

}  // namespace
}  // namespace propertyservice::test
