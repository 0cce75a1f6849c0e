#pragma once

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "fleet/CentralClient.h"
#include "fleet/Host.h"
#include "support/TemporaryDirectory.h"

namespace propertyservice::test {

/// The authorities and certificates of a fleet, made by the commands in docs/fleet.md.
class Authorities {
 public:
  Authorities();

  Certificate issueDevice(const std::string& serial) { return issue("device", "serial", serial); }
  Certificate issueController(const std::string& name) { return issue("controller", "controller", name); }

  std::string path(const std::string& file) const { return directory_.path(file); }

  /// Runs the documented commands of `program` where the certificates are; their output.
  std::string runDocumented(const std::string& program, const std::string& variables) const;

 private:
  Certificate issue(const std::string& kind, const std::string& variable, const std::string& name);

  const TemporaryDirectory directory_;
};

/// The central broker on a host of its own, with the sample configuration and access lists.
class Centre {
 public:
  static constexpr const char* kHostName = "centre.example";
  static constexpr const char* kAddress = "10.80.0.1";
  static constexpr int kDevices = 8883;
  static constexpr int kControllers = 8884;

  explicit Centre(const Authorities& authorities);

  const Host& host() const { return host_; }

  /// The broker; it accepts connections when `start` has returned.
  void start();
  void stop();

 private:
  void linkToThisProcess() const;

  const Host host_;
  std::unique_ptr<Process> broker_;
};

/// A device with its broker, its bridge and its daemon on a host of its own, linked to the centre.
class FleetDevice {
 public:
  /// The `number`th one; it is linked to the centre, and nothing runs yet.
  FleetDevice(int number, const Centre& centre, Authorities& authorities);

  const std::string& serial() const { return serial_; }
  const Host& host() const { return host_; }
  const Link& link() const { return link_; }
  Process& daemon() { return *daemon_; }

  /// The bridge as the documentation installs it, but quicker to notice a dead link and to come back.
  void installBridge(Authorities& authorities, const std::string& centreName);

  void startBroker();
  void stopBroker();
  void launchDaemon();
  /// Returns when the service answers local programs.
  void waitForDaemon();
  void stopDaemon();
  std::string daemonLog() const { return daemon_->output(); }
  std::string brokerLog() const { return broker_->output(); }
  /// How often the bridge has tried to connect since the broker's start.
  std::size_t connectAttempts() const;

  /// Asks as the local program "panel"; the reply's text, or nothing.
  std::string askLocally(const std::string& request) const;
  std::string valueOf(const std::string& key) const;

  /// The topics of the requests that have arrived at the service so far.
  std::vector<std::string> requestsSeen() const;

 private:
  void installPrograms();
  void observe();

  const std::string serial_;
  const Host host_;
  const Link link_;
  std::unique_ptr<Process> broker_;
  std::unique_ptr<Process> daemon_;
  std::unique_ptr<Process> observer_;
};

/// Lines of a document that are commands of `program` and contain `part`.
std::vector<std::string> documentedCommands(const std::string& document, const std::string& program,
                                            const std::string& part = "");

/// `text` with `part`, which must be in it, replaced everywhere.
std::string replaced(std::string text, const std::string& part, const std::string& replacement);

}  // namespace propertyservice::test
