#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "soak/Load.h"
#include "support/Device.h"

// A device under mixed load of all requests, whose daemon and broker are restarted and killed in the midst of
// it. After each disturbance, and at the end, daemon, database file and a model of what was accepted must
// agree key by key. In the last third the daemon is left running: there its memory and descriptors must not
// grow.

namespace propertyservice::soak {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::Device;
using test::Row;

constexpr int kLoads = 4;
constexpr std::size_t kMostGrowthKiB = 16 * 1024;
constexpr std::size_t kMostMoreDescriptors = 8;

struct Resources {
  std::size_t residentKiB;
  std::size_t descriptors;
};

/// Rows that the daemon itself wants, and those of the loads. Without the log's info entries, which would be
/// a gigabyte.
std::vector<Row> makeRows(const std::vector<std::unique_ptr<Load>>& loads) {
  std::vector<Row> rows = Device::defaultRows();
  const auto mask = std::ranges::find(rows, "System.Debug.LevelMask.PROP-SRV", &Row::key);
  mask->value = "6";
  for (const auto& load : loads) {
    rows.insert(rows.end(), load->rows().begin(), load->rows().end());
  }
  return rows;
}

class Soak {
 public:
  Soak(std::chrono::duration<double> duration, unsigned seed)
      : start_(Clock::now()),
        quietFrom_(start_ + std::chrono::duration_cast<Clock::duration>(duration * 2 / 3)),
        end_(start_ + std::chrono::duration_cast<Clock::duration>(duration)),
        generator_(seed),
        loads_(makeLoads(seed)),
        device_(makeRows(loads_)) {}

  /// Throws `std::runtime_error` at the first contradiction.
  void run() {
    device_.start();
    report("start", resources());
    for (const auto& load : loads_) {
      threads_.emplace_back([this, &load] { keepSending(*load); });
    }
    gate_.open();
    disturb(quietFrom_, {&Soak::killDaemon, &Soak::restartDaemon, &Soak::restartBroker, &Soak::killBroker,
                         &Soak::makeBackup, &Soak::restore, &Soak::makeSysdump, &Soak::changeVersion,
                         &Soak::resetToFactory});

    const Resources before = resources();
    report("daemon left alone from here", before);
    disturb(end_, {&Soak::restartBroker, &Soak::makeBackup, &Soak::restore, &Soak::makeSysdump});
    verify();
    const Resources after = resources();
    report("end", after);

    requireEqualAfterStop();
    require(after.residentKiB < before.residentKiB + kMostGrowthKiB, "the memory grows");
    require(after.descriptors <= before.descriptors + kMostMoreDescriptors, "the descriptors become more");
  }

  void endLoads() {
    gate_.end();
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
  }

  void printCounts() const {
    std::map<std::string, Load::Count> total = counts_;
    for (const auto& load : loads_) {
      for (const auto& [method, count] : load->counts()) {
        total[method].answered += count.answered;
        total[method].lost += count.lost;
      }
    }
    for (const auto& [method, count] : total) {
      std::printf("  %-22s %9zu answered %6zu lost in a disturbance\n", method.c_str(), count.answered,
                  count.lost);
    }
    for (const auto& [name, count] : disturbanceCounts_) {
      std::printf("  %-22s %9d times\n", name.c_str(), count);
    }
  }

  std::string daemonLog() const { return device_.log(); }

 private:
  using Action = void (Soak::*)();
  using Snapshot = std::map<std::string, std::string>;

  std::vector<std::unique_ptr<Load>> makeLoads(unsigned seed) {
    std::vector<std::unique_ptr<Load>> loads;
    for (int i = 0; i < kLoads; ++i) {
      loads.push_back(std::make_unique<Load>(i, seed + static_cast<unsigned>(i) + 1, disturbances_));
    }
    return loads;
  }

  // The loads' threads.

  void keepSending(Load& load) {
    while (gate_.enter()) {
      try {
        load.sendRandomRequest();
      } catch (const std::exception& error) {
        noteFailure(error.what());
        gate_.leave();
        return;
      }
      gate_.leave();
    }
  }

  void noteFailure(const std::string& text) {
    const std::lock_guard lock(failureMutex_);
    failure_ = failure_.empty() ? text : failure_;
    failed_ = true;
  }

  // The main thread.

  void disturb(Clock::time_point end, const std::vector<Action>& actions) {
    while (Clock::now() < end) {
      letThrough(std::chrono::milliseconds(random(100, 1500)));
      (this->*actions[static_cast<std::size_t>(random(0, static_cast<int>(actions.size()) - 1))])();
    }
  }

