#include "client/propctl/Fleet.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <exception>
#include <fnmatch.h>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "client/propctl/Text.h"
#include "propclient/Devices.h"

namespace propctl {

namespace {

/// The devices of one command: who is next, and what has come of the others.
class Round {
 public:
  using Command = std::function<ExitStatus(Session&)>;

  Round(std::vector<std::string> serials, const std::map<std::string, propclient::Presence>& known,
        propclient::Options options, Output& output, const Command& command)
      : serials_(std::move(serials)),
        known_(known),
        options_(std::move(options)),
        output_(output),
        command_(command) {}

  ExitStatus run(unsigned jobs) {
    tellProgress();
    std::vector<std::jthread> workers;
    for (std::size_t i = 0; i < std::min<std::size_t>(jobs, serials_.size()); ++i) {
      workers.emplace_back([this] { work(); });
    }
    workers.clear();
    if (failure_) {
      std::rethrow_exception(failure_);
    }
    return summarize();
  }

 private:
  void work() {
    for (std::size_t i = next_++; i < serials_.size(); i = next_++) {
      std::ostringstream results;
      std::ostringstream errors;
      Style style = output_.style();
      style.device = serials_[i];
      style.table = style.colour = style.progress = false;
      Output output(results, errors, style);
      const ExitStatus status = runOn(serials_[i], output);
      if (style.json && results.view().empty()) {
        output.error();
      }
      if (!output.hasSpoken() && !style.quiet && !style.json) {
        output.line("done");
      }
      conclude(status, results.str(), errors.str());
    }
  }

  ExitStatus runOn(const std::string& serial, Output& output) {
    const auto presence = known_.find(serial);
    if (presence != known_.end() && !presence->second.connected) {
      output.complain("is not connected to the central broker");
      return ExitStatus::noAnswer;
    }
    if (presence != known_.end() && presence->second.service == false) {
      output.complain("is connected, but its PropertyService is not running");
      return ExitStatus::noAnswer;
    }
    try {
      propclient::Options options = options_;
      options.device = serial;
      Session session(options, output);
      return command_(session);
    } catch (const Failure& failure) {
      output.complain(failure.what());
      return failure.status();
    } catch (const std::exception& error) {
      output.complain(escaped(error.what()));
      return ExitStatus::usage;
    }
  }

  void conclude(ExitStatus status, const std::string& results, const std::string& errors) {
    const std::lock_guard lock(mutex_);
    try {
      output_.pass(results, errors);
    } catch (...) {
      failure_ = std::current_exception();
      next_ = serials_.size();
    }
    ++concluded_[static_cast<std::size_t>(status)];
    ++devices_;
    tellProgress();
  }

  void tellProgress() {
    output_.progress(std::to_string(devices_) + " of " + std::to_string(serials_.size()) + " devices");
  }

  ExitStatus summarize() const {
    const auto count = [this](ExitStatus status) { return concluded_[static_cast<std::size_t>(status)]; };
    const auto refused = count(ExitStatus::refused) + count(ExitStatus::usage);
    output_.progress("");
    output_.remark(std::to_string(count(ExitStatus::done)) + " done, " + std::to_string(refused) +
                   " refused, " + std::to_string(count(ExitStatus::noAnswer)) + " silent");
    ExitStatus worst = ExitStatus::done;
    for (const ExitStatus status : {ExitStatus::refused, ExitStatus::usage, ExitStatus::noAnswer}) {
      worst = count(status) != 0 ? status : worst;
    }
    return worst;
  }

  const std::vector<std::string> serials_;
  const std::map<std::string, propclient::Presence>& known_;
  const propclient::Options options_;
  Output& output_;
  const Command& command_;
  std::atomic<std::size_t> next_ = 0;

