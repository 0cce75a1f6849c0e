#include "core/Customization.h"

#include <algorithm>
#include <exception>
#include <functional>
#include <map>
#include <stdexcept>
#include <utility>

#include "common/FileSystem.h"
#include "core/Constants.h"
#include "core/Integer.h"
#include "core/JsonText.h"
#include "core/Log.h"
#include "database/PersistentStorageException.h"
#include "database/StorableValue.h"

namespace propertyservice {

namespace {

/// Returns the name made of the text between the product's name and " ADV", with the blank before it: the
/// file for "Halcyon 5 ADV" is "Update. 5.json".
std::string modelFileName(std::string model) {
  constexpr std::string_view kProduct = "Halcyon";

  std::erase(model, '\n');
  model.erase(model.find(" ADV"));  // throws where there is none
  model.erase(0, kProduct.size());
  return "Update." + model + ".json";
}

/// Throws `std::runtime_error` when it is nested too deeply.
Property parseLine(const std::string& line, const std::string& origin) {
  Json::Value entry;
  try {
    json::parseOrThrow(line, entry);
  } catch (const Json::Exception&) {
    throw std::runtime_error(origin + ": is nested too deeply; this line and those after it are left out");
  }
  return Property::fromJson(std::move(entry));
}

/// Throws when the table cannot hold what the entry sets. The storage would see only the last of several
/// entries for one key.
void requireStorable(const Property& entry) {
  for (const std::string_view column : column::kAll) {
    const Json::Value& member = entry.member(column);
    if (member.isNull()) {
      continue;
    }
    const bool isInteger = std::ranges::find(column::kInteger, column) != column::kInteger.end();
    const bool isLimited = column == column::kValue || column == column::kDefaultValues;
    if (member.isArray() || member.isObject()) {
      throw std::invalid_argument(std::string(column) + " is an array or object");
    }
    if (isInteger && !member.isInt64()) {
      toInteger(member.asString());
    }
    if (isLimited && !isStorable(member)) {
      throw std::invalid_argument(std::string(column) +
                                  " has more than 256 characters, a NUL, or text that is not UTF-8");
    }
  }
}

/// Does something with an entry; has what it throws say which entry that is.
void locating(const CustomizationEntry& entry, const std::function<void()>& operation) {
  const auto located = [&entry](const std::exception& error) {
    std::string key = json::write(entry.property.member(column::kKey));
    key.pop_back();
    return entry.origin + ": " + excerpt(key) + ": " + error.what();
  };
  try {
    operation();
  } catch (const PersistentStorageException& error) {
    throw PersistentStorageException(located(error), error.reason());
  } catch (const std::exception& error) {
    throw PersistentStorageException(located(error), PersistentStorageException::Reason::Constraint);
  }
}

/// Entries of which each has another key, in the order of first appearance.
class JoinedEntries {
 public:
  void add(const CustomizationEntry& entry) {
    requireStorable(entry.property);
    const auto [position, isNew] = positions_.emplace(entry.property.text(column::kKey), entries_.size());
    if (isNew) {
      entries_.push_back(entry);
      return;
    }
    for (const auto& [name, value] : entry.property.members()) {
      if (!value.isNull()) {
        entries_[position->second].property.set(name, value);
      }
    }
  }

  const std::vector<CustomizationEntry>& entries() const { return entries_; }

 private:
  std::vector<CustomizationEntry> entries_;
  std::map<std::string, std::size_t> positions_;
};

}  // namespace

void applyCustomization(PersistentStorage& storage, const DevicePaths& paths) {
  const std::string modelFile = paths.customizations + modelFileName(filesystem::read(paths.model));

  // Both files are read before the first write, and joined: where both set a property, two writes would have
  // every start change the table twice, and no start succeed on a full disk.
  JoinedEntries joined;
  for (const std::string& file : {paths.customizations + "Update.Common.json", modelFile}) {
    for (const CustomizationEntry& entry : parseCustomizationFile(file)) {
      locating(entry, [&] { joined.add(entry); });
    }
  }
  for (const CustomizationEntry& entry : joined.entries()) {
    locating(entry, [&] { storage.update(entry.property); });
  }
}

std::vector<CustomizationEntry> parseCustomizationFile(const std::string& path) {
  std::vector<CustomizationEntry> entries;
  try {
    const std::string text = filesystem::read(path);
    logger().info() << "Parsing customization file: " << path;
    std::size_t number = 0;
    for (std::size_t start = 0; start < text.size();) {
      const std::size_t end = std::min(text.find('\n', start), text.size());
      const std::string line = text.substr(start, end - start);
      ++number;
      if (!isBlankLine(line)) {
        const std::string origin = path + ":" + std::to_string(number);
        entries.push_back({origin, parseLine(line, origin)});
        logger().debug() << "Found customized values for parameter: "
                         << [&] { return json::write(entries.back().property.member(column::kKey)); };
      }
      start = end + 1;
    }
  } catch (const std::exception& error) {
    logger().info() << "Customization files not found: " << error.what();
  }
  return entries;
}

bool isBlankLine(std::string_view line) {
  for (;;) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t\r\n\v\f"), line.size()));
    std::size_t end = 0;
    if (line.starts_with("//")) {
      end = std::min(line.find_first_of("\r\n"), line.size());
    } else if (line.starts_with("/*") && line.find("*/", 2) != std::string_view::npos) {
      end = line.find("*/", 2) + 2;
    } else {
      return line.empty();
    }
    line.remove_prefix(end);
  }
}

}  // namespace propertyservice
