#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

/// The names that the daemon and its clients use on the bus. The members of messages stand in
/// common/JSONDefinitions.h, the columns in wire/Columns.h.
namespace propertyservice {

/// The daemon's client name on the bus, and the root of every topic it serves or publishes on.
inline constexpr char kServiceName[] = "prop-service";

/// Keys that begin so are volatile: they live in LevelDB and have no metadata.
inline constexpr std::string_view kVolatilePrefix = "State.";

namespace method {

inline constexpr char kGetValue[] = "getV";
inline constexpr char kSetValue[] = "setV";
inline constexpr char kGetColumns[] = "getColsL";
inline constexpr char kSetList[] = "setVList";
inline constexpr char kReset[] = "resetVal";
inline constexpr char kProvisioningDump[] = "getProvDump";
inline constexpr char kMakeBackup[] = "makeBackup";
inline constexpr char kRestore[] = "restore";
inline constexpr char kPrepareVersionChange[] = "prepareVersionChange";
inline constexpr char kPrepareFactoryReset[] = "prepareFactoryReset";
inline constexpr char kMakeSysdump[] = "makeSysdump";

/// A member of `kMakeBackup` alone.
inline constexpr char kAllSettings[] = "allSettings";

}  // namespace method

inline constexpr char kLivenessQuestion[] = "Are you alive?";
inline constexpr char kLivenessAnswer[] = "Ok";

namespace statustext {

inline constexpr char kOk[] = "Ok";
inline constexpr char kNotFound[] = "NotFound";
inline constexpr char kRegExpError[] = "RegExpError";
inline constexpr char kValueError[] = "ValueError";
inline constexpr char kValueOutOfBounds[] = "ValueOutOfBounds";
inline constexpr char kReadOnly[] = "ReadOnly";
inline constexpr char kDbError[] = "DBError";
inline constexpr char kInvalidRequest[] = "InvalidRequest";

}  // namespace statustext

namespace topic {

/// `sender` may be "+".
inline std::string request(const std::string& sender) {
  return sender + '/' + kServiceName;
}

inline std::string reply(const std::string& sender) {
  return std::string(kServiceName) + '/' + sender;
}

/// Where the changes of one group are announced; those of all under the name `kAllGroups`.
inline std::string changes(const std::string& group) {
  return std::string(kServiceName) + '-' + group + "/any";
}

inline constexpr char kAllGroups[] = "groupnotify";

/// Returns the prefix of every topic of a device that is reached through a central broker.
inline std::string devicePrefix(const std::string& serial) {
  return "devices/" + serial + '/';
}

/// Where a client of the bus announces whether it is there: "1" or "0", retained.
inline std::string online(const std::string& client) {
  return "services/" + client + "/online";
}

/// Where a central broker keeps whether a device is connected: "1" or "0". `serial` may be "+".
inline std::string presence(const std::string& serial) {
  return devicePrefix(serial) + "online";
}

/// Where it keeps what the device last said of the daemon.
inline std::string servicePresence(const std::string& serial) {
  return devicePrefix(serial) + online(kServiceName);
}

}  // namespace topic

inline std::string lowerCased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char byte) {
    return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
  });
  return text;
}

/// Returns whether a property of this name holds a password or a PIN, whose value clients hide from
/// onlookers. The page has the same rule (device/web/properties.js).
inline bool isSecret(const std::string& name) {
  const std::string text = lowerCased(name);
  return text.ends_with("password") || text.ends_with("pin");
}

/// The part of the key before its first ".", in lower case. A key without a "." has no group.
inline std::optional<std::string> groupOf(const std::string& key) {
  const std::size_t dot = key.find('.');
  if (dot == std::string::npos) {
    return std::nullopt;
  }
  return lowerCased(key.substr(0, dot));
}

}  // namespace propertyservice
