#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>

#include "core/JsonText.h"
#include "soak/History.h"
#include "support/Device.h"

// Many clients that write, read, reset and watch the same properties, while daemon and broker are stopped,
// killed and started again. All that they sent, were answered and heard is recorded, and checked when the run
// is over.

namespace propertyservice::soak {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::BusClient;
using test::Device;
using test::makeRequest;
using test::Row;

constexpr unsigned kClients = 16;
constexpr unsigned kGroups = 4;
constexpr unsigned kKeysOfGroup = 6;
constexpr int kLongestPauseUs = 20'000;  ///< The service is to be checked, and not how long a queue becomes.
const std::string kDefault = "default";

std::string groupName(unsigned group) {
  return "Crowd" + std::to_string(group) + '.';
}

/// State that the clients share with those who disturb them. Safe from any thread.
struct System {
  Seconds now() const { return std::chrono::duration<Seconds>(Clock::now() - start).count(); }

  const Clock::time_point start = Clock::now();
  std::atomic<bool> ended = false;
  std::atomic<unsigned> broker = 0;  ///< Odd while it is away.
  std::atomic<unsigned> daemon = 0;  ///< Odd while it is away.
};

bool isAway(unsigned count) {
  return count % 2 != 0;
}

/// One of the crowd. Used by its thread, and after that by the main thread.
class Member {
 public:
  Member(unsigned number, unsigned seed, const System& system)
      : name_("crowd" + std::to_string(number)),
        group_(groupName(number % kGroups)),
        system_(system),
        random_(seed + number) {}

  void run() {
    while (!system_.ended) {
      const unsigned broker = system_.broker;
      if (broker != session_) {
        leave();
      }
      if (!isAway(broker)) {
        try {
          join(broker);
          step();
        } catch (const std::runtime_error&) {
          if (system_.broker == broker) {
            throw;
          }
        }
      }
      std::this_thread::sleep_for(std::chrono::microseconds(draw(kLongestPauseUs)));
    }
  }

  /// REQUIRES: daemon and broker run. All that was announced is heard when this returns.
  void finish() {
    if (bus_) {
      bus_->settle();
      listen();
      watches.back().end = system_.now();
      watches.back().lost = session_ != system_.broker;
    }
  }

  std::vector<History::Write> writes;
  std::vector<History::Read> reads;
  std::vector<History::Watch> watches;
  std::size_t unanswered = 0;

 private:
  void join(unsigned broker) {
    if (!bus_) {
      session_ = broker;
      bus_ =
          std::make_unique<BusClient>(name_ + '-' + std::to_string(broker),
                                      std::vector<std::string>{"prop-service-" + topicOf(group_) + "/any"});
      watches.push_back({.group = group_, .begin = system_.now(), .end = system_.now(), .announcements = {}});
    }
  }

  void leave() {
    if (bus_) {
      listen();
      watches.back().lost = true;
      bus_.reset();
    }
  }

  static std::string topicOf(const std::string& group) {
    std::string topic = group.substr(0, group.find('.'));
    std::ranges::transform(topic, topic.begin(), [](unsigned char c) { return std::tolower(c); });
    return topic;
  }

  void step() {
    const std::string key = randomKey();
    switch (draw(10)) {
      case 0:
        write(makeRequest("resetVal", key), {{key, kDefault}}, true);
        break;
      case 1: {
        Json::Value request;
        request["method"] = "setVList";
        std::map<std::string, std::string> values;
        for (unsigned i = 0; i < 3; ++i) {
          const std::string each = randomKey();
          request["list"][each] = values[each] = newValue();
        }
        write(request, values, false);
        break;
      }
      case 2:
      case 3:
      case 4:
      case 5: {
        const std::string value = newValue();
        write(makeRequest("setV", key, value), {{key, value}}, false);
        break;
      }
      default:
        read(key);
    }
    watches.back().end = system_.now();
  }

  void write(const Json::Value& request, const std::map<std::string, std::string>& values, bool reset) {
    const Seconds sent = system_.now();
    const auto reply = ask(request);
    const std::optional<Seconds> answered = reply ? std::optional(system_.now()) : std::nullopt;
    if (reply && (*reply)["status"] != "Ok") {
      throw std::logic_error(json::write(request) + " is answered with " + json::write(*reply));
    }
    for (const auto& [key, value] : values) {
      writes.push_back({.key = key, .value = value, .sent = sent, .answered = answered, .reset = reset});
    }
  }

