#include "mqtt/Connection.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

#include <mosquitto.h>

#include "mqtt/Text.h"

namespace mqtt {

namespace {

using namespace std::chrono_literals;

// An argument that libmosquitto checks and does not use.
constexpr int kPackets = 1;

void initialiseLibrary() {
  static const int once = mosquitto_lib_init();
  if (once != MOSQ_ERR_SUCCESS) {
    throw Error(std::string("libmosquitto: ") + mosquitto_strerror(once));
  }
}

/// Returns the meaning of an error code of libmosquitto. Uses errno: call it first.
std::string describe(int error) {
  if (error != MOSQ_ERR_ERRNO) {
    return mosquitto_strerror(error);
  }
  // Without an error of the system, the broker has closed the connection in the middle of a packet.
  return errno == 0 ? mosquitto_strerror(MOSQ_ERR_CONN_LOST) : std::generic_category().message(errno);
}

/// Blocks all signals: a write to a connection that the broker has closed must not end the program, and its
/// handlers must not run on this thread.
void blockSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

/// Has the kernel acknowledge at once what was received. It falls back to delayed acknowledgement by itself,
/// and then a broker that has Nagle's algorithm on waits 40 ms for each.
void acknowledgeAtOnce(int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

/// Returns why the system could not connect, empty where it could. libmosquitto hides the reason under TLS.
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
    throw Error("certificate files: " + describe(error));
  }
}

}  // namespace

void Connection::Destroy::operator()(mosquitto* library) const {
  mosquitto_destroy(library);
}

Connection::Connection(Settings settings, Listener& listener)
    : settings_(std::move(settings)),
      listener_(listener),
      wakeup_(std::make_shared<Wakeup>()),
      pause_(settings_.shortestPause) {
  initialiseLibrary();
}

Connection::~Connection() {
  close(0s);
}

void Connection::connect() {
  std::unique_lock lock(mutex_);
  if (state_ == State::open) {
    return;
  }
  startThread();
  if (state_ == State::idle || state_ == State::pausing) {
    startRound();
    wakeup_->signal();
  }
  changed_.wait(lock, [this, before = rounds_] { return rounds_ != before || closing_; });
  if (closing_) {
    throw Error("cancelled by a disconnect");
  }
  if (failure_) {
    throw Error(*failure_);
  }
}

void Connection::close(Clock::duration flushWithin) {
  {
    std::unique_lock lock(mutex_);
    closing_ = true;
    changed_.notify_all();
    changed_.wait_for(lock, flushWithin,
                      [this] { return !wasOpen_ || (outbox_.empty() && events_.empty()); });
    stopping_ = true;
  }
  wakeup_->signal();
  const std::lock_guard joining(joining_);
  if (thread_.joinable()) {
    thread_.join();
  }
}

void Connection::post(std::function<void()> work) {
  const std::lock_guard lock(mutex_);
  startThread();
  note(std::move(work));
  if (events_.size() == 1) {
    wakeup_->signal();
  }
}

void Connection::publish(const std::string& topic, const std::string& payload, int qos) {
  if (!isTopic(topic)) {
    throw Error("publish: no topic to publish on: " + shown(topic));
  }

  const std::lock_guard lock(mutex_);
  if (state_ == State::idle || state_ == State::closed) {
    throw Error("publish on " + shown(topic) + ": not connected");
  }
  if (!settings_.resends && state_ != State::open) {
    return;
  }
  if (!outbox_.hasRoomFor(topic.size() + payload.size())) {
    throw Error("publish on " + shown(topic) + ": too much waits for the broker");
  }
  if (state_ != State::open || !outbox_.mayDepartAtOnce(qos)) {
    outbox_.wait(topic, payload, qos);
    return;
  }
  if (const int error = handOver(topic, payload, qos); error != MOSQ_ERR_SUCCESS) {
    throw Error("publish on " + shown(topic) + ": " + describe(error));
  }
  writeAndWake();
}

void Connection::subscribe(const std::string& topicFilter, bool optional) {
  if (!isTopicFilter(topicFilter)) {
    throw Error("subscribe: no topic filter: " + shown(topicFilter));
  }

  const std::lock_guard lock(mutex_);
  const Subscription subscription{topicFilter, optional};
  if (std::none_of(subscriptions_.begin(), subscriptions_.end(),
                   [&](const Subscription& other) { return other.topicFilter == topicFilter; })) {
    subscriptions_.push_back(subscription);
  }
  if (accepted_) {
    request(subscription);
    writeAndWake();
  }
}

