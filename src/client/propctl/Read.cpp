#include <algorithm>

#include "client/propctl/Commands.h"
#include "client/propctl/Rules.h"
#include "client/propctl/Text.h"
#include "wire/Columns.h"

namespace propctl {

namespace column = propertyservice::column;

namespace {

std::string text(std::string_view column) {
  return std::string(column);
}

std::string nameColumn(Field field) {
  switch (field) {
    case Field::key:
      return text(column::kKey);
    case Field::web:
      return text(column::kWebui);
    case Field::provisioning:
      return text(column::kProvisioning);
  }
  return "";
}

/// In the order of the names in `field`; properties without one are left out.
std::vector<Columns> listSorted(Session& session, const std::string& pattern, const Names& columns,
                                Field field) {
  const std::string name = nameColumn(field);
  std::vector<Columns> properties = session.list(pattern, columns, field);
  std::erase_if(properties, [&name](const Columns& property) { return columnOf(property, name).empty(); });
  std::sort(properties.begin(), properties.end(), [&name](const Columns& one, const Columns& other) {
    return columnOf(one, name) < columnOf(other, name);
  });
  return properties;
}

/// The findings of "get", in the order of the arguments.
class Values {
 public:
  explicit Values(Session& session, Field field) : session_(session), field_(field) {}

  void read(const std::string& name) {
    if (!isPattern(name)) {
      readOne(name);
    } else if (!readPattern(name)) {
      miss(name, Status::notFound);
    }
  }

  /// Returns whether anything matches.
  bool readPattern(const std::string& pattern, bool showsSecrets = false) {
    const std::string name = nameColumn(field_);
    const auto properties =
        listSorted(session_, pattern, {name, text(column::kKey), text(column::kValue)}, field_);
    for (const Columns& property : properties) {
      const std::string& value = columnOf(property, column::kValue);
      found_.push_back(
          {columnOf(property, name),
           showsSecrets ? value : session_.output().visible(columnOf(property, column::kKey), value)});
    }
    return !properties.empty();
  }

  ExitStatus print(bool alone) const {
    Output& output = session_.output();
    if (output.style().json) {
      Json::Value object(Json::objectValue);
      for (const Assignment& property : found_) {
        object[property.name] = property.value;
      }
      output.json(object);
    } else if (alone) {
      std::for_each(found_.begin(), found_.end(),
                    [&](const auto& property) { output.value(property.value); });
    } else {
      for (const Assignment& property : found_) {
        output.line(toLine(property));
      }
    }
    return status_;
  }

 private:
  /// Asks for the key of an alias where it matters: it decides what is a secret.
  std::string keyOf(const std::string& name) const {
    if (field_ == Field::key || !session_.output().style().hideSecrets) {
      return name;
    }
    const auto answer = session_.answered(session_.client().list(name, {text(column::kKey)}, field_));
    return answer.value.empty() ? name : columnOf(answer.value.front(), column::kKey);
  }

  void readOne(const std::string& name) {
    const auto answer = session_.answered(session_.client().get(name, field_));
    if (answer.ok()) {
      found_.push_back({name, session_.output().visible(keyOf(name), answer.value)});
    } else {
      miss(name, answer.status);
    }
  }

  void miss(const std::string& name, Status status) {
    session_.output().complain(escaped(name) + ": " + whyNot(name, status));
    status_ = ExitStatus::refused;
  }

