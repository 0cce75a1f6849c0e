#include <algorithm>
#include <exception>
#include <memory>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Transaction.h>

#include "core/Customization.h"
#include "fuzz/Fuzzing.h"
#include "support/TemporaryDirectory.h"

// The text of a customisation file, read from a file and applied to a table.

namespace propertyservice::fuzz {
namespace {

using test::TemporaryDirectory;

class Device {
 public:
  Device() {
    storage_.createTable();
    for (const char* key : {"A", "B"}) {
      storage_.insert(Property({{"key", key}, {"value", "old"}}));
    }
    paths_.customizations = directory_.path("");
    paths_.model = directory_.write("model", "Halcyon 5 ADV\n");
  }

  void customize(std::string_view text) {
    const std::string file = directory_.write("Update.Common.json", std::string(text));
    const std::size_t entries = parseCustomizationFile(file).size();
    const std::vector<std::string> lines = split(text, "\n");
    const auto blank = static_cast<std::size_t>(std::ranges::count_if(lines, isBlankLine));
    require(entries <= lines.size() - blank, "blank lines are not entries");

    SQLite::Transaction undone(*database_);
    try {
      applyCustomization(storage_, paths_);
    } catch (const std::exception&) {
      // Ends the start-up, with a text for the log.
    }
    require(database_->execAndGet("SELECT count(*) FROM settings WHERE key IN ('A', 'B')").getInt() == 2,
            "no row is removed");
    require(database_->execAndGet("SELECT count(*) FROM settings").getInt() == 2, "no row is added");
  }

 private:
  const TemporaryDirectory directory_;
  DevicePaths paths_;
  const std::shared_ptr<SQLite::Database> database_ =
      std::make_shared<SQLite::Database>(":memory:", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
  PersistentStorage storage_{database_};
};

}  // namespace
}  // namespace propertyservice::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static propertyservice::fuzz::Device device;
  device.customize(propertyservice::fuzz::toText(data, size));
  return 0;
}
