#include "client/propctl/Configuration.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

#include "client/propctl/ExitStatus.h"
#include "client/propctl/Text.h"

namespace propctl {

namespace {

constexpr std::array<std::string_view, 11> kNames = {
    "host", "port", "user", "password-file", "name", "cafile", "cert", "key", "device", "jobs", "timeout"};
constexpr std::array<std::string_view, 4> kFiles = {"password-file", "cafile", "cert", "key"};

template <typename Names>
bool isIn(const Names& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

const Setting* find(const std::vector<Setting>& settings, std::string_view name) {
  const auto found = std::find_if(settings.begin(), settings.end(),
                                  [&](const Setting& setting) { return setting.name == name; });
  return found == settings.end() ? nullptr : &*found;
}

std::string valueOf(const std::vector<Setting>& settings, std::string_view name,
                    const std::string& otherwise) {
  const Setting* const setting = find(settings, name);
  return setting != nullptr ? setting->value : otherwise;
}

bool isAboutAnotherBroker(const std::vector<Setting>& given, const std::vector<Setting>& file) {
  const auto differs = [&](std::string_view name, const std::string& otherwise) {
    const Setting* const setting = find(given, name);
    return setting != nullptr && setting->value != valueOf(file, name, otherwise);
  };
  return differs("host", "localhost") ||
         differs("port", valueOf(file, "cafile", "").empty() ? "1883" : "8883");
}

Setting readLine(const std::string& line, const std::string& path, const std::string& source) {
  const std::size_t sign = line.find('=');
  if (sign == std::string::npos) {
    throw Failure(ExitStatus::usage, source + ": write NAME = VALUE, the name as of an option");
  }
  Setting setting{withoutBlanks(line.substr(0, sign)), withoutBlanks(line.substr(sign + 1)), source};
  if (!isIn(kNames, setting.name)) {
    throw Failure(ExitStatus::usage,
                  source + ": not an option about the connection: " + escaped(setting.name));
  }
  if (setting.value.empty()) {
    throw Failure(ExitStatus::usage, source + ": " + setting.name + " has no value");
  }
  if (isIn(kFiles, setting.name)) {
    setting.value = std::filesystem::path(path).parent_path() / setting.value;
  }
  return setting;
}

}  // namespace

std::vector<Setting> readConfiguration(const std::string& path) {
  std::vector<Setting> settings;
  std::error_code error;
  if (!std::filesystem::exists(path, error) && !error) {
    return settings;
  }
  std::ifstream file(path);
  if (!file) {
    throw Failure(ExitStatus::usage, escaped(path) + ": " + std::generic_category().message(errno));
  }
  int number = 0;
  for (std::string text; std::getline(file, text);) {
    const std::string source = escaped(path) + ':' + std::to_string(++number);
    const std::string line = withoutBlanks(text);
    if (line.empty() || line.starts_with('#')) {
      continue;
    }
    Setting setting = readLine(line, path, source);
    if (find(settings, setting.name) != nullptr) {
      throw Failure(ExitStatus::usage, source + ": " + setting.name + " is given twice");
    }
    settings.push_back(std::move(setting));
  }
  return settings;
}

std::vector<Setting> addConfiguration(const std::vector<Setting>& given,
                                      const std::vector<std::vector<Setting>>& files) {
  std::vector<Setting> known = given;
  std::vector<Setting> added;
  for (const std::vector<Setting>& file : files) {
    const bool isElsewhere = isAboutAnotherBroker(known, file);
    const bool isAuthenticated = find(known, "user") != nullptr || find(known, "password-file") != nullptr;
    std::vector<Setting> fromHere;
    for (const Setting& setting : file) {
      const bool isAboutPatience = setting.name == "timeout" || setting.name == "jobs";
      const bool isAboutUser =
          setting.name == "user" || setting.name == "password-file" || setting.name == "name";
      if (find(known, setting.name) == nullptr && (!isElsewhere || isAboutPatience) &&
          (!isAuthenticated || !isAboutUser)) {
        fromHere.push_back(setting);
      }
    }
    known.insert(known.end(), fromHere.begin(), fromHere.end());
    added.insert(added.end(), fromHere.begin(), fromHere.end());
  }
  return added;
}

std::vector<std::string> configurationPaths() {
  std::vector<std::string> paths;
  const char* const home = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe): read only
  if (home != nullptr && *home != '\0') {
    paths.push_back(std::string(home) + "/.config/propctl.conf");
  }
  paths.emplace_back("/etc/propctl.conf");
  return paths;
}

}  // namespace propctl
