#include "propclient/Watch.h"

#include <algorithm>
#include <utility>

#include "common/JSONDefinitions.h"
#include "propclient/Json.h"
#include "propclient/Listing.h"
#include "wire/Columns.h"
#include "wire/Names.h"

namespace propclient {

using namespace common::JSONDefinitions;
using propertyservice::groupOf;
namespace column = propertyservice::column;
namespace topic = propertyservice::topic;

namespace {

using namespace std::chrono_literals;

constexpr auto kPauseBeforeAnotherTry = 1s;
constexpr const char* kAllKeys = "%";

/// More than a reading can have missed; older ones tell nothing that the reading does not.
constexpr std::size_t kMostHeard = 64;

bool isVolatile(const std::string& key) {
  return key.starts_with(propertyservice::kVolatilePrefix);
}

/// A message of the group "groupnotify" comes on the topic of all changes, where it would be two properties
/// called "param" and "value".
bool isOfOneProperty(const Json::Value& message, bool ofAllGroups) {
  return message.size() == 2 && message[PROPERTY_PARAM].isString() && message.isMember(PROPERTY_VALUE) &&
         (!ofAllGroups || groupOf(message[PROPERTY_PARAM].asString()) == topic::kAllGroups);
}

/// A "State." key that has no value was removed; any other has an empty one.
std::optional<std::string> valueOf(const std::string& key, const Json::Value& value) {
  return value.isNull() && isVolatile(key) ? std::nullopt : std::optional(json::textOf(value));
}

}  // namespace

Watch::Watch(std::set<std::string> names, std::function<void(const Change&)> tell,
             std::function<void(Request)> ask, std::function<void()> ready)
    : names_(std::move(names)),
      all_(names_.empty() || names_.contains(kAllKeys)),
      tell_(std::move(tell)),
      ask_(std::move(ask)),
      ready_(std::move(ready)) {}

std::set<std::string> Watch::announcements() const {
  if (all_) {
    return {};
  }
  std::set<std::string> groups;
  for (const std::string& name : names_) {
    groups.insert(groupOf(name).value_or(name));
  }
  return groups;
}

void Watch::opened() {
  open_ = true;
  for (const std::string& name : names_) {
    if (isVolatile(name)) {
      known_.try_emplace(name, Known{.isNew = true});
    }
  }
  for (auto& [key, known] : known_) {
    known.settled = false;
    known.reading = Reading::none;
    known.heard.clear();
    if (isVolatile(key)) {
      readValue(key, known);
    }
  }
  readList();
}

void Watch::lost() {
  open_ = false;
  tryAgainAt_.reset();
}

void Watch::serviceIsBack() {
  if (open_) {
    opened();
  }
}

void Watch::announced(const std::string& payload, bool ofAllGroups) {
  const auto message = json::parse(payload);
  if (!message || !message->isObject()) {
    return;
  }
  if (isOfOneProperty(*message, ofAllGroups)) {
    const std::string key = (*message)[PROPERTY_PARAM].asString();
    changed(key, valueOf(key, (*message)[PROPERTY_VALUE]));
    return;
  }
  for (auto member = message->begin(); ofAllGroups && member != message->end(); ++member) {
    changed(member.name(), valueOf(member.name(), *member));
  }
}

void Watch::keepTime(Clock::time_point now) {
  if (!tryAgainAt_ || now < *tryAgainAt_) {
    return;
  }
  tryAgainAt_.reset();
  if (list_ == Reading::due) {
    readList();
  }
  for (auto& [key, known] : known_) {
    if (known.reading == Reading::due) {
      readValue(key, known);
    }
  }
}

bool Watch::wants(const std::string& key) const {
  const auto group = groupOf(key);
  return all_ || names_.contains(key) || (group && names_.contains(*group));
}

bool Watch::isBeingRead(const std::string& key, const Known& known) const {
  return known.reading != Reading::none || (list_ != Reading::none && !known.listed && !isVolatile(key));
}

void Watch::readList() {
  list_ = Reading::asked;
  for (auto& [key, known] : known_) {
    known.listed = false;
  }
  const auto self = [watch = weak_from_this(), number = ++listings_]() {
    const auto latest = watch.lock();
    return latest && latest->listings_ == number && !latest->stopped_ ? latest : nullptr;
  };
  Listing::start(
      {.pattern = kAllKeys,
       .columns = {column::kKey.data(), column::kValue.data()},
       .wants =
           [self](const std::string& key) {
             const auto watch = self();
             return watch && watch->wants(key);
           }},
      ask_,
      [self](const std::vector<Columns>& rows, std::size_t /*all*/) {
        const auto watch = self();
        if (watch) {
          watch->rowsRead(rows);
        }
        return watch != nullptr;
      },
      [self](Status status) {
        if (const auto watch = self()) {
          watch->listRead(status);
        }
      });
}

void Watch::rowsRead(const std::vector<Columns>& rows) {
  for (const Columns& property : rows) {
    const std::string& key = property.at(column::kKey.data());
    const auto value = property.find(column::kValue.data());
    known_[key].listed = true;
    conclude(key, value == property.end() ? std::string() : value->second);
  }
}

void Watch::listRead(Status status) {
  if (status != Status::ok && status != Status::notFound) {
    list_ = Reading::due;
    tryAgainSoon();
    return;
  }
  list_ = Reading::none;
  std::vector<std::string> missing;
  for (const auto& [key, known] : known_) {
    if (!known.listed && !isVolatile(key)) {
      missing.push_back(key);
    }
  }
  for (const std::string& key : missing) {
    conclude(key, std::nullopt);
  }
  if (const auto ready = std::exchange(ready_, nullptr)) {
    ready();
  }
}

void Watch::readValue(const std::string& key, Known& known) {
  known.reading = Reading::asked;
  ask_(request::get(key, Field::key, [watch = weak_from_this(), key](const Answer<std::string>& answer) {
    if (const auto self = watch.lock()) {
      self->valueRead(key, answer);
    }
  }));
}

void Watch::valueRead(const std::string& key, const Answer<std::string>& answer) {
  if (answer.ok()) {
    conclude(key, answer.value);
  } else if (answer.status == Status::notFound) {
    conclude(key, std::nullopt);
  } else {
    known_[key].reading = Reading::due;
    tryAgainSoon();
  }
}

void Watch::tryAgainSoon() {
  if (open_ && !tryAgainAt_) {
    tryAgainAt_ = Clock::now() + kPauseBeforeAnotherTry;
  }
}

// The daemon sends its replies and its announcements from two threads. So a reading may overtake the
// announcement of what it has seen already:
//
//   1. X is 1. A request sets it to 2, another one to 3; both announcements wait in the daemon's queue.
//   2. X is read: 3.
//   3. The announcements arrive: 2, then 3. Believed, they would take X back to 2 for a moment.
//
// The other way round cannot happen: what changes after a reading is announced after its reply has left. So
//
//   a. what is heard before the reply to a reading is in the reading: it is kept until then, and afterwards
//      tells the way from the value known before to the value read;
//   b. after a reading, a property is settled once the value read has been announced: older announcements are
//      then through, and from there on each is a change;
//   c. until then another value is either an older one, as in 3, or the first change since. It is not
//      believed: the property is read again, and a. decides.
//
// So an unsettled property costs one more reading with its first change, and a settled one none. A value that
// comes, goes and comes back while the announcements lag may be taken for settled too early, and its ups and
// downs be told late; the last value told is the right one all the same.

void Watch::changed(const std::string& key, Value value) {
  if (!wants(key)) {
    return;
  }
  const auto [entry, isNew] = known_.try_emplace(key);
  Known& known = entry->second;
  if (isNew && isVolatile(key)) {
    known.settled = true;  // never read
  }

  if (isBeingRead(key, known)) {
    known.heard.push_back(std::move(value));
    if (known.heard.size() > kMostHeard) {
      known.heard.pop_front();
    }
  } else if (known.settled) {
    update(key, known, value);
  } else if (known.value == value) {
    known.settled = true;
  } else {
    known.heard = {std::move(value)};
    readValue(key, known);
  }
  forgetRemoved(key);
}

void Watch::conclude(const std::string& key, const Value& read) {
  Known& known = known_[key];
  const std::deque<Value> heard = std::exchange(known.heard, {});
  known.reading = Reading::none;
  known.settled = !heard.empty() && heard.back() == read;

  if (known.settled) {
    const auto newer = std::find(heard.rbegin(), heard.rend(), known.value).base();
    std::for_each(newer, heard.end(), [&](const Value& value) { update(key, known, value); });
  } else {
    update(key, known, read);
  }
  known.isNew = false;
  forgetRemoved(key);
}

void Watch::update(const std::string& key, Known& known, const Value& value) {
  if (value != known.value) {
    const Value old = std::exchange(known.value, value);
    const bool isPresentValue = known.isNew || (ready_ && !isVolatile(key));
    if (!stopped_ && !isPresentValue) {
      tell_({key, value, old});
    }
  }
}

void Watch::forgetRemoved(const std::string& key) {
  const auto entry = known_.find(key);
  if (entry != known_.end() && entry->second.settled && !entry->second.value && !names_.contains(key)) {
    known_.erase(entry);
  }
}

}  // namespace propclient
