#pragma once

#include <map>
#include <string>

#include "core/DevicePaths.h"
#include "database/PersistentStorage.h"

namespace propertyservice {

/// Facts about the device by name: "model", "mac", "version", "developerMode", "majorID", "debugLevelMask".
using ReadOnlyParameterMap = std::map<std::string, std::string>;

/// Copies facts about the device from its system files to its properties at every start. Writes straight to
/// the storage, past the validators, so that what clients may only read can be written.
class ReadOnlyParameters {
 public:
  /// Both must outlive this object.
  ReadOnlyParameters(PersistentStorage& storage, const DevicePaths& paths);

  /// Writes address, model, developer mode, version, user agent and phone-model code, and sets the log mask.
  /// The first failure is logged and ends the sequence; throws nothing.
  void initReadOnlyParameters();

  /// Writes the name by which the network knows the device, "Halcyon-5-3c4d5e", unless somebody has given it
  /// a name. Throws `std::runtime_error` when a file cannot be read, `std::out_of_range` when the address is
  /// too short, and what the storage throws.
  void initDeviceNameInNetwork();

 private:
  ReadOnlyParameterMap readReadOnlyParameters();
  void initPhoneModel();

  std::string read(const std::string& key);
  void write(const std::string& key, const std::string& value);

  PersistentStorage& storage_;
  const DevicePaths& paths_;
};

/// "model/majorID.version;MAC", the address in capitals without colons. Empty, and logged, when one of them
/// is missing.
std::string createUserAgent(const ReadOnlyParameterMap& parameters);

/// Sets the mask of the log. Text that is not a number is logged and changes nothing.
void setDebugLevel(const std::string& mask);

}  // namespace propertyservice
