// Asks a service on the bus, keeps a number of requests under way, and prints how long the replies took:
//
//     busload SERVICE getV|setV CLIENTS OUTSTANDING SECONDS
//
// Each of CLIENTS keeps OUTSTANDING requests under way for SECONDS; the first fifth is for warming up. The
// requests are about 100 generated settings per client in turn, a "setV" with a new value each time round.
// With "setV" one more client listens to the notifications, of which there are two for each request.
//
// The result is one JSON object: "requests" (all, with those of the warm-up), "per_second" (replies within
// the time that was measured, or pairs of notifications if these are fewer), "p50_us" and "p99_us" (from
// request to reply), and with one request under way at a time "complete_p50_us" (from request to the last of
// its reply and notifications). Fails when a reply is no "Ok" or when anything is lost.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "bus/Connection.h"

namespace propertyservice::bench {

namespace {

constexpr unsigned kSettingsOfAClient = 100;
constexpr unsigned kValues = 10;
constexpr std::size_t kNotificationsOfAChange = 2;

struct Options {
  std::string service;
  bool writes;
  unsigned clients;
  unsigned outstanding;
  double seconds;
};

/// The measured figures. Counts everything; keeps times only between `begin` and `end`.
class Measurement {
 public:
  explicit Measurement(bool withNotifications) : withNotifications_(withNotifications) {}

  void begin() {
    begin_ = Clock::now();
    latenciesUs_.clear();
    completionsUs_.clear();
    completeAtBegin_ = complete();
  }

  void end() {
    perSecond_ = static_cast<double>(complete() - completeAtBegin_) /
                 std::chrono::duration<double>(Clock::now() - begin_).count();
    ended_ = true;
  }

  void sent(Clock::time_point when) {
    ++requests_;
    incomplete_.push_back(when);
  }

  void replied(Clock::time_point sent) {
    ++replies_;
    record(latenciesUs_, sent);
    recordCompletions();
  }

  void notified() {
    ++notifications_;
    recordCompletions();
  }

  bool everythingArrived() const { return complete() == requests_ && replies_ == requests_; }

  void print() {
    std::printf(
        R"({"requests": %zu, "per_second": %.0f, "p50_us": %.2f, "p99_us": %.2f, "complete_p50_us": %.2f})"
        "\n",
        requests_, perSecond_, quantile(latenciesUs_, 0.50), quantile(latenciesUs_, 0.99),
        quantile(completionsUs_, 0.50));
  }

 private:
  std::size_t complete() const {
    return withNotifications_ ? std::min(replies_, notifications_ / kNotificationsOfAChange) : replies_;
  }

  void record(std::vector<double>& times, Clock::time_point since) const {
    if (!ended_) {
      times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - since).count());
    }
  }

  /// With one client the requests are complete in the order in which they were sent.
  void recordCompletions() {
    for (; completed_ < complete(); ++completed_) {
      record(completionsUs_, incomplete_.front());
      incomplete_.pop_front();
    }
  }

  static double quantile(std::vector<double>& values, double fraction) {
    if (values.empty()) {
      return 0;
    }
    const auto nth =
        values.begin() + static_cast<std::ptrdiff_t>(fraction * static_cast<double>(values.size()));
    std::nth_element(values.begin(), nth, values.end());
    return *nth;
  }

  const bool withNotifications_;
  bool ended_ = false;
  std::size_t requests_ = 0;
  std::size_t replies_ = 0;
  std::size_t notifications_ = 0;
  std::size_t completed_ = 0;
  std::size_t completeAtBegin_ = 0;
  std::deque<Clock::time_point> incomplete_;
  double perSecond_ = 0;
  Clock::time_point begin_;
  std::vector<double> latenciesUs_;
  std::vector<double> completionsUs_;
};

std::string sampleKey(unsigned index) {
  char key[32];
  std::snprintf(key, sizeof key, "Account.%04u.Setting%u", index / 10, index % 10);
  return key;
}

std::string_view textOf(const mosquitto_message& message) {
  return {static_cast<const char*>(message.payload), static_cast<std::size_t>(message.payloadlen)};
}

