#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "mqtt/Error.h"
#include "mqtt/Outbox.h"
#include "mqtt/Resolver.h"
#include "mqtt/Wakeup.h"

struct mosquitto;

namespace mqtt {

using Clock = std::chrono::steady_clock;

/// A point in time; nothing stands for never.
using Deadline = std::optional<Clock::time_point>;

struct Credentials {
  std::string user;
  std::string password;
};

struct Tls {
  std::string caFile{};           ///< The authorities to trust, PEM; empty: those that the system trusts.
  std::string certificateFile{};  ///< The client's own certificate, PEM; empty: none.
  std::string keyFile{};
};

struct Message {
  std::string topic;
  std::string payload;
  bool retained = false;  ///< The broker had kept it before the subscription was made.
};

struct Settings {
  std::string clientId;
  std::string host;
  std::uint16_t port = 1883;
  std::optional<Credentials> credentials{};
  std::optional<Tls> tls{};

  bool cleanSession = true;  ///< Otherwise the broker keeps the session while the client is away.
  bool resends = false;     ///< Messages that are not acknowledged, or still wait, survive a lost connection.
  int subscriptionQos = 1;  ///< The greatest quality of service of all subscriptions.

  /// The topic that tells others whether this client is there. Retained on it, with QoS 1, are "1" from when
  /// the connection is open and "0" after `close` or, as the client's will, after a loss. Empty: no such
  /// topic.
  std::string presenceTopic{};

  Clock::duration firstRoundWithin = std::chrono::seconds(10);  ///< Until the connection has been open once.
  Clock::duration laterRoundWithin = std::chrono::seconds(3);
  Clock::duration shortestPause = std::chrono::milliseconds(50);
  Clock::duration longestPause = std::chrono::seconds(1);
  Clock::duration steadyAfter = std::chrono::seconds(5);  ///< Then the next pause is the shortest again.

  /// A connection that is silent for so long is probed with a ping, and given up when that stays unanswered
  /// for as long again. At least 5 s.
  std::chrono::seconds keepAlive{30};
};

/// The user of a connection. All calls come on the connection's own thread, one at a time, without a lock
/// held, in the order of the events. They may call everything but `connect` and `close`, and must not throw.
class Listener {
 public:
  virtual ~Listener() = default;

  /// The broker has accepted the connection and the subscriptions; at first, and whenever it is back.
  virtual void opened() = 0;

  /// No address of the host gave a connection.
  virtual void failed(const std::string& reason) = 0;

  /// An open connection broke.
  virtual void lost(const std::string& reason) = 0;

  /// All subscriptions made while the connection was open are answered; the broker refuses those in
  /// `refused`.
  virtual void subscribed(const std::vector<std::string>& refused) = 0;

  /// May come before `opened`.
  virtual void received(const Message& message) = 0;

  /// The broker has acknowledged a message on `topic`; one of QoS 0 was written.
  virtual void delivered(const std::string& /*topic*/) {}

  /// Comes at the end of each turn of the thread. Returns when it has to come again at the latest.
  virtual Deadline turned() { return std::nullopt; }
};

/// One connection to an MQTT 3.1.1 broker, over libmosquitto.
///
/// Any thread may call the operations. They only change the state under a lock and write to the socket, so
/// they return at once, except for `connect` and `close`. The connection's own thread waits for the socket,
/// reads, tells the listener and keeps the time. It blocks all signals.
///
/// A round tries the addresses of the host one after the other. The states:
///
/// | state      | meaning                                                                              |
/// |------------|--------------------------------------------------------------------------------------|
/// | idle       | nobody has asked for a connection, or the only rounds so far have failed             |
/// | resolving  | the addresses are being looked up, or the next one is to be tried                    |
/// | attempting | one address is tried: TCP, TLS, the broker's acceptance, then all subscriptions      |
/// | open       | messages flow                                                                        |
/// | pausing    | the next round starts after a pause                                                  |
/// | closed     | the end                                                                              |
///
/// The transitions:
///
/// | from       | when                                        | to         | and                       |
/// |------------|---------------------------------------------|------------|---------------------------|
/// | idle       | `connect`                                   | resolving  |                           |
/// | resolving  | the addresses are known                     | attempting | the first of them         |
/// | resolving  | the host is unknown, or time is up          | see below  | `failed`                  |
/// | attempting | accepted, and each subscription answered    | open       | presence "1", `opened`    |
/// | attempting | refused, broken or time is up; others left  | resolving  | the next address          |
/// | attempting | the same with the last address              | see below  | `failed`                  |
/// | open       | broken, or a ping stays unanswered          | pausing    | `lost`                    |
/// | pausing    | the pause is over, or `connect`             | resolving  |                           |
/// | any        | `close`                                     | closed     | presence "0" if open      |
///
/// A round that fails leads to idle if the connection has never been open, otherwise to pausing. Its time is
/// shared evenly by the addresses that are left. Pauses double from the shortest to the longest; the next one
/// is the shortest again after a connection that was open for `steadyAfter`.
class Connection {
 public:
  /// Starts nothing yet. The listener must outlive the connection. Throws `Error`.
  Connection(Settings settings, Listener& listener);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  /// Returns once the connection is open. Throws `Error` with the reason when the round fails, and with
  /// "cancelled" as soon as another thread calls `close`. It can be called again after a failure.
  void connect();