  void read(const std::string& key) {
    const Seconds sent = system_.now();
    if (const auto reply = ask(makeRequest("getV", key))) {
      reads.push_back({key, (*reply)["result"].asString(), sent, system_.now()});
    }
  }

  /// Nothing when daemon or broker went in the meantime and took request or reply with them.
  std::optional<Json::Value> ask(const Json::Value& request) {
    const unsigned daemon = system_.daemon;
    bus_->sendRequest(request);
    const auto deadline = Clock::now() + test::kPatience;
    while (!bus_->waitForMessages(bus_->replyTopic(), 1, 20ms)) {
      if (system_.broker != session_) {
        ++unanswered;
        return std::nullopt;
      }
      if (system_.daemon != daemon && !isAway(system_.daemon)) {
        // Requests that waited for the daemon are served before this.
        if (!bus_->serviceIsAlive(test::kPatience) && system_.broker == session_) {
          throw std::logic_error("the daemon that was started again does not answer");
        }
        break;
      }
      if (Clock::now() > deadline && system_.daemon == daemon) {
        throw std::logic_error("no answer to " + json::write(request));
      }
    }
    return listen();
  }

  /// Takes what has come; the first reply, unless it answers whether the service is alive.
  std::optional<Json::Value> listen() {
    std::optional<Json::Value> reply;
    for (const auto& [topic, payload] : bus_->take()) {
      Json::Value message;
      json::parse(payload, message);
      if (topic != bus_->replyTopic()) {
        watches.back().announcements.push_back(
            {message["param"].asString(), message["value"].asString(), system_.now()});
      } else if (message["param"] != "Ok" && !reply) {
        reply = message;
      }
    }
    unanswered += reply ? 0U : 1U;
    return reply;
  }

  std::string randomKey() { return groupName(draw(kGroups)) + "Key" + std::to_string(draw(kKeysOfGroup)); }
  std::string newValue() { return name_ + '.' + std::to_string(++count_); }

  unsigned draw(unsigned choices) { return std::uniform_int_distribution(0U, choices - 1)(random_); }

  const std::string name_;
  const std::string group_;
  const System& system_;
  std::mt19937 random_;
  std::unique_ptr<BusClient> bus_;
  unsigned session_ = 0;  ///< The broker to which it is connected, by `System::broker`.
  unsigned count_ = 0;
};

class Crowd {
 public:
  explicit Crowd(unsigned seed) : random_(seed), device_(makeRows()) {
    for (unsigned i = 0; i < kClients; ++i) {
      members_.push_back(std::make_unique<Member>(i, seed, system_));
    }
  }

  /// Throws `std::runtime_error` when something goes wrong that no history is needed to see.
  void run(std::chrono::duration<double> duration) {
    device_.start();
    for (const auto& member : members_) {
      threads_.emplace_back([this, &member] { runMember(*member); });
    }
    const auto end = Clock::now() + duration;
    const std::array disturbances = {&Crowd::killDaemon, &Crowd::killDaemon, &Crowd::restartDaemon,
                                     &Crowd::restartDaemon, &Crowd::replaceBroker};
    while (Clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(draw(200, 3000)));
      (this->*disturbances[draw(0, disturbances.size() - 1)])();
      requireNoFailure();
    }
    std::this_thread::sleep_for(1s);
    stopMembers();
    requireNoFailure();
    for (const auto& member : members_) {
      member->finish();
    }
  }

  void stopMembers() {
    system_.ended = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
  }

  History takeHistory() {
    for (const auto& member : members_) {
      std::ranges::move(member->writes, std::back_inserter(history_.writes));
      std::ranges::move(member->reads, std::back_inserter(history_.reads));
      std::ranges::move(member->watches, std::back_inserter(history_.watches));
    }
    return std::move(history_);
  }