  void letThrough(std::chrono::milliseconds duration) {
    gate_.open();
    std::this_thread::sleep_for(duration);
    const std::lock_guard lock(failureMutex_);
    require(!failed_, failure_);
  }

  void killDaemon() {
    ++disturbanceCounts_["daemon killed"];
    disturbances_.begin();
    disturbances_.daemonDies();
    device_.daemon().kill();
    startDaemon();
    disturbances_.end();
    verify();
  }

  void restartDaemon() {
    ++disturbanceCounts_["daemon restarted"];
    disturbances_.begin();
    stopDaemon();
    startDaemon();
    disturbances_.end();
    verify();
  }

  void restartBroker() {
    ++disturbanceCounts_["broker restarted"];
    disturbances_.begin();
    device_.broker().stop();
    returnBroker();
  }

  void killBroker() {
    ++disturbanceCounts_["broker killed"];
    disturbances_.begin();
    device_.broker().kill();
    returnBroker();
  }

  void returnBroker() {
    device_.broker().start();
    requireServiceWithin(5s);
    disturbances_.end();
    verify();
  }

  void makeBackup() {
    gate_.close();
    const bool allSettings = random(0, 1) == 0;
    Json::Value request;
    request["method"] = "makeBackup";
    request["allSettings"] = allSettings;
    ask(request, "Ok");
    backup_ = exported(allSettings ? 238 : 8);
    requireEqual(readBackup(Device::kUserBackup), *backup_, "backup and model");
  }

  void restore() {
    gate_.close();
    Json::Value request;
    request["method"] = "restore";
    ask(request, backup_ ? "Ok" : "DBError");
    if (backup_) {
      apply(*backup_);
      backup_.reset();
    }
    require(!Device::exists(Device::kUserBackup), "a restored backup is left");
    verify();
  }

  void makeSysdump() {
    gate_.close();
    Json::Value request;
    request["method"] = "makeSysdump";
    ask(request, "Ok");
    require(readBackup(Device::kSysdump).size() == exported(4).size(), "the system dump lacks properties");
  }

  void changeVersion() { restoreAtStart("prepareVersionChange", 254, Device::kVersionChangeBackup); }
  void resetToFactory() { restoreAtStart("prepareFactoryReset", 16, Device::kFactoryResetBackup); }

  void restoreAtStart(const std::string& method, int mask, const char* file) {
    gate_.close();
    Json::Value request;
    request["method"] = method;
    ask(request, "Ok");
    const Snapshot kept = exported(mask);
    requireEqual(readBackup(file), kept, "backup and model");

    letThrough(std::chrono::milliseconds(random(10, 500)));
    gate_.close();
    disturbances_.begin();
    stopDaemon();
    startDaemon();
    disturbances_.end();
    apply(kept);
    require(!Device::exists(file), "a restored backup is left");
    verify();
  }

  /// Daemon, file and model agree. Leaves the gate closed.
  void verify() {
    gate_.close();
    Snapshot expected;
    for (const auto& load : loads_) {
      load->verify();
      for (const Row& row : load->rows()) {
        expected[row.key] = *load->model().value(row.key);
      }
    }
    test::eventually([&] { return propertiesInFile() == expected; }, 10s);
    requireEqual(propertiesInFile(), expected, "file and model");
    for (const auto& load : loads_) {
      load->model().stored();
    }
  }

  void requireEqualAfterStop() {
    disturbances_.begin();
    stopDaemon();
    startDaemon();
    disturbances_.end();
    verify();
    stopDaemon();
  }

  void startDaemon() { device_.start(); }

  void stopDaemon() {
    require(device_.stop() == 0, "the daemon does not end well");
    require(unexpectedErrors().empty(), "the daemon logged: " + unexpectedErrors());
  }

  /// The errors that neither a request of the loads causes, nor a broker that goes, nor the end of the
  /// connection while changes are still to be announced.
  std::string unexpectedErrors() const {
    constexpr std::array kExpected = {"Could not set property", "Restore settings failed",
                                      "Connection lost due to", "Cannot publish on topic"};
    std::string errors;
    for (const std::string& line : device_.logLines(" error ")) {
      if (std::ranges::none_of(kExpected,
                               [&](const char* text) { return line.find(text) != std::string::npos; })) {
        errors += line + '\n';
      }
    }
    return errors;
  }

  void requireServiceWithin(std::chrono::seconds patience) const {
    test::BusClient probe("soak-probe");
    const bool alive = test::eventually([&] { return probe.serviceIsAlive(200ms); }, patience);
    require(alive, "the daemon does not come back to the bus");
  }

