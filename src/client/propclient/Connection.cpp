#include "propclient/Connection.h"

#include <algorithm>
#include <cerrno>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

#include <mosquitto.h>

namespace propclient {

namespace {

using namespace std::chrono_literals;

constexpr int kQosOfRequests = 2;
constexpr int kQosOfSubscriptions = 1;

// A connection that is silent for so long is probed with a ping, and given up when that stays unanswered for
// as long again. libmosquitto keeps that time only while it is called, so an idle loop wakes up for it.
constexpr int kKeepAliveSeconds = 30;
constexpr auto kIdleTurn = 10s;

constexpr auto kShortestPause = 100ms;
constexpr auto kLongestPause = 5s;
constexpr auto kSteadyAfter = 5s;

// An argument that libmosquitto checks and does not use.
constexpr int kPackets = 1;

/// What an error code of libmosquitto means. Uses errno: call it first.
std::string describe(int error) {
  return error == MOSQ_ERR_ERRNO ? std::generic_category().message(errno) : mosquitto_strerror(error);
}

void initialiseLibrary() {
  static const int once = mosquitto_lib_init();
  if (once != MOSQ_ERR_SUCCESS) {
    throw ConnectionError(std::string("libmosquitto: ") + mosquitto_strerror(once));
  }
}

/// The numeric addresses of `host`. libmosquitto would only try the first one of a name that has several, and
/// "localhost" often has one for IPv6 where no broker listens. Throws `ConnectionError`.
std::vector<std::string> resolve(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* first = nullptr;
  if (const int error = getaddrinfo(host.c_str(), nullptr, &hints, &first); error != 0) {
    throw ConnectionError(gai_strerror(error));
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(first, &freeaddrinfo);

  std::vector<std::string> addresses;
  for (const addrinfo* entry = first; entry != nullptr; entry = entry->ai_next) {
    char text[INET6_ADDRSTRLEN + 16];
    if (getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0 &&
        std::find(addresses.begin(), addresses.end(), text) == addresses.end()) {
      addresses.emplace_back(text);
    }
  }
  if (addresses.empty()) {
    throw ConnectionError("the host has no address");
  }
  return addresses;
}

/// Has the kernel acknowledge at once what was received. It falls back to delayed acknowledgement by itself,
/// and then a broker that has Nagle's algorithm on waits 40 ms for each.
void acknowledgeAtOnce(int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

/// Why the system could not connect; empty where it could. libmosquitto only tells that it is so.
std::string socketError(int socket) {
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size);
  return error == 0 ? std::string() : std::generic_category().message(error);
}

const char* orNull(const std::string& text) {
  return text.empty() ? nullptr : text.c_str();
}

void setTls(mosquitto* library, const Tls& tls) {
  constexpr const char* kSystemsAuthorities = "/etc/ssl/certs";
  const int error =
      mosquitto_tls_set(library, orNull(tls.caFile), tls.caFile.empty() ? kSystemsAuthorities : nullptr,
                        orNull(tls.certificateFile), orNull(tls.keyFile), nullptr);
  if (error != MOSQ_ERR_SUCCESS) {
    throw ConnectionError("certificate files: " + describe(error));
  }
}

}  // namespace

bool isTopicLevel(const std::string& text) {
  constexpr std::size_t kLongest = 256;
  return !text.empty() && text.size() <= kLongest && text.find_first_of("/+#") == std::string::npos &&
         mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

void Connection::Destroy::operator()(mosquitto* library) const {
  mosquitto_destroy(library);
}

Connection::Connection(const Options& options, std::string clientId, TransportListener& listener)
    : options_(options), clientId_(std::move(clientId)), listener_(listener) {
  initialiseLibrary();
}

Connection::~Connection() = default;

void Connection::open() {
  if (state_ == State::none || state_ == State::pausing) {
    pause_ = kShortestPause;
    startRound();
  }
}

void Connection::close() {
  if (state_ == State::open) {
    mosquitto_disconnect(library_.get());
    write();
  }
  library_.reset();
  state_ = State::none;
}

void Connection::publish(const std::string& topic, const std::string& payload) {
  if (state_ != State::open) {
    return;
  }
  check(mosquitto_publish(library_.get(), nullptr, topic.c_str(), static_cast<int>(payload.size()),
                          payload.data(), kQosOfRequests, false));
}

void Connection::subscribe(const std::vector<std::string>& topics) {
  for (const std::string& topic : topics) {
    topics_.insert(topic);
    if (state_ == State::open) {
      request(topic);
    }
  }
}

void Connection::unsubscribe(const std::vector<std::string>& topics) {
  for (const std::string& topic : topics) {
    if (topics_.erase(topic) != 0 && state_ == State::open) {
      mosquitto_unsubscribe(library_.get(), nullptr, topic.c_str());
    }
  }
}

int Connection::socket() const {
  return library_ ? mosquitto_socket(library_.get()) : -1;
}

short Connection::awaitedEvents() const {
  return library_ && mosquitto_want_write(library_.get()) ? POLLIN | POLLOUT : POLLIN;
}

Deadline Connection::nextTurn() const {
  if (!failure_.empty()) {
    return Clock::now();
  }
  switch (state_) {
    case State::none:
      return std::nullopt;
    case State::open:
      return Clock::now() + kIdleTurn;
    default:
      return timer_;
  }
}

void Connection::turn(short events) {
  if (state_ == State::pausing && Clock::now() >= timer_) {
    startRound();
  } else if (state_ == State::attempting || state_ == State::open) {
    serve(events);
    if (state_ == State::attempting && failure_.empty() && Clock::now() >= timer_) {
      failure_ = "no answer";
    }
    if (!failure_.empty()) {
      broke(std::exchange(failure_, {}));
    }
  }
}

void Connection::serve(short events) {
  if (state_ == State::attempting && (events & (POLLERR | POLLHUP)) != 0) {
    failure_ = socketError(socket());
  }
  if (failure_.empty() && (events & ~POLLOUT) != 0) {
    check(mosquitto_loop_read(library_.get(), kPackets));
    acknowledgeAtOnce(socket());
    handleNoted();
  }
  if (failure_.empty()) {
    check(mosquitto_loop_misc(library_.get()));
  }
  if (failure_.empty() && mosquitto_want_write(library_.get())) {
    check(mosquitto_loop_write(library_.get(), kPackets));
  }
}

void Connection::check(int error) {
  if (error != MOSQ_ERR_SUCCESS && failure_.empty()) {
    failure_ = describe(error);
  }
}

Connection::Library Connection::makeLibrary() {
  Library library(mosquitto_new(clientId_.c_str(), true, this));
  if (!library) {
    throw ConnectionError(std::generic_category().message(errno));
  }
  mosquitto* const raw = library.get();
  if (!options_.user.empty()) {
    mosquitto_username_pw_set(raw, options_.user.c_str(), options_.password.c_str());
  }
  if (options_.tls) {
    setTls(raw, *options_.tls);
  }
  mosquitto_int_option(raw, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
  mosquitto_int_option(raw, MOSQ_OPT_TCP_NODELAY, 1);

  mosquitto_connect_callback_set(raw, [](mosquitto*, void* self, int answer) {
    auto& connection = *static_cast<Connection*>(self);
    connection.acceptedNoted_ = answer == 0;
    connection.failure_ = answer == 0 ? "" : mosquitto_connack_string(answer);
  });
  mosquitto_subscribe_callback_set(raw, [](mosquitto*, void* self, int id, int count, const int* granted) {
    static_cast<Connection*>(self)->noteSubscribed(id, count == 1 && granted[0] <= 2);
  });
  mosquitto_message_callback_set(raw, [](mosquitto*, void* self, const mosquitto_message* message) {
    static_cast<Connection*>(self)->messagesNoted_.push_back(
        {message->topic, std::string(static_cast<const char*>(message->payload),
                                     static_cast<std::size_t>(message->payloadlen))});
  });
  return library;
}

void Connection::startRound() {
  address_ = 0;
  try {
    // With TLS the broker must prove to be the host of this very name.
    addresses_ = options_.tls ? std::vector{options_.host} : resolve(options_.host);
  } catch (const ConnectionError& error) {
    addresses_.clear();
    nextAddress(error.what());
    return;
  }
  attempt();
}

void Connection::attempt() {
  state_ = State::attempting;
  timer_ = Clock::now() + options_.timeout / addresses_.size();
  try {
    library_ = makeLibrary();
  } catch (const ConnectionError& error) {
    failure_ = error.what();
    return;
  }
  check(mosquitto_connect_async(library_.get(), addresses_[address_].c_str(), options_.port,
                                kKeepAliveSeconds));
}

void Connection::broke(const std::string& reason) {
  const bool wasOpen = state_ == State::open;
  library_.reset();
  unansweredSubscriptions_.clear();
  refused_.reset();
  acceptedNoted_ = false;
  subscribedNoted_ = false;
  if (!wasOpen) {
    nextAddress(reason);
    return;
  }
  // A connection that breaks again and again must not spin.
  if (Clock::now() - openSince_ >= kSteadyAfter) {
    pause_ = kShortestPause;
  }
  pause();
  listener_.lost();
}

void Connection::nextAddress(const std::string& reason) {
  if (++address_ < addresses_.size()) {
    attempt();
    return;
  }
  if (wasOpen_) {
    pause();
  } else {
    state_ = State::none;
  }
  listener_.failed(reason);
}

void Connection::pause() {
  state_ = State::pausing;
  timer_ = Clock::now() + pause_;
  pause_ = std::min<Clock::duration>(2 * pause_, kLongestPause);
}

void Connection::request(const std::string& topic) {
  int id = 0;
  check(mosquitto_subscribe(library_.get(), &id, topic.c_str(), kQosOfSubscriptions));
  unansweredSubscriptions_[id] = topic;
}

void Connection::write() {
  while (mosquitto_want_write(library_.get()) &&
         mosquitto_loop_write(library_.get(), kPackets) == MOSQ_ERR_SUCCESS) {
  }
}

void Connection::noteSubscribed(int id, bool granted) {
  const auto subscription = unansweredSubscriptions_.extract(id);
  if (subscription.empty()) {
    return;
  }
  if (!granted) {
    refused_ = subscription.mapped();
  }
  subscribedNoted_ = unansweredSubscriptions_.empty();
}

void Connection::handleNoted() {
  if (std::exchange(acceptedNoted_, false)) {
    for (const std::string& topic : topics_) {
      request(topic);
    }
  }
  if (std::exchange(subscribedNoted_, false)) {
    handleSubscribed();
  }
  for (const Message& message : std::exchange(messagesNoted_, {})) {
    listener_.received(message.topic, message.payload);
  }
}

void Connection::handleSubscribed() {
  const auto refused = std::exchange(refused_, {});
  if (state_ == State::open) {
    listener_.subscribed(refused);
  } else if (refused) {
    failure_ = "the broker refuses the subscription to " + *refused;
  } else {
    state_ = State::open;
    wasOpen_ = true;
    openSince_ = Clock::now();
    listener_.opened();
  }
}

}  // namespace propclient
