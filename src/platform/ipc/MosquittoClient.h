#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ipc/IIPCClient.h"
#include "ipc/Outbox.h"
#include "ipc/Wakeup.h"

struct mosquitto;

namespace ipc {

/// The bus over libmosquitto (MQTT 3.1.1).
///
/// One thread, started by `connect` and ended by `disconnect`, waits for the socket, reads, calls the
/// callbacks with no lock held, and then writes all that the turn gave: acknowledgements and what the
/// callbacks published. Any other thread that publishes writes to the socket itself and wakes that thread
/// only when the socket is full.
///
/// libmosquitto is only ever called under `mutex_`, and its own callbacks, which therefore run under it too,
/// only change the state here and note events.
class MosquittoClient : public IIPCClient {
 public:
  /// Throws `IPCException` for an `id` that MQTT does not allow. `host` stands in for an empty one of
  /// `connect`.
  MosquittoClient(std::string id, std::string host, std::string credentialsPath);
  ~MosquittoClient() override;

  void connect(int cleanSession, int maxQos, const std::string& host) override;
  void disconnect() override;
  void publish(const std::string& topic, const std::string& payload, int qos) override;
  void subscribe(const std::string& topicFilter, IIPCCallback* callback) override;

 private:
  using Clock = std::chrono::steady_clock;

  struct Destroy {
    void operator()(mosquitto* library) const;
  };
  using Library = std::unique_ptr<mosquitto, Destroy>;

  enum class Connection {
    none,        ///< Not asked for.
    pausing,     ///< The next attempt starts at `timer_`.
    attempting,  ///< The broker has until `timer_` to accept the connection and the subscriptions.
    open,
    failed,  ///< `connect` got none, `failure_` says why.
  };

  struct Listener {
    IIPCCallback* callback;
    std::vector<std::string> topicFilters;
  };
  using Listeners = std::vector<Listener>;

  /// Something to tell the callbacks.
  struct Event {
    enum class Kind { messageArrived, deliveryComplete, connectionLost };

    Kind kind;
    std::string text;  ///< The topic, or the cause of a lost connection.
    std::string payload;
  };

  // The life of the connection. As everything down to the callback thread, these need `mutex_`.
  bool isConnected() const {
    return connection_ == Connection::attempting || connection_ == Connection::open;
  }
  Library makeLibrary(bool cleanSession);
  void attempt();
  void connectionAnswered();
  void connectionBroke(const std::string& cause);
  void pauseBeforeAttempt();
  void requestSubscription(const std::string& topicFilter);

  // What libmosquitto reports.
  void onConnect(int answer);
  void onDisconnect(int reason);
  void onSubscribed(int id, bool granted);
  void onPublished(int id);

  // The way out.
  int handOver(const std::string& topic, const std::string& payload, int qos);
  void handOverWaiting();
  void write();
  void writeFromAnyThread();

  // The callback thread.
  void run();
  void takeTurn(std::unique_lock<std::mutex>& lock);
  int pollTimeoutMs() const;
  void keepTime();
  void dispatchEvents(std::unique_lock<std::mutex>& lock);
  static void dispatch(const Event& event, const Listener& listener);

  void stop();

  // Constant after construction.
  const std::string id_;
  const std::string host_;
  const std::string credentialsPath_;

  Wakeup wakeup_;

  // Held from the beginning to the end of `connect` and `disconnect`; taken before `mutex_`.
  std::mutex lifecycle_;
  std::thread loop_;

  std::mutex mutex_;
  std::condition_variable changed_;  ///< Of `opened_`, `connection_` and whether `outbox_` is empty.

  // Constant from `connect` to `disconnect`, guarded by mutex_.
  Library library_;
  std::string broker_;
  std::vector<std::string> addresses_;  ///< What `broker_` stands for.
  int maxQos_ = 0;
  std::thread::id callbackThread_;

  // Guarded by mutex_.
  Connection connection_ = Connection::none;
  bool opened_ =
      false;  ///< Since `connect` the connection has been open; from now on it comes back by itself.
  bool stopping_ = false;
  std::string failure_;      ///< Why the latest attempt failed.
  std::size_t address_ = 0;  ///< The address to try next.
  Clock::time_point timer_;
  Clock::time_point openSince_;
  Clock::duration pause_{};  ///< Before the next attempt that follows a failed one.
  std::shared_ptr<const Listeners> listeners_ = std::make_shared<Listeners>();  ///< Replaced, never changed.
  std::map<int, std::string> unansweredSubscriptions_;                          ///< By message id.
  Outbox outbox_;
  std::vector<Event> events_;
};

}  // namespace ipc
