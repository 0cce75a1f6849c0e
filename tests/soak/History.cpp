#include "soak/History.h"

#include <algorithm>
#include <iomanip>
#include <limits>
#include <sstream>
#include <unordered_map>

namespace propertyservice::soak {

namespace {

using Write = History::Write;
using Read = History::Read;
using Watch = History::Watch;

using Heard = std::vector<const Watch::Announcement*>;
using Places = std::unordered_map<const Write*, std::size_t>;  ///< Where a value, written once, was heard.

constexpr Seconds kNever = std::numeric_limits<Seconds>::infinity();
constexpr Seconds kForgotten = 1;  ///< How much a kill may take.
constexpr Seconds kUnderWay = 2;   ///< How long an announcement may take, on a machine with much to do.

std::string quoted(const std::string& text) {
  return '"' + text + '"';
}

std::string described(const Watch& watch) {
  return "a watch that had begun at " + std::to_string(watch.begin) + " s";
}

/// Of one key.
class KeyCheck {
 public:
  KeyCheck(const History& history, std::string key, std::vector<const Write*> writes,
           std::vector<std::string>& found)
      : history_(history), key_(std::move(key)), found_(found), writes_(std::move(writes)) {
    for (const Write* write : writes_) {
      byValue_[write->value].push_back(write);
    }
    for (auto& [value, ofValue] : byValue_) {
      std::ranges::sort(ofValue, {}, &Write::sent);
    }
    for (const Write* write : writes_) {
      if (write->answered) {
        const Seconds kill = killAfter(write->sent);
        (*write->answered > kill - kForgotten ? perishable_[kill] : lasting_).push_back(write);
      }
    }
    std::ranges::sort(lasting_, {}, [](const Write* write) { return *write->answered; });
    Seconds latest = -kNever;
    for (const Write* write : lasting_) {
      latestSent_.push_back(latest = std::max(latest, write->sent));
    }
  }

  void check(const Read& read) {
    const Seconds overwritten = latestWriteBefore(read);
    if (read.value == history_.defaults.at(key_) && overwritten == -kNever) {
      return;
    }
    for (const Write* write : writesOf(read.value)) {
      if (write->sent > read.answered) {
        break;
      }
      if (!write->answered || *write->answered >= overwritten) {
        return;
      }
    }
    const bool known = !writesOf(read.value).empty() || read.value == history_.defaults.at(key_);
    report(read.answered,
           "a read gave " + quoted(read.value) +
               (known ? ", which had been overwritten by an answered write" : ", which nobody has written"));
  }

  void check(const Watch& watch) {
    Heard heard;
    for (const auto& announcement : watch.announcements) {
      if (announcement.key == key_) {
        heard.push_back(&announcement);
      }
    }
    Places places;
    checkOrigin(heard, places);
    checkOrder(heard);
    checkCompleteness(watch, heard, places);
  }

 private:
  void report(Seconds when, const std::string& text) {
    std::ostringstream line;
    line << std::fixed << std::setprecision(3) << when << " s, " << key_ << ": " << text;
    found_.push_back(line.str());
  }

  const std::vector<const Write*>& writesOf(const std::string& value) const {
    static const std::vector<const Write*> kNone;
    const auto found = byValue_.find(value);
    return found == byValue_.end() ? kNone : found->second;
  }

  /// The beginning of the first kill that was not over at that time.
  Seconds killAfter(Seconds time) const {
    const auto kill = std::ranges::lower_bound(history_.kills, time, {}, &Kill::end);
    return kill == history_.kills.end() ? kNever : kill->begin;
  }

  /// When the last of the writes was sent that were over before the read, and that no kill took.
  Seconds latestWriteBefore(const Read& read) const {
    const auto end = std::ranges::lower_bound(lasting_, read.sent, {},
                                              [](const Write* write) { return *write->answered; });
    Seconds latest =
        end == lasting_.begin() ? -kNever : latestSent_[static_cast<std::size_t>(end - lasting_.begin()) - 1];
    if (const auto perishable = perishable_.find(killAfter(read.answered)); perishable != perishable_.end()) {
      for (const Write* write : perishable->second) {
        if (*write->answered < read.sent) {
          latest = std::max(latest, write->sent);
        }
      }
    }
    return latest;
  }

