#pragma once

#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>

namespace propertyservice::soak {

/// A property's value; nothing for a volatile property that does not exist.
using Value = std::optional<std::string>;

inline std::string show(const Value& value) {
  return value ? '"' + *value + '"' : "nothing";
}

/// The values that the daemon may hold, key by key: the value last accepted; and, where a request got lost in
/// a disturbance, what it would have made of it. Without a lock.
class Model {
 public:
  void add(const std::string& key, const Value& value) { entries_[key] = {{value}, {value}}; }

  /// The daemon has accepted a value.
  void wrote(const std::string& key, const Value& value) {
    Entry& entry = entries_.at(key);
    entry.now = {value};
    entry.sinceStored.insert(value);
  }

  /// Nobody knows whether the daemon has accepted a value.
  void mayHaveWritten(const std::string& key, const Value& value) {
    Entry& entry = entries_.at(key);
    entry.now.insert(value);
    entry.sinceStored.insert(value);
  }

  /// The daemon has shown a value. Throws when it cannot hold that.
  void saw(const std::string& key, const Value& value) {
    Entry& entry = entries_.at(key);
    if (!entry.now.contains(value)) {
      std::string text = key + " is " + show(value) + ", which is none of";
      for (const Value& possible : entry.now) {
        text += ' ' + show(possible);
      }
      throw std::runtime_error(text);
    }
    entry.now = {value};
  }

  /// The daemon was killed: what it had accepted since the file was last known to be up to date may be lost,
  /// back to any of these values.
  void died() {
    for (auto& [key, entry] : entries_) {
      entry.now.insert(entry.sinceStored.begin(), entry.sinceStored.end());
    }
  }

  /// The file holds what the daemon holds.
  void stored() {
    for (auto& [key, entry] : entries_) {
      entry.sinceStored = entry.now;
    }
  }

  /// REQUIRES: it was seen after the last doubt.
  const Value& value(const std::string& key) const {
    const Entry& entry = entries_.at(key);
    if (entry.now.size() != 1) {
      throw std::logic_error("nobody knows the value of " + key);
    }
    return *entry.now.begin();
  }

 private:
  struct Entry {
    std::set<Value> now;
    std::set<Value> sinceStored;
  };

  std::map<std::string, Entry> entries_;
};

}  // namespace propertyservice::soak
