#include "fleet/Fleet.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "core/JsonText.h"

namespace propertyservice::test {

namespace {

constexpr const char* kRequestMark = "request on ";

const std::string kSource = SOURCE_DIRECTORY;

std::string runIn(const std::string& directory, const std::string& variables, const std::string& command) {
  return run({"sh", "-c", "cd " + directory + " && " + variables + " && " + command});
}

/// An installed configuration for a test: the broker stays root in its own namespace, and logs to the test.
std::string mainConfiguration() {
  return "user root\ninclude_dir /etc/mosquitto/conf.d\n";
}

void waitForPort(const Host& host, Process& broker, int port) {
  const std::string probe = ": </dev/tcp/127.0.0.1/" + std::to_string(port);
  const bool listens = eventually([&] {
    const auto attempt = host.start({"bash", "-c", probe}, "probe");
    return !broker.running() || attempt->wait() == 0;
  });
  if (!listens || !broker.running()) {
    throw std::runtime_error("the broker does not listen: " + broker.output());
  }
}

}  // namespace

std::vector<std::string> documentedCommands(const std::string& document, const std::string& program,
                                            const std::string& part) {
  std::vector<std::string> commands;
  std::istringstream lines(readFile(kSource + "/" + document));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(program + " ") && line.find(part) != std::string::npos) {
      commands.push_back(line);
    }
  }
  if (commands.empty()) {
    throw std::runtime_error(document + " has no command with " + part);
  }
  return commands;
}

std::string replaced(std::string text, const std::string& part, const std::string& replacement) {
  std::size_t at = text.find(part);
  if (at == std::string::npos) {
    throw std::runtime_error("no \"" + part + "\" in: " + text);
  }
  for (; at != std::string::npos; at = text.find(part, at + replacement.size())) {
    text.replace(at, part.size(), replacement);
  }
  return text;
}

Authorities::Authorities() {
  for (std::string command : documentedCommands("docs/fleet.md", "openssl", "req -x509")) {
    if (command.find("DNS:") != std::string::npos) {
      // The test's own host knows the centre by its address alone.
      command = replaced(command, "DNS:$centre", std::string("DNS:$centre,IP:") + Centre::kAddress);
    }
    runIn(directory_.path(), std::string("centre=") + Centre::kHostName, command);
  }
}

Certificate Authorities::issue(const std::string& kind, const std::string& variable,
                               const std::string& name) {
  for (const std::string& command : documentedCommands("docs/fleet.md", "openssl", kind + ".csr")) {
    runIn(directory_.path(), variable + "=" + name, command);
  }
  const Certificate certificate = {path("centre-ca.crt"), path(name + ".crt"), path(name + ".key")};
  for (const std::string part : {".crt", ".key"}) {
    std::filesystem::copy_file(path(kind + part), path(name + part),
                               std::filesystem::copy_options::overwrite_existing);
  }
  return certificate;
}

std::string Authorities::runDocumented(const std::string& program, const std::string& variables) const {
  const std::string settings =
      std::string("PATH=") + PROPCTL_DIRECTORY + ":$PATH centre=" + Centre::kAddress + " " + variables;
  std::string output;
  for (const std::string& command : documentedCommands("docs/fleet.md", program)) {
    output += runIn(directory_.path(), settings, command);
  }
  return output;
}

Centre::Centre(const Authorities& authorities) : host_("centre") {
  host_.run({"ip", "address", "add", std::string(Centre::kAddress) + "/32", "dev", "lo"});
  linkToThisProcess();
  for (const std::string file : {"devices-ca.crt", "controllers-ca.crt", "centre.crt", "centre.key"}) {
    host_.install(authorities.path(file), "/etc/mosquitto/fleet/" + file);
  }
  host_.install(kSource + "/device/mosquitto/central-devices.acl", "/etc/mosquitto/central-devices.acl");
  host_.write(
      "/etc/mosquitto/central-controllers.acl",
      readFile(kSource + "/device/mosquitto/central-controllers.acl") + "user observer\ntopic read #\n");
  std::string configuration = readFile(kSource + "/device/mosquitto/central.conf");
  configuration = replaced(configuration, "/var/lib/mosquitto/", "/var/volatile/");
  configuration = replaced(configuration, "log_dest syslog", "log_dest stderr");
  // Small enough for a test to fill.
  configuration = replaced(configuration, "memory_limit 1073741824", "memory_limit 20000000");
  host_.write("/etc/mosquitto/conf.d/central.conf", configuration);
  host_.write("/etc/mosquitto/mosquitto.conf", mainConfiguration());
}

/// Controllers run in the test program itself.
void Centre::linkToThisProcess() const {
  if (std::getenv("FLEET_PRIVATE_NETWORK") == nullptr) {
    throw std::runtime_error("a fleet needs a network of its own: run this by tests/fleet/private-network");
  }
  run({"ip", "link", "add", "to-centre", "type", "veth", "peer", "name", "to-controllers", "netns",
       host_.pid()});
  run({"ip", "address", "add", "10.80.100.2/24", "dev", "to-centre"});
  run({"ip", "link", "set", "to-centre", "up"});
  host_.run({"ip", "address", "add", "10.80.100.1/24", "dev", "to-controllers"});
  host_.run({"ip", "link", "set", "to-controllers", "up"});
  run({"ip", "route", "add", Centre::kAddress, "via", "10.80.100.1"});
}

