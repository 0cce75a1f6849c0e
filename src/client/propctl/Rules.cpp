#include "client/propctl/Rules.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include "client/propctl/Text.h"
#include "core/BackupFile.h"
#include "core/Integer.h"
#include "core/Property.h"
#include "database/StorableValue.h"
#include "validators/EnumValidator.h"
#include "validators/MinMaxValidator.h"
#include "validators/ReadOnlyValidator.h"
#include "validators/RegExpValidator.h"
#include "wire/Columns.h"
#include "wire/Flags.h"

namespace propctl {

namespace column = propertyservice::column;
namespace flag = propertyservice::flag;
using propertyservice::Property;

namespace {

bool has(const Columns& property, std::string_view column) {
  return property.contains(std::string(column));
}

int flagsOf(const Columns& property) {
  const std::string& text = columnOf(property, column::kFlags);
  int flags = 0;
  std::from_chars(text.data(), text.data() + text.size(), flags);
  return flags;
}

Property toProperty(const std::string& value, const Columns& columns) {
  Property property;
  for (const auto& [name, text] : columns) {
    const bool isInteger =
        std::find(column::kInteger.begin(), column::kInteger.end(), name) != column::kInteger.end();
    property.set(name, isInteger ? Json::Value(propertyservice::toInteger(text)) : Json::Value(text));
  }
  property.set(column::kValue, value);
  return property;
}

Status toStatus(propertyservice::Status status) {
  switch (status) {
    case propertyservice::Status::ReadOnly:
      return Status::readOnly;
    case propertyservice::Status::RegExpError:
      return Status::regExpError;
    case propertyservice::Status::ValueOutOfBounds:
      return Status::valueOutOfBounds;
    case propertyservice::Status::ValueError:
      return Status::valueError;
    default:
      return Status::ok;
  }
}

std::string rangeInWords(const Columns& property) {
  const std::string& least = columnOf(property, column::kRangeMin);
  const std::string& greatest = columnOf(property, column::kRangeMax);
  if (greatest.empty()) {
    return "a number from " + least + " on";
  }
  if (least.empty()) {
    return "a number up to " + greatest;
  }
  return "a number from " + least + " to " + greatest;
}

/// The number that a range reads in a text that is not a number; nothing in any other.
std::optional<int> leadingNumber(const std::string& text) {
  const std::size_t digits = text.starts_with('-') ? 1 : 0;
  if (text.find_first_not_of("0123456789", digits) == std::string::npos) {
    return std::nullopt;
  }
  try {
    return propertyservice::toInteger(text);
  } catch (const std::logic_error&) {
    return std::nullopt;
  }
}

std::string listInWords(const Columns& property) {
  std::string words = escaped(columnOf(property, column::kEnum));
  for (std::size_t comma = words.find(','); comma != std::string::npos; comma = words.find(',', comma + 2)) {
    words.insert(comma + 1, " ");
  }
  return words;
}

}  // namespace

Status judge(const std::string& value, const Columns& columns) {
  if (value == columnOf(columns, column::kValue)) {
    return Status::ok;
  }
  Property property = toProperty(value, columns);
  if (!propertyservice::isStorable(property.member(column::kValue))) {
    return Status::valueError;
  }
  propertyservice::ReadOnlyValidator readOnly;
  propertyservice::RegExpValidator expression;
  propertyservice::MinMaxValidator range;
  propertyservice::EnumValidator list;
  for (propertyservice::Validator* rule :
       std::initializer_list<propertyservice::Validator*>{&readOnly, &expression, &range, &list}) {
    if (!rule->validate(property)) {
      break;
    }
  }
  return toStatus(property.status());
}

std::string reasonFor(Status status, const std::string& value, const Columns& property, bool isSecret) {
  const std::string quoted = isSecret ? "the value" : '"' + escaped(value) + '"';
  switch (status) {
    case Status::ok:
      return "done";
    case Status::notFound:
      return "no such property; \"propctl list\" shows all";
    case Status::readOnly:
      return "cannot be written, only reset";
    case Status::regExpError:
      return quoted + " does not match the expression " + escaped(columnOf(property, column::kRegexp));
    case Status::valueOutOfBounds:
      return quoted + " is not " + rangeInWords(property);
    case Status::valueError:
      if (has(property, column::kEnum) && propertyservice::isStorable(Json::Value(value))) {
        return quoted + " is none of " + listInWords(property);
      }
      return "a value is at most 256 characters of UTF-8 without NUL";
    case Status::dbError:
      return "the daemon's store or backup failed; its log says why";
    case Status::invalidRequest:
      return "the daemon does not know this request; is it older than propctl?";
    case Status::noAnswer:
      return "no answer; the write may still be carried out";
    case Status::away:
      return "PropertyService is not running; this was not sent";
  }
  return "";
}

bool mayNeedCaution(const std::string& value) {
  return value.find('\n') != std::string::npos || leadingNumber(value).has_value();
}

std::string cautionFor(const std::string& value, const Columns& property) {
  constexpr int kInBackups = 0xfe;
  if (value.find('\n') != std::string::npos && (flagsOf(property) & kInBackups) != 0) {
    return value.find('\n' + std::string(propertyservice::kVersionMarker)) != std::string::npos
               ? "no backup can hold it: a restore takes its line with \"DatabaseVersion:\" for the end"
               : "no backup can hold it: a restore cuts it at the line break, and loses the next property";
  }
  const bool hasRange = has(property, column::kRangeMin) || has(property, column::kRangeMax);
  if (const std::optional<int> number = leadingNumber(value); number && hasRange) {
    return "stored as it is, though not a number: the range looks at the leading " + std::to_string(*number) +
           " alone";
  }
  return "";
}

std::string whyNot(const std::string& name, Status status) {
  if (status == Status::notFound && isPattern(name)) {
    return isState(name) ? "keys of run-time state are not found by patterns" : "nothing matches";
  }
  return reasonFor(status, "", {});
}

std::vector<std::string> rulesOf(const Columns& property) {
  std::vector<std::string> rules;
  if ((flagsOf(property) & flag::kReadOnly) != 0) {
    rules.emplace_back("read-only");
  }
  if (has(property, column::kRegexp)) {
    rules.push_back("matches " + escaped(columnOf(property, column::kRegexp)));
  }
  if (has(property, column::kRangeMin) || has(property, column::kRangeMax)) {
    rules.push_back(rangeInWords(property));
  }
  if (has(property, column::kEnum)) {
    rules.push_back("one of " + listInWords(property));
  }
  return rules;
}

std::string flagsInWords(const Columns& property) {
  static constexpr std::pair<int, const char*> kNames[] = {{flag::kReadOnly, "read-only"},
                                                           {flag::kSetting, "setting"},
                                                           {flag::kDump, "dump"},
                                                           {flag::kUser, "user"},
                                                           {flag::kKept, "kept"}};
  int flags = flagsOf(property);
  std::string words;
  const auto add = [&words](const std::string& word) { words += (words.empty() ? "" : ",") + word; };
  for (const auto& [bit, name] : kNames) {
    if ((flags & bit) != 0) {
      add(name);
      flags &= ~bit;
    }
  }
  if (flags != 0) {
    add(std::to_string(flags));
  }
  return words.empty() ? "none" : words;
}

const std::string& columnOf(const Columns& property, std::string_view column) {
  static const std::string kNone;
  const auto found = property.find(std::string(column));
  return found != property.end() ? found->second : kNone;
}

bool isChanged(const Columns& property) {
  return columnOf(property, column::kValue) != columnOf(property, column::kDefaultValues);
}

}  // namespace propctl
