#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fleet/Fleet.h"
#include "support/Device.h"

namespace propertyservice::test {

inline Json::Value setVolume(const std::string& value) {
  return makeRequest("setV", "Audio.Volume", value);
}

inline Json::Value getVolume() {
  return makeRequest("getV", "Audio.Volume");
}

inline std::string topicOf(const FleetDevice& device, const std::string& rest) {
  return "devices/" + device.serial() + "/" + rest;
}

/// Three devices and a centre, each on a host of its own with a real broker, the installed configuration and
/// certificates made as the documentation says; and the controller "fleet".
class Fleet : public testing::Test {
 protected:
  Fleet() {
    centre_.start();
    for (int number = 1; number <= 3; ++number) {
      devices_.push_back(std::make_unique<FleetDevice>(number, centre_, authorities_));
      devices_.back()->startBroker();
      devices_.back()->launchDaemon();
    }
    fleet_ = controller("fleet");
    for (const auto& device : devices_) {
      device->waitForDaemon();
      if (!isOnline(*device) || !hearsOfTheService(*device, "1")) {
        throw std::runtime_error(device->serial() + " does not come to the centre:\n" + device->brokerLog());
      }
    }
  }

  /// A controller that listens to everything that it may.
  std::unique_ptr<CentralClient> controller(const std::string& name) {
    return std::make_unique<CentralClient>(
        name, Centre::kControllers, authorities_.issueController(name),
        std::vector<std::string>{"devices/+/online", "devices/+/services/prop-service/online",
                                 "devices/+/prop-service/" + name, "devices/+/+/any"});
  }

  bool isOnline(const FleetDevice& device) { return fleet_->waitFor(topicOf(device, "online"), "1"); }
  bool isOffline(const FleetDevice& device) { return fleet_->waitFor(topicOf(device, "online"), "0"); }

  bool hearsOfTheService(const FleetDevice& device, const std::string& presence) {
    return fleet_->waitFor(topicOf(device, "services/prop-service/online"), presence);
  }

  /// Asks until the device answers: it comes online a moment before it hears.
  bool reaches(const FleetDevice& device) {
    return eventually([&] {
      return !fleet_->request(device.serial(), makeRequest("", "Are you alive?"), std::chrono::seconds(1))
                  .isNull();
    });
  }

  FleetDevice& device(std::size_t number) { return *devices_.at(number - 1); }

  Authorities authorities_;
  Centre centre_{authorities_};
  std::vector<std::unique_ptr<FleetDevice>> devices_;
  std::unique_ptr<CentralClient> fleet_;
};

}  // namespace propertyservice::test
