#include "client/check/PropertyRules.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <regex.h>
#include <set>
#include <utility>

#include "client/check/ExpressionCost.h"
#include "client/check/Findings.h"
#include "core/Constants.h"
#include "database/StorableValue.h"
#include "validators/EnumValidator.h"
#include "validators/MinMaxValidator.h"
#include "validators/RegExpValidator.h"
#include "wire/Flags.h"

namespace check {

namespace {

using propertyservice::Property;
namespace column = propertyservice::column;
namespace flag = propertyservice::flag;

bool has(const Property& row, std::string_view name) {
  return !row.member(name).isNull();
}

std::string reasonNotToCompile(const std::string& expression) {
  regex_t compiled;
  const int failure = regcomp(&compiled, expression.c_str(), REG_EXTENDED);
  if (failure == 0) {
    regfree(&compiled);
    return "";
  }
  std::array<char, 128> reason{};
  regerror(failure, &compiled, reason.data(), reason.size());
  return reason.data();
}

/// Judges one row.
class Judge {
 public:
  explicit Judge(const Property& row) : row_(row), key_(row.text(column::kKey)) {}

  Complaints all() && {
    judgeKey();
    judgeAliases();
    judgeExpression();
    judgeRange();
    judgeList();
    judgeValues();
    judgeFlags();
    return std::move(complaints_);
  }

 private:
  void error(std::string text) { add(Severity::error, std::move(text)); }
  void warning(std::string text) { add(Severity::warning, std::move(text)); }
  void add(Severity severity, std::string text) {
    complaints_.push_back({severity, inQuotes(key_) + ": " + std::move(text)});
  }

  void judgeKey() {
    if (key_.empty()) {
      error("the key is empty: no request can name it");
      return;
    }
    if (key_.starts_with(propertyservice::kVolatilePrefix)) {
      error("keys beginning with \"State.\" live outside the table: this row is never read");
    }
    const std::size_t point = key_.find('.');
    if (point == std::string::npos || point == 0) {
      warning("the key has no group before a \".\": its changes are not announced to a group");
    } else if (key_.find_first_of("+#/") < point) {
      error(
          "the group, what stands before the first \".\", becomes a topic: \"+\", \"#\" and \"/\" keep its "
          "changes "
          "from being announced");
    }
    if (key_.find_first_of(" \t") != std::string::npos) {
      warning("the key has blanks, which list requests remove: they cannot write it");
    }
    if (key_.find_first_of(";\r\n") != std::string::npos) {
      error("the key has a \";\" or a line break: a backup with it cannot be read back");
    }
    judgeWildcard(column::kKey);
  }

  void judgeWildcard(std::string_view name) {
    if (row_.text(name).find('%') != std::string::npos) {
      warning("\"%\" in \"" + std::string(name) + "\" makes every request for it a pattern");
    }
  }

  void judgeAliases() {
    for (const std::string_view name : {column::kWebui, column::kProvisioning, column::kTr069}) {
      if (has(row_, name) && row_.text(name).empty()) {
        warning("\"" + std::string(name) +
                "\" is an empty text, which counts as a name: write NULL for none");
      }
      judgeWildcard(name);
    }
  }

  void judgeExpression() {
    if (!has(row_, column::kRegexp)) {
      return;
    }
    const std::string expression = row_.text(column::kRegexp);
    expressionWorks_ = isAffordable(expression);
    if (!expressionWorks_) {
      error("the expression " + inQuotes(expression) +
            " repeats, nests or refers back too much: compiling or matching it can stall the daemon");
    } else if (const std::string reason = reasonNotToCompile(expression); !reason.empty()) {
      expressionWorks_ = false;
      error("the expression " + inQuotes(expression) + " does not compile (" + reason +
            "): every write is refused");
    } else if (expression.empty()) {
      warning("the expression is an empty text, which allows everything: write NULL for none");
    } else if (const std::string escape = foreignEscape(expression); !escape.empty()) {
      warning(
          "the expression " + inQuotes(expression) + " has " + inQuotes(escape) +
          ", where these expressions take the backslash or the letter for itself: write [0-9] and the like");
    } else if (!isAnchored(expression)) {
      warning("the expression " + inQuotes(expression) +
              " is not held by \"^\" and \"$\" at both ends: it allows any text around what it matches");
    }
  }

  void judgeRange() {
    const Json::Value& least = row_.member(column::kRangeMin);
    const Json::Value& greatest = row_.member(column::kRangeMax);
    if (!least.isNull() && !greatest.isNull() && least > greatest) {
      rangeWorks_ = false;
      error("the range is upside down (" + range() + "): every write is refused");
    }
    for (const Json::Value* const bound : {&least, &greatest}) {
      if (!bound->isNull() && !bound->isInt()) {
        warning("the bound " + bound->asString() + " is beyond 32 bits, where no value can be");
      }
    }
  }