  /// Waits, `flushWithin` at most, until all messages are acknowledged and told, unless the connection has
  /// never been open. Then disconnects and waits for a call of the listener that is still running; no other
  /// follows. The connection cannot be opened again.
  void close(Clock::duration flushWithin);

  bool isOwnThread() const { return ownThread_ == std::this_thread::get_id(); }

  /// Calls `work` on the own thread, in order with the calls of the listener. Drops it after `close`.
  void post(std::function<void()> work);

  /// Sends a message, or lets it wait for its turn. Messages stay in order. Without `resends` a message is
  /// dropped while the connection is lost. Throws `Error` for a topic that MQTT does not allow, before
  /// `connect` and after `close`, and when more than `Outbox::kMostBytes` would wait for the broker.
  void publish(const std::string& topic, const std::string& payload, int qos);

  /// Subscribes now, if the broker has accepted the connection, and at every connect. At a connect, a refused
  /// subscription fails the attempt unless it is `optional`. Subscriptions are made in the order of these
  /// calls. Throws `Error` for a filter that MQTT does not allow.
  void subscribe(const std::string& topicFilter, bool optional = false);
  void unsubscribe(const std::string& topicFilter);

 private:
  struct Destroy {
    void operator()(mosquitto* library) const;
  };
  using Library = std::unique_ptr<mosquitto, Destroy>;

  enum class State { idle, resolving, attempting, open, pausing, closed };

  struct Subscription {
    std::string topicFilter;
    bool optional;
  };

  // All of these need `mutex_`. libmosquitto is only ever called under it; its callbacks, which therefore run
  // under it too, only change the state here and note events for the listener.
  bool hasSocket() const { return state_ == State::attempting || state_ == State::open; }
  Library makeLibrary();
  void startRound();
  void attempt();
  void opened();
  void broke(const std::string& reason);
  void roundFailed(const std::string& reason);
  void pause();
  void request(const Subscription& subscription);
  void announcePresence(const char* payload);
  int handOver(const std::string& topic, const std::string& payload, int qos);
  void handOverWaiting();
  void check(int error);
  void write();
  void writeAndWake();
  void note(std::function<void()> event);

  // Reports of libmosquitto.
  void onAccepted();
  void onSubscribed(int id, bool granted);
  void onDelivered(int id);

  // Steps of the own thread.
  void startThread();
  void run();
  void takeTurn(std::unique_lock<std::mutex>& lock);
  int pollTimeoutMs() const;
  void read(short events);
  void keepTime();
  void takeAddresses();
  void tellListener(std::unique_lock<std::mutex>& lock);

  // Constant after construction.
  const Settings settings_;
  Listener& listener_;
  const std::shared_ptr<Wakeup> wakeup_;

  std::mutex mutex_;
  std::condition_variable changed_;  ///< Of `rounds_` and `closing_`, and when all events are told.

  // Guarded by mutex_.
  State state_ = State::idle;
  bool wasOpen_ = false;
  bool closing_ = false;                ///< `close` was called.
  bool stopping_ = false;               ///< The own thread has to end.
  std::size_t rounds_ = 0;              ///< How many have ended.
  std::optional<std::string> failure_;  ///< Of the latest round.
  std::optional<Lookup> lookup_;
  Addresses addresses_;
  std::size_t address_ = 0;  ///< The one that is tried, or is to be tried next.
  Clock::time_point roundEnd_;
  Clock::time_point timer_;  ///< The end of the attempt or of the pause.
  Clock::time_point openSince_;
  Clock::duration pause_;  ///< The next one.
  Library library_;
  bool accepted_ = false;  ///< The broker has accepted the connection.
  std::vector<Subscription> subscriptions_;
  std::map<int, Subscription> unanswered_;  ///< By message id.
  std::vector<std::string> refused_;
  Outbox outbox_;
  std::deque<std::function<void()>> events_;  ///< What the listener is to be told, and posted work.

  // Of the own thread.
  Deadline listenersDeadline_;

  std::atomic<std::thread::id> ownThread_{};
  std::mutex joining_;
  std::thread thread_;  ///< Started under `mutex_`, joined under `joining_`.
};

}  // namespace mqtt