void Connection::unsubscribe(const std::string& topicFilter) {
  const std::lock_guard lock(mutex_);
  const auto erased = std::erase_if(subscriptions_, [&](const Subscription& subscription) {
    return subscription.topicFilter == topicFilter;
  });
  if (erased != 0 && accepted_) {
    mosquitto_unsubscribe(library_.get(), nullptr, topicFilter.c_str());
    writeAndWake();
  }
}

Connection::Library Connection::makeLibrary() {
  Library library(mosquitto_new(settings_.clientId.c_str(), settings_.cleanSession, this));
  if (!library) {
    throw Error(std::generic_category().message(errno));
  }
  mosquitto* const raw = library.get();
  mosquitto_threaded_set(raw, true);
  if (settings_.credentials) {
    mosquitto_username_pw_set(raw, settings_.credentials->user.c_str(),
                              settings_.credentials->password.c_str());
  }
  if (settings_.tls) {
    setTls(raw, *settings_.tls);
  }
  if (!settings_.presenceTopic.empty()) {
    mosquitto_will_set(raw, settings_.presenceTopic.c_str(), 1, "0", 1, true);
  }
  mosquitto_int_option(raw, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_int_option(raw, MOSQ_OPT_SEND_MAXIMUM, 0);  // no other limit than that of the outbox

  mosquitto_connect_callback_set(raw, [](mosquitto*, void* self, int answer) {
    auto& connection = *static_cast<Connection*>(self);
    answer == 0 ? connection.onAccepted() : connection.broke(mosquitto_connack_string(answer));
  });
  mosquitto_disconnect_callback_set(
      raw, [](mosquitto*, void* self, int reason) { static_cast<Connection*>(self)->check(reason); });
  mosquitto_subscribe_callback_set(raw, [](mosquitto*, void* self, int id, int count, const int* granted) {
    static_cast<Connection*>(self)->onSubscribed(id, count == 1 && granted[0] <= 2);
  });
  mosquitto_message_callback_set(raw, [](mosquitto*, void* self, const mosquitto_message* message) {
    auto& connection = *static_cast<Connection*>(self);
    connection.note([&listener = connection.listener_,
                     received = Message{message->topic,
                                        std::string(static_cast<const char*>(message->payload),
                                                    static_cast<std::size_t>(message->payloadlen)),
                                        message->retain}] { listener.received(received); });
  });
  mosquitto_publish_callback_set(
      raw, [](mosquitto*, void* self, int id) { static_cast<Connection*>(self)->onDelivered(id); });
  return library;
}

void Connection::startRound() {
  state_ = State::resolving;
  roundEnd_ = Clock::now() + (wasOpen_ ? settings_.laterRoundWithin : settings_.firstRoundWithin);
  timer_ = roundEnd_;
  address_ = 0;
  addresses_.clear();
  if (settings_.tls) {
    addresses_ = {settings_.host};  // The broker must prove to be the host of this very name.
  } else if (!lookup_) {
    lookup_.emplace(settings_.host, [wakeup = wakeup_] { wakeup->signal(); });
  }
}

void Connection::takeAddresses() {
  if (!lookup_ || !lookup_->isDone()) {
    return;
  }
  try {
    addresses_ = lookup_->take();
  } catch (const Error& error) {
    roundFailed(error.what());
  }
  lookup_.reset();
}

void Connection::attempt() {
  const Clock::time_point now = Clock::now();
  state_ = State::attempting;
  timer_ = now + (roundEnd_ - now) / static_cast<int>(addresses_.size() - address_);
  try {
    if (!library_) {
      library_ = makeLibrary();
    }
    check(mosquitto_connect_async(library_.get(), addresses_[address_].c_str(), settings_.port,
                                  static_cast<int>(settings_.keepAlive.count())));
  } catch (const Error& error) {
    broke(error.what());
  }
}

void Connection::onAccepted() {
  accepted_ = true;
  for (const Subscription& subscription : subscriptions_) {
    request(subscription);
  }
  if (unanswered_.empty()) {
    opened();
  }
}

void Connection::request(const Subscription& subscription) {
  int id = 0;
  mosquitto_subscribe(library_.get(), &id, subscription.topicFilter.c_str(), settings_.subscriptionQos);
  unanswered_[id] = subscription;
}

void Connection::onSubscribed(int id, bool granted) {
  const auto answered = unanswered_.extract(id);
  if (answered.empty()) {
    return;
  }
  const Subscription& subscription = answered.mapped();
  if (!granted && !subscription.optional && state_ == State::attempting) {
    broke("the broker refuses the subscription to " + shown(subscription.topicFilter));
    return;
  }
  if (!granted) {
    refused_.push_back(subscription.topicFilter);
  }
  if (!unanswered_.empty()) {
    return;
  }
  if (state_ == State::attempting) {
    opened();
  } else {
    note([this, refused = std::exchange(refused_, {})] { listener_.subscribed(refused); });
  }
}

void Connection::opened() {
  state_ = State::open;
  wasOpen_ = true;
  openSince_ = Clock::now();
  failure_.reset();
  ++rounds_;
  refused_.clear();
  announcePresence("1");
  note([this] { listener_.opened(); });
  changed_.notify_all();
}

void Connection::announcePresence(const char* payload) {
  if (!settings_.presenceTopic.empty()) {
    mosquitto_publish(library_.get(), nullptr, settings_.presenceTopic.c_str(), 1, payload, 1, true);
  }
}

void Connection::broke(const std::string& reason) {
  const bool wasOpen = state_ == State::open;
  accepted_ = false;
  unanswered_.clear();
  refused_.clear();
  if (settings_.resends) {
    outbox_.connectionLost();
  } else {
    outbox_.clear();
  }

  if (wasOpen) {
    // A connection that breaks again and again, as with a second client of the same name, must not spin.
    if (Clock::now() - openSince_ >= settings_.steadyAfter) {
      pause_ = settings_.shortestPause;
    }
    pause();
    note([this, reason] { listener_.lost(reason); });
  } else if (++address_ < addresses_.size()) {
    state_ = State::resolving;
  } else {
    roundFailed(reason);
  }
}

void Connection::roundFailed(const std::string& reason) {
  if (wasOpen_) {
    pause();
  } else {
    state_ = State::idle;
  }
  failure_ = reason;
  ++rounds_;
  note([this, reason] { listener_.failed(reason); });
  changed_.notify_all();
}

void Connection::pause() {
  state_ = State::pausing;
  timer_ = Clock::now() + pause_;
  pause_ = std::min(2 * pause_, settings_.longestPause);
}

int Connection::handOver(const std::string& topic, const std::string& payload, int qos) {
  int id = 0;
  const int error = mosquitto_publish(library_.get(), &id, topic.c_str(), static_cast<int>(payload.size()),
                                      payload.data(), qos, false);
  if (error == MOSQ_ERR_SUCCESS) {
    outbox_.departed(id, qos, topic, topic.size() + payload.size());
  }
  return error;
}

void Connection::handOverWaiting() {
  while (const Outbox::Message* message = outbox_.next()) {
    handOver(message->topic, message->payload, message->qos);
    outbox_.removeNext();
  }
}

void Connection::onDelivered(int id) {
  if (std::optional<std::string> topic = outbox_.acknowledged(id)) {
    note([this, delivered = std::move(*topic)] { listener_.delivered(delivered); });
  }
}

void Connection::check(int error) {
  if (error != MOSQ_ERR_SUCCESS) {
    const std::string reason = describe(error);
    if (hasSocket()) {
      broke(reason);
    }
  }
}

void Connection::write() {
  if (hasSocket() && mosquitto_want_write(library_.get())) {
    check(mosquitto_loop_write(library_.get(), kPackets));
  }
}

/// Writes on the calling thread. The own thread has to go on with what the socket did not take, and to tell
/// what the write brought about.
void Connection::writeAndWake() {
  write();
  if (!isOwnThread() && (!hasSocket() || !events_.empty() || mosquitto_want_write(library_.get()))) {
    wakeup_->signal();
  }
}

void Connection::note(std::function<void()> event) {
  events_.push_back(std::move(event));
}

void Connection::startThread() {
  if (!thread_.joinable() && !closing_) {
    thread_ = std::thread([this] { run(); });
  }
}

void Connection::run() {
  blockSignals();
  ownThread_ = std::this_thread::get_id();
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    takeTurn(lock);
  }
  const bool wasOpen = std::exchange(state_, State::closed) == State::open;
  if (wasOpen) {
    announcePresence("0");
    mosquitto_disconnect(library_.get());
    mosquitto_loop_write(library_.get(), kPackets);
  }
  library_.reset();
}

