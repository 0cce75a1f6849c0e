#include "propclient/Request.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

#include "common/JSONDefinitions.h"
#include "propclient/Json.h"
#include "wire/Columns.h"
#include "wire/Names.h"

namespace propclient {

using namespace common::JSONDefinitions;
namespace column = propertyservice::column;
namespace method = propertyservice::method;
namespace statustext = propertyservice::statustext;

namespace {

using request::Nothing;

constexpr std::pair<Status, const char*> kStatusTexts[] = {
    {Status::ok, statustext::kOk},
    {Status::notFound, statustext::kNotFound},
    {Status::regExpError, statustext::kRegExpError},
    {Status::valueError, statustext::kValueError},
    {Status::valueOutOfBounds, statustext::kValueOutOfBounds},
    {Status::readOnly, statustext::kReadOnly},
    {Status::dbError, statustext::kDbError},
    {Status::invalidRequest, statustext::kInvalidRequest},
};

/// Statuses that are this library's own: no reply can have them.
const char* ownText(Status status) {
  return status == Status::away ? "Away" : "NoAnswer";
}

/// The answer that a reply holds; nothing where it does not answer the request.
template <typename T>
using Reading = std::optional<Answer<T>>;

template <typename T, typename Reader>
Request makeRequest(const Json::Value& message, Reader reader, Client::Callback<T> callback) {
  const auto shared = std::make_shared<const Client::Callback<T>>(std::move(callback));
  return {json::write(message),
          [reader, shared](const Json::Value& reply) -> Delivery {
            Reading<T> answer = reader(reply);
            if (!answer) {
              return {};
            }
            return [shared, answer = std::move(*answer)] { (*shared)(answer); };
          },
          [shared] { (*shared)(Answer<T>{}); },
          [shared] {
            (*shared)(Answer<T>{Status::away, {}});
          }};
}

Json::Value message(const char* method) {
  Json::Value message;
  message[PROPERTY_METHOD] = method;
  return message;
}

void setField(Json::Value& message, Field field) {
  if (field == Field::web) {
    message[PROPERTY_FIELD] = column::kWebui.data();
  } else if (field == Field::provisioning) {
    message[PROPERTY_FIELD] = column::kProvisioning.data();
  }
}

std::optional<Status> readStatus(const Json::Value& text) {
  for (const auto& [status, spelling] : kStatusTexts) {
    if (text.isString() && text == spelling) {
      return status;
    }
  }
  return std::nullopt;
}

Reading<Nothing> readStatusReply(const Json::Value& reply) {
  if (!reply.isObject() || reply.size() != 1) {
    return std::nullopt;
  }
  const auto status = readStatus(reply[PROPERTY_STATUS]);
  return status ? Reading<Nothing>{{*status, {}}} : std::nullopt;
}

/// Returns the name in the reply to a request for one property: its key, which is not known where an alias
/// was asked for.
struct Named {
  std::string name;
  Field field;

