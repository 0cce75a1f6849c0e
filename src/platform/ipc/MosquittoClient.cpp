#include "ipc/MosquittoClient.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <exception>
#include <iterator>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <poll.h>
#include <set>
#include <sys/socket.h>
#include <system_error>
#include <utility>

#include <mosquitto.h>

#include "dbg/Debug.h"
#include "ipc/Credentials.h"
#include "ipc/IPCException.h"

namespace ipc {

namespace {

using namespace std::chrono_literals;

constexpr int kPort = 1883;

// A connection that is silent for so long is probed with a ping, and given up when that stays unanswered for
// as long again. libmosquitto keeps that time only while it is called, so an idle loop wakes up for it.
constexpr int kKeepAliveSeconds = 30;
constexpr int kIdleWakeUpMs = 10'000;

constexpr auto kFirstAnswerWithin = 10s;
constexpr auto kAnswerWithin = 3s;  // When the connection is to come back.
constexpr auto kShortestPause = 50ms;
constexpr auto kLongestPause = 1s;
constexpr auto kSteadyAfter = 5s;
constexpr auto kLastAcknowledgementsWithin = 2s;

// An argument that libmosquitto checks and does not use.
constexpr int kPackets = 1;

dbg::Debug& logger() {
  // Never destroyed: a client may log until the very end.
  static auto* const log = new dbg::Debug("IPC");
  return *log;
}

void initialiseLibrary() {
  static const int once = [] {
    // libmosquitto writes to its socket in a way that raises SIGPIPE when the broker has gone.
    struct sigaction broken {};
    if (sigaction(SIGPIPE, nullptr, &broken) == 0 && broken.sa_handler == SIG_DFL) {
      broken.sa_handler = SIG_IGN;
      sigaction(SIGPIPE, &broken, nullptr);
    }
    return mosquitto_lib_init();
  }();
  if (once != MOSQ_ERR_SUCCESS) {
    throw IPCException(std::string("libmosquitto: ") + mosquitto_strerror(once));
  }
}

/// What an error code of libmosquitto means. Uses errno: call it first.
std::string describe(int error) {
  return error == MOSQ_ERR_ERRNO ? std::generic_category().message(errno) : mosquitto_strerror(error);
}

std::string shown(const std::string& topic) {
  constexpr std::size_t kMostShown = 128;
  return '"' + topic.substr(0, kMostShown) + (topic.size() > kMostShown ? "...\"" : "\"");
}

bool isText(const std::string& text) {
  constexpr std::size_t kLongestText = 65535;
  return !text.empty() && text.size() <= kLongestText &&
         mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

void requireQos(int qos, const char* operation) {
  if (qos < 0 || qos > 2) {
    throw IPCException(std::string(operation) + ": no quality of service: " + std::to_string(qos));
  }
}

/// The numeric addresses of `host`. libmosquitto would only try the first one of a name that has several, and
/// "localhost" often has one for IPv6 where no broker listens.
std::vector<std::string> resolve(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* first = nullptr;
  if (const int error = getaddrinfo(host.c_str(), nullptr, &hints, &first); error != 0) {
    throw IPCException("connect to " + host + ": " + gai_strerror(error));
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
    throw IPCException("connect to " + host + ": the host has no address");
  }
  return addresses;
}

/// Has the kernel acknowledge at once what was received. It falls back to delayed acknowledgement by itself,
/// and then a broker that has Nagle's algorithm on waits 40 ms for each.
void acknowledgeAtOnce(int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

bool matches(const std::vector<std::string>& topicFilters, const std::string& topic) {
  return std::any_of(topicFilters.begin(), topicFilters.end(), [&topic](const std::string& filter) {
    bool matching = false;
    return mosquitto_topic_matches_sub2(filter.data(), filter.size(), topic.data(), topic.size(),
                                        &matching) == MOSQ_ERR_SUCCESS &&
           matching;
  });
}

template <typename Call>
void guarded(const char* callback, Call&& call) {
  try {
    call();
  } catch (const std::exception& exception) {
    logger().error() << "Exception in " << callback << ": " << exception.what();
  } catch (...) {
    logger().error() << "Exception in " << callback;
  }
}

}  // namespace

void MosquittoClient::Destroy::operator()(mosquitto* library) const {
  mosquitto_destroy(library);
}

MosquittoClient::MosquittoClient(std::string id, std::string host, std::string credentialsPath)
    : id_(std::move(id)), host_(std::move(host)), credentialsPath_(std::move(credentialsPath)) {
  initialiseLibrary();
  if (!isText(id_)) {
    throw IPCException("no client identifier: " + shown(id_));
  }
}

MosquittoClient::~MosquittoClient() {
  guarded("disconnect", [this] { MosquittoClient::disconnect(); });
}

void MosquittoClient::connect(int cleanSession, int maxQos, const std::string& host) {
  const std::lock_guard lifecycle(lifecycle_);
  if (loop_.joinable()) {
    throw IPCException("connect: connected already");
  }
  requireQos(maxQos, "connect");
  const std::string& broker = host.empty() ? host_ : host;
  std::vector<std::string> addresses = resolve(broker);

  std::unique_lock lock(mutex_);
  library_ = makeLibrary(cleanSession != 0);
  broker_ = broker;
  addresses_ = std::move(addresses);
  address_ = 0;
  maxQos_ = maxQos;
  pause_ = kShortestPause;
  timer_ = Clock::now();
  connection_ = Connection::pausing;
  loop_ = std::thread(&MosquittoClient::run, this);
  changed_.wait(lock, [this] { return opened_ || connection_ == Connection::failed; });
  if (!opened_) {
    const std::string failure = failure_;
    lock.unlock();
    stop();
    throw IPCException("connect to " + broker + ": " + failure);
  }
}

void MosquittoClient::disconnect() {
  const std::lock_guard lifecycle(lifecycle_);
  if (!loop_.joinable()) {
    return;
  }
  {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kLastAcknowledgementsWithin, [this] { return outbox_.empty(); });
  }
  stop();
}

void MosquittoClient::stop() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wakeup_.signal();
  loop_.join();