/// The value of a setting. A service that is still starting does not hear the first questions.
unsigned currentValue(const Options& options, const std::string& key) {
  constexpr std::string_view kResult = R"("result":")";
  constexpr std::chrono::milliseconds kBetweenQuestions(100);
  std::optional<unsigned> value;
  Connection connection("question", {options.service + "/question"}, [&](const mosquitto_message& reply) {
    const std::string_view text = textOf(reply);
    if (const std::size_t found = text.find(kResult); found != std::string_view::npos) {
      value = static_cast<unsigned>(std::stoul(std::string(text.substr(found + kResult.size()))));
    }
  });
  const Clock::time_point deadline = Clock::now() + kPatience;
  while (!value && Clock::now() < deadline) {
    connection.publish("question/" + options.service, getRequest(key));
    serve({&connection}, Clock::now() + kBetweenQuestions, [&] { return value.has_value(); });
  }
  if (!value) {
    throw std::runtime_error("the service does not answer");
  }
  return *value;
}

/// One client. It answers each reply with its next request until it is told to stop.
class Asker {
 public:
  Asker(const Options& options, unsigned number, Measurement& measurement)
      : topic_("load" + std::to_string(number) + "/" + options.service),
        requests_(makeRequests(options, number)),
        measurement_(measurement),
        connection_("load" + std::to_string(number), {options.service + "/load" + std::to_string(number)},
                    [this](const mosquitto_message& reply) { receive(reply); }) {}

  Connection& connection() { return connection_; }

  void ask() {
    const Clock::time_point now = Clock::now();
    measurement_.sent(now);
    underWay_.push_back(now);
    connection_.publish(topic_, requests_[turn_++ % requests_.size()]);
  }

  void stop() { stopped_ = true; }

 private:
  static std::vector<std::string> makeRequests(const Options& options, unsigned number) {
    // The first setting holds the last value of an earlier run; the others lag by at most one round.
    const unsigned first = number * kSettingsOfAClient;
    const unsigned before = currentValue(options, sampleKey(first));
    std::vector<std::string> requests;
    for (unsigned round = 1; round <= kValues; ++round) {
      for (unsigned n = 0; n < kSettingsOfAClient; ++n) {
        const std::string key = sampleKey(first + n);
        requests.push_back(options.writes ? setRequest(key, (before + round) % kValues) : getRequest(key));
      }
    }
    return requests;
  }

  void receive(const mosquitto_message& reply) {
    const std::string_view text = textOf(reply);
    if (text.find(R"("status":"Ok")") == std::string_view::npos) {
      throw std::runtime_error("a reply that is not Ok: " + std::string(text));
    }
    measurement_.replied(underWay_.front());
    underWay_.pop_front();
    if (!stopped_) {
      ask();
    }
  }

  const std::string topic_;
  const std::vector<std::string> requests_;
  Measurement& measurement_;
  std::deque<Clock::time_point> underWay_;  // replies come in the order of their requests
  std::size_t turn_ = 0;
  bool stopped_ = false;
  Connection connection_;
};

void run(const Options& options) {
  Measurement measurement(options.writes);
  std::deque<Asker> askers;
  std::vector<Connection*> connections;
  for (unsigned number = 0; number < options.clients; ++number) {
    connections.push_back(&askers.emplace_back(options, number, measurement).connection());
  }
  std::unique_ptr<Connection> listener;
  if (options.writes) {
    listener = std::make_unique<Connection>(
        "listener",
        std::vector<std::string>{options.service + "-account/any", options.service + "-groupnotify/any"},
        [&](const mosquitto_message&) { measurement.notified(); });
    connections.push_back(listener.get());
  }

  for (Asker& asker : askers) {
    for (unsigned n = 0; n < options.outstanding; ++n) {
      asker.ask();
    }
  }
  const auto never = [] { return false; };
  const auto after = [](double seconds) {
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  };
  serve(connections, after(options.seconds * 0.2), never);
  measurement.begin();
  serve(connections, after(options.seconds * 0.8), never);
  measurement.end();

  for (Asker& asker : askers) {
    asker.stop();
  }
  if (!serve(connections, Clock::now() + kPatience, [&] { return measurement.everythingArrived(); })) {
    throw std::runtime_error("not everything has arrived");
  }
  measurement.print();
}

}  // namespace

}  // namespace propertyservice::bench

int main(int argc, char* argv[]) {
  using namespace propertyservice::bench;
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() != 5 || (words[1] != "getV" && words[1] != "setV")) {
    std::cerr << "Usage: busload SERVICE getV|setV CLIENTS OUTSTANDING SECONDS\n";
    return EXIT_FAILURE;
  }
  try {
    run({words[0], words[1] == "setV", static_cast<unsigned>(std::stoul(words[2])),
         static_cast<unsigned>(std::stoul(words[3])), std::stod(words[4])});
  } catch (const std::exception& error) {
    std::cerr << "busload: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
