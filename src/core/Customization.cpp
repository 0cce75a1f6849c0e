#include "core/Customization.h"

#include <algorithm>
#include <exception>
#include <string_view>

#include "common/FileSystem.h"
#include "core/JsonText.h"
#include "core/Log.h"

namespace propertyservice {

namespace {

/// What stands between the product's name and " ADV" in the model text, with the blank before it: the file
/// for "Halcyon 5 ADV" is "Update. 5.json".
std::string modelFileName(std::string model) {
  constexpr std::string_view kProduct = "Halcyon";

  std::erase(model, '\n');
  model.erase(model.find(" ADV"));  // throws where there is none
  model.erase(0, kProduct.size());
  return "Update." + model + ".json";
}

Property parseLine(const std::string& line) {
  Json::Value entry;
  json::parse(line, entry);
  return Property::fromJson(std::move(entry));
}

}  // namespace

void applyCustomization(PersistentStorage& storage, const DevicePaths& paths) {
  const std::string modelFile = paths.customizations + modelFileName(filesystem::read(paths.model));

  // Both files are read before the first write.
  const auto common = parseCustomizationFile(paths.customizations + "Update.Common.json");
  const auto forModel = parseCustomizationFile(modelFile);
  for (const auto* entries : {&common, &forModel}) {
    for (const Property& entry : *entries) {
      storage.update(entry);
    }
  }
}

std::vector<Property> parseCustomizationFile(const std::string& path) {
  std::vector<Property> entries;
  try {
    const std::string text = filesystem::read(path);
    logger().info() << "Parsing customization file: " << path;
    for (std::size_t start = 0; start < text.size();) {
      const std::size_t end = std::min(text.find('\n', start), text.size());
      if (end > start) {
        const Property& entry = entries.emplace_back(parseLine(text.substr(start, end - start)));
        logger().debug() << "Found customized values for parameter: "
                         << [&] { return json::write(entry.member(column::kKey)); };
      }
      start = end + 1;
    }
  } catch (const std::exception& error) {
    logger().info() << "Customization files not found: " << error.what();
  }
  return entries;
}

}  // namespace propertyservice
