#include "client/check/MigrationCheck.h"

#include <algorithm>
#include <exception>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "client/check/JsonSource.h"
#include "client/check/PropertyRules.h"
#include "client/check/ScriptRows.h"
#include "core/Constants.h"
#include "core/Integer.h"
#include "core/Migrations.h"
#include "core/Property.h"
#include "database/PersistentStorage.h"
#include "wire/Flags.h"

namespace check {

namespace {

using propertyservice::Property;
namespace column = propertyservice::column;
namespace flag = propertyservice::flag;

constexpr std::string_view kPrefix = "migration_";
constexpr std::string_view kSuffix = ".json";
constexpr const char* kEndsSteps = ": this step and all later ones are left out";
constexpr const char* kNeverDone = ": this step and all later ones are never carried out";

struct Rename {
  std::size_t line;
  std::string oldKey;
  std::string newKey;
};

struct Step {
  const Source* source;
  int number;
  std::vector<Rename> renames;
};

/// A rename and where it stands.
struct Place {
  const Source* source;
  std::size_t line;
};

std::string describe(const Place& place, const Source& from) {
  const std::string line = "line " + std::to_string(place.line);
  return place.source == &from ? line : place.source->name() + ", " + line;
}

/// The number in "migration_5.json", if the daemon would look for a file of that name.
std::optional<int> numberIn(const std::string& name) {
  if (!name.starts_with(kPrefix) || !name.ends_with(kSuffix)) {
    return std::nullopt;
  }
  const std::string digits = name.substr(kPrefix.size(), name.size() - kPrefix.size() - kSuffix.size());
  try {
    const int number = propertyservice::toInteger(digits);
    return number > 0 && std::to_string(number) == digits ? std::optional(number) : std::nullopt;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

/// Reads the rules of one file.
class RuleReader {
 public:
  RuleReader(const Source& source, Findings& findings) : source_(source), findings_(findings) {}

  std::vector<Rename> read() {
    const JsonReading reading = readJson(source_.text());
    for (const JsonProblem& problem : reading.problems) {
      error(source_.lineAt(problem.offset), problem.text + (reading.valid ? "" : consequenceOfBrokenJson()));
    }
    if (!reading.valid) {
      return {};
    }
    if (!reading.value.isObject()) {
      error(1, std::string("is no JSON object with a member \"rename\"") + kEndsSteps);
      return {};
    }
    warnOfMembers(reading.value, {"rename"});
    const Json::Value& rules = reading.value["rename"];
    if (!rules.isArray() || rules.empty()) {
      error(rules.isNull() ? 1 : lineOf(rules),
            std::string("\"rename\" is no array with at least one rule") + kEndsSteps);
      return {};
    }
    for (const Json::Value& rule : rules) {
      readRule(rule);
    }
    expectTheDaemonAgrees();
    return std::move(renames_);
  }

 private:
  void error(std::size_t line, std::string text) {
    clean_ = false;
    findings_.error(source_, line, std::move(text));
  }

  /// The daemon makes do with what it could read.
  std::string consequenceOfBrokenJson() const {
    try {
      const std::size_t rules = propertyservice::parseMigration(source_.text()).size();
      return ": of its rules, only the first " + std::to_string(rules) + " are carried out";
    } catch (const std::exception&) {
      return kEndsSteps;
    }
  }

  std::size_t lineOf(const Json::Value& value) const {
    return source_.lineAt(static_cast<std::size_t>(std::max<std::ptrdiff_t>(value.getOffsetStart(), 0)));
  }

  void warnOfMembers(const Json::Value& object, std::initializer_list<std::string_view> known) {
    for (const std::string& name : object.getMemberNames()) {
      if (std::find(known.begin(), known.end(), name) == known.end()) {
        findings_.warning(source_, lineOf(object[name]),
                          "the member " + inQuotes(name) + " is not known here and is ignored");
      }
    }
  }

  void readRule(const Json::Value& rule) {
    const std::size_t line = lineOf(rule);
    if (!rule.isObject()) {
      error(line, std::string("the rule is no object with \"oldKey\" and \"newKey\"") + kEndsSteps);
      return;
    }
    warnOfMembers(rule, {"oldKey", "newKey"});
    bool usable = true;
    for (const char* const name : {"oldKey", "newKey"}) {
      const Json::Value& key = rule[name];
      const std::size_t keyLine = key.isNull() ? line : lineOf(key);
      if (!key.isString() || key.asString().empty()) {
        error(keyLine,
              std::string("the rule has no \"") + name + "\", a text that is not empty" + kEndsSteps);
        usable = false;
      } else if (charactersIn(key.asString()) > kLongestKey) {
        error(keyLine,
              inQuotes(key.asString()) + " has more than 64 characters: no table has it" + kNeverDone);
      } else if (key.asString().starts_with(propertyservice::kVolatilePrefix)) {
        error(keyLine,
              inQuotes(key.asString()) + " lives outside the table, and no backup has it" + kNeverDone);
      }
    }
    if (usable) {
      renames_.push_back({line, rule["oldKey"].asString(), rule["newKey"].asString()});
    }
  }

  /// Sees to it that nothing passes here that the daemon refuses.
  void expectTheDaemonAgrees() {
    try {
      propertyservice::parseMigration(source_.text());
    } catch (const std::exception& failure) {
      if (clean_) {
        error(1, std::string(failure.what()) + kEndsSteps);
      }
    }
  }

  const Source& source_;
  Findings& findings_;
  bool clean_ = true;
  std::vector<Rename> renames_;
};

/// Two rules of one file that stand in each other's way. All of a step's rules are checked before the first
/// is carried out.
void checkWithin(const Step& step, Findings& findings) {
  std::map<std::string, std::size_t> oldKeys;
  std::map<std::string, std::size_t> newKeys;
  const auto complain = [&](const Rename& rename, const std::string& text) {
    findings.error(*step.source, rename.line, text);
  };
  for (const Rename& rename : step.renames) {
    const auto [sameOld, oldIsNew] = oldKeys.emplace(rename.oldKey, rename.line);
    if (!oldIsNew) {
      complain(rename, inQuotes(rename.oldKey) + " is renamed on line " + std::to_string(sameOld->second) +
                           " already: this rule finds nothing to rename");
    }
    const auto [sameNew, newIsNew] = newKeys.emplace(rename.newKey, rename.line);
    if (!newIsNew) {
      complain(rename, "two keys become " + inQuotes(rename.newKey) + ", here and on line " +
                           std::to_string(sameNew->second) + ": only one of the two values is kept");
    }
  }
  for (const Rename& rename : step.renames) {
    if (rename.oldKey == rename.newKey) {
      complain(rename, inQuotes(rename.oldKey) + " is renamed to itself" + kNeverDone);
    } else if (const auto made = newKeys.find(rename.oldKey); made != newKeys.end()) {
      complain(rename, inQuotes(rename.oldKey) + " is the new key of line " + std::to_string(made->second) +
                           ", and rules of one file do not chain" + kNeverDone +
                           "; rename directly, or in two files");
    }
  }
}

/// Steps that take from each other what they need, for a backup that is older than all of them.
void checkAcross(const std::vector<Step>& steps, Findings& findings) {
  std::map<std::string, Place> gone;
  std::map<std::string, Place> made;
  for (const Step& step : steps) {
    for (const Rename& rename : step.renames) {
      if (const auto before = gone.find(rename.oldKey); before != gone.end()) {
        findings.error(*step.source, rename.line,
                       inQuotes(rename.oldKey) + " has been renamed before (" +
                           describe(before->second, *step.source) + "): for backups from before that" +
                           std::string(kNeverDone).substr(1));
      }
      if (const auto before = made.find(rename.newKey); before != made.end()) {
        findings.error(*step.source, rename.line,
                       "another key has become " + inQuotes(rename.newKey) + " before (" +
                           describe(before->second, *step.source) + "): for backups from before that" +
                           std::string(kNeverDone).substr(1));
      }
    }
    for (const Rename& rename : step.renames) {
      gone.insert_or_assign(rename.oldKey, Place{step.source, rename.line});
      made.erase(rename.oldKey);
    }
    for (const Rename& rename : step.renames) {
      made.insert_or_assign(rename.newKey, Place{step.source, rename.line});
      gone.erase(rename.newKey);
    }
  }
}

std::string listOfFiles(int first, int last) {
  const auto file = [](int number) {
    return std::string(kPrefix) + std::to_string(number) + std::string(kSuffix);
  };
  return first == last ? file(first) + " is" : file(first) + " to " + file(last) + " are";
}

void checkNumbers(const std::vector<Step>& steps, Findings& findings) {
  for (std::size_t i = 1; i < steps.size(); ++i) {
    const int before = steps[i - 1].number;
    const int number = steps[i].number;
    if (number == before) {
      findings.error(
          *steps[i].source, 0,
          "there is another file for step " + std::to_string(number) + ": " + steps[i - 1].source->path());
    } else if (number > before + 1) {
      findings.error(*steps[i].source, 0,
                     listOfFiles(before + 1, number - 1) +
                         " missing: for backups from before, this step and all later ones are left out");
    }
  }
}

/// The steps against the table to which they lead.
class ScriptComparer {
 public:
  ScriptComparer(const std::vector<Step>& steps, const Script& script, const Source& scriptSource,
                 Findings& findings)
      : steps_(steps),
        script_(script),
        scriptSource_(scriptSource),
        storage_(script.database),
        findings_(findings) {}

  void compare() {
    if (script_.complete) {
      compareKeys();
    }
    compareVersion();
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

  /// From the last step back: what later steps take up need not be in the table, and what they make may be.
  void compareKeys() {
    std::map<std::string, bool> later;  // Whether a later step takes the key up, or else makes it.
    for (auto step = steps_.rbegin(); step != steps_.rend(); ++step) {
      for (const Rename& rename : step->renames) {
        compareKeys(*step, rename, later);
      }
      for (const Rename& rename : step->renames) {
        later[rename.newKey] = false;
      }
      for (const Rename& rename : step->renames) {
        later[rename.oldKey] = true;
      }
    }
  }

  void compareKeys(const Step& step, const Rename& rename, const std::map<std::string, bool>& later) {
    const auto newLater = later.find(rename.newKey);
    if (newLater == later.end() || !newLater->second) {
      if (!script_.has(rename.newKey)) {
        findings_.error(*step.source, rename.line,
                        "the database script has no key " + inQuotes(rename.newKey) + ": the value of " +
                            inQuotes(rename.oldKey) + " is lost");
      } else if (const auto property = row(rename.newKey);
                 property && (property->member(column::kFlags).asInt64() & flag::kUser) == 0) {
        findings_.warning(
            *step.source, rename.line,
            inQuotes(rename.newKey) + " is without the flag user (8), so the user's backups lack " +
                inQuotes(rename.oldKey) + ": for these, this step and all later ones are left out");
      }
    }
    if (script_.has(rename.oldKey) && !later.contains(rename.oldKey)) {
      findings_.error(*step.source, rename.line,
                      "the database script still has the old key " + inQuotes(rename.oldKey) + " (line " +
                          std::to_string(script_.lineOf(rename.oldKey)) +
                          "): it loses its value to the new one when a backup is restored");
    }
  }

  void compareVersion() {
    const auto property = row(kVersionKey);
    if (!property || steps_.empty()) {
      return;
    }
    int version = 0;
    try {
      version = propertyservice::toInteger(versionIn(*property));
    } catch (const std::exception&) {
      return;  // reported with the script
    }
    const Step& last = steps_.back();
    const std::string says = inQuotes(kVersionKey) + " is " + std::to_string(version);
    if (version < last.number) {
      findings_.error(
          *last.source, 0,
          says + ": this step is never carried out until it is raised to " + std::to_string(last.number));
    } else if (version > last.number) {
      findings_.error(scriptSource_, script_.lineOf(kVersionKey),
                      says + ", but " + listOfFiles(last.number + 1, version) +
                          " missing: the values of renamed keys are lost, and each restore logs an error");
    }
  }

  const std::vector<Step>& steps_;
  const Script& script_;
  const Source& scriptSource_;
  propertyservice::PersistentStorage storage_;
  Findings& findings_;
};

}  // namespace

void checkMigrations(const std::vector<const Source*>& sources, const Script* script,
                     const Source* scriptSource, Findings& findings) {
  std::vector<Step> steps;
  for (const Source* const source : sources) {
    std::vector<Rename> renames = RuleReader(*source, findings).read();
    if (const std::optional<int> number = numberIn(source->name())) {
      checkWithin(steps.emplace_back(Step{source, *number, std::move(renames)}), findings);
    } else {
      findings.error(
          *source, 0,
          "is never read: the daemon looks for \"migration_N.json\", N from 1 without leading zeros");
      checkWithin(Step{source, 0, std::move(renames)}, findings);
    }
  }
  std::stable_sort(steps.begin(), steps.end(),
                   [](const Step& a, const Step& b) { return a.number < b.number; });
  checkNumbers(steps, findings);
  checkAcross(steps, findings);
  if (script != nullptr && script->readable) {
    ScriptComparer(steps, *script, *scriptSource, findings).compare();
  }
}

}  // namespace check