  Session& session_;
  const Field field_;
  std::vector<Assignment> found_;
  ExitStatus status_ = ExitStatus::done;
};

Json::Value toJson(const Columns& property, const Names& columns) {
  Json::Value object(Json::objectValue);
  for (const std::string& column : columns) {
    object[column] = columnOf(property, column);
  }
  return object;
}

void printState(Session& session, const std::string& key, const std::string& value) {
  Output& output = session.output();
  if (output.style().json) {
    Json::Value object;
    object[text(column::kKey)] = key;
    object[text(column::kValue)] = value;
    output.json(object);
    return;
  }
  output.line("key           " + escaped(key));
  output.line("value         " + escaped(output.visible(key, value)));
  output.line("kind          run-time state: no rules, no default, gone with the power");
}

void printProperty(Output& output, const Columns& property) {
  const auto row = [&output](std::string label, const std::string& text) {
    label.resize(14, ' ');
    output.line(label + text);
  };
  const auto visible = [&](std::string_view column) {
    return escaped(output.visible(columnOf(property, column::kKey), columnOf(property, column)));
  };
  const auto known = [&](std::string_view column) {
    return property.contains(text(column)) ? escaped(columnOf(property, column)) : "-";
  };
  row("key", known(column::kKey));
  row("value", visible(column::kValue) + (isChanged(property) ? "   (changed)" : ""));
  row("default", property.contains(text(column::kDefaultValues)) ? visible(column::kDefaultValues) : "-");
  const std::vector<std::string> rules = rulesOf(property);
  for (const std::string& rule : rules) {
    row(&rule == &rules.front() ? "rules" : "", rule);
  }
  if (rules.empty()) {
    row("rules", "none");
  }
  const std::string& number = columnOf(property, column::kFlags);
  row("flags", flagsInWords(property) + " (" + (number.empty() ? "0" : number) + ')');
  row("web", known(column::kWebui));
  row("provisioning", known(column::kProvisioning));
  row("tr069", known(column::kTr069));
}

/// As people call it.
std::string headingOf(const std::string& column) {
  return column == column::kDefaultValues ? "default" : column;
}

}  // namespace

Names toColumns(Names names) {
  std::replace(names.begin(), names.end(), std::string("default"), text(column::kDefaultValues));
  return names;
}

void requireColumns(const Names& columns) {
  for (const std::string& column : columns) {
    if (std::find(column::kAll.begin(), column::kAll.end(), column) == column::kAll.end()) {
      std::string known;
      for (const std::string_view name : column::kAll) {
        known += (known.empty() ? "" : ", ") + headingOf(text(name));
      }
      throw Failure(ExitStatus::usage, "no such column: \"" + escaped(column) + "\"; there are " + known);
    }
  }
}

void requireOneName(const std::string& name) {
  if (isPattern(name)) {
    throw Failure(ExitStatus::usage, "describe takes one name, not a pattern; \"list\" takes a pattern");
  }
}

ExitStatus get(Session& session, const Names& names, Field field) {
  Values values(session, field);
  for (const std::string& name : names) {
    values.read(name);
  }
  return values.print(names.size() == 1 && !isPattern(names.front()));
}

ExitStatus list(Session& session, const std::string& pattern, const Names& chosen, bool onlyChanged) {
  const Names columns = !chosen.empty() ? chosen
                                        : Names{text(column::kKey), text(column::kValue),
                                                text(column::kDefaultValues), text(column::kFlags)};
  const auto shows = [&columns](std::string_view name) {
    return std::find(columns.begin(), columns.end(), name) != columns.end();
  };
  Output& output = session.output();
  const bool marksChanged = onlyChanged || output.style().colour || shows(column::kDefaultValues);
  Names needed = columns;
  for (const std::string_view name : {column::kKey, column::kValue, column::kDefaultValues}) {
    if (!shows(name) && (marksChanged || name == column::kKey)) {
      needed.push_back(text(name));
    }
  }
  std::vector<Columns> properties = listSorted(session, pattern, needed, Field::key);
  if (properties.empty()) {
    output.complain(escaped(pattern) + ": " +
                    (isState(pattern) ? "run-time state is not listed; get reads it"
                                      : whyNot(pattern, Status::notFound)));
    return ExitStatus::refused;
  }
  if (onlyChanged) {
    std::erase_if(properties, [](const Columns& property) { return !isChanged(property); });
  }

  if (output.style().json) {
    Json::Value rows(Json::arrayValue);
    for (const Columns& property : properties) {
      rows.append(toJson(property, columns));
    }
    output.json(rows);
    return ExitStatus::done;
  }
  std::vector<Row> rows;
  for (const Columns& property : properties) {
    Row& row = rows.emplace_back();
    row.marked = marksChanged && isChanged(property);
    for (const std::string& column : columns) {
      const bool mayBeSecret = column == column::kValue || column == column::kDefaultValues;
      const std::string& content = columnOf(property, column);
      row.cells.push_back(column == column::kFlags ? flagsInWords(property)
                          : mayBeSecret ? escaped(output.visible(columnOf(property, column::kKey), content))
                                        : escaped(content));
      if (column == column::kDefaultValues && row.marked) {
        row.cells.back().insert(0, output.style().table ? "* " : "");
      }
    }
  }
  Names headings;
  std::transform(columns.begin(), columns.end(), std::back_inserter(headings), headingOf);
  output.table(headings, rows);
  return ExitStatus::done;
}

ExitStatus describe(Session& session, const std::string& name, Field field) {
  Output& output = session.output();
  if (field == Field::key && isState(name)) {
    const auto answer = session.answered(session.client().get(name));
    if (answer.ok()) {
      printState(session, name, answer.value);
      return ExitStatus::done;
    }
  } else {
    const auto answer = session.answered(session.client().list(name, {}, field));
    if (answer.ok() && !answer.value.empty()) {
      const Columns& property = answer.value.front();
      if (output.style().json) {
        Names columns;
        std::transform(property.begin(), property.end(), std::back_inserter(columns),
                       [](const auto& member) { return member.first; });
        output.json(toJson(property, columns));
      } else {
        printProperty(output, property);
      }
      return ExitStatus::done;
    }
  }
  output.complain(escaped(name) + ": " + reasonFor(Status::notFound, "", {}));
  return ExitStatus::refused;
}

ExitStatus dump(Session& session) {
  Values values(session, Field::provisioning);
  constexpr bool kShowsSecrets = true;
  values.readPattern("%", kShowsSecrets);
  return values.print(false);
}

ExitStatus completeKeys(Session& session, const std::string& prefix) {
  const auto answer = session.client().list("%", {text(column::kKey)});
  for (const Columns& property : answer.value) {
    const std::string& key = columnOf(property, column::kKey);
    if (key.starts_with(prefix)) {
      session.output().line(escaped(key));
    }
  }
  return ExitStatus::done;
}

}  // namespace propctl