void Connection::takeTurn(std::unique_lock<std::mutex>& lock) {
  const int socket = hasSocket() ? mosquitto_socket(library_.get()) : -1;
  const short awaited = hasSocket() && mosquitto_want_write(library_.get()) ? POLLIN | POLLOUT : POLLIN;
  pollfd descriptors[] = {{socket, awaited, 0}, {wakeup_->descriptor(), POLLIN, 0}};
  const int timeoutMs = pollTimeoutMs();

  lock.unlock();
  poll(descriptors, std::size(descriptors), timeoutMs);
  if (descriptors[1].revents != 0) {
    wakeup_->clear();
  }
  lock.lock();
  if (stopping_) {
    return;
  }

  if (hasSocket() && descriptors[0].revents != 0) {
    read(descriptors[0].revents);
  }
  keepTime();
  tellListener(lock);
  if (state_ == State::open) {
    handOverWaiting();
  }
  write();
}

int Connection::pollTimeoutMs() const {
  if (!events_.empty() || (state_ == State::resolving && !addresses_.empty())) {
    return 0;
  }
  // libmosquitto keeps the time of pings only while it is called.
  const auto idle = std::chrono::duration_cast<std::chrono::milliseconds>(settings_.keepAlive) / 3;
  const bool isTimed = state_ == State::resolving || state_ == State::attempting || state_ == State::pausing;
  if (!isTimed && !listenersDeadline_) {
    return static_cast<int>(idle.count());
  }
  const auto next = isTimed ? std::min(timer_, listenersDeadline_.value_or(timer_)) : *listenersDeadline_;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
  return static_cast<int>(std::clamp(left, 0ms, idle).count());
}

