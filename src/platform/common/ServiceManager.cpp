#include "common/ServiceManager.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/Descriptor.h"

namespace common {

namespace {

/// Takes a variable out of the environment.
std::string take(const char* name) {
  const char* const text =
      std::getenv(name);  // NOLINT(concurrency-mt-unsafe): before there is a second thread
  std::string value = text != nullptr ? text : "";
  unsetenv(name);  // NOLINT(concurrency-mt-unsafe)
  return value;
}

std::optional<long> toNumber(std::string_view text) {
  long number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

std::optional<ServiceManager::Clock::duration> takeWatchdog() {
  const std::string process = take("WATCHDOG_PID");
  const auto microseconds = toNumber(take("WATCHDOG_USEC"));
  if (!microseconds || *microseconds <= 0 || (!process.empty() && toNumber(process) != getpid())) {
    return std::nullopt;
  }
  return std::chrono::microseconds(*microseconds);
}

/// Never destroyed: a thread may outlive `main`.
ServiceManager* const kInstance = ServiceManager::fromEnvironment().release();

/// Before the next attempt.
constexpr std::chrono::milliseconds kAfterFullSocket{100};

}  // namespace

ServiceManager& ServiceManager::instance() {
  return *kInstance;
}

std::unique_ptr<ServiceManager> ServiceManager::fromEnvironment() {
  return std::make_unique<ServiceManager>(take("NOTIFY_SOCKET"), takeWatchdog());
}

ServiceManager::ServiceManager(std::string address, std::optional<Clock::duration> watchdog)
    : address_(std::move(address)), betweenSigns_(watchdog ? std::optional(*watchdog / 4) : std::nullopt) {}

void ServiceManager::ready() {
  send("READY=1");
}

void ServiceManager::stopping() {
  send("STOPPING=1");
}

void ServiceManager::setStatus(const std::string& status) {
  const std::lock_guard lock(mutex_);
  status_ = status;
  sendStatus();
}

void ServiceManager::setTrouble(const std::string& trouble) {
  const std::lock_guard lock(mutex_);
  trouble_ = trouble;
  sendStatus();
}

std::optional<ServiceManager::Clock::time_point> ServiceManager::alive(Clock::time_point now) {
  if (!betweenSigns_) {
    return std::nullopt;
  }
  if (now >= nextSign_ && send("WATCHDOG=1", MSG_DONTWAIT)) {
    nextSign_ = now + *betweenSigns_;
  }
  return std::max(nextSign_, now + kAfterFullSocket);
}

void ServiceManager::sendStatus() {
  std::string line = "STATUS=" + status_ + (status_.empty() || trouble_.empty() ? "" : "; ") + trouble_;
  // A second line would be a message of its own.
  std::replace_if(
      line.begin(), line.end(), [](char c) { return c == '\n' || c == '\0'; }, ' ');
  send(line);
}

bool ServiceManager::send(const std::string& message, int flags) const {
  sockaddr_un to{};
  to.sun_family = AF_UNIX;
  if (address_.empty() || address_.size() >= sizeof to.sun_path) {
    return false;
  }
  std::memcpy(to.sun_path, address_.data(), address_.size());
  if (to.sun_path[0] == '@') {
    to.sun_path[0] = '\0';
  }
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size());
  const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return sendto(socket.get(), message.data(), message.size(), flags | MSG_NOSIGNAL,
                reinterpret_cast<const sockaddr*>(&to), length) >= 0;
}

}  // namespace common
