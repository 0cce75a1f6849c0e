#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "propclient/Clock.h"
#include "propclient/Request.h"

namespace propclient {

/// The last known values of what is watched, and what becomes known of them: by announcements, and by reading
/// them when the watch begins and whenever the connection or the daemon is back.
///
/// "State." keys cannot be listed; those that are watched by name, or were announced once, are read one by
/// one.
///
/// For one thread alone, and owned by a `std::shared_ptr`. Callbacks run within these calls and may call
/// `stop`.
class Watch : public std::enable_shared_from_this<Watch> {
 public:
  /// `names` are keys, and groups in lower case; "%", or none: all properties. `ask` sends a request. `ready`
  /// is called once, when the present values are known for the first time.
  Watch(std::set<std::string> names, std::function<void(const Change&)> tell,
        std::function<void(Request)> ask, std::function<void()> ready);

  /// The groups whose announcements it wants to hear; empty: all.
  std::set<std::string> announcements() const;

  /// Announcements come from now on, at first or again.
  void opened();
  void lost();

  /// Reads everything again: what a start of the daemon changes is not announced.
  void serviceIsBack();

  /// Returns how many values are known.
  std::size_t size() const { return known_.size(); }

  /// One message that announces changes; `ofAllGroups`: on the topic of all changes.
  void announced(const std::string& payload, bool ofAllGroups);

  /// Tells nothing any more.
  void stop() { stopped_ = true; }

  /// Tries again to read what could not be read.
  void keepTime(Clock::time_point now);
  Deadline nextDeadline() const { return tryAgainAt_; }

 private:
  using Value = std::optional<std::string>;

  enum class Reading { none, due, asked };

  struct Known {
    Value value{};         ///< Nothing for a property that does not exist.
    bool isNew = false;    ///< A "State." key that is watched by name and was not read yet.
    bool settled = false;  ///< Announcements have caught up with the latest reading.
    bool listed = false;   ///< The latest reading of the list has come to it.
    Reading reading = Reading::none;
    std::deque<Value> heard{};  ///< While it is being read.
  };

  bool wants(const std::string& key) const;
  bool isBeingRead(const std::string& key, const Known& known) const;

  void readList();
  void rowsRead(const std::vector<Columns>& rows);
  void listRead(Status status);
  void readValue(const std::string& key, Known& known);
  void valueRead(const std::string& key, const Answer<std::string>& answer);
  void tryAgainSoon();

  void changed(const std::string& key, Value value);
  void conclude(const std::string& key, const Value& read);
  void update(const std::string& key, Known& known, const Value& value);
  void forgetRemoved(const std::string& key);

  const std::set<std::string> names_;
  const bool all_;
  const std::function<void(const Change&)> tell_;
  const std::function<void(Request)> ask_;
  std::function<void()> ready_;  ///< Empty once it was called.

  bool stopped_ = false;
  bool open_ = false;
  Reading list_ = Reading::none;  ///< Of all properties but the "State." keys.
  unsigned listings_ = 0;         ///< How often the list was asked for: only the latest answer counts.
  std::map<std::string, Known> known_;
  Deadline tryAgainAt_;
};

}  // namespace propclient