  void report(const History& history) const {
    std::size_t announcements = 0;
    for (const auto& watch : history.watches) {
      announcements += watch.announcements.size();
    }
    std::printf(
        "  %zu writes, %zu reads, %zu announcements heard by %zu watches\n"
        "  daemon killed %zu times, restarted %zu times, broker replaced %u times\n",
        history.writes.size(), history.reads.size(), announcements, history.watches.size(),
        history.kills.size(), restarts_, system_.broker / 2);
  }

  std::string log() const { return device_.log(); }

 private:
  static std::vector<Row> makeRows() {
    std::vector<Row> rows = Device::defaultRows();
    std::ranges::find(rows, "System.Debug.LevelMask.PROP-SRV", &Row::key)->value = "6";
    for (unsigned group = 0; group < kGroups; ++group) {
      for (unsigned i = 0; i < kKeysOfGroup; ++i) {
        rows.push_back({.key = groupName(group) + "Key" + std::to_string(i),
                        .value = kDefault,
                        .defaultValue = kDefault});
      }
    }
    return rows;
  }

  void runMember(Member& member) {
    try {
      member.run();
    } catch (const std::exception& error) {
      const std::lock_guard lock(mutex_);
      failure_ = failure_.empty() ? error.what() : failure_;
    }
  }

  void killDaemon() {
    ++system_.daemon;
    const Seconds begin = system_.now();
    device_.daemon().kill();
    history_.kills.push_back({begin, system_.now()});
    device_.start();
    ++system_.daemon;
  }

  void restartDaemon() {
    ++restarts_;
    ++system_.daemon;
    device_.restart();
    ++system_.daemon;
  }

  void replaceBroker() {
    ++system_.broker;
    draw(0, 1) == 0 ? device_.broker().stop() : device_.broker().kill();
    device_.broker().start();
    BusClient probe("crowd-probe");
    if (!test::eventually([&] { return probe.serviceIsAlive(200ms); }, 10s)) {
      throw std::runtime_error("the daemon does not come back to the bus");
    }
    ++system_.broker;
  }

  void requireNoFailure() {
    const std::lock_guard lock(mutex_);
    if (!failure_.empty()) {
      throw std::runtime_error(failure_);
    }
  }

  std::size_t draw(std::size_t least, std::size_t greatest) {
    return std::uniform_int_distribution(least, greatest)(random_);
  }

  std::mt19937 random_;
  System system_;
  Device device_;
  History history_ = {.defaults = defaults(), .writes = {}, .reads = {}, .watches = {}, .kills = {}};
  std::size_t restarts_ = 0;
  std::vector<std::unique_ptr<Member>> members_;
  std::vector<std::thread> threads_;

  std::mutex mutex_;
  // Guarded by mutex_.
  std::string failure_;

  static std::map<std::string, std::string> defaults() {
    std::map<std::string, std::string> values;
    for (const Row& row : makeRows()) {
      if (row.key.starts_with("Crowd")) {
        values[row.key] = row.defaultValue;
      }
    }
    return values;
  }
};

int run(double minutes, unsigned seed) {
  std::printf("crowd: %.2f minutes, seed %u\n", minutes, seed);
  std::fflush(stdout);
  Crowd crowd(seed);
  std::vector<std::string> wrong;
  try {
    crowd.run(std::chrono::duration<double>(minutes * 60));
  } catch (const std::exception& error) {
    wrong.emplace_back(error.what());
  }
  crowd.stopMembers();
  const History history = crowd.takeHistory();
  for (const std::string& contradiction : contradictions(history)) {
    wrong.push_back(contradiction);
  }
  crowd.report(history);
  if (wrong.empty()) {
    std::puts("nothing contradicts the promises");
    return EXIT_SUCCESS;
  }
  std::printf("FAILED (seed %u):\n", seed);
  for (const std::string& text : wrong) {
    std::cout << text << '\n';
  }
  const std::string log = crowd.log();
  std::cout << "the daemon's log ends:\n" << log.substr(log.size() - std::min<std::size_t>(log.size(), 2000));
  return EXIT_FAILURE;
}

}  // namespace
}  // namespace propertyservice::soak

int main(int argc, char** argv) {
  const double minutes = argc > 1 ? std::atof(argv[1]) : 1;
  const unsigned seed = argc > 2 ? static_cast<unsigned>(std::stoul(argv[2])) : std::random_device()();
  return propertyservice::soak::run(minutes, seed);
}