  void ask(const Json::Value& request, const std::string& status) {
    test::BusClient client("soak-maintenance");
    const Json::Value reply = client.request(request);
    require(reply["status"] == status, request["method"].asString() + " was not answered with " + status);
    ++counts_[request["method"].asString()].answered;
  }

  /// Returns the model's values of the loads' properties whose flags the mask selects.
  Snapshot exported(int mask) {
    resolve();
    Snapshot snapshot;
    for (const auto& load : loads_) {
      for (const Row& row : load->rows()) {
        if ((row.flags & mask) != 0) {
          snapshot[row.key] = *load->model().value(row.key);
        }
      }
    }
    return snapshot;
  }

  void resolve() {
    for (const auto& load : loads_) {
      load->verify();
    }
  }

  void apply(const Snapshot& snapshot) {
    for (const auto& load : loads_) {
      for (const Row& row : load->rows()) {
        if (const auto kept = snapshot.find(row.key); kept != snapshot.end()) {
          load->model().wrote(row.key, kept->second);
        }
      }
    }
  }

  static bool isOurs(const std::string& key) { return key.starts_with("Soak"); }

  static Snapshot propertiesInFile() {
    Snapshot values = Device::valuesInFile();
    std::erase_if(values, [](const auto& entry) { return !isOurs(entry.first); });
    return values;
  }

  static Snapshot readBackup(const std::string& path) {
    Snapshot values;
    std::istringstream lines(Device::readFile(path));
    for (std::string line; std::getline(lines, line);) {
      const std::size_t separator = line.find(';');
      if (separator != std::string::npos && isOurs(line)) {
        values[line.substr(0, separator)] = line.substr(separator + 1);
      }
    }
    return values;
  }

  static void requireEqual(const Snapshot& actual, const Snapshot& expected, const std::string& what) {
    std::string differences;
    for (const auto& [key, value] : expected) {
      if (const auto found = actual.find(key); found == actual.end() || found->second != value) {
        differences += "\n" + key + " is " + show(found == actual.end() ? Value() : found->second) +
                       " where the model has " + show(value);
      }
    }
    require(differences.empty() && actual.size() == expected.size(), what + " differ:" + differences);
  }

  static void require(bool holds, const std::string& failure) {
    if (!holds) {
      throw std::runtime_error(failure);
    }
  }

  Resources resources() { return {device_.daemon().residentKiB(), device_.daemon().descriptors()}; }

  void report(const char* when, const Resources& resources) const {
    std::printf("%7.1f s  %-28s daemon: %6zu KiB resident, %3zu descriptors\n",
                std::chrono::duration<double>(Clock::now() - start_).count(), when, resources.residentKiB,
                resources.descriptors);
    std::fflush(stdout);
  }

  int random(int least, int greatest) { return std::uniform_int_distribution(least, greatest)(generator_); }

  const Clock::time_point start_;
  const Clock::time_point quietFrom_;
  const Clock::time_point end_;
  std::mt19937 generator_;
  Disturbances disturbances_;
  Gate gate_;
  std::vector<std::unique_ptr<Load>>
      loads_;  ///< Each used by its thread, and by the main thread behind the gate.
  Device device_;
  std::optional<Snapshot> backup_;  ///< What "/config/user_backup.csv" must hold.
  std::map<std::string, Load::Count> counts_;
  std::map<std::string, int> disturbanceCounts_;
  std::vector<std::thread> threads_;

  std::mutex failureMutex_;
  // Guarded by failureMutex_.
  bool failed_ = false;
  std::string failure_;
};

int soak(double minutes, unsigned seed) {
  std::printf("soak: %.2f minutes, seed %u\n", minutes, seed);
  std::fflush(stdout);
  Soak soak(std::chrono::duration<double>(minutes * 60), seed);
  int status = EXIT_SUCCESS;
  try {
    soak.run();
    std::puts("daemon, file and model agree");
  } catch (const std::exception& error) {
    const std::string log = soak.daemonLog();
    std::cout << "FAILED (seed " << seed << "): " << error.what() << "\nthe daemon's log ends:\n"
              << log.substr(log.size() - std::min<std::size_t>(log.size(), 4000)) << std::endl;
    status = EXIT_FAILURE;
  }
  soak.endLoads();
  soak.printCounts();
  return status;
}

}  // namespace
}  // namespace propertyservice::soak

int main(int argc, char** argv) {
  const double minutes = argc > 1 ? std::atof(argv[1]) : 1;
  const unsigned seed = argc > 2 ? static_cast<unsigned>(std::stoul(argv[2])) : std::random_device()();
  return propertyservice::soak::soak(minutes, seed);
}