  bool isIn(const Json::Value& reply) const {
    const Json::Value& param = reply[PROPERTY_PARAM];
    return param.isString() && (field != Field::key || json::isEchoOf(name, param));
  }
};

Reading<std::string> readValueReply(const Json::Value& reply, const Named& named) {
  if (!reply.isObject() || !named.isIn(reply)) {
    return std::nullopt;
  }
  const auto status = readStatus(reply[PROPERTY_STATUS]);
  if (status == Status::notFound && reply.size() == 2) {
    return Answer<std::string>{Status::notFound, {}};
  }
  if (!status || reply.size() != 3 || !reply[PROPERTY_RESULT].isString()) {
    return std::nullopt;
  }
  return Answer<std::string>{*status,
                             *status == Status::ok ? reply[PROPERTY_RESULT].asString() : std::string()};
}

Reading<Nothing> readKeyReply(const Json::Value& reply, const Named& named) {
  if (!reply.isObject() || reply.size() != 2 || !named.isIn(reply)) {
    return std::nullopt;
  }
  const auto status = readStatus(reply[PROPERTY_STATUS]);
  return status ? Reading<Nothing>{{*status, {}}} : std::nullopt;
}

bool isNotFoundInList(const Json::Value& reply) {
  return reply.size() == 2 && reply.isMember(PROPERTY_STATUS) && reply[PROPERTY_STATUS].isNull();
}

Columns readColumns(const Json::Value& property) {
  Columns columns;
  for (auto member = property.begin(); member != property.end(); ++member) {
    if (!member->isNull()) {
      columns.emplace(member.name(), json::textOf(*member));
    }
  }
  return columns;
}

Reading<std::vector<Columns>> readListReply(const Json::Value& reply, const std::string& pattern) {
  if (!reply.isObject() || !json::isEchoOf(pattern, reply[PROPERTY_PARAM])) {
    return std::nullopt;
  }
  if (isNotFoundInList(reply)) {
    return Answer<std::vector<Columns>>{Status::notFound, {}};
  }
  const Json::Value& result = reply[PROPERTY_RESULT];
  const auto status = readStatus(reply[PROPERTY_STATUS]);
  if (!status || !result.isArray()) {
    return std::nullopt;
  }
  Answer<std::vector<Columns>> answer{*status, {}};
  if (answer.ok()) {
    for (const Json::Value& property : result) {
      answer.value.push_back(property.isObject() ? readColumns(property) : Columns());
    }
  }
  return answer;
}

Reading<Nothing> readLivenessReply(const Json::Value& reply) {
  if (!reply.isObject() || reply.size() != 1 || reply[PROPERTY_PARAM] != propertyservice::kLivenessAnswer) {
    return std::nullopt;
  }
  return Answer<Nothing>{Status::ok, {}};
}

std::string joined(const std::vector<std::string>& columns) {
  std::string text;
  for (const std::string& name : columns) {
    text += (text.empty() ? "" : ",") + name;
  }
  return text;
}

}  // namespace

const char* toText(Status status) {
  const auto* entry = std::find_if(std::begin(kStatusTexts), std::end(kStatusTexts),
                                   [status](const auto& candidate) { return candidate.first == status; });
  return entry != std::end(kStatusTexts) ? entry->second : ownText(status);
}

namespace request {

Request ping(Client::Callback<Nothing> callback) {
  Json::Value question;
  question[PROPERTY_PARAM] = propertyservice::kLivenessQuestion;
  return makeRequest(question, readLivenessReply, std::move(callback));
}

Request get(const std::string& name, Field field, Client::Callback<std::string> callback) {
  Json::Value question = message(method::kGetValue);
  question[PROPERTY_PARAM] = name;
  setField(question, field);
  return makeRequest(
      question,
      [named = Named{name, field}](const Json::Value& reply) { return readValueReply(reply, named); },
      std::move(callback));
}

Request set(const std::string& name, const std::string& value, Field field,
            Client::Callback<Nothing> callback) {
  Json::Value order = message(method::kSetValue);
  order[PROPERTY_PARAM] = name;
  order[PROPERTY_VALUE] = value;
  setField(order, field);
  return makeRequest(
      order, [named = Named{name, field}](const Json::Value& reply) { return readKeyReply(reply, named); },
      std::move(callback));
}

Request list(const std::string& pattern, const std::vector<std::string>& columns, Field field,
             Client::Callback<std::vector<Columns>> callback) {
  Json::Value question = message(method::kGetColumns);
  question[PROPERTY_PARAM] = pattern;
  if (!columns.empty()) {
    question[PROPERTY_FIELDS] = joined(columns);
  }
  setField(question, field);
  return makeRequest(
      question, [pattern](const Json::Value& reply) { return readListReply(reply, pattern); },
      std::move(callback));
}

Request setList(const Values& values, Field field, Client::Callback<Nothing> callback) {
  Json::Value order = message(method::kSetList);
  Json::Value& list = order[PROPERTY_LIST] = Json::objectValue;
  for (const auto& [name, value] : values) {
    list[name] = value;
  }
  setField(order, field);
  return makeRequest(order, readStatusReply, std::move(callback));
}

Request reset(const std::string& pattern, Client::Callback<Nothing> callback) {
  Json::Value order = message(method::kReset);
  order[PROPERTY_PARAM] = pattern;
  return makeRequest(order, readStatusReply, std::move(callback));
}

Request makeBackup(bool allSettings, Client::Callback<Nothing> callback) {
  Json::Value order = message(method::kMakeBackup);
  if (allSettings) {
    order[method::kAllSettings] = true;
  }
  return makeRequest(order, readStatusReply, std::move(callback));
}

Request maintenance(const char* method, Client::Callback<Nothing> callback) {
  return makeRequest(message(method), readStatusReply, std::move(callback));
}

Request marker(const std::string& uniqueText) {
  return list(uniqueText, {column::kKey.data()}, Field::key, [](const Answer<std::vector<Columns>>&) {});
}

}  // namespace request

}  // namespace propclient
