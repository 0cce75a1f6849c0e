#include "mqtt/Outbox.h"

#include <algorithm>
#include <utility>

namespace mqtt {

const Outbox::Message* Outbox::next() const {
  return waiting_.empty() || !mayDepart(waiting_.front().qos) ? nullptr : &waiting_.front();
}

void Outbox::wait(const std::string& topic, const std::string& payload, int qos) {
  waiting_.push_back({topic, payload, qos});
  bytes_ += topic.size() + payload.size();
}

void Outbox::removeNext() {
  bytes_ -= waiting_.front().topic.size() + waiting_.front().payload.size();
  waiting_.pop_front();
}

void Outbox::departed(int id, int qos, const std::string& topic, std::size_t bytes) {
  inFlight_.push_back({id, qos, topic, bytes});
  inFlightQos2_ += qos == 2 ? 1 : 0;
  bytes_ += bytes;
}

std::optional<std::string> Outbox::acknowledged(int id) {
  // The broker acknowledges in order, so the search ends at the first as a rule.
  const auto flight = std::find_if(inFlight_.begin(), inFlight_.end(),
                                   [id](const Flight& candidate) { return candidate.id == id; });
  if (flight == inFlight_.end()) {
    return std::nullopt;
  }
  std::string topic = std::move(flight->topic);
  bytes_ -= flight->bytes;
  inFlightQos2_ -= flight->qos == 2 ? 1 : 0;
  inFlight_.erase(flight);
  return topic;
}

void Outbox::connectionLost() {
  std::erase_if(inFlight_, [this](const Flight& flight) {
    if (flight.qos != 0) {
      return false;
    }
    bytes_ -= flight.bytes;
    return true;
  });
}

void Outbox::clear() {
  inFlight_.clear();
  inFlightQos2_ = 0;
  waiting_.clear();
  bytes_ = 0;
}

}  // namespace mqtt
