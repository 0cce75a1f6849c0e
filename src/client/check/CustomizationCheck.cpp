#include "client/check/CustomizationCheck.h"

#include <algorithm>
#include <exception>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include "client/check/JsonSource.h"
#include "client/check/PropertyRules.h"
#include "core/Constants.h"
#include "core/Customization.h"
#include "core/Integer.h"
#include "core/Property.h"
#include "database/PersistentStorage.h"
#include "database/StorableValue.h"
#include "wire/Flags.h"

namespace check {

namespace {

using propertyservice::PersistentStorage;
using propertyservice::Property;
namespace column = propertyservice::column;
namespace flag = propertyservice::flag;

constexpr const char* kCommonFile = "Update.Common.json";
constexpr std::string_view kPrefix = "Update.";
constexpr std::string_view kSuffix = ".json";
constexpr const char* kEndsStart = ", which ends the daemon's start-up";

/// An entry that the storage can be given.
struct Entry {
  std::size_t line;
  Property property;
};

bool isAmong(std::string_view name, const auto& columns) {
  return std::find(columns.begin(), columns.end(), name) != columns.end();
}

/// Reads one file, line by line as the daemon does.
class EntryReader {
 public:
  EntryReader(const Source& source, Findings& findings) : source_(source), findings_(findings) {}

  std::vector<Entry> read() {
    if (isOneDocument()) {
      return {};
    }
    const std::string& text = source_.text();
    for (std::size_t start = 0; start < text.size();) {
      const std::size_t end = std::min(text.find('\n', start), text.size());
      ++line_;
      if (!readLine(text.substr(start, end - start))) {
        break;
      }
      start = end + 1;
    }
    return std::move(entries_);
  }

 private:
  void error(const std::string& text) { findings_.error(source_, line_, text); }
  void warning(const std::string& text) { findings_.warning(source_, line_, text); }

  /// A file that was written as one JSON document over several lines would have each line complained about.
  bool isOneDocument() {
    const std::string& text = source_.text();
    const std::size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos || (text[begin] != '[' && text[begin] != '{')) {
      return false;
    }
    const std::size_t firstEnd = std::min(text.find('\n', begin), text.size());
    const bool firstLineWhole = readJson(text.substr(begin, firstEnd - begin)).valid;
    if ((text[begin] == '{' && firstLineWhole) || !readJson(text).alone) {
      return false;
    }
    findings_.error(source_, source_.lineAt(begin),
                    std::string("is one JSON ") +
                        (text[begin] == '[' ? "array" : "object over several lines") +
                        ": the file has one object a line, with nothing around or between them" + kEndsStart);
    return true;
  }

  /// Returns whether the daemon reads on after this line.
  bool readLine(const std::string& line) {
    if (propertyservice::isBlankLine(line)) {
      return true;
    }
    const JsonReading reading = readJson(line);
    if (reading.tooDeep) {
      error("is nested too deeply to be read: this line and those after it are left out");
      return false;
    }
    const bool hasKey = reading.value.isObject() && !keyOf(reading.value).empty();
    for (const JsonProblem& problem : reading.problems) {
      error(problem.text + (reading.valid ? ""
                            : hasKey      ? ": only what stands before it is applied"
                                          : kEndsStart));
    }
    if (reading.valid && reading.value.isObject()) {
      readObject(reading.value);
    } else if (reading.valid) {
      error(std::string("is no JSON object") + kEndsStart);
    }
    return true;
  }

  static std::string keyOf(const Json::Value& object) {
    const Json::Value& key = object[column::kKey.data()];
    return key.isString() ? key.asString() : "";
  }

  void readObject(const Json::Value& object) {
    const std::string key = keyOf(object);
    if (key.empty()) {
      error(std::string("has no \"key\", a text that names the property") + kEndsStart);
      return;
    }
    bool usable = true;
    bool changes = false;
    for (const std::string& member : object.getMemberNames()) {
      if (member != column::kKey) {
        changes = true;
        usable = checkMember(key, member, object[member]) && usable;
      }
    }
    if (charactersIn(key) > kLongestKey) {
      error(inQuotes(key) + ": the key has more than 64 characters: no table has it" + kEndsStart);
      usable = false;
    }
    if (!changes) {
      warning(inQuotes(key) + ": sets nothing");
    }
    noteRepetition(object);
    if (usable) {
      entries_.push_back({line_, Property::fromJson(object)});
    }
  }

