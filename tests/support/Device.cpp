#include "support/Device.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include "core/Constants.h"

namespace propertyservice::test {

namespace {

std::string literal(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) {
    quoted += c == '\'' ? "''" : std::string(1, c);
  }
  return quoted + "'";
}

std::string literal(const std::optional<std::string>& text) {
  return text ? literal(*text) : "NULL";
}
std::string literal(const std::optional<int>& number) {
  return number ? std::to_string(*number) : "NULL";
}

std::string insertStatement(const Row& row) {
  return "INSERT INTO settings VALUES (" + literal(row.key) + "," + literal(row.value) + "," +
         literal(row.webui) + "," + literal(row.provisioning) + ",NULL," + literal(row.rangeMin) + "," +
         literal(row.rangeMax) + "," + literal(row.regexp) + "," + literal(row.allowed) + "," +
         std::to_string(row.flags) + "," + literal(row.defaultValue) + ");\n";
}

}  // namespace

Device::Device(const std::vector<Row>& rows, const std::string& brokerConfiguration)
    : broker_(brokerConfiguration) {
  if (getenv("PROPERTYSERVICE_SANDBOX") == nullptr) {
    throw std::runtime_error("a device needs its own mount namespace: run this inside script/sandbox");
  }
  std::error_code ignored;  // "/config" is a mount point: only what it holds goes
  for (const char* place :
       {kDatabase, "/usr/sbin/nvm.unfinished", kStateStore, "/config", "/etc/nvm.conf.d", "/etc/ipc"}) {
    std::filesystem::remove_all(place, ignored);
  }
  std::filesystem::create_directory("/config");
  writeFile("/etc/model", "Halcyon 5 ADV\n");
  writeFile("/etc/version", "1.2.3\n");
  writeScript(rows);
}

std::vector<Row> Device::defaultRows() {
  return {
      {.key = "Audio.Volume",
       .value = "5",
       .defaultValue = "4",
       .flags = 8,
       .webui = "volume",
       .provisioning = "P_VOLUME",
       .rangeMin = 0,
       .rangeMax = 10},
      {.key = "Audio.Codec",
       .value = "opus",
       .defaultValue = "opus",
       .flags = 8,
       .allowed = "opus,g722,g711"},
      {.key = "Audio.Ringtone", .value = "bell", .defaultValue = "bell", .flags = 2, .webui = "ringtone"},
      {.key = "NET.General.Hostname",
       .value = "desk",
       .defaultValue = "phone",
       .flags = 16,
       .provisioning = "P_HOSTNAME",
       .regexp = "^[a-z0-9-]{1,63}$"},
      {.key = "NET.General.DeviceNameInNetwork", .value = "Halcyon", .defaultValue = "Halcyon", .flags = 2},
      {.key = "NET.MAC.Address", .value = "", .defaultValue = "", .flags = 1},
      {.key = "System.General.Variant.Name", .value = "", .defaultValue = "", .flags = 1},
      {.key = "System.General.Variant.MajorID", .value = "3", .defaultValue = "3", .flags = 1},
      {.key = "System.General.Variant.MinorID", .value = "", .defaultValue = "", .flags = 1},
      {.key = "System.General.ExperimentalFeatures", .value = "", .defaultValue = "", .flags = 1},
      {.key = "System.General.SoftwareVersion", .value = "", .defaultValue = "", .flags = 5},
      {.key = "System.General.UserAgent", .value = "", .defaultValue = "", .flags = 1},
      {.key = "System.Debug.LevelMask.PROP-SRV", .value = "14", .defaultValue = "14"},
      {.key = "System.ReadOnly", .value = "fixed", .defaultValue = "factory", .flags = 1},
      {.key = "WebUI.PhoneModel", .value = "", .defaultValue = "", .flags = 1},
      {.key = "NVM.Version", .value = "5", .defaultValue = "5", .flags = 4},
      {.key = "Pointless", .value = "a", .defaultValue = "a", .flags = 2},
  };
}

void Device::writeScript(const std::vector<Row>& rows) {
  std::string script = std::string("BEGIN;\n") + kCreateTable + ";\n";
  for (const Row& row : rows) {
    script += insertStatement(row);
  }
  writeFile(kScript, script + "COMMIT;\n");
}

