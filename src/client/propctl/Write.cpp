#include <future>
#include <map>
#include <memory>

#include "client/propctl/Commands.h"
#include "client/propctl/Rules.h"
#include "client/propctl/Text.h"
#include "wire/Columns.h"
#include "wire/Names.h"

namespace propctl {

namespace column = propertyservice::column;
using propclient::Values;

namespace {

using Listed = propclient::Answer<std::vector<Columns>>;

/// Asks for all columns of each name that may have some. One request each, all under way at once: a reply
/// with all properties may be larger than the broker lets pass.
std::map<std::string, Listed> listEach(Session& session, const Names& names, Field field) {
  std::map<std::string, std::future<Listed>> answers;
  for (const std::string& name : names) {
    if (isPattern(name) || (field == Field::key && isState(name))) {
      continue;
    }
    const auto promise = std::make_shared<std::promise<Listed>>();
    answers.emplace(name, promise->get_future());
    session.client().list(name, {}, field, [promise](const Listed& answer) { promise->set_value(answer); });
  }
  std::map<std::string, Listed> listed;
  for (auto& [name, answer] : answers) {
    listed.emplace(name, answer.get());
  }
  return listed;
}

/// The columns of a name, none where there are none or no answer.
Columns columnsIn(const std::map<std::string, Listed>& listed, const std::string& name) {
  const auto found = listed.find(name);
  return found != listed.end() && !found->second.value.empty() ? found->second.value.front() : Columns{};
}

std::string reasonOf(Status status, const Assignment& assignment, const Columns& property) {
  const bool secret = assignment.asked || propertyservice::isSecret(assignment.name) ||
                      propertyservice::isSecret(columnOf(property, column::kKey));
  return reasonFor(status, assignment.value, property, secret);
}

std::string refusal(Status status, const std::string& reason) {
  return std::string(propclient::toText(status)) + ": " + reason;
}

void warn(Session& session, const Assignment& assignment, const Columns& property) {
  if (const std::string caution = cautionFor(assignment.value, property); !caution.empty()) {
    session.output().remark("warning: " + escaped(assignment.name) + ": " + caution);
  }
}

/// Returns the outcome of each. Complains of those that were not taken, and warns of what nobody may expect
/// of the others, in the order in which they were given.
Json::Value tellOutcome(Session& session, const std::vector<Assignment>& assignments, Field field,
                        const std::map<std::string, Status>& statuses) {
  const auto isUnanswered = [](Status status) {
    return status == Status::noAnswer || status == Status::away;
  };
  Names unclear;
  bool isAnswered = false;
  for (const Assignment& assignment : assignments) {
    const Status status = statuses.at(assignment.name);
    isAnswered |= !isUnanswered(status);
    if (status == Status::ok ? mayNeedCaution(assignment.value) : !isUnanswered(status)) {
      unclear.push_back(assignment.name);
    }
  }
  const auto listed = listEach(session, unclear, field);
  Json::Value outcomes(Json::objectValue);
  for (const Assignment& assignment : assignments) {
    const Status status = statuses.at(assignment.name);
    const Columns property = columnsIn(listed, assignment.name);
    Json::Value& outcome = outcomes[assignment.name];
    outcome["status"] = propclient::toText(status);
    if (status == Status::ok) {
      warn(session, assignment, property);
      continue;
    }
    const std::string reason = reasonOf(status, assignment, property);
    outcome["reason"] = reason;
    if (isAnswered) {
      session.output().complain(escaped(assignment.name) + ": " + refusal(status, reason));
    }
  }
  return outcomes;
}

/// Writes all that can be written.
ExitStatus write(Session& session, const std::vector<Assignment>& assignments, Field field, bool sayHowMany) {
  Values values;
  for (const Assignment& assignment : assignments) {
    values.emplace(assignment.name, assignment.value);
  }
  const std::map<std::string, Status> statuses = session.client().setEach(values, field);

  std::map<Status, std::size_t> counts;
  for (const auto& [name, status] : statuses) {
    ++counts[status];
  }
  const std::size_t written = counts[Status::ok];
  const std::size_t silent = counts[Status::noAnswer];
  const Json::Value outcomes = tellOutcome(session, assignments, field, statuses);
  if (session.output().style().json) {
    session.output().json(outcomes);
  }
  if (sayHowMany) {
    session.output().remark(std::to_string(written) + " of " + std::to_string(statuses.size()) + " written");
  }
  if (silent != 0) {
    session.throwNoAnswer(Session::Effect::write);
  }
  if (const std::size_t unsent = counts[Status::away]; unsent != 0) {
    unsent == statuses.size() ? session.throwAway()
                              : session.throwAway(std::to_string(unsent) + " of " +
                                                  std::to_string(statuses.size()) + " were not sent");
  }
  return written == statuses.size() ? ExitStatus::done : ExitStatus::refused;
}

ExitStatus tryOut(Session& session, const std::vector<Assignment>& assignments, Field field) {
  Names names;
  for (const Assignment& assignment : assignments) {
    names.push_back(assignment.name);
  }
  const auto listed = listEach(session, names, field);
  std::size_t refused = 0;
  Json::Value outcomes(Json::objectValue);
  Output& output = session.output();
  for (const Assignment& assignment : assignments) {
    const auto& [name, value, asked] = assignment;
    if (const auto answer = listed.find(name); answer != listed.end()) {
      session.answered(answer->second);
    }
    const bool state = field == Field::key && isState(name);
    const Columns columns = columnsIn(listed, name);
    const Status verdict = state ? Status::ok : columns.empty() ? Status::notFound : judge(value, columns);
    std::string outcome = "would be written";
    if (verdict != Status::ok) {
      outcome = refusal(verdict, reasonOf(verdict, assignment, columns));
      ++refused;
    } else if (warn(session, assignment, columns); !state && columnOf(columns, column::kValue) == value) {
      outcome = "stays as it is";
    }
    outcomes[name] = outcome;
    if (!output.style().json) {
      output.line(toLine({name, output.visible(name, value)}) + ": " + outcome);
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
  const Names columns = {std::string(column::kKey), std::string(column::kValue)};
  for (const Columns& property : session.list(name, columns)) {
    values.emplace(columnOf(property, column::kKey), columnOf(property, column::kValue));
  }
  return values;
}

Values valuesAfterReset(Session& session, const std::string& name) {
  try {
    return valuesMatching(session, name);
  } catch (const Failure& failure) {
    throw Failure(
        failure.status(),
        escaped(name) + ": the reset was answered, but the new values are unknown: " + failure.what());
  }
}

}  // namespace

ExitStatus set(Session& session, const std::vector<Assignment>& assignments, Field field) {
  constexpr bool kSayHowMany = false;
  return write(session, assignments, field, kSayHowMany);
}

ExitStatus load(Session& session, const std::vector<Assignment>& assignments, Field field, bool dryRun) {
  constexpr bool kSayHowMany = true;
  return dryRun ? tryOut(session, assignments, field) : write(session, assignments, field, kSayHowMany);
}

ExitStatus reset(Session& session, const Names& names) {
  Output& output = session.output();
  ExitStatus status = ExitStatus::done;
  Json::Value changes(Json::objectValue);
  for (const std::string& name : names) {
    const Values before = valuesMatching(session, name);
    const Status answer = session.answered(session.client().reset(name), Session::Effect::write).status;
    if (answer != Status::ok) {
      output.complain(escaped(name) + ": " + propclient::toText(answer) + ": " + whyNot(name, answer));
      status = ExitStatus::refused;
    }
    const Values after = valuesAfterReset(session, name);
    for (const auto& [key, old] : before) {
      const auto now = after.find(key);
      if (now == after.end()) {
        changes[key] = Json::Value();
        if (!output.style().json && !output.style().quiet) {
          output.line(escaped(key) + ": " + escaped(output.visible(key, old)) + " -> removed");
        }
      } else if (now->second != old) {
        changes[key] = now->second;
        if (!output.style().json && !output.style().quiet) {
          output.line(escaped(key) + ": " + escaped(output.visible(key, old)) + " -> " +
                      escaped(output.visible(key, now->second)));
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
