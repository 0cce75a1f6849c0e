#include <future>
#include <map>
#include <memory>

#include "client/propctl/Commands.h"
#include "client/propctl/Rules.h"
#include "client/propctl/Text.h"
#include "wire/Columns.h"

namespace propctl {

namespace column = propertyservice::column;
using propclient::Values;

namespace {

/// Empty where the property, or its kind, has no metadata.
Columns metadataOf(Session& session, const std::string& name, Field field) {
  if (isPattern(name) || (field == Field::key && isState(name))) {
    return {};
  }
  const auto answer = session.client().list(name, {}, field);
  return answer.ok() && !answer.value.empty() ? answer.value.front() : Columns{};
}

std::string refusal(Status status, const std::string& value, const Columns& property) {
  return std::string(propclient::toText(status)) + ": " + reasonFor(status, value, property);
}

/// Writes all, and complains of each that was not taken, in the order in which they were given.
ExitStatus write(Session& session, const std::vector<Assignment>& assignments, Field field,
                 std::size_t& written) {
  Values values;
  for (const auto& [name, value] : assignments) {
    values.emplace(name, value);
  }
  const std::map<std::string, Status> statuses = session.client().setEach(values, field);

  Output& output = session.output();
  Json::Value outcome(Json::objectValue);
  bool silent = false;
  bool refused = false;
  for (const auto& [name, value] : assignments) {
    const Status status = statuses.at(name);
    outcome[name] = propclient::toText(status);
    if (status == Status::ok) {
      ++written;
    } else if (status == Status::noAnswer) {
      silent = true;
    } else {
      refused = true;
      output.complain(escaped(name) + ": " + refusal(status, value, metadataOf(session, name, field)));
    }
  }
  if (output.style().json) {
    output.json(outcome);
  }
  if (silent) {
    session.throwNoAnswer();
  }
  return refused ? ExitStatus::refused : ExitStatus::done;
}

/// All columns of each, by name; nothing for one that there is not. One request each, all under way at once:
/// a reply with all properties may be larger than the broker lets pass.
std::map<std::string, Columns> readProperties(Session& session, const std::vector<Assignment>& assignments,
                                              Field field) {
  using Answer = propclient::Answer<std::vector<Columns>>;
  std::map<std::string, std::future<Answer>> answers;
  for (const auto& [name, value] : assignments) {
    if (isPattern(name)) {
      continue;
    }
    const auto promise = std::make_shared<std::promise<Answer>>();
    answers.emplace(name, promise->get_future());
    session.client().list(name, {}, field, [promise](const Answer& answer) { promise->set_value(answer); });
  }
  std::map<std::string, Columns> properties;
  for (auto& [name, future] : answers) {
    const Answer answer = session.answered(future.get());
    if (answer.ok() && !answer.value.empty()) {
      properties.emplace(name, answer.value.front());
    }
  }
  return properties;
}

ExitStatus tryOut(Session& session, const std::vector<Assignment>& assignments, Field field) {
  const std::map<std::string, Columns> properties = readProperties(session, assignments, field);
  std::size_t refused = 0;
  Json::Value outcomes(Json::objectValue);
  Output& output = session.output();
  for (const auto& [name, value] : assignments) {
    const auto property = properties.find(name);
    const bool state = field == Field::key && isState(name);
    const Columns columns = property != properties.end() ? property->second : Columns{};
    const Status verdict = state ? Status::ok : columns.empty() ? Status::notFound : judge(value, columns);
    std::string outcome = "would be written";
    if (verdict != Status::ok) {
      outcome = refusal(verdict, value, columns);
      ++refused;
    } else if (!state && columnOf(columns, column::kValue) == value) {
      outcome = "stays as it is";
    }
    outcomes[name] = outcome;
    if (!output.style().json) {
      output.line(escaped(name) + '=' + escaped(value) + ": " + outcome);
    }
  }
  if (output.style().json) {
    output.json(outcomes);
  }
  if (refused == 0) {
    return ExitStatus::done;
  }
  output.flush();
  output.complain(std::to_string(refused) + " of " + std::to_string(assignments.size()) +
                  " would be refused");
  return ExitStatus::refused;
}

/// Values by key.
Values valuesMatching(Session& session, const std::string& name) {
  Values values;
  if (isState(name)) {
    if (const auto answer = session.answered(session.client().get(name)); answer.ok()) {
      values.emplace(name, answer.value);
    }
    return values;
  }
  const auto answer = session.answered(
      session.client().list(name, {std::string(column::kKey), std::string(column::kValue)}, Field::key));
  for (const Columns& property : answer.value) {
    values.emplace(columnOf(property, column::kKey), columnOf(property, column::kValue));
  }
  return values;
}

}  // namespace

ExitStatus set(Session& session, const std::vector<Assignment>& assignments, Field field) {
  std::size_t written = 0;
  return write(session, assignments, field, written);
}

ExitStatus load(Session& session, const std::vector<Assignment>& assignments, Field field, bool dryRun) {
  if (dryRun) {
    return tryOut(session, assignments, field);
  }
  std::size_t written = 0;
  const ExitStatus status = write(session, assignments, field, written);
  session.output().remark(std::to_string(written) + " of " + std::to_string(assignments.size()) + " written");
  return status;
}

ExitStatus reset(Session& session, const Names& names) {
  Output& output = session.output();
  ExitStatus status = ExitStatus::done;
  Json::Value changes(Json::objectValue);
  for (const std::string& name : names) {
    const Values before = valuesMatching(session, name);
    const Status answer = session.answered(session.client().reset(name)).status;
    if (answer != Status::ok) {
      output.complain(escaped(name) + ": " + refusal(answer, "", {}));
      status = ExitStatus::refused;
    }
    const Values after = valuesMatching(session, name);
    for (const auto& [key, old] : before) {
      const auto now = after.find(key);
      if (now == after.end()) {
        changes[key] = Json::Value();
        if (!output.style().json && !output.style().quiet) {
          output.line(escaped(key) + ": " + escaped(old) + " -> removed");
        }
      } else if (now->second != old) {
        changes[key] = now->second;
        if (!output.style().json && !output.style().quiet) {
          output.line(escaped(key) + ": " + escaped(old) + " -> " + escaped(now->second));
        }
      }
    }
  }
  if (output.style().json) {
    output.json(changes);
  } else if (changes.empty() && status == ExitStatus::done) {
    output.remark("nothing to change");
  }
  return status;
}

}  // namespace propctl
