#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <exception>
#include <iomanip>
#include <set>
#include <sstream>
#include <unistd.h>

#include "client/propctl/Commands.h"
#include "client/propctl/Rules.h"
#include "client/propctl/Text.h"
#include "database/KeyPattern.h"
#include "wire/Columns.h"
#include "wire/Names.h"

namespace propctl {

using propertyservice::groupOf;

namespace {

/// Local, to the millisecond: "2026-11-21T08:15:30.123"; for programs with the zone: "+0100" behind it.
std::string now(const char* zone = "") {
  using namespace std::chrono;
  const auto time = system_clock::now();
  const std::time_t seconds = system_clock::to_time_t(time);
  std::tm local{};
  localtime_r(&seconds, &local);
  std::ostringstream text;
  text << std::put_time(&local, "%Y-%m-%dT%H:%M:%S.") << std::setw(3) << std::setfill('0')
       << duration_cast<milliseconds>(time.time_since_epoch()).count() % 1000 << std::put_time(&local, zone);
  return text.str();
}

Json::Value toJson(const std::optional<std::string>& value) {
  return value ? Json::Value(*value) : Json::Value();
}

/// The properties that the arguments of "watch" stand for: keys, patterns as the daemon reads them, and
/// groups. Unlike the daemon's, a pattern also stands for keys of run-time state.
class Selection {
 public:
  /// Throws `Failure` for a name that stands for nothing, unless `allowsUnknown`.
  Selection(Session& session, const Names& names, bool allowsUnknown) {
    const std::string column(propertyservice::column::kKey);
    std::set<std::string> keys;
    for (const Columns& property : session.list("%", {column})) {
      keys.insert(columnOf(property, column));
    }
    for (const std::string& name : names.empty() ? Names{"%"} : names) {
      if (!add(session, name, keys) && !allowsUnknown) {
        throw Failure(ExitStatus::refused,
                      escaped(name) +
                          ": no such key or group, and nothing matches; \"propctl list\" shows "
                          "all, --allow-unknown waits for a key to come");
      }
    }
  }

  bool has(const std::string& key) const {
    const auto group = groupOf(key);
    return keys_.contains(key) || (group && groups_.contains(*group)) ||
           std::any_of(patterns_.begin(), patterns_.end(),
                       [&key](const KeyPattern& pattern) { return pattern.matches(key); });
  }

  /// Returns what the client has to watch for it.
  const Names& watched() const { return watched_; }

 private:
  using KeyPattern = propertyservice::KeyPattern;

  /// Returns whether it stands for something.
  bool add(Session& session, const std::string& name, const std::set<std::string>& keys) {
    if (isPattern(name)) {
      const auto pattern = KeyPattern::compile(name);
      if (!pattern) {
        return false;
      }
      patterns_.push_back(*pattern);
      watched_.emplace_back("%");
      return isState(name) || std::any_of(keys.begin(), keys.end(),
                                          [&](const std::string& key) { return pattern->matches(key); });
    }
    keys_.insert(name);
    if (groupOf(name)) {
      watched_.push_back(name);
      return keys.contains(name) || (isState(name) && session.answered(session.client().get(name)).ok());
    }
    const std::string group = propertyservice::lowerCased(name);
    const bool isGroup =
        group == groupOf(std::string(propertyservice::kVolatilePrefix)) ||
        std::any_of(keys.begin(), keys.end(), [&](const std::string& key) { return groupOf(key) == group; });
    groups_.insert(group);
    // A key without a group is announced together with all others alone.
    watched_.push_back(isGroup && !keys.contains(name) ? group : "%");
    return isGroup || keys.contains(name);
  }

  std::set<std::string> keys_;
  std::set<std::string> groups_;
  std::vector<KeyPattern> patterns_;
  Names watched_;
};

/// Prints changes on the client's thread, while the main thread waits for a signal; tells it by SIGUSR1 when
/// there is nothing left to do.
class Printer {
 public:
  Printer(Session& session, const Selection& selection, bool withOld, std::optional<unsigned> count)
      : session_(session),
        output_(session.output()),
        selection_(selection),
        withOld_(withOld),
        left_(count) {}