  const std::lock_guard lock(mutex_);
  wakeup_.clear();
  library_.reset();
  connection_ = Connection::none;
  opened_ = false;
  stopping_ = false;
  unansweredSubscriptions_.clear();
  outbox_.clear();
  events_.clear();
}

void MosquittoClient::publish(const std::string& topic, const std::string& payload, int qos) {
  requireQos(qos, "publish");
  if (!isText(topic) || mosquitto_pub_topic_check2(topic.data(), topic.size()) != MOSQ_ERR_SUCCESS) {
    throw IPCException("publish: no topic to publish on: " + shown(topic));
  }

  const std::lock_guard lock(mutex_);
  if (connection_ == Connection::none || connection_ == Connection::failed) {
    throw IPCException("publish on " + shown(topic) + ": not connected");
  }
  if (!outbox_.hasRoomFor(topic.size() + payload.size())) {
    throw IPCException("publish on " + shown(topic) + ": too much waits for the broker");
  }
  if (connection_ != Connection::open || !outbox_.mayDepartAtOnce(qos)) {
    outbox_.wait(topic, payload, qos);
    return;
  }
  if (const int error = handOver(topic, payload, qos); error != MOSQ_ERR_SUCCESS) {
    throw IPCException("publish on " + shown(topic) + ": " + describe(error));
  }
  writeFromAnyThread();
}

void MosquittoClient::subscribe(const std::string& topicFilter, IIPCCallback* callback) {
  if (!isText(topicFilter) ||
      mosquitto_sub_topic_check2(topicFilter.data(), topicFilter.size()) != MOSQ_ERR_SUCCESS) {
    throw IPCException("subscribe: no topic filter: " + shown(topicFilter));
  }

  const std::lock_guard lock(mutex_);
  auto listeners = std::make_shared<Listeners>(*listeners_);
  auto listener = std::find_if(listeners->begin(), listeners->end(), [callback](const Listener& candidate) {
    return candidate.callback == callback;
  });
  if (listener == listeners->end()) {
    listener = listeners->insert(listener, {callback, {}});
  }
  listener->topicFilters.push_back(topicFilter);
  listeners_ = std::move(listeners);

  // An attempt that the broker has not accepted yet makes all subscriptions when it does.
  if (connection_ == Connection::open || !unansweredSubscriptions_.empty()) {
    requestSubscription(topicFilter);
    writeFromAnyThread();
  }
}

MosquittoClient::Library MosquittoClient::makeLibrary(bool cleanSession) {
  Library library(mosquitto_new(id_.c_str(), cleanSession, this));
  if (!library) {
    throw IPCException("connect: " + std::generic_category().message(errno));
  }
  mosquitto* const raw = library.get();
  mosquitto_threaded_set(raw, true);
  if (const auto credentials = readCredentials(credentialsPath_)) {
    mosquitto_username_pw_set(raw, credentials->user.c_str(), credentials->password.c_str());
  }
  mosquitto_int_option(raw, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
  mosquitto_int_option(raw, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_int_option(raw, MOSQ_OPT_SEND_MAXIMUM, int{Outbox::kMostInFlight});

  mosquitto_connect_callback_set(raw, [](mosquitto*, void* self, int answer) {
    static_cast<MosquittoClient*>(self)->onConnect(answer);
  });
  mosquitto_disconnect_callback_set(raw, [](mosquitto*, void* self, int reason) {
    static_cast<MosquittoClient*>(self)->onDisconnect(reason);
  });
  mosquitto_subscribe_callback_set(raw, [](mosquitto*, void* self, int id, int count, const int* granted) {
    static_cast<MosquittoClient*>(self)->onSubscribed(id, count == 1 && granted[0] <= 2);
  });
  mosquitto_message_callback_set(raw, [](mosquitto*, void* self, const mosquitto_message* message) {
    static_cast<MosquittoClient*>(self)->events_.push_back(
        {Event::Kind::messageArrived, message->topic,
         std::string(static_cast<const char*>(message->payload),
                     static_cast<std::size_t>(message->payloadlen))});
  });
  mosquitto_publish_callback_set(
      raw, [](mosquitto*, void* self, int id) { static_cast<MosquittoClient*>(self)->onPublished(id); });
  return library;
}

void MosquittoClient::attempt() {
  connection_ = Connection::attempting;
  timer_ = Clock::now() + (opened_ ? kAnswerWithin : kFirstAnswerWithin);
  const int error =
      mosquitto_connect_async(library_.get(), addresses_[address_].c_str(), kPort, kKeepAliveSeconds);
  if (error != MOSQ_ERR_SUCCESS) {
    connectionBroke(describe(error));
  }
}

void MosquittoClient::onConnect(int answer) {
  if (answer != 0) {
    connectionBroke(mosquitto_connack_string(answer));
    return;
  }
  std::set<std::string> topicFilters;
  for (const Listener& listener : *listeners_) {
    topicFilters.insert(listener.topicFilters.begin(), listener.topicFilters.end());
  }
  for (const std::string& topicFilter : topicFilters) {
    requestSubscription(topicFilter);
  }
  if (topicFilters.empty()) {
    connectionAnswered();
  }
}

void MosquittoClient::requestSubscription(const std::string& topicFilter) {
  int id = 0;
  const int error = mosquitto_subscribe(library_.get(), &id, topicFilter.c_str(), maxQos_);
  if (error == MOSQ_ERR_SUCCESS) {
    unansweredSubscriptions_[id] = topicFilter;
  } else {
    logger().error() << "Cannot subscribe to " << shown(topicFilter) << ": " << mosquitto_strerror(error);
  }
}

void MosquittoClient::onSubscribed(int id, bool granted) {
  const auto subscription = unansweredSubscriptions_.extract(id);
  if (subscription.empty()) {
    return;
  }
  if (!granted && !opened_) {
    connectionBroke("the broker refuses the subscription to " + shown(subscription.mapped()));
    return;
  }
  if (!granted) {
    logger().error() << "The broker refuses the subscription to " << shown(subscription.mapped());
  }
  if (connection_ == Connection::attempting && unansweredSubscriptions_.empty()) {
    connectionAnswered();
  }
}

void MosquittoClient::connectionAnswered() {
  if (opened_) {
    logger().info() << "The connection to " << broker_ << " is back";
  }
  connection_ = Connection::open;
  opened_ = true;
  failure_.clear();
  openSince_ = Clock::now();
  changed_.notify_all();
}

void MosquittoClient::onDisconnect(int reason) {
  const std::string cause = describe(reason);
  if (connection_ == Connection::open || connection_ == Connection::attempting) {
    connectionBroke(cause);
  }
}

void MosquittoClient::connectionBroke(const std::string& cause) {
  const bool wasOpen = connection_ == Connection::open;
  const Clock::time_point now = Clock::now();
  connection_ = Connection::pausing;
  timer_ = now;
  unansweredSubscriptions_.clear();
  outbox_.connectionLost();

  if (wasOpen) {
    events_.push_back({Event::Kind::connectionLost, cause, {}});
    // A connection that breaks again and again, as with a second client of the same name, must not spin.
    if (now - openSince_ >= kSteadyAfter) {
      pause_ = kShortestPause;
    }
    pauseBeforeAttempt();
  } else if (++address_ == addresses_.size()) {
    address_ = 0;
    if (!opened_) {
      connection_ = Connection::failed;
    } else if (cause != failure_) {
      logger().warning() << "No connection to " << broker_ << " yet: " << cause;
    }
    failure_ = cause;
    pauseBeforeAttempt();
  }
  changed_.notify_all();
}

void MosquittoClient::pauseBeforeAttempt() {
  timer_ = Clock::now() + pause_;
  pause_ = std::min<Clock::duration>(2 * pause_, kLongestPause);
}

int MosquittoClient::handOver(const std::string& topic, const std::string& payload, int qos) {
  int id = 0;
  const int error = mosquitto_publish(library_.get(), &id, topic.c_str(), static_cast<int>(payload.size()),
                                      payload.data(), qos, false);
  if (error == MOSQ_ERR_SUCCESS) {
    outbox_.departed(id, qos, topic, topic.size() + payload.size());
  }
  return error;
}

void MosquittoClient::handOverWaiting() {
  while (const Outbox::Message* message = outbox_.next()) {
    if (const int error = handOver(message->topic, message->payload, message->qos);
        error != MOSQ_ERR_SUCCESS) {
      logger().error() << "Cannot publish on " << shown(message->topic) << ": " << describe(error);
    }
    outbox_.removeNext();
  }
}

void MosquittoClient::onPublished(int id) {
  if (std::optional<std::string> topic = outbox_.acknowledged(id)) {
    events_.push_back({Event::Kind::deliveryComplete, std::move(*topic), {}});
  }
  if (outbox_.empty()) {
    changed_.notify_all();
  }
}

void MosquittoClient::write() {
  if (mosquitto_want_write(library_.get())) {
    mosquitto_loop_write(library_.get(), kPackets);
  }
}

void MosquittoClient::writeFromAnyThread() {
  if (std::this_thread::get_id() == callbackThread_) {
    return;
  }
  write();
  if (connection_ != Connection::open || !events_.empty() || mosquitto_want_write(library_.get())) {
    wakeup_.signal();
  }
}

void MosquittoClient::run() {
  std::unique_lock lock(mutex_);
  callbackThread_ = std::this_thread::get_id();
  while (!stopping_) {
    takeTurn(lock);
  }
  callbackThread_ = {};
  if (connection_ == Connection::open) {
    connection_ = Connection::none;
    mosquitto_disconnect(library_.get());
    write();
  }
}

void MosquittoClient::takeTurn(std::unique_lock<std::mutex>& lock) {
  const int socket = isConnected() ? mosquitto_socket(library_.get()) : -1;
  const short awaited = mosquitto_want_write(library_.get()) ? POLLIN | POLLOUT : POLLIN;
  pollfd descriptors[] = {{socket, awaited, 0}, {wakeup_.descriptor(), POLLIN, 0}};
  const int timeoutMs = pollTimeoutMs();

  lock.unlock();
  poll(descriptors, std::size(descriptors), timeoutMs);
  if (descriptors[1].revents != 0) {
    wakeup_.clear();
  }
  lock.lock();
  if (stopping_) {
    return;
  }

  if (isConnected() && (descriptors[0].revents & ~POLLOUT) != 0) {
    mosquitto_loop_read(library_.get(), kPackets);
    if (isConnected()) {
      acknowledgeAtOnce(socket);
    }
  }
  keepTime();
  dispatchEvents(lock);
  if (connection_ == Connection::open) {
    handOverWaiting();
  }
  if (isConnected()) {
    write();
  }
}

int MosquittoClient::pollTimeoutMs() const {
  if (!events_.empty()) {
    return 0;
  }
  switch (connection_) {
    case Connection::pausing:
    case Connection::attempting: {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(timer_ - Clock::now());
      return static_cast<int>(std::max(left, 0ms).count());
    }
    case Connection::open:
      return kIdleWakeUpMs;
    default:
      return -1;
  }
}

void MosquittoClient::keepTime() {
  switch (connection_) {
    case Connection::pausing:
      if (Clock::now() >= timer_) {
        attempt();
      }
      break;
    case Connection::attempting:
      if (Clock::now() >= timer_) {
        connectionBroke("the broker does not answer");
      }
      break;
    case Connection::open:
      mosquitto_loop_misc(library_.get());
      break;
    default:
      break;
  }
}

void MosquittoClient::dispatchEvents(std::unique_lock<std::mutex>& lock) {
  if (events_.empty()) {
    return;
  }
  const std::vector<Event> events = std::exchange(events_, {});
  const std::shared_ptr<const Listeners> listeners = listeners_;

  lock.unlock();
  for (const Event& event : events) {
    for (const Listener& listener : *listeners) {
      dispatch(event, listener);
    }
  }
  lock.lock();
}

void MosquittoClient::dispatch(const Event& event, const Listener& listener) {
  switch (event.kind) {
    case Event::Kind::messageArrived:
      if (matches(listener.topicFilters, event.text)) {
        guarded("messageArrived", [&] { listener.callback->messageArrived(event.text, event.payload); });
      }
      break;
    case Event::Kind::deliveryComplete:
      guarded("deliveryComplete", [&] { listener.callback->deliveryComplete(event.text); });
      break;
    case Event::Kind::connectionLost:
      guarded("connectionLost", [&] { listener.callback->connectionLost(event.text); });
      break;
  }
}

}  // namespace ipc
