#pragma once

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "support/TemporaryDirectory.h"

namespace propertyservice::test {

/// A Mosquitto broker of the test's own on loopback port 1883, for tests that have a network of their own. It
/// serves clients when a start has returned and goes with this object, and with the test program.
class Broker {
 public:
  /// Starts it. `configuration` has further lines of its configuration file.
  explicit Broker(const std::string& configuration = "allow_anonymous true\n", std::uint16_t port = 1883)
      : port_(port),
        file_(directory_.write("mosquitto.conf", "listener " + std::to_string(port) +
                                                     " 127.0.0.1\n"
                                                     "user root\n"
                                                     "set_tcp_nodelay true\n"
                                                     "persistence_location " +
                                                     directory_.path() + "\n" + configuration)),
        log_(directory_.path("log")) {
    start();
  }
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;
  ~Broker() { kill(); }

  void start() {
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const int log = open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      dup2(log, STDOUT_FILENO);
      dup2(log, STDERR_FILENO);
      close_range(STDERR_FILENO + 1, ~0U, 0);
      execl("/usr/sbin/mosquitto", "mosquitto", "-c", file_.c_str(), nullptr);
      _exit(127);
    }
    if (pid_ < 0) {
      throw std::runtime_error("cannot start a broker");
    }
    waitForPort();
  }

  /// Ends it as the system does: it takes leave of nobody, but keeps its sessions where `persistence` is on.
  void stop() { end(SIGTERM); }

  /// Ends it as a power cut does.
  void kill() { end(SIGKILL); }

  void restart() {
    stop();
    start();
  }

  /// From now on it does nothing, though the system takes what is sent to it.
  void pause() {
    ::kill(pid_, SIGSTOP);
    waitpid(pid_, nullptr, WUNTRACED);
  }

  void resume() { ::kill(pid_, SIGCONT); }

 private:
  void end(int signal) {
    if (pid_ > 0) {
      ::kill(pid_, signal);
      ::kill(pid_, SIGCONT);
      waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
  }

  void waitForPort() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!answers()) {
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        throw std::runtime_error("the broker ended: " + log());
      }
      if (std::chrono::steady_clock::now() > deadline) {
        throw std::runtime_error("the broker does not listen: " + log());
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }

  /// Whether the broker answers a client. The system takes connections for it earlier; a SIGTERM that comes
  /// before it serves them is lost.
  bool answers() const {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    constexpr char kConnect[] = "\x10\x0C\x00\x04MQTT\x04\x02\x00\x3C\x00";
    char answer = 0;
    const bool answered = connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                          send(socket, kConnect, sizeof kConnect, MSG_NOSIGNAL) == sizeof kConnect &&
                          recv(socket, &answer, 1, 0) == 1;
    close(socket);
    return answered;
  }

  std::string log() const {
    std::ostringstream text;
    text << std::ifstream(log_).rdbuf();
    return text.str();
  }

  const TemporaryDirectory directory_;
  const std::uint16_t port_;
  const std::string file_;
  const std::string log_;
  pid_t pid_ = -1;
};

}  // namespace propertyservice::test
