#include "client/check/Check.h"

#include <algorithm>
#include <cctype>
#include <deque>
#include <exception>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "client/check/CustomizationCheck.h"
#include "client/check/Findings.h"
#include "client/check/JsonSource.h"
#include "client/check/MigrationCheck.h"
#include "client/check/Script.h"
#include "client/check/ScriptRows.h"
#include "common/FileSystem.h"
#include "dbg/Debug.h"

namespace check {

namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kLargestScript = 16U << 20;
constexpr std::uintmax_t kLargestJson = 1U << 20;

enum class Kind { script, customization, migration };

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return text;
}

std::optional<Kind> kindByName(const fs::path& path) {
  const std::string name = lower(path.filename().string());
  if (name.ends_with(".sql")) {
    return Kind::script;
  }
  if (name.ends_with(".json") && name.starts_with("update")) {
    return Kind::customization;
  }
  if (name.ends_with(".json") && name.starts_with("migration")) {
    return Kind::migration;
  }
  return std::nullopt;
}

/// Of a file with another name, so that the wrong name can be told.
std::optional<Kind> kindByContent(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) {
    return std::nullopt;
  }
  if (text[begin] == '{' || text[begin] == '[') {
    const Json::Value document = readJson(text).value;
    return document.isObject() && document.isMember("rename") ? Kind::migration : Kind::customization;
  }
  const std::string sql = lower(text);
  const bool isScript =
      sql.find("create table") != std::string::npos || sql.find("insert ") != std::string::npos;
  return isScript ? std::optional(Kind::script) : std::nullopt;
}

/// Keeps the daemon's code quiet.
class SilentLog {
 public:
  SilentLog() { dbg::DebugStreamBuf::setMask(0); }
  SilentLog(const SilentLog&) = delete;
  SilentLog& operator=(const SilentLog&) = delete;
  ~SilentLog() { dbg::DebugStreamBuf::setMask(before_); }

 private:
  const unsigned before_ = dbg::DebugStreamBuf::mask();
};

/// One call of `check`.
class Checker {
 public:
  Report check(const std::vector<fs::path>& paths) && {
    for (const fs::path& path : paths) {
      std::error_code ignored;
      if (fs::is_directory(path, ignored)) {
        addDirectory(path);
      } else {
        addFile(path);
      }
    }
    checkAll();
    report_.findings = std::move(findings_).sorted();
    return std::move(report_);
  }

 private:
  void addDirectory(const fs::path& directory) {
    std::vector<fs::path> found;
    std::error_code failure;
    fs::recursive_directory_iterator entry(directory, failure);
    for (; !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure)) {
      std::error_code ignored;
      if (kindByName(entry->path()) && entry->is_regular_file(ignored)) {
        found.push_back(entry->path());
      }
    }
    if (failure) {
      refuse(directory, "cannot be read: " + failure.message());
    } else if (found.empty()) {
      refuse(directory,
             "holds no database script (*.sql), customisation (Update.*.json) or migration file "
             "(migration_N.json)");
    }
    std::sort(found.begin(), found.end());
    for (const fs::path& path : found) {
      addFile(path);
    }
  }

  void addFile(const fs::path& path) {
    std::error_code failure;
    const fs::file_status status = fs::status(path, failure);
    if (!fs::exists(status)) {
      refuse(path, "cannot be read: " + (failure ? failure.message() : "No such file or directory"));
      return;
    }
    if (!fs::is_regular_file(status)) {
      refuse(path, "is neither a file nor a directory");
      return;
    }
    const std::optional<Kind> named = kindByName(path);
    const bool json = lower(path.extension().string()) == ".json";
    const std::uintmax_t largest = json ? kLargestJson : kLargestScript;
    if (fs::file_size(path, failure) > largest) {
      refuse(path, "is larger than " + std::to_string(largest >> 20U) + " MiB, and is not looked at");
      return;
    }
    try {
      add(path, filesystem::read(path.string()), named);
    } catch (const std::system_error& error) {
      refuse(path, "cannot be read: " + error.code().message());
    }
  }

  void add(const fs::path& path, std::string text, std::optional<Kind> kind) {
    const Source& source = sources_.emplace_back(sources_.size(), path.string(), std::move(text));
    if (!kind && source.text().size() <= kLargestJson) {
      kind = kindByContent(source.text());
    }
    if (!kind) {
      findings_.error(source, 0, "is neither a database script, a customisation file nor a migration file");
      report_.unreadable = true;
      return;
    }
    ++report_.files;
    switch (*kind) {
      case Kind::script:
        scripts_.push_back(&source);
        break;
      case Kind::customization:
        customizations_.push_back(&source);
        break;
      case Kind::migration:
        migrations_.push_back(&source);
        break;
    }
  }

  void refuse(const fs::path& path, std::string text) {
    const Source& source = sources_.emplace_back(sources_.size(), path.string(), "");
    findings_.error(source, 0, std::move(text));
    report_.unreadable = true;
  }

  void checkAll() {
    std::vector<Script> made;
    for (const Source* const source : scripts_) {
      made.push_back(runScript(*source, findings_));
      checkRows(made.back(), *source, findings_);
    }
    const bool one = made.size() == 1;
    if (made.size() > 1 && !(customizations_.empty() && migrations_.empty())) {
      findings_.warning(*scripts_[1], 0,
                        "is the second database script: the other files are compared with none");
    }
    checkCustomizations(customizations_, one ? &made.front() : nullptr, findings_);
    checkMigrations(migrations_, one ? &made.front() : nullptr, one ? scripts_.front() : nullptr, findings_);
  }

  std::deque<Source> sources_;  ///< In place: findings and checks refer to them.
  std::vector<const Source*> scripts_;
  std::vector<const Source*> customizations_;
  std::vector<const Source*> migrations_;
  Findings findings_;
  Report report_;
};

}  // namespace

Report check(const std::vector<fs::path>& paths) {
  const SilentLog silent;
  return Checker().check(paths);
}

}  // namespace check
