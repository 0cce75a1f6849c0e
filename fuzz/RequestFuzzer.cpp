#include <algorithm>
#include <exception>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <json/reader.h>

#include "core/Constants.h"
#include "core/DatabaseBackup.h"
#include "core/Dispatcher.h"
#include "core/Init.h"
#include "core/JsonText.h"
#include "core/Messenger.h"
#include "fuzz/Fuzzing.h"
#include "support/FakeIPCClient.h"
#include "support/TemporaryDirectory.h"

// Requests, an empty line between one and the next, from payload to reply: with the daemon's own stores and
// rules on a device that is in its defaults at the first of them.

namespace propertyservice::fuzz {
namespace {

using test::FakeIPCClient;
using test::TemporaryDirectory;

constexpr char kRequestTopic[] = "fuzz/prop-service";
constexpr char kReplyTopic[] = "prop-service/fuzz";
constexpr std::size_t kLargestPayloadBytes = 1024 * 1024;

const std::string kScript = std::string(kCreateTable) + R"sql(;
INSERT INTO settings(key, value, flags) VALUES ('NET.MAC.Address', '', 1), ('System.General.Variant.Name', '', 1),
  ('System.General.Variant.MajorID', '3', 1), ('System.General.Variant.MinorID', '', 1),
  ('System.General.ExperimentalFeatures', '', 1), ('System.General.SoftwareVersion', '', 1),
  ('System.General.UserAgent', '', 1), ('WebUI.PhoneModel', '', 1), ('System.Debug.LevelMask.PROP-SRV', '30', 0),
  ('NET.General.DeviceNameInNetwork', 'desk', 0), ('NVM.Version', '5', 0);
INSERT INTO settings VALUES
  ('Audio.Volume', '4', 'volume', 'P_VOLUME', NULL, 0, 10, NULL, NULL, 8, '4'),
  ('Audio.Codec', 'opus', NULL, NULL, NULL, NULL, NULL, NULL, 'opus,g722,g711', 8, 'opus'),
  ('NET.Hostname', 'phone', NULL, 'P_HOSTNAME', NULL, NULL, NULL, '^[a-z0-9-]{1,63}$', NULL, 16, 'phone'),
  ('NET.Port', '80', 'port', NULL, NULL, 1, NULL, '[0-9]+$', NULL, 8, '80'),
  ('Free', 'x', NULL, NULL, NULL, NULL, NULL, NULL, NULL, 8, 'x'),
  ('Odd.Rule', 'x', NULL, NULL, NULL, NULL, NULL, '(', ',,', 0, 'y');
)sql";

/// The daemon's stores on a device of their own. At its end file and cache must hold the same.
class Device {
 public:
  Device() {
    paths_.database = directory_.path("nvm");
    paths_.creationScript = directory_.write("nvminit.sql", kScript);
    paths_.volatileStore = directory_.path("stateCache");
    paths_.model = directory_.write("model", "Halcyon 5 ADV\n");
    paths_.version = directory_.write("version", "1.2.3\n");
    paths_.macAddress = directory_.write("address", "00:1a:2b:3c:4d:5e\n");
    paths_.kernelCommandLine = directory_.write("cmdline", "quiet\n");
    paths_.customizations = paths_.migrations = paths_.backups = directory_.path("");
    service_ = InitContext(paths_).initializeDatabases(false, false).first;
    properties_ = service_->getMultiple("%", {}, "").size();
  }
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;
  ~Device() { requireAgreement(); }

  /// Back to the defaults, but for the volatile properties.
  void reset() { service_->resetMultiple("%"); }

  /// Waits because work in progress would look like a leak.
  void waitForWriter() {
    while (!service_->isWriterIdle()) {
      std::this_thread::yield();
    }
  }

  const std::shared_ptr<IDatabaseService>& service() const { return service_; }
  const DevicePaths& paths() const { return paths_; }