  void print(const propclient::Change& change) noexcept {
    if (ended_ || !selection_.has(change.key)) {
      return;
    }
    try {
      output_.style().json ? printJson(change) : printLine(change);
      output_.flush();
      ended_ = left_ && --*left_ == 0;
    } catch (...) {
      failure_ = std::current_exception();
      ended_ = true;
    }
    if (ended_) {
      kill(getpid(), SIGUSR1);
    }
  }

  void connectionChanged(bool connected) {
    connected_ = connected;
    sayWhatIsThere();
  }

  void presenceChanged(std::optional<bool> present) {
    present_ = present;
    announces_ = announces_ || present;
    if (connected_) {
      sayWhatIsThere();
    }
  }

  void rethrowFailure() const {
    if (failure_) {
      std::rethrow_exception(failure_);
    }
  }

 private:
  enum class Link { whole, silent, away, broken };

  Link link() const {
    return !connected_               ? Link::broken
           : present_ == false       ? Link::away
           : announces_ && !present_ ? Link::silent
                                     : Link::whole;
  }

  /// Tells that broker or daemon have gone or come back.
  void sayWhatIsThere() {
    const Link before = std::exchange(link_, link());
    if (link_ == before) {
      return;
    }
    std::string text = before == Link::broken ? "connected to the broker again" : "";
    const auto add = [&text](const char* part) { text += (text.empty() ? "" : "; ") + std::string(part); };
    if (link_ == Link::broken) {
      add("the connection to the broker is lost");
    } else if (link_ == Link::away) {
      add("PropertyService is not running");
    } else if (link_ == Link::silent) {
      add("PropertyService has not come back yet");
    } else if (before != Link::broken) {
      add("PropertyService is running again");
    }
    output_.remark(now() + ' ' + session_.where() + ": " + text);
  }

  void printLine(const propclient::Change& change) {
    std::string line = output_.pale(now()) + ' ';
    line += change.value ? toLine({change.key, output_.visible(change.key, *change.value)})
                         : escaped(change.key) + " removed";
    if (withOld_ && change.old) {
      line += output_.pale(" (was " + escaped(output_.visible(change.key, *change.old)) + ')');
    }
    output_.line(line);
  }

  void printJson(const propclient::Change& change) {
    Json::Value object;
    object["time"] = now("%z");
    object["key"] = change.key;
    object["value"] = toJson(change.value);
    if (withOld_) {
      object["old"] = toJson(change.old);
    }
    output_.json(object);
  }

  const Session& session_;
  Output& output_;
  const Selection& selection_;
  const bool withOld_;
  std::optional<unsigned> left_;
  bool ended_ = false;
  std::exception_ptr failure_;

  Link link_ = Link::whole;
  bool connected_ = true;
  std::optional<bool> present_;
  bool announces_ = false;  ///< There is a daemon that tells whether it is there.
};

/// From now on they wait for somebody to take them.
sigset_t blockEndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGUSR1}) {
    sigaddset(&signals, signal);
  }
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

}  // namespace

ExitStatus watch(Session& session, const Names& names, bool allowsUnknown, bool withOld,
                 std::optional<unsigned> count) {
  const Selection selection(session, names, allowsUnknown);
  const sigset_t ends = blockEndSignals();
  Printer printer(session, selection, withOld, count);
  propclient::Client& client = session.client();
  try {
    client.watch(selection.watched(),
                 [&printer](const propclient::Change& change) { printer.print(change); });
  } catch (const propclient::ConnectionError& error) {
    throw Failure(ExitStatus::noAnswer, escaped(error.what()));
  } catch (const std::invalid_argument& error) {
    throw Failure(ExitStatus::usage, escaped(error.what()));
  }
  client.onPresence([&printer](std::optional<bool> present) { printer.presenceChanged(present); });
  client.onConnection([&printer](bool connected) { printer.connectionChanged(connected); });
  int signal = 0;
  sigwait(&ends, &signal);
  client.onPresence([](std::optional<bool>) {});
  client.onConnection([](bool) {});
  client.unwatch();  // After it no callback runs any more.
  printer.rethrowFailure();
  return ExitStatus::done;
}

}  // namespace propctl