void Connection::read(short events) {
  const int socket = mosquitto_socket(library_.get());
  if (state_ == State::attempting && (events & (POLLERR | POLLHUP)) != 0) {
    if (const std::string reason = socketError(socket); !reason.empty()) {
      broke(reason);
      return;
    }
  }
  // While libmosquitto connects with TLS, it goes on with that when it is told to read.
  if ((events & ~POLLOUT) != 0 || (settings_.tls && state_ == State::attempting)) {
    check(mosquitto_loop_read(library_.get(), kPackets));
    if (hasSocket()) {
      acknowledgeAtOnce(socket);
    }
  }
}

void Connection::keepTime() {
  const auto timeIsUp = [this] { return Clock::now() >= timer_; };
  switch (state_) {
    case State::resolving:
      takeAddresses();
      if (!addresses_.empty()) {
        attempt();
      } else if (state_ == State::resolving && timeIsUp()) {
        roundFailed("no name server answers");
      }
      break;
    case State::attempting:
      if (timeIsUp()) {
        broke("the broker does not answer");
      }
      break;
    case State::open:
      check(mosquitto_loop_misc(library_.get()));
      break;
    case State::pausing:
      if (timeIsUp()) {
        startRound();
      }
      break;
    default:
      break;
  }
  // Without `resends` each attempt is that of a new client.
  if (!settings_.resends && !hasSocket()) {
    library_.reset();
  }
}

/// Tells the listener the events there are. The socket has what one of them publishes before the next one is
/// told, as long as the flight is not full.
void Connection::tellListener(std::unique_lock<std::mutex>& lock) {
  for (std::size_t left = events_.size(); left != 0 && !stopping_; --left) {
    const std::function<void()> event = std::move(events_.front());
    events_.pop_front();
    lock.unlock();
    event();
    lock.lock();
  }
  if (events_.empty()) {
    changed_.notify_all();
  }
  lock.unlock();
  listenersDeadline_ = listener_.turned();
  lock.lock();
}

}  // namespace mqtt