  void judgeList() {
    if (!has(row_, column::kEnum)) {
      return;
    }
    const std::string list = row_.text(column::kEnum);
    if (list.find_first_not_of(',') == std::string::npos) {
      listWorks_ = false;
      error("the list of allowed values is empty: every write is refused; write NULL for no list");
      return;
    }
    if (list.find(',') == std::string::npos && list.find_first_of(";|") != std::string::npos) {
      warning("the list " + inQuotes(list) + " is one value: its values are separated by commas alone");
    }
    std::set<std::string> values;
    for (std::size_t start = 0; start <= list.size();) {
      const std::size_t end = std::min(list.find(',', start), list.size());
      judgeListed(list.substr(start, end - start), values);
      start = end + 1;
    }
  }

  void judgeListed(const std::string& value, std::set<std::string>& before) {
    if (value.empty()) {
      warning("the list of allowed values has an empty place: the empty value is refused all the same");
      return;
    }
    if (value.front() == ' ' || value.back() == ' ') {
      warning("the allowed value " + inQuotes(value) +
              " has blanks at its ends, which count: write commas alone");
    }
    if (!before.insert(value).second) {
      warning("the allowed value " + inQuotes(value) + " is listed twice");
      return;
    }
    for (const std::string& reason : refusals(value)) {
      warning("the allowed value " + inQuotes(value) + " can never be set: it " + reason);
    }
  }

  /// Why the rules refuse the value, one text for each that does. A rule that refuses everything has been
  /// reported.
  std::vector<std::string> refusals(const std::string& value) const {
    Property candidate = row_;
    candidate.set(column::kValue, value);
    std::vector<std::string> reasons;
    if (expressionWorks_ && !propertyservice::RegExpValidator().validate(candidate)) {
      reasons.push_back("does not match the expression " + inQuotes(row_.text(column::kRegexp)));
    }
    if (rangeWorks_ && !propertyservice::MinMaxValidator().validate(candidate)) {
      reasons.push_back("is no number in the range " + range());
    }
    if (listWorks_ && !propertyservice::EnumValidator().validate(candidate)) {
      reasons.push_back("is not in the list " + inQuotes(row_.text(column::kEnum)));
    }
    return reasons;
  }

  void judgeValues() {
    const std::string value = row_.text(column::kValue);
    const std::string standard = row_.text(column::kDefaultValues);
    judgeValue("default", standard, ": a reset brings back what no client may set");
    if (value != standard) {
      judgeValue("value", value, ": a client that reads it cannot write it back");
    }
    if (has(row_, column::kDefaultValues) && value != standard) {
      warning("the value " + inQuotes(value) + " is not the default " + inQuotes(standard) +
              ": the device changes when it is reset");
    }
  }

  void judgeValue(const std::string& what, const std::string& text, const std::string& consequence) {
    const std::string subject = "the " + what + ' ' + inQuotes(text) + ' ';
    if (!propertyservice::isStorable(text)) {
      error("the " + what + " has more than 256 characters, a NUL, or is not UTF-8");
      return;
    }
    for (const std::string& reason : refusals(text)) {
      error(std::string(subject).append(reason).append(consequence));
    }
    if (text.find_first_of("\r\n") != std::string::npos) {
      error(subject + "has a line break, which cuts a backup off there");
    }
  }

  void judgeFlags() {
    const Json::Int64 flags = row_.member(column::kFlags).asInt64();
    if ((flags & ~flag::kKnown) != 0) {
      warning("the flags " + std::to_string(flags) +
              " have bits without a meaning: the sum of 1 read-only, 2 setting, "
              "4 dump, 8 user and 16 kept is used");
    }
    if ((flags & flag::kReadOnly) != 0 && (flags & (flag::kUser | flag::kKept)) != 0) {
      warning("the flags " + std::to_string(flags) +
              " save a read-only property for the user or a factory reset, but its restore is refused");
    }
    if (propertyservice::isSecret(key_) && (flags & (flag::kDump | flag::kUser)) != 0) {
      warning("the flags " + std::to_string(flags) +
              " show a secret in dumps or the user's backup: 2 alone saves it with all settings only");
    }
  }

  std::string range() const {
    const auto text = [](const Json::Value& bound) { return bound.isNull() ? "" : bound.asString(); };
    return text(row_.member(column::kRangeMin)) + ".." + text(row_.member(column::kRangeMax));
  }

  const Property& row_;
  const std::string key_;
  bool expressionWorks_ = true;
  bool rangeWorks_ = true;
  bool listWorks_ = true;
  Complaints complaints_;
};

}  // namespace

Complaints complaintsAbout(const Property& row) {
  return Judge(row).all();
}

std::size_t charactersIn(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(
      text.begin(), text.end(), [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0) != 0x80; }));
}

}  // namespace check
