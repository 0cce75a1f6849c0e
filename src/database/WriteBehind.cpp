#include "database/WriteBehind.h"

#include <array>
#include <ctime>
#include <exception>
#include <iterator>
#include <string>
#include <sys/resource.h>
#include <unordered_map>
#include <utility>

#include "common/ServiceManager.h"
#include "core/Constants.h"
#include "core/Log.h"
#include "database/PersistentStorageException.h"

namespace propertyservice {

namespace {

using Clock = std::chrono::steady_clock;

/// Less than the worker's time-out, so that each time-out is a try.
constexpr std::chrono::milliseconds kBetweenFailingTries(500);

/// As many as the storage writes in one statement.
constexpr std::size_t kOneStatement = 300;

/// For the calling thread. Where requests and the writer share a busy core, batches become larger and fewer
/// instead of each write holding up the next request; a tenth of the core is still enough for 10,000
/// properties a second.
void letRequestsGoFirst() {
  constexpr int kNice = 10;
  constexpr id_t kCallingThread = 0;
  setpriority(PRIO_PROCESS, kCallingThread, getpriority(PRIO_PROCESS, kCallingThread) + kNice);
}

/// The time as the log has it.
std::string now() {
  const std::time_t seconds = std::time(nullptr);
  std::tm time{};
  gmtime_r(&seconds, &time);
  std::array<char, sizeof "2026-11-21T08:15:30Z"> text;
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &time);
  return text.data();
}

/// True only for an answer of the table itself. Anything else, such as a lack of memory, may pass.
bool isRefusal(const std::exception& error) {
  const auto* const failure = dynamic_cast<const PersistentStorageException*>(&error);
  return failure != nullptr && failure->reason() == PersistentStorageException::Reason::Constraint;
}

/// The last property of each key that stands at least `times` times, in the order given.
std::deque<Property> lastOfEachKey(const std::deque<Property>& properties, std::size_t times) {
  struct Use {
    std::size_t count = 0;
    const Property* last = nullptr;
  };
  std::unordered_map<std::string, Use> uses;
  uses.reserve(properties.size());
  for (const Property& property : properties) {
    Use& use = uses[property.text(column::kKey)];
    ++use.count;
    use.last = &property;
  }

  std::deque<Property> last;
  if (times > 1 && uses.size() == properties.size()) {
    return last;
  }
  for (const Property& property : properties) {
    const Use& use = uses[property.text(column::kKey)];
    if (use.count >= times && use.last == &property) {
      last.push_back(property);
    }
  }
  return last;
}

}  // namespace

WriteBehind::WriteBehind(Write write) : ActiveQueueBulk({}, false), write_(std::move(write)) {
  start();
}

WriteBehind::~WriteBehind() {
  stop();
  if (const std::size_t lost = unwritten_.size() + pushed_.size(); lost > 0) {
    logger().error() << "Lost, because the database could not be written: " << lost << " changed properties";
  }
}

void WriteBehind::processQueue(std::unique_lock<std::mutex>& lock) {
  if (!requestsGoFirst_) {
    requestsGoFirst_ = true;
    letRequestsGoFirst();
  }
  if (pushed_.empty()) {
    pushed_.swap(queue_);
  }
  lock.unlock();
  try {
    for (; !pushed_.empty(); pushed_.pop()) {
      unwritten_.push_back(std::move(pushed_.front()));
    }
    if (!unwritten_.empty()) {
      tryToWrite();
    }
  } catch (const std::exception& error) {
    reportFailure(error.what());
  }
  allTaken_ = unwritten_.empty() && pushed_.empty();
  lock.lock();
}

void WriteBehind::tryToWrite() {
  if (failing_ && Clock::now() < nextTry_ && !isStopped()) {
    return;
  }
  const std::size_t count = unwritten_.size();
  if (count > kOneStatement) {
    unwritten_ = lastOfEachKey(unwritten_, 1);
  }
  writeAll();
  if (failing_) {
    failing_ = false;
    common::ServiceManager::instance().setTrouble("");
    logger().info() << "Database can be written again, properties that had been waiting: " << count;
  }
}

/// Throws nothing, even when memory for the log entry runs out.
void WriteBehind::reportFailure(const char* reason) noexcept {
  nextTry_ = Clock::now() + kBetweenFailingTries;
  const bool begins = !failing_.exchange(true);
  try {
    unwritten_ = lastOfEachKey(unwritten_, 1);
    if (begins) {
      common::ServiceManager::instance().setTrouble("the database cannot be written since " + now() + ": " +
                                                    reason);
      logger().error() << "Database cannot be written, properties that wait for it: " << unwritten_.size()
                       << ", reason: " << reason;
    }
  } catch (const std::exception&) {
    // The next try begins with what there is.
  }
}

void WriteBehind::writeAll() {
  try {
    write(unwritten_);
    if (const std::deque<Property> repeated = lastOfEachKey(unwritten_, 2); !repeated.empty()) {
      write(repeated);
    }
    unwritten_.clear();
  } catch (const std::exception& error) {
    if (!isRefusal(error)) {
      throw;
    }
    writeOneByOne();
  }
}

void WriteBehind::writeOneByOne() {
  for (; !unwritten_.empty(); unwritten_.pop_front()) {
    try {
      write({unwritten_.front()});
    } catch (const std::exception& error) {
      if (!isRefusal(error)) {
        throw;
      }
      logger().error() << "Database refused the value of " << unwritten_.front().text(column::kKey) << ": "
                       << error.what();
    }
  }
}

void WriteBehind::write(const std::deque<Property>& properties) {
  std::queue<Property> handed(properties);
  write_(handed);
}

}  // namespace propertyservice