  std::mutex mutex_;
  std::array<std::size_t, 4> concluded_{};  ///< By exit status. Guarded by mutex_, as all below.
  std::size_t devices_ = 0;
  std::exception_ptr failure_;
};

bool isSerialPattern(const std::string& text) {
  return text.find_first_of("*?[") != std::string::npos;
}

std::map<std::string, propclient::Presence> askForKnownDevices(propclient::Options options) {
  options.name = options.name.empty() ? options.user : options.name;
  if (options.name.empty()) {
    throw Failure(ExitStatus::usage, "the list of devices takes --name, which the central broker knows");
  }
  try {
    return propclient::knownDevices(options);
  } catch (const propclient::ConnectionError& error) {
    throw Failure(ExitStatus::noAnswer, escaped(error.what()) + adviceOnRefusal(error.what(), options));
  }
}

}  // namespace

bool areSerials(const std::string& argument) {
  return isSerialPattern(argument) || argument.find('@') != std::string::npos ||
         splitList(argument).size() > 1;
}

std::vector<std::string> readSerials(const std::string& argument) {
  std::vector<std::string> serials;
  for (const std::string& part : splitList(argument)) {
    if (!part.starts_with('@')) {
      serials.push_back(part);
      continue;
    }
    std::istringstream lines(readText(part.substr(1)));
    for (std::string line; std::getline(lines, line);) {
      if (line = withoutBlanks(line); !line.empty() && !line.starts_with('#')) {
        serials.push_back(line);
      }
    }
  }
  if (serials.empty()) {
    throw Failure(ExitStatus::usage, "--device: no serial number in " + escaped(argument));
  }
  return serials;
}

std::vector<std::string> selectSerials(const std::vector<std::string>& wanted,
                                       const std::map<std::string, propclient::Presence>& known) {
  std::set<std::string> serials;
  for (const std::string& pattern : wanted) {
    if (!isSerialPattern(pattern)) {
      serials.insert(pattern);
      continue;
    }
    bool found = false;
    for (const auto& [serial, connected] : known) {
      if (fnmatch(pattern.c_str(), serial.c_str(), 0) == 0) {
        serials.insert(serial);
        found = true;
      }
    }
    if (!found) {
      throw Failure(ExitStatus::refused,
                    "no device that the central broker knows matches " + escaped(pattern));
    }
  }
  return {serials.begin(), serials.end()};
}

ExitStatus listDevices(const std::string& wanted, const propclient::Options& options, Output& output) {
  const auto known = askForKnownDevices(options);
  std::vector<Row> rows;
  Json::Value document(Json::arrayValue);
  for (const std::string& serial : selectSerials(readSerials(wanted.empty() ? "*" : wanted), known)) {
    const auto found = known.find(serial);
    const propclient::Presence presence = found != known.end() ? found->second : propclient::Presence();
    // The last word of a device that is away says nothing of its daemon now.
    const bool isKnown = presence.connected && presence.service.has_value();
    const bool isRunning = isKnown && presence.service.value_or(false);
    Json::Value device;
    device["device"] = serial;
    device["connected"] = presence.connected;
    device["service"] = isKnown ? Json::Value(isRunning) : Json::Value();
    document.append(device);
    rows.push_back({{escaped(serial), presence.connected ? "connected" : "away",
                     !isKnown    ? "unknown"
                     : isRunning ? "running"
                                 : "stopped"},
                    !isRunning});
  }
  if (output.style().json) {
    output.json(document);
  } else {
    output.table({"device", "broker", "service"}, rows);
  }
  return ExitStatus::done;
}

ExitStatus runOnDevices(const std::vector<std::string>& wanted, const propclient::Options& options,
                        unsigned jobs, Output& output, const std::function<ExitStatus(Session&)>& command) {
  std::map<std::string, propclient::Presence> known;
  if (std::any_of(wanted.begin(), wanted.end(), isSerialPattern)) {
    known = askForKnownDevices(options);
  }
  return Round(selectSerials(wanted, known), known, options, output, command).run(jobs);
}

}  // namespace propctl
