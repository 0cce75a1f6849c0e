#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>

namespace mqtt {

/// Messages that are published but not acknowledged, in order: those in flight, which libmosquitto has and
/// sends again after a loss of the connection, and after them those that wait for their turn. The flight
/// is kept short because libmosquitto walks through all of it at each publish and each acknowledgement.
///
/// Not safe for concurrent use.
class Outbox {
 public:
  struct Message {
    std::string topic;
    std::string payload;
    int qos;
  };

  static constexpr std::size_t kMostBytes = 64U << 20;  ///< Topics and payloads together.
  static constexpr std::size_t kMostInFlight = 128;

  /// Of QoS 2. Mosquitto acknowledges and drops what a client sends beyond its `max_inflight_messages`, 20 by
  /// default.
  static constexpr std::size_t kMostInFlightQos2 = 20;

  bool empty() const { return inFlight_.empty() && waiting_.empty(); }

  bool hasRoomFor(std::size_t bytes) const { return bytes <= kMostBytes - bytes_; }

  /// The message that goes next: null when none waits or the flight is full.
  const Message* next() const;

  /// Whether a new message may go at once, overtaking none.
  bool mayDepartAtOnce(int qos) const { return waiting_.empty() && mayDepart(qos); }

  void wait(const std::string& topic, const std::string& payload, int qos);

  /// Takes what `next` returned off the queue, sent or given up.
  void removeNext();

  /// A message of `bytes` (topic and payload) has gone under the message id `id`.
  void departed(int id, int qos, const std::string& topic, std::size_t bytes);

  /// Ends the flight of a message. Returns its topic; nothing for an id that is not in flight.
  std::optional<std::string> acknowledged(int id);

  /// Forgets what no acknowledgement will come for: the messages of QoS 0 in flight.
  void connectionLost();

  void clear();

 private:
  struct Flight {
    int id;
    int qos;
    std::string topic;
    std::size_t bytes;
  };

  bool mayDepart(int qos) const {
    return inFlight_.size() < kMostInFlight && (qos < 2 || inFlightQos2_ < kMostInFlightQos2);
  }

  std::deque<Flight> inFlight_;
  std::size_t inFlightQos2_ = 0;
  std::deque<Message> waiting_;
  std::size_t bytes_ = 0;
};

}  // namespace mqtt
