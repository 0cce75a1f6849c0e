#include "core/ReadOnlyParameters.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <string_view>

#include "common/FileSystem.h"
#include "core/Constants.h"
#include "core/Integer.h"
#include "core/Log.h"
#include "core/Property.h"

namespace propertyservice {

namespace {

constexpr char kDeviceName[] = "NET.General.DeviceNameInNetwork";
constexpr std::string_view kUnnamed = "Halcyon";

std::string readWithoutLineBreaks(const std::string& path) {
  std::string text = filesystem::read(path);
  std::erase(text, '\n');
  return text;
}

/// The model text may begin with the vendor's name and a colon.
std::string withoutVendor(std::string text) {
  text.erase(0, text.find(':') + 1);
  return text;
}

bool contains(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

/// An address without its colons, each character given to `convert`.
std::string compactAddress(std::string address, int (*convert)(int)) {
  std::erase(address, ':');
  std::transform(address.begin(), address.end(), address.begin(),
                 [convert](unsigned char character) { return static_cast<char>(convert(character)); });
  return address;
}

/// "Halcyon 5 ADV" with the address 00:1a:2b:3c:4d:5e is "Halcyon-5-3c4d5e".
std::string createDeviceName(std::string model, const std::string& mac) {
  constexpr std::string_view kSuffix = " ADV";
  constexpr std::size_t kAddressCharacters = 6;

  const std::string address = compactAddress(mac, std::tolower);
  if (const std::size_t suffix = model.find(kSuffix); suffix != std::string::npos) {
    model.erase(suffix, kSuffix.size());
  }
  std::replace(model.begin(), model.end(), ' ', '-');

  // The position wraps for a shorter address, which substr refuses.
  return model + "-" + address.substr(address.size() - kAddressCharacters);
}

}  // namespace

ReadOnlyParameters::ReadOnlyParameters(PersistentStorage& storage, const DevicePaths& paths)
    : storage_(storage), paths_(paths) {}

void ReadOnlyParameters::initReadOnlyParameters() {
  try {
    const ReadOnlyParameterMap parameters = readReadOnlyParameters();
    write("NET.MAC.Address", parameters.at("mac"));
    write("System.General.Variant.Name", parameters.at("model"));
    write("System.General.ExperimentalFeatures", parameters.at("developerMode"));
    write("System.General.SoftwareVersion", parameters.at("version"));
    write("System.General.UserAgent", createUserAgent(parameters));
    setDebugLevel(parameters.at("debugLevelMask"));
    initPhoneModel();
  } catch (const std::exception& error) {
    logger().error() << error.what();
    logger().error() << "Failed to initialize read only parameters.";
  }
}

void ReadOnlyParameters::initDeviceNameInNetwork() {
  const std::string name = read(kDeviceName);
  if (!name.empty() && name != kUnnamed) {
    return;
  }
  const ReadOnlyParameterMap parameters = readReadOnlyParameters();
  write(kDeviceName, createDeviceName(parameters.at("model"), parameters.at("mac")));
}

ReadOnlyParameterMap ReadOnlyParameters::readReadOnlyParameters() {
  constexpr std::size_t kAddressCharacters = 17;

  return {
      {"model", withoutVendor(readWithoutLineBreaks(paths_.model))},
      {"mac", filesystem::read(paths_.macAddress).substr(0, kAddressCharacters)},
      {"version", readWithoutLineBreaks(paths_.version)},
      {"developerMode", contains(filesystem::read(paths_.kernelCommandLine), "ec=1") ? "1" : "0"},
      {"majorID", read("System.General.Variant.MajorID")},
      {"debugLevelMask", read("System.Debug.LevelMask.PROP-SRV")},
  };
}

void ReadOnlyParameters::initPhoneModel() {
  const std::string code = contains(readWithoutLineBreaks(paths_.model), "Entry") ? "2" : "1";
  write("WebUI.PhoneModel", code);
  write("System.General.Variant.MinorID", code);
}

std::string ReadOnlyParameters::read(const std::string& key) {
  Property property({{column::kKey, key}});
  storage_.select(property);
  return property.text(column::kValue);
}

void ReadOnlyParameters::write(const std::string& key, const std::string& value) {
  storage_.update(Property({{column::kKey, key}, {column::kValue, value}}));
}

std::string createUserAgent(const ReadOnlyParameterMap& parameters) {
  try {
    return parameters.at("model") + "/" + parameters.at("majorID") + "." + parameters.at("version") + ";" +
           compactAddress(parameters.at("mac"), std::toupper);
  } catch (const std::exception& error) {
    logger().error() << error.what();
    logger().error() << "Failed to create user agent.";
    return "";
  }
}

void setDebugLevel(const std::string& mask) {
  try {
    const auto level = static_cast<unsigned>(toInteger(mask));
    dbg::DebugStreamBuf::setMask(level);
    logger().info() << "Debug level changed to " << level;
  } catch (const std::exception& error) {
    logger().error() << error.what();
    logger().error() << "Error setting debug level to: [" << mask << "]";
  }
}

}  // namespace propertyservice
