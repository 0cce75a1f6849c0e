// Starts a service and prints how long it took to its first reply:
//
//     starttime NAME COMMAND...
//
// The request waits at the broker, in the session of the client NAME, before COMMAND is started; so nothing
// but the service itself decides when it is answered. The result is one JSON object: "first_reply_ms" (from
// before the fork), "connect_ms" (what connecting, subscribing and a round trip over the bus take a program
// that runs already), "cpu_ms" and "resident_kib" (of the service, after the reply). The service is ended
// with SIGTERM.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bus/Connection.h"

namespace propertyservice::bench {

namespace {

double millisecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

/// A child that does not outlive this process.
class Child {
 public:
  explicit Child(char* const* command) : pid_(fork()) {
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      execvp(command[0], command);
      _exit(127);
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    kill(pid_, SIGTERM);
    const Clock::time_point deadline = Clock::now() + kPatience;
    while (waitpid(pid_, nullptr, WNOHANG) == 0) {
      if (Clock::now() > deadline) {
        kill(pid_, SIGKILL);
      }
      usleep(1000);
    }
  }

  double cpuMilliseconds() const {
    double total = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid_) + "/task")) {
      double nanoseconds = 0;
      std::ifstream(task.path() / "schedstat") >> nanoseconds;
      total += nanoseconds / 1e6;
    }
    return total;
  }

  long residentKib() const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string word; status >> word;) {
      if (word == "VmRSS:") {
        long kib = 0;
        status >> kib;
        return kib;
      }
    }
    throw std::runtime_error("the service has ended");
  }

 private:
  const pid_t pid_;
};

double connectMilliseconds() {
  bool received = false;
  const Clock::time_point begin = Clock::now();
  Connection connection("starttime", {"starttime/echo"}, [&](const mosquitto_message&) { received = true; });
  connection.publish("starttime/echo", "?");
  if (!serve({&connection}, Clock::now() + kPatience, [&] { return received; })) {
    throw std::runtime_error("the broker does not answer");
  }
  return millisecondsSince(begin);
}

void run(const std::string& name, char* const* command) {
  const double connectMs = connectMilliseconds();
  {
    const Connection session(
        name, {"+/" + name}, [](const mosquitto_message&) {}, Connection::Session::stays);
  }

  bool answered = false;
  Connection client("panel", {name + "/panel"}, [&](const mosquitto_message&) { answered = true; });
  client.publish("panel/" + name, getRequest("Account.0001.Setting1"));
  serve({&client}, Clock::now() + std::chrono::milliseconds(50), [] { return false; });

  const Clock::time_point begin = Clock::now();
  const Child service(command);
  if (!serve({&client}, begin + kPatience, [&] { return answered; })) {
    throw std::runtime_error("the service does not answer");
  }
  const double firstReplyMs = millisecondsSince(begin);
  std::printf(R"({"first_reply_ms": %.3f, "connect_ms": %.3f, "cpu_ms": %.3f, "resident_kib": %ld})"
              "\n",
              firstReplyMs, connectMs, service.cpuMilliseconds(), service.residentKib());
}

}  // namespace

}  // namespace propertyservice::bench

int main(int argc, char* argv[]) {
  if (argc < 3) {
    std::cerr << "Usage: starttime NAME COMMAND...\n";
    return EXIT_FAILURE;
  }
  try {
    propertyservice::bench::run(argv[1], argv + 2);
  } catch (const std::exception& error) {
    std::cerr << "starttime: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