 private:
  void requireAgreement() {
    waitForWriter();
    const SQLite::Database file(paths_.database, SQLite::OPEN_READONLY);
    SQLite::Statement rows(file, "SELECT key, value FROM settings");
    std::size_t count = 0;
    for (; rows.executeStep(); ++count) {
      Property property({{"key", rows.getColumn(0).getString()}});
      service_->get(property);
      require(property.text("value") == rows.getColumn(1).getString(), "file and cache hold the same");
    }
    require(count == properties_, "no row comes or goes");
  }

  const TemporaryDirectory directory_;
  DevicePaths paths_;
  std::shared_ptr<IDatabaseService> service_;
  std::size_t properties_;
};

/// Restores are real. An export runs a shell, a thousand times slower than any other request: the user's
/// backup is written here as it would write it, and the others are not.
class Backup final : public IDatabaseBackup {
 public:
  explicit Backup(const Device& device)
      : path_(device.paths().backups + "user_backup.csv"),
        service_(device.service()),
        restores_(service_, device.paths()) {}

  Status makeBackup(const Json::Value& /*request*/) override {
    std::ofstream file(path_, std::ios::binary);
    for (const Property& property : service_->getMultiple("%", {}, "")) {
      file << property.text("key") << ';' << property.text("value") << '\n';
    }
    file << "DatabaseVersion:5\n";
    return Status::Ok;
  }
  Status prepareVersionChange() override { return Status::Ok; }
  Status prepareFactoryReset() override { return Status::Ok; }
  Status makeSysdump() override { return Status::Ok; }
  Status restore(const RestoredCallback& restored) override { return restores_.restore(restored); }
  void restoreVersionChange() override {}
  void restoreFactoryReset() override {}
  bool versionChangeBackupExists() override { return false; }
  bool factoryResetBackupExists() override { return false; }

 private:
  const std::string path_;
  const std::shared_ptr<IDatabaseService> service_;
  DatabaseBackup restores_;
};

bool isJson(const std::string& text) {
  Json::CharReaderBuilder strict;
  Json::CharReaderBuilder::strictMode(&strict.settings_);
  strict["strictRoot"] = false;  // an empty provisioning dump is null
  Json::Value value;
  std::string errors;
  std::istringstream stream(text);
  return Json::parseFromStream(strict, stream, &value, &errors);
}

bool isRequest(const std::string& payload) {
  Json::Value value;
  return payload.size() <= kLargestPayloadBytes && json::parse(payload, value) && value.isObject();
}

std::ptrdiff_t countReplies(const FakeIPCClient& bus) {
  const auto published = bus.published();
  return std::ranges::count(published, kReplyTopic, &FakeIPCClient::Message::topic);
}

void serve(Device& device, std::string_view input) {
  device.reset();
  const auto bus = std::make_shared<FakeIPCClient>();
  {
    Dispatcher dispatcher(bus, device.service(), std::make_unique<Backup>(device),
                          std::make_unique<Messenger>(bus));
    for (const std::string& payload : split(input, "\n\n")) {
      const std::ptrdiff_t before = countReplies(*bus);
      bool served = isRequest(payload);
      try {
        dispatcher.messageArrived(kRequestTopic, payload);
      } catch (const std::exception&) {
        served = false;  // what the bus client logs
      }
      require(countReplies(*bus) == before + (served ? 1 : 0),
              "each request is answered once, all else never");
    }
  }
  for (const FakeIPCClient::Message& message : bus->published()) {
    require(isJson(message.payload), "what is published is JSON");
    require(message.payload.find('\n') == message.payload.size() - 1, "it is one line");
  }
  device.waitForWriter();
}

}  // namespace
}  // namespace propertyservice::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using propertyservice::fuzz::Device;

  // A new device now and then: the volatile properties become more and more.
  constexpr int kInputsPerDevice = 1024;
  static std::unique_ptr<Device> device;
  static int inputs = 0;
  if (inputs++ % kInputsPerDevice == 0) {
    device.reset();
    device = std::make_unique<Device>();
  }
  propertyservice::fuzz::serve(*device, propertyservice::fuzz::toText(data, size));
  return 0;
}
