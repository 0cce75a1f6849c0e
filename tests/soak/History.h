#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace propertyservice::soak {

/// Seconds since the start of the run.
using Seconds = double;

/// The daemon died some time between the two.
struct Kill {
  Seconds begin;
  Seconds end;
};

/// The requests of the clients of one daemon, their answers and what they heard. Written values are all
/// different, except the defaults that resets bring back.
struct History {
  /// A request that changes a property. Without an answer it was served at any time after it was sent, or
  /// never.
  struct Write {
    std::string key;
    std::string value;
    Seconds sent;
    std::optional<Seconds> answered;
    bool reset = false;
  };

  struct Read {
    std::string key;
    std::string value;
    Seconds sent;
    Seconds answered;
  };

  /// Announcements of some keys, in their order, to one client for as long as its connection stood.
  struct Watch {
    struct Announcement {
      std::string key;
      std::string value;
      Seconds heard;  ///< Not before it was heard.
    };

    std::string group;  ///< The keys' prefix.
    Seconds begin;
    Seconds end;
    bool lost = false;  ///< The connection was lost at `end`, with what was still under way.
    std::vector<Announcement> announcements;
  };

  std::map<std::string, std::string> defaults;  ///< Of each key, which begins with it.
  std::vector<Write> writes;
  std::vector<Read> reads;
  std::vector<Watch> watches;
  std::vector<Kill> kills;  ///< In order.
};

/// Returns up to `most` contradictions to these promises, one a line:
///
/// - a read gives the last answered value, or one of a write that was not over before the read began;
/// - a killed daemon forgets what was answered within the last second alone;
/// - a watch hears each change of a key once, in the order of the changes, and nothing else;
/// - a watch misses nothing but what a kill, or the loss of its own connection, took from the last moments.
std::vector<std::string> contradictions(const History& history, std::size_t most = 10);

}  // namespace propertyservice::soak
