#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "propclient/Clock.h"
#include "propclient/Request.h"

namespace propclient {

/// Which reply answers which request. Replies carry no number, but those to one sender come in the order of
/// its requests, so each is the reply to the first outstanding request that it fits, and requests before that
/// one will never be answered.
///
/// That holds as long as no reply to something forgotten is under way. After a request that was given up, on
/// a new connection, and after a reply that fitted nothing, the next request therefore goes behind a marker:
/// a request whose reply is like no other. Until that reply is here no request behind the marker takes one.
///
/// For one thread alone. Callbacks run within these calls; a callback may call `ask`.
class Conversation {
 public:
  /// So many requests are sent ahead of their replies; others wait here. More would wait at the broker, which
  /// drops what is too much without a word.
  static constexpr std::size_t kMostUnanswered = 20;

  /// Requests that wait beyond it are given up at once.
  static constexpr std::size_t kMostBytes = 64U << 20;

  /// The daemon does not answer a longer request.
  static constexpr std::size_t kLongestText = 1U << 20;

  /// `send` hands a text to the broker. `uniqueText` must not occur in a key or in another client's text.
  Conversation(std::function<void(const std::string& text)> send, std::string uniqueText);

  /// Sends a request, or lets it wait for a lost connection to come back. Before the first connection it is
  /// given up at once.
  void ask(Request request, Clock::time_point deadline);

  void opened();

  /// Gives up all that is outstanding.
  void lost();

  /// While the service is away, refuses what is asked, and what was not sent yet. What was sent may still be
  /// served when it is back.
  void servicePresent(bool present);

  void received(const std::string& text);

  /// Gives up what has no answer by `now`.
  void keepTime(Clock::time_point now);

  /// When to call `keepTime`, where there is anything to give up.
  Deadline nextDeadline() const;

 private:
  struct Waiting {
    Request request;
    Clock::time_point deadline;
  };

  struct Sent {
    enum class Kind { request, forgotten, marker };

    Kind kind;
    Request request;
    Clock::time_point deadline;
  };

  using Deliveries = std::deque<Delivery>;

  void send();
  void sendMarker();
  void forgetBeforeMarker();
  void giveUp(Sent& sent, Deliveries& deliveries);

  const std::function<void(const std::string&)> send_;
  const std::string uniqueText_;
  std::uint64_t markers_ = 0;

  bool wasOpened_ = false;
  bool open_ = false;
  bool away_ = false;
  bool doubtful_ = false;  ///< A reply to something forgotten may be under way.
  std::deque<Sent> sent_;
  std::size_t unanswered_ = 0;  ///< Of `sent_`: requests that somebody waits for.
  std::deque<Waiting> waiting_;
  std::size_t waitingBytes_ = 0;
};

}  // namespace propclient
