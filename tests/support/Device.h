#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/Broker.h"
#include "support/BusClient.h"
#include "support/Process.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice::test {

/// A row of the device's database script; what is not given is NULL.
struct Row {
  std::string key;
  std::string value;
  std::string defaultValue;
  int flags = 0;
  std::optional<std::string> webui = {};
  std::optional<std::string> provisioning = {};
  std::optional<int> rangeMin = {};
  std::optional<int> rangeMax = {};
  std::optional<std::string> regexp = {};
  std::optional<std::string> allowed = {};
};

/// A device on its real paths: its files, a broker on port 1883 and the daemon's own binary. Must run inside
/// script/sandbox, where those paths belong to the test.
///
/// A new device has all its files (a "Halcyon 5 ADV", database script with `rows`), a running broker, and a
/// daemon that was never started.
class Device {
 public:
  /// For everybody. By default the broker drops what waits for a client beyond 1000 messages.
  static constexpr const char* kOpenBroker = "allow_anonymous true\nmax_queued_messages 200000\n";

  static constexpr const char* kDatabase = "/usr/sbin/nvm";
  static constexpr const char* kScript = "/etc/propsrv.d/nvminit.sql";
  static constexpr const char* kStateStore = "/var/volatile/stateCache";
  static constexpr const char* kUserBackup = "/config/user_backup.csv";
  static constexpr const char* kVersionChangeBackup = "/config/sys_backup.csv";
  static constexpr const char* kFactoryResetBackup = "/config/reset_backup.csv";
  static constexpr const char* kSysdump = "/config/sysdump.csv";

  explicit Device(const std::vector<Row>& rows = defaultRows(),
                  const std::string& brokerConfiguration = kOpenBroker);

  /// Properties of every kind: with each validation rule, with aliases, read-only, without a point in the
  /// key.
  static std::vector<Row> defaultRows();
  void writeScript(const std::vector<Row>& rows);

  /// Adds variables, each as NAME=VALUE, to the daemon's environment from its next start on.
  void setEnvironment(std::vector<std::string> variables) { environment_ = std::move(variables); }
  /// Has each synchronisation of the daemon take so long, and the path of what is synchronised be written to
  /// `kSynchronised`, from its next start on. The shells that it starts are left alone.
  void slowDisk(int milliseconds);
  static constexpr const char* kSynchronised = "/var/volatile/synchronised";

  /// Starts the daemon, without waiting for anything.
  void launch(const std::vector<std::string>& options = {});
  /// Starts the daemon and returns when it answers; throws with its log when it does not.
  void start(const std::vector<std::string>& options = {});
  /// SIGTERM; the exit status.
  std::optional<int> stop();
  void restart(const std::vector<std::string>& options = {});
  /// Runs the daemon to its own end; the exit status.
  std::optional<int> runToEnd(const std::vector<std::string>& options);

  /// Runs a second daemon beside the one that runs, to its own end: its exit status and what it logged.
  /// `wrapper` is a command that the daemon's command line is added to.
  std::pair<std::optional<int>, std::string> runBeside(const std::vector<std::string>& options,
                                                       std::vector<std::string> wrapper = {}) const;

  Process& daemon() { return *daemon_; }
  Broker& broker() { return broker_; }
  /// The client "panel"; made when first asked for.
  BusClient& panel();

  /// Requests of the client "panel".
  std::string getValue(const std::string& key);
  Json::Value set(const std::string& key, const std::string& value);
  Json::Value request(const std::string& method);

  /// The log of the last start: all of it, the entries with `part`.
  std::string log() const { return daemon_->output(); }
  std::vector<std::string> logLines(const std::string& part) const;
  bool waitForLog(const std::string& part) const;

  /// The value in the database file; nothing without such a row.
  static std::optional<std::string> valueInFile(const std::string& key);
  static std::map<std::string, std::string> valuesInFile();
  static bool waitForValueInFile(const std::string& key, const std::string& value);

  static void writeFile(const std::string& path, const std::string& content);
  static std::string readFile(const std::string& path);
  static bool exists(const std::string& path);

 private:
  const TemporaryDirectory directory_;
  std::vector<std::string> environment_;
  Broker broker_;
  std::unique_ptr<Process> daemon_;
  std::unique_ptr<BusClient> panel_;
};

/// {"method": method, "param": param} and, where given, "value".
Json::Value makeRequest(const std::string& method, const std::string& param);
Json::Value makeRequest(const std::string& method, const std::string& param, const Json::Value& value);

}  // namespace propertyservice::test