void Centre::start() {
  broker_ = host_.start({"mosquitto", "-c", "/etc/mosquitto/mosquitto.conf"}, "broker");
  waitForPort(host_, *broker_, kDevices);
  waitForPort(host_, *broker_, kControllers);
}

void Centre::stop() {
  broker_->signal(SIGTERM);
  broker_->wait();
}

FleetDevice::FleetDevice(int number, const Centre& centre, Authorities& authorities)
    : serial_("HX-000" + std::to_string(number)),
      host_("device" + std::to_string(number)),
      link_(centre.host(), host_, "10.80." + std::to_string(number)) {
  host_.run({"ip", "route", "add", Centre::kAddress, "via", "10.80." + std::to_string(number) + ".1"});
  host_.write("/etc/hosts",
              std::string("127.0.0.1 localhost\n") + Centre::kAddress + " " + Centre::kHostName + "\n");
  installPrograms();
  installBridge(authorities, Centre::kHostName);
}

void FleetDevice::installPrograms() {
  host_.install(kSource + "/device/etc", "/etc");
  host_.install(kSource + "/device/mosquitto/propsrv.acl", "/etc/mosquitto/propsrv.acl");
  host_.write(
      "/etc/mosquitto/conf.d/propsrv.conf",
      replaced(readFile(kSource + "/device/mosquitto/propsrv.conf"), "log_dest syslog", "log_dest stderr"));
  host_.write("/etc/mosquitto/mosquitto.conf", mainConfiguration());
  host_.write("/etc/mosquitto/propsrv.passwd", "");
  for (const std::string user : {"prop-service", "panel"}) {
    host_.run({"mosquitto_passwd", "-b", "/etc/mosquitto/propsrv.passwd", user, "secret"});
  }
  host_.write("/etc/ipc/prop-service.credentials", "prop-service\nsecret\n", 0600);
}

void FleetDevice::installBridge(Authorities& authorities, const std::string& centreName) {
  const Certificate certificate = authorities.issueDevice(serial_);
  host_.install(certificate.authority, "/etc/mosquitto/fleet/centre-ca.crt");
  host_.install(certificate.certificate, "/etc/mosquitto/fleet/device.crt");
  host_.install(certificate.key, "/etc/mosquitto/fleet/device.key");

  const std::string fillIn = documentedCommands("docs/operations.md", "sed", "fleet-bridge.conf").front();
  host_.run(
      {"sh", "-c", "cd " + kSource + " && serial=" + serial_ + " centre=" + centreName + " && " + fillIn});
  // As installed, but less patient.
  host_.run(
      {"sed", "-i",
       "s/^keepalive_interval 60$/keepalive_interval 5/; s/^restart_timeout 10 300$/restart_timeout 1 2/",
       "/etc/mosquitto/conf.d/fleet-bridge.conf"});
}

void FleetDevice::startBroker() {
  broker_ = host_.start({"mosquitto", "-c", "/etc/mosquitto/mosquitto.conf"}, "broker");
  waitForPort(host_, *broker_, 1883);
  observe();
}

void FleetDevice::stopBroker() {
  broker_->signal(SIGTERM);
  broker_->wait();
}

void FleetDevice::launchDaemon() {
  daemon_ = host_.start({PROPERTYSERVICE_BINARY}, "daemon");
}

void FleetDevice::waitForDaemon() {
  const bool alive = eventually([&] {
    return !daemon_->running() || askLocally(R"({"param":"Are you alive?"})") == "{\"param\":\"Ok\"}\n";
  });
  if (!alive || !daemon_->running()) {
    throw std::runtime_error("the daemon does not answer: " + daemon_->output());
  }
}

void FleetDevice::stopDaemon() {
  daemon_->signal(SIGTERM);
  daemon_->wait();
}

std::size_t FleetDevice::connectAttempts() const {
  std::size_t attempts = 0;
  std::istringstream lines(brokerLog());
  for (std::string line; std::getline(lines, line);) {
    attempts += line.find("Connecting bridge (step 1)") != std::string::npos ? 1 : 0;
  }
  return attempts;
}

std::string FleetDevice::askLocally(const std::string& request) const {
  const auto client = host_.start({"mosquitto_rr", "-u", "panel", "-P", "secret", "-N", "-q", "1", "-W", "1",
                                   "-t", "panel/prop-service", "-e", "prop-service/panel", "-m", request},
                                  "local");
  client->wait();
  return client->output();
}

std::string FleetDevice::valueOf(const std::string& key) const {
  Json::Value reply;
  json::parse(askLocally(R"({"method":"getV","param":")" + key + "\"}"), reply);
  return reply["result"].asString();
}

void FleetDevice::observe() {
  observer_ = host_.start({"stdbuf", "-oL", "mosquitto_sub", "-d", "-u", "prop-service", "-P", "secret", "-t",
                           "+/prop-service", "-F", std::string(kRequestMark) + "%t"},
                          "observer");
  if (!eventually([&] { return observer_->output().find("Subscribed") != std::string::npos; })) {
    throw std::runtime_error("no observer: " + observer_->output());
  }
}

std::vector<std::string> FleetDevice::requestsSeen() const {
  std::vector<std::string> topics;
  std::istringstream lines(observer_->output());
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(kRequestMark)) {
      topics.push_back(line.substr(std::string(kRequestMark).size()));
    }
  }
  return topics;
}

}  // namespace propertyservice::test