void Device::slowDisk(int milliseconds) {
  writeFile(kSynchronised, "");
  setEnvironment({"LD_PRELOAD=" SLOW_SYNC_LIBRARY, "SLOW_SYNC_PROGRAM=PropertyService",
                  "SLOW_SYNC_MS=" + std::to_string(milliseconds),
                  std::string("SLOW_SYNC_LOG=") + kSynchronised});
}

void Device::launch(const std::vector<std::string>& options) {
  std::vector<std::string> command = {"env"};
  command.insert(command.end(), environment_.begin(), environment_.end());
  command.emplace_back(PROPERTYSERVICE_BINARY);
  command.insert(command.end(), options.begin(), options.end());
  daemon_ = std::make_unique<Process>(command, directory_.path("log"));
}

void Device::start(const std::vector<std::string>& options) {
  launch(options);
  BusClient probe("probe");
  const bool answered =
      eventually([&] { return !daemon_->running() || probe.serviceIsAlive(std::chrono::milliseconds(200)); });
  if (!answered || !daemon_->running()) {
    throw std::runtime_error("the daemon does not answer:\n" + log());
  }
}

std::optional<int> Device::stop() {
  daemon_->signal(SIGTERM);
  return daemon_->wait();
}

void Device::restart(const std::vector<std::string>& options) {
  if (const auto status = stop(); status != 0) {
    throw std::runtime_error("the daemon did not end well:\n" + log());
  }
  start(options);
}

std::optional<int> Device::runToEnd(const std::vector<std::string>& options) {
  launch(options);
  return daemon_->wait();
}

std::pair<std::optional<int>, std::string> Device::runBeside(const std::vector<std::string>& options,
                                                             std::vector<std::string> wrapper) const {
  wrapper.emplace_back(PROPERTYSERVICE_BINARY);
  wrapper.insert(wrapper.end(), options.begin(), options.end());
  Process second(wrapper, directory_.path("log of the second"));
  const std::optional<int> status = second.wait();
  return {status, second.output()};
}

BusClient& Device::panel() {
  if (!panel_) {
    panel_ = std::make_unique<BusClient>("panel", std::vector<std::string>{"+/any"});
  }
  return *panel_;
}

std::string Device::getValue(const std::string& key) {
  return panel().request(makeRequest("getV", key))["result"].asString();
}

Json::Value Device::set(const std::string& key, const std::string& value) {
  return panel().request(makeRequest("setV", key, value));
}

Json::Value Device::request(const std::string& method) {
  Json::Value request;
  request["method"] = method;
  return panel().request(request);
}

std::vector<std::string> Device::logLines(const std::string& part) const {
  std::vector<std::string> lines;
  std::istringstream all(log());
  for (std::string line; std::getline(all, line);) {
    if (line.find(part) != std::string::npos) {
      lines.push_back(line);
    }
  }
  return lines;
}

bool Device::waitForLog(const std::string& part) const {
  return eventually([&] { return !logLines(part).empty(); });
}

std::optional<std::string> Device::valueInFile(const std::string& key) {
  const SQLite::Database database(kDatabase, SQLite::OPEN_READONLY, 5000);
  SQLite::Statement query(database, "SELECT value FROM settings WHERE key = ?");
  query.bind(1, key);
  if (!query.executeStep()) {
    return std::nullopt;
  }
  return query.getColumn(0).getString();
}

std::map<std::string, std::string> Device::valuesInFile() {
  const SQLite::Database database(kDatabase, SQLite::OPEN_READONLY, 5000);
  SQLite::Statement query(database, "SELECT key, value FROM settings");
  std::map<std::string, std::string> values;
  while (query.executeStep()) {
    values[query.getColumn(0).getString()] = query.getColumn(1).getString();
  }
  return values;
}

bool Device::waitForValueInFile(const std::string& key, const std::string& value) {
  return eventually([&] { return valueInFile(key) == value; });
}

void Device::writeFile(const std::string& path, const std::string& content) {
  const std::filesystem::path target(path);
  std::filesystem::create_directories(target.parent_path());
  std::ofstream(target, std::ios::binary | std::ios::trunc) << content;
}

std::string Device::readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

bool Device::exists(const std::string& path) {
  return std::filesystem::exists(path);
}

Json::Value makeRequest(const std::string& method, const std::string& param) {
  Json::Value request;
  request["method"] = method;
  request["param"] = param;
  return request;
}

Json::Value makeRequest(const std::string& method, const std::string& param, const Json::Value& value) {
  Json::Value request = makeRequest(method, param);
  request["value"] = value;
  return request;
}

}  // namespace propertyservice::test
