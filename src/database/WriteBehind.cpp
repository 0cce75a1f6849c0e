#include "database/WriteBehind.h"

#include <exception>
#include <iterator>
#include <string>
#include <sys/resource.h>
#include <unordered_map>
#include <utility>

#include "core/Constants.h"
#include "core/Log.h"
#include "database/PersistentStorageException.h"

namespace propertyservice {

namespace {

using Clock = std::chrono::steady_clock;

/// Less than the worker's time-out, so that each time-out is a try.
constexpr std::chrono::milliseconds kBetweenFailingTries(500);

/// For the calling thread. Where requests and the writer share a busy core, batches become larger and fewer
/// instead of each write holding up the next request; a tenth of the core is still enough for 10,000
/// properties a second.
void letRequestsGoFirst() {
  constexpr int kNice = 10;
  constexpr id_t kCallingThread = 0;
  setpriority(PRIO_PROCESS, kCallingThread, getpriority(PRIO_PROCESS, kCallingThread) + kNice);
}

bool mayPass(const std::exception& error) {
  const auto* const failure = dynamic_cast<const PersistentStorageException*>(&error);
  return failure != nullptr && failure->reason() == PersistentStorageException::Reason::Unavailable;
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

WriteBehind::WriteBehind(Write write)
    : ActiveQueueBulk([this](std::queue<Property>& taken) { accept(taken); }, false),
      write_(std::move(write)) {
  start();
}

WriteBehind::~WriteBehind() {
  stop();
  if (!unwritten_.empty()) {
    logger().error() << "Lost, because the database could not be written: " << unwritten_.size()
                     << " changed properties";
  }
}

void WriteBehind::processQueue(std::unique_lock<std::mutex>& lock) {
  if (!requestsGoFirst_) {
    requestsGoFirst_ = true;
    letRequestsGoFirst();
  }
  ActiveQueueBulk::processQueue(lock);
  if (!unwritten_.empty()) {
    lock.unlock();
    tryToWrite();
    lock.lock();
  }
}

void WriteBehind::accept(std::queue<Property>& taken) {
  for (; !taken.empty(); taken.pop()) {
    unwritten_.push_back(std::move(taken.front()));
  }
}

void WriteBehind::tryToWrite() {
  if (failing_ && Clock::now() < nextTry_ && !isStopped()) {
    return;
  }
  try {
    const std::size_t count = unwritten_.size();
    writeAll();
    if (failing_) {
      failing_ = false;
      logger().info() << "Database can be written again, properties that had been waiting: " << count;
    }
  } catch (const std::exception& error) {
    unwritten_ = lastOfEachKey(unwritten_, 1);
    nextTry_ = Clock::now() + kBetweenFailingTries;
    if (!failing_) {
      failing_ = true;
      logger().error() << "Database cannot be written, properties that wait for it: " << unwritten_.size()
                       << ", reason: " << error.what();
    }
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
    if (mayPass(error)) {
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
      if (mayPass(error)) {
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
