#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "propclient/Client.h"
#include "propclient/Clock.h"
#include "propclient/Transport.h"

struct mosquitto;

namespace propclient {

/// Whether a text can be one level of a topic, and no wildcard.
bool isTopicLevel(const std::string& text);

/// MQTT to the broker over libmosquitto. Once it was open, a connection that breaks is made again, with
/// growing pauses, each time as a new client: no message of the one before is sent a second time.
///
/// For one thread alone, which waits for `socket` and calls `turn`; there the listener is called.
class Connection final : public Transport {
 public:
  Connection(const Options& options, std::string clientId, TransportListener& listener);
  ~Connection() override;

  /// Tries to connect now, at one address of the host after the other. Ends with `opened` or `failed`.
  void open();
  bool isOpen() const { return state_ == State::open; }
  void close();

  void publish(const std::string& topic, const std::string& payload) override;
  void subscribe(const std::vector<std::string>& topics) override;
  void unsubscribe(const std::vector<std::string>& topics) override;

  /// What to wait for: the socket, -1 without one, the events of `poll`, and the time.
  int socket() const;
  short awaitedEvents() const;
  Deadline nextTurn() const;

  /// `events`: what `poll` found.
  void turn(short events);

 private:
  struct Destroy {
    void operator()(mosquitto* library) const;
  };
  using Library = std::unique_ptr<mosquitto, Destroy>;

  enum class State { none, pausing, attempting, open };

  Library makeLibrary();
  void startRound();
  void attempt();
  void serve(short events);
  void check(int error);
  void broke(const std::string& reason);
  void nextAddress(const std::string& reason);
  void pause();
  void request(const std::string& topic);
  void write();

  // What libmosquitto reports is only noted in its callbacks, where it holds locks of its own, and handled
  // when it has returned.
  void noteSubscribed(int id, bool granted);
  void handleNoted();
  void handleSubscribed();

  const Options& options_;
  const std::string clientId_;
  TransportListener& listener_;

  State state_ = State::none;
  bool wasOpen_ = false;
  Library library_;
  std::string failure_;  ///< Why the connection that is being served cannot go on.

  std::vector<std::string> addresses_;
  std::size_t address_ = 0;
  Clock::time_point timer_;  ///< The end of the attempt, or of the pause.
  Clock::time_point openSince_;
  Clock::duration pause_{};

  std::set<std::string> topics_;
  std::map<int, std::string> unansweredSubscriptions_;  ///< By message id.
  std::optional<std::string> refused_;

  struct Message {
    std::string topic;
    std::string payload;
  };
  bool acceptedNoted_ = false;
  bool subscribedNoted_ = false;
  std::vector<Message> messagesNoted_;
};

}  // namespace propclient
