#include "propclient/Conversation.h"

#include <algorithm>
#include <utility>

#include "propclient/Json.h"

namespace propclient {

namespace {

void run(const std::deque<Delivery>& deliveries) {
  for (const Delivery& delivery : deliveries) {
    delivery();
  }
}

}  // namespace

Conversation::Conversation(std::function<void(const std::string& text)> send, std::string uniqueText)
    : send_(std::move(send)), uniqueText_(std::move(uniqueText)) {}

void Conversation::ask(Request request, Clock::time_point deadline) {
  if (away_) {
    request.refuse();
    return;
  }
  const std::size_t bytes = request.text.size();
  if (!wasOpened_ || bytes > kLongestText || bytes > kMostBytes - waitingBytes_) {
    request.giveUp();
    return;
  }
  waitingBytes_ += bytes;
  waiting_.push_back({std::move(request), deadline});
  send();
}

void Conversation::opened() {
  wasOpened_ = true;
  open_ = true;
  doubtful_ = true;
  send();
}

void Conversation::lost() {
  open_ = false;
  Deliveries deliveries;
  for (Sent& sent : std::exchange(sent_, {})) {
    giveUp(sent, deliveries);
  }
  for (Waiting& waiting : std::exchange(waiting_, {})) {
    deliveries.push_back(std::move(waiting.request.giveUp));
  }
  waitingBytes_ = 0;
  run(deliveries);
}

void Conversation::servicePresent(bool present) {
  away_ = !present;
  if (away_) {
    Deliveries deliveries;
    for (Waiting& waiting : std::exchange(waiting_, {})) {
      deliveries.push_back(std::move(waiting.request.refuse));
    }
    waitingBytes_ = 0;
    run(deliveries);
  }
}

void Conversation::received(const std::string& text) {
  const auto reply = json::parse(text);
  if (!reply) {
    doubtful_ = true;
    return;
  }
  for (auto sent = sent_.begin(); sent != sent_.end(); ++sent) {
    if (Delivery delivery = sent->request.read(*reply)) {
      Deliveries deliveries;
      std::for_each(sent_.begin(), sent, [&](Sent& skipped) { giveUp(skipped, deliveries); });
      if (sent->kind == Sent::Kind::request) {
        --unanswered_;
        deliveries.push_back(std::move(delivery));
      }
      sent_.erase(sent_.begin(), sent + 1);
      send();
      run(deliveries);
      return;
    }
    if (sent->kind == Sent::Kind::marker) {
      return;
    }
  }
  doubtful_ = true;
}

void Conversation::keepTime(Clock::time_point now) {
  Deliveries deliveries;
  for (Sent& sent : sent_) {
    if (sent.kind == Sent::Kind::request && sent.deadline <= now) {
      giveUp(sent, deliveries);
      doubtful_ = true;
    }
  }
  while (!waiting_.empty() && waiting_.front().deadline <= now) {
    waitingBytes_ -= waiting_.front().request.text.size();
    deliveries.push_back(std::move(waiting_.front().request.giveUp));
    waiting_.pop_front();
  }
  send();
  run(deliveries);
}

Deadline Conversation::nextDeadline() const {
  Deadline next;
  for (const Sent& sent : sent_) {
    if (sent.kind == Sent::Kind::request) {
      next = earlier(next, sent.deadline);
    }
  }
  return waiting_.empty() ? next : earlier(next, waiting_.front().deadline);
}

void Conversation::send() {
  while (open_ && !waiting_.empty() && unanswered_ < kMostUnanswered) {
    if (doubtful_) {
      sendMarker();
    }
    Waiting next = std::move(waiting_.front());
    waiting_.pop_front();
    waitingBytes_ -= next.request.text.size();
    send_(next.request.text);
    sent_.push_back({Sent::Kind::request, std::move(next.request), next.deadline});
    ++unanswered_;
  }
}

void Conversation::sendMarker() {
  doubtful_ = false;
  Request marker = request::marker(uniqueText_ + std::to_string(++markers_));
  send_(marker.text);
  sent_.push_back({Sent::Kind::marker, std::move(marker), {}});
  forgetBeforeMarker();
}

/// Nobody waits for what stands before the last marker that no awaited request stands before, and a reply to
/// it is not mistaken for another without it.
void Conversation::forgetBeforeMarker() {
  auto last = sent_.begin();
  for (auto sent = sent_.begin(); sent != sent_.end() && sent->kind != Sent::Kind::request; ++sent) {
    if (sent->kind == Sent::Kind::marker) {
      last = sent;
    }
  }
  sent_.erase(sent_.begin(), last);
}

/// Keeps what was sent: its reply may still come, and must not be taken for the one to a later request.
void Conversation::giveUp(Sent& sent, Deliveries& deliveries) {
  if (sent.kind == Sent::Kind::request) {
    sent.kind = Sent::Kind::forgotten;
    --unanswered_;
    deliveries.push_back(sent.request.giveUp);
  }
}

}  // namespace propclient
