#include <chrono>
#include <csignal>
#include <ctime>
#include <exception>
#include <iomanip>
#include <sstream>
#include <unistd.h>

#include "client/propctl/Commands.h"
#include "client/propctl/Text.h"

namespace propctl {

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

/// Prints changes on the client's thread, while the main thread waits for a signal; tells it by SIGUSR1 when
/// there is nothing left to do.
class Printer {
 public:
  Printer(Output& output, bool withOld, std::optional<unsigned> count)
      : output_(output), withOld_(withOld), left_(count) {}

  void print(const propclient::Change& change) noexcept {
    if (ended_) {
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

  void rethrowFailure() const {
    if (failure_) {
      std::rethrow_exception(failure_);
    }
  }

 private:
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

  Output& output_;
  const bool withOld_;
  std::optional<unsigned> left_;
  bool ended_ = false;
  std::exception_ptr failure_;
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

ExitStatus watch(Session& session, const Names& groups, bool withOld, std::optional<unsigned> count) {
  session.answered(session.client().ping());
  const sigset_t ends = blockEndSignals();
  Printer printer(session.output(), withOld, count);
  try {
    session.client().watch(groups, [&printer](const propclient::Change& change) { printer.print(change); });
  } catch (const propclient::ConnectionError& error) {
    throw Failure(ExitStatus::noAnswer, escaped(error.what()));
  } catch (const std::invalid_argument& error) {
    throw Failure(ExitStatus::usage, escaped(error.what()));
  }
  int signal = 0;
  sigwait(&ends, &signal);
  session.client().unwatch();
  printer.rethrowFailure();
  return ExitStatus::done;
}

}  // namespace propctl