  /// Every announcement has a write, and none comes twice.
  void checkOrigin(const Heard& heard, Places& places) {
    for (std::size_t i = 0; i < heard.size(); ++i) {
      const auto& [key, value, time] = *heard[i];
      const auto& writes = writesOf(value);
      if (writes.empty() || writes.front()->sent > time) {
        report(time, quoted(value) + " was announced, which nobody has written");
        continue;
      }
      std::optional<std::size_t> earlier;
      if (writes.front()->reset) {
        earlier = i > 0 && heard[i - 1]->value == value ? std::optional(i - 1) : std::nullopt;
      } else if (const auto [first, isNew] = places.emplace(writes.front(), i); !isNew) {
        earlier = first->second;
      }
      // A change that a kill made the daemon forget may be made again.
      if (earlier && killAfter(heard[*earlier]->heard - kUnderWay) > time) {
        report(time, quoted(value) + " was announced twice" + (writes.front()->reset ? " in a row" : ""));
      }
    }
  }

  /// A write that was answered before another was sent is announced before it.
  void checkOrder(const Heard& heard) {
    Seconds latestSent = -kNever;
    for (const auto* announcement : heard) {
      const auto& writes = writesOf(announcement->value);
      if (writes.empty() || writes.front()->reset) {
        continue;
      }
      const Write& write = *writes.front();
      if (write.answered && *write.answered < latestSent) {
        report(announcement->heard, quoted(write.value) + " was announced after a later value");
      }
      latestSent = std::max(latestSent, write.sent);
    }
  }

  void checkCompleteness(const Watch& watch, const Heard& heard, const Places& places) {
    for (const Write* write : writes_) {
      if (!write->answered || write->sent < watch.begin ||
          *write->answered > watch.end - (watch.lost ? kUnderWay : 0) ||
          *write->answered > killAfter(write->sent) - kForgotten) {
        continue;
      }
      if (!write->reset && !places.contains(write)) {
        report(*write->answered, quoted(write->value) + " was not announced to " + described(watch));
      }
      if (write->reset) {
        checkReset(*write, watch, heard, places);
      }
    }
  }

  /// After all that was answered before a reset, and before all that was sent after its answer, the default
  /// is announced, unless a kill made the daemon forget.
  void checkReset(const Write& reset, const Watch& watch, const Heard& heard, const Places& places) {
    std::optional<std::size_t> after;
    std::size_t before = heard.size();
    for (const auto& [write, place] : places) {
      if (write->answered && *write->answered < reset.sent) {
        after = std::max(after.value_or(0), place);
      }
      if (write->sent > *reset.answered) {
        before = std::min(before, place);
      }
    }
    if (!after || killAfter(heard[*after]->heard - kUnderWay) < *reset.answered) {
      return;
    }
    for (std::size_t i = *after; i < before; ++i) {
      if (heard[i]->value == reset.value) {
        return;
      }
    }
    report(*reset.answered, "a reset was not announced to " + described(watch));
  }

  const History& history_;
  const std::string key_;
  std::vector<std::string>& found_;
  std::vector<const Write*> writes_;
  std::unordered_map<std::string, std::vector<const Write*>> byValue_;  ///< Each in the order of sending.
  std::vector<const Write*> lasting_;  ///< Those that no kill may have taken, in the order of their answers.
  std::vector<Seconds> latestSent_;    ///< Of the first of these, up to each.
  std::map<Seconds, std::vector<const Write*>> perishable_;  ///< The others, by the kill.
};

}  // namespace

std::vector<std::string> contradictions(const History& history, std::size_t most) {
  std::vector<std::string> found;
  std::map<std::string, std::vector<const Write*>> writes;
  std::map<std::string, std::vector<const Read*>> reads;
  for (const auto& [key, value] : history.defaults) {
    writes[key];
  }
  for (const Write& write : history.writes) {
    writes[write.key].push_back(&write);
  }
  for (const Read& read : history.reads) {
    reads[read.key].push_back(&read);
  }
  for (const auto& [key, ofKey] : writes) {
    KeyCheck check(history, key, ofKey, found);
    for (const Read* read : reads[key]) {
      check.check(*read);
    }
    for (const Watch& watch : history.watches) {
      if (key.starts_with(watch.group)) {
        check.check(watch);
      }
    }
  }
  found.resize(std::min(found.size(), most));
  return found;
}

}  // namespace propertyservice::soak