  /// Whether the storage would take it.
  bool checkMember(const std::string& key, const std::string& name, const Json::Value& value) {
    const std::string member = inQuotes(key) + ": the member " + inQuotes(name);
    if (!isAmong(name, column::kAll)) {
      error(member + " is no column of the table and is ignored");
      return true;
    }
    if (value.isArray() || value.isObject()) {
      error(member + " is an array or object" + kEndsStart);
      return false;
    }
    if (value.isNull()) {
      warning(member + " is null, which leaves the column as it is");
      return true;
    }
    return isAmong(name, column::kInteger) ? checkInteger(member, value) : checkText(member, name, value);
  }

  bool checkInteger(const std::string& member, const Json::Value& value) {
    if (value.isInt64()) {
      return true;
    }
    try {
      const int number = propertyservice::toInteger(value.asString());
      warning(member + " is no JSON integer: it counts as " + std::to_string(number));
      return true;
    } catch (const std::exception&) {
      error(member + " is no integer" + kEndsStart);
      return false;
    }
  }

  bool checkText(const std::string& member, const std::string& name, const Json::Value& value) {
    if (value.isBool() || (value.isDouble() && !value.isInt64())) {
      warning(member + " is no JSON string: it is stored as " + inQuotes(value.asString()));
    }
    const bool limited = name == column::kValue || name == column::kDefaultValues;
    if (limited && charactersIn(value.asString()) > kLongestValue) {
      error(member + " has more than 256 characters: the table refuses it" + kEndsStart);
      return false;
    }
    if (limited && !propertyservice::isStorable(value)) {
      error(member + " is not UTF-8 text without a NUL: the table cannot hold it" + kEndsStart);
      return false;
    }
    return true;
  }

  /// A column that an earlier line has set for the same key.
  void noteRepetition(const Json::Value& object) {
    for (const std::string& member : object.getMemberNames()) {
      if (member == column::kKey) {
        continue;
      }
      const auto [first, isNew] = set_.emplace(std::pair(keyOf(object), member), line_);
      if (!isNew) {
        warning(inQuotes(first->first.first) + ": " + inQuotes(member) + " was set on line " +
                std::to_string(first->second) + " already: the later line wins");
      }
    }
  }

  const Source& source_;
  Findings& findings_;
  std::size_t line_ = 0;
  std::vector<Entry> entries_;
  std::map<std::pair<std::string, std::string>, std::size_t> set_;
};

/// Applies entries to the table of a script.
class EntryApplier {
 public:
  EntryApplier(const Script& script, const Source& source, Findings& findings)
      : script_(script), storage_(script.database), source_(source), findings_(findings) {}

  void apply(const std::vector<Entry>& entries) {
    for (const Entry& entry : entries) {
      apply(entry);
    }
    for (const Entry& entry : entries) {
      if (!entry.property.member(column::kValue).isNull()) {
        warnWhereItUndoesTheUser(entry);
      }
    }
  }

 private:
  std::optional<Property> row(const std::string& key) {
    try {
      Property found({{column::kKey, key}});
      storage_.select(found);
      return found;
    } catch (const std::exception&) {
      return std::nullopt;
    }
  }

  void apply(const Entry& entry) {
    const std::string key = entry.property.text(column::kKey);
    const std::optional<Property> before = row(key);
    if (!before) {
      if (script_.complete && !script_.has(key)) {
        findings_.error(source_, entry.line,
                        inQuotes(key) + ": the database script has no such key" + kEndsStart);
      }
      return;
    }
    try {
      storage_.update(entry.property);
    } catch (const std::exception& error) {
      findings_.error(source_, entry.line, inQuotes(key) + ": " + error.what() + kEndsStart);
      return;
    }
    // A trigger of the script may have taken it away.
    if (const std::optional<Property> after = row(key)) {
      compare(*before, *after, entry);
    }
  }

  void compare(const Property& before, const Property& after, const Entry& entry) {
    const Complaints known = complaintsAbout(before);
    for (const Complaint& complaint : complaintsAbout(after)) {
      // Here a value that is not the default is what is meant.
      const bool meant = complaint.text.find(" is not the default ") != std::string::npos;
      if (!meant && std::find(known.begin(), known.end(), complaint) == known.end()) {
        findings_.add(source_, entry.line, complaint.severity,
                      complaint.text + "; no rule is asked when it is customised");
      }
    }
    for (const std::string_view name : {column::kWebui, column::kProvisioning, column::kTr069}) {
      if (!after.member(name).isNull() && after.member(name) != before.member(name)) {
        checkAlias(std::string(name), after, entry);
      }
    }
  }

