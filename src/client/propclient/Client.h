#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

/// The client's side of the bus: what a program of the device links to read, write and watch properties.
namespace propclient {

/// The outcome of a request.
enum class Status {
  ok,                ///< Done; for a write also: the value was equal already.
  notFound,          ///< No such property, or nothing matched the pattern.
  regExpError,       ///< The value does not match the property's expression.
  valueError,        ///< The value is not in the property's list, or is not a text that can be stored.
  valueOutOfBounds,  ///< The value is not a number within the property's range.
  readOnly,          ///< The property cannot be written by requests.
  dbError,           ///< A store or a backup of the daemon failed.
  invalidRequest,    ///< The daemon does not know the request.
  noAnswer,          ///< None in time, the connection broke meanwhile, or request or answer were longer than
                     ///< the broker lets pass (1 MiB on the device): whether it was served is unknown, and it
                     ///< may still be served.
  away,              ///< The daemon has announced that it is away, so nothing was sent.
};

/// The status as the daemon spells it ("Ok", "NotFound", …); "NoAnswer" for `noAnswer`, "Away" for
/// `away`.
const char* toText(Status status);

/// The kind of the names in a request.
enum class Field { key, web, provisioning };

/// Columns of a property by their names ("key", "value", "flags", …), integers as decimal text. Columns that
/// the property does not have, and an empty "value", are missing.
using Columns = std::map<std::string, std::string>;

using Values = std::map<std::string, std::string>;  ///< By name.

template <typename T>
struct Answer {
  Status status = Status::noAnswer;
  T value{};  ///< Empty unless `status` is ok.

  bool ok() const { return status == Status::ok; }
};

/// A value that changed.
struct Change {
  std::string key;
  std::optional<std::string> value;  ///< Nothing: the volatile key was removed.
  std::optional<std::string> old;    ///< The value before it, where it is known.
};

/// A failure to connect, or a connection that cannot be made as asked; `what` names the broker and the
/// reason.
class ConnectionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Tls {
  std::string caFile{};           ///< Whom to trust, PEM; empty: those whom the system trusts.
  std::string certificateFile{};  ///< What to prove oneself with, PEM; empty: nothing.
  std::string keyFile{};
};

struct Options {
  std::string host = "localhost";
  std::uint16_t port = 1883;

  /// The sender: one topic level that no other program on the broker uses. Empty: `user`, or without that a
  /// name of this client's own.
  std::string name{};

  std::string user{};  ///< Empty: no authentication.
  std::string password{};
  std::optional<Tls> tls{};

  /// Reaches the device with this serial number through a central broker ("devices/SERIAL/" before every
  /// topic); empty: the device at the broker itself.
  std::string device{};

  std::chrono::milliseconds timeout{5000};  ///< For `connect` and for each answer of the daemon.
};

/// One connection to the daemon.
///
/// Every request has two forms. The blocking one returns the answer, at the latest after the time-out. The
/// one with a callback returns at once and has the callback called exactly once, on the client's own thread:
/// with the answer, or with `noAnswer`. Any thread may call either; requests are served in the order of the
/// calls. A blocking form called from a callback throws `std::logic_error`, since it would wait for itself;
/// so do `connect` and `watch`. A callback must not throw, and while it runs no other is called.
///
/// A connection that breaks comes back by itself. What was asked and not answered then ends with `noAnswer`;
/// what is asked meanwhile waits for it, as long as the time-out allows.
///
/// The daemon announces whether it is there. While it is away, requests are not sent but end with `away`.
class Client {
 public:
  template <typename T>
  using Callback = std::function<void(const Answer<T>&)>;
  struct Nothing {};

  /// The receiver of how many properties of a list have been read, and how many there are; called on the
  /// client's own thread.
  using Progress = std::function<void(std::size_t read, std::size_t all)>;

  /// Connects to nothing yet. Throws `std::invalid_argument` for a name or device that is not a single topic
  /// level.
  explicit Client(Options options);

  /// Ends what is outstanding with `noAnswer` and disconnects. Not from a callback. What the callbacks ask
  /// meanwhile is dropped.
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Returns once the broker has accepted the connection and the subscription to the replies. Throws
  /// `ConnectionError`. Requests before it are answered with `noAnswer`.
  void connect();

  /// Returns whether the daemon is there. Nothing while that is unknown: without a connection, and with a
  /// daemon or a broker that does not tell; requests are then sent all the same. Known when `connect`
  /// returns.
  std::optional<bool> present() const;

  /// Calls `callback` with `present`, now and whenever that changes, on the client's own thread. A second
  /// call replaces the callback.
  void onPresence(std::function<void(std::optional<bool>)> callback);

  /// Calls `callback` with whether there is a connection to the broker, in the same way.
  void onConnection(std::function<void(bool)> callback);

  /// Round trip to the daemon.
  Answer<Nothing> ping();
  void ping(Callback<Nothing> callback);

  /// The value of one property.
  Answer<std::string> get(const std::string& name, Field field = Field::key);
  void get(const std::string& name, Field field, Callback<std::string> callback);

  Answer<Nothing> set(const std::string& name, const std::string& value, Field field = Field::key);
  void set(const std::string& name, const std::string& value, Field field, Callback<Nothing> callback);

  /// Chosen columns (all where `columns` is empty) of the properties whose name in `field` matches `pattern`:
  /// "%" stands for any text. Not for "State." keys. `notFound` where nothing matches. In no particular
  /// order.
  ///
  /// However many match: unless only their names are asked for, a pattern takes several requests, so that
  /// each answer is shorter than the broker's limit. Each of them has the time-out for itself, and what
  /// others ask may be served between them.
  Answer<std::vector<Columns>> list(const std::string& pattern, const std::vector<std::string>& columns = {},
                                    Field field = Field::key, const Progress& progress = {});
  void list(const std::string& pattern, const std::vector<std::string>& columns, Field field,
            Callback<std::vector<Columns>> callback, const Progress& progress = {});

  /// Writes several in one request. The daemon removes all blanks from names and values, and answers ok when
  /// at least one changed, else the status of the last; `setEach` does neither.
  Answer<Nothing> setList(const Values& values, Field field = Field::key);
  void setList(const Values& values, Field field, Callback<Nothing> callback);

  /// Writes several, one request each, all under way at once; the status of each by its name.
  std::map<std::string, Status> setEach(const Values& values, Field field = Field::key);

  /// Takes a property, or all that match a pattern with "%", to the default; removes a "State." key.
  Answer<Nothing> reset(const std::string& pattern);
  void reset(const std::string& pattern, Callback<Nothing> callback);

  /// All values by provisioning name, read as `list` does.
  Answer<Values> provisioningDump();
  void provisioningDump(Callback<Values> callback);

  /// The user's settings, or all, to the device's backup file.
  Answer<Nothing> makeBackup(bool allSettings = false);
  void makeBackup(bool allSettings, Callback<Nothing> callback);

  /// Reads the backup file back and removes it.
  Answer<Nothing> restore();
  void restore(Callback<Nothing> callback);

  Answer<Nothing> prepareVersionChange();
  void prepareVersionChange(Callback<Nothing> callback);

  Answer<Nothing> prepareFactoryReset();
  void prepareFactoryReset(Callback<Nothing> callback);

  Answer<Nothing> makeSysdump();
  void makeSysdump(Callback<Nothing> callback);

  /// Calls `callback`, on the client's own thread, for each change of what `names` stand for: keys, and
  /// groups (the part of the key before the first ".", in any case). "%", and no name at all, stand for all
  /// properties. A key without a "." is announced to those alone who watch all.
  ///
  /// After a loss of the connection, and after a restart of the daemon, what is watched is read again, and
  /// what changed meanwhile is told as any other change; of "State." keys only those that are named or were
  /// told of before.
  ///
  /// Returns once the broker has accepted the subscriptions and the present values are read; throws
  /// `ConnectionError` where nothing comes for the time-out, and `std::invalid_argument` for a group that is
  /// no part of a topic. One watch at a time: a second one takes the place of the first.
  void watch(const std::vector<std::string>& names, std::function<void(const Change&)> callback);

  /// When it has returned, the callback of `watch` is not called any more. A callback may call it, too.
  void unwatch();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace propclient