  void checkAlias(const std::string& name, const Property& property, const Entry& entry) {
    SQLite::Statement others(*script_.database,
                             "SELECT key FROM settings WHERE " + name + " = ? AND key <> ?");
    others.bind(1, property.text(name));
    others.bind(2, property.text(column::kKey));
    if (others.executeStep()) {
      findings_.error(source_, entry.line,
                      inQuotes(property.text(column::kKey)) + ": the \"" + name + "\" name " +
                          inQuotes(property.text(name)) + " is also that of " +
                          inQuotes(others.getColumn(0).getString()) +
                          ": only one of the two can be reached by it");
    }
  }

  void warnWhereItUndoesTheUser(const Entry& entry) {
    const std::optional<Property> property = row(entry.property.text(column::kKey));
    if (!property) {
      return;
    }
    const Json::Int64 flags = property->member(column::kFlags).asInt64();
    if ((flags & flag::kUser) != 0 && (flags & flag::kReadOnly) == 0) {
      findings_.warning(
          source_, entry.line,
          inQuotes(property->text(column::kKey)) +
              ": every start undoes what the user has set: change the default in the script instead, or "
              "set the flag read-only as well");
    }
  }

  const Script& script_;
  PersistentStorage storage_;
  const Source& source_;
  Findings& findings_;
};

bool isCommon(const Source& source) {
  return source.name() == kCommonFile;
}

/// Warns of what a model's file sets to something else than the file for all devices: a reader of that file
/// alone is misled.
void compareWithCommon(const Source& source, const std::vector<Entry>& entries,
                       const std::vector<Entry>& common, Findings& findings) {
  std::map<std::pair<std::string, std::string>, std::pair<std::string, std::size_t>> commonTexts;
  const auto forEachColumn = [](const Entry& entry, const auto& visit) {
    for (const auto& [name, value] : entry.property.members()) {
      if (name != column::kKey && isAmong(name, column::kAll) && !value.isNull()) {
        visit(std::pair(entry.property.text(column::kKey), name), value.asString());
      }
    }
  };
  for (const Entry& entry : common) {
    forEachColumn(entry, [&](const auto& place, const std::string& text) {
      commonTexts[place] = {text, entry.line};
    });
  }
  for (const Entry& entry : entries) {
    forEachColumn(entry, [&](const auto& place, const std::string& text) {
      const auto set = commonTexts.find(place);
      if (set != commonTexts.end() && set->second.first != text) {
        findings.warning(source, entry.line,
                         inQuotes(place.first) + ": " + inQuotes(place.second) + " is " +
                             inQuotes(set->second.first) + " on line " + std::to_string(set->second.second) +
                             " of " + kCommonFile + ": this file wins");
      }
    });
  }
}

void checkName(const Source& source, Findings& findings) {
  const std::string name = source.name();
  if (isCommon(source)) {
    return;
  }
  const bool formed =
      name.starts_with(kPrefix) && name.ends_with(kSuffix) && name.size() >= kPrefix.size() + kSuffix.size();
  if (!formed) {
    findings.error(source, 0,
                   "is read under the names \"Update.Common.json\" and \"Update.MODEL.json\" alone");
  } else if (name.size() > kPrefix.size() + kSuffix.size() && name[kPrefix.size()] != ' ') {
    findings.warning(source, 0,
                     "has no blank after \"Update.\": a \"Halcyon 5 ADV\" reads \"Update. 5.json\"");
  }
}

void apply(const Script& script, const Source& source, const std::vector<Entry>& entries,
           Findings& findings) {
  EntryApplier applier(script, source, findings);
  if (isCommon(source)) {
    applier.apply(entries);
    return;
  }
  script.database->exec("SAVEPOINT model");
  applier.apply(entries);
  script.database->exec("ROLLBACK TO model; RELEASE model");
}

}  // namespace

void checkCustomizations(const std::vector<const Source*>& sources, const Script* script,
                         Findings& findings) {
  std::vector<std::pair<const Source*, std::vector<Entry>>> files;
  for (const Source* const source : sources) {
    checkName(*source, findings);
    files.emplace_back(source, EntryReader(*source, findings).read());
  }
  const auto models = std::stable_partition(files.begin(), files.end(),
                                            [](const auto& file) { return isCommon(*file.first); });
  for (auto common = files.begin(); common != models; ++common) {
    for (auto model = models; model != files.end(); ++model) {
      compareWithCommon(*model->first, model->second, common->second, findings);
    }
  }
  if (script == nullptr || !script->readable) {
    return;
  }
  for (const auto& [source, entries] : files) {
    try {
      apply(*script, *source, entries, findings);
    } catch (const std::exception& error) {
      findings.error(*source, 0, std::string("cannot be applied: ") + error.what());
    }
  }
}

}  // namespace check
