#pragma once

#include <functional>
#include <string>
#include <vector>

#include <json/value.h>

#include "propclient/Client.h"

namespace propclient {

/// The call of a callback with its answer.
using Delivery = std::function<void()>;

/// A request to the daemon, with what to do with its answer.
struct Request {
  std::string text;
  std::function<Delivery(const Json::Value& reply)> read;  ///< Empty for a reply to another request.
  Delivery giveUp;                                         ///< With `noAnswer`.
  Delivery refuse;                                         ///< With `away`.
};

/// One for each of the daemon's requests, but for the provisioning dump, which may be longer than a reply can
/// be.
namespace request {

using Nothing = Client::Nothing;

Request ping(Client::Callback<Nothing> callback);
Request get(const std::string& name, Field field, Client::Callback<std::string> callback);
Request set(const std::string& name, const std::string& value, Field field,
            Client::Callback<Nothing> callback);
Request list(const std::string& pattern, const std::vector<std::string>& columns, Field field,
             Client::Callback<std::vector<Columns>> callback);
Request setList(const Values& values, Field field, Client::Callback<Nothing> callback);
Request reset(const std::string& pattern, Client::Callback<Nothing> callback);
Request makeBackup(bool allSettings, Client::Callback<Nothing> callback);

/// A request without parameters that is answered with a status alone.
Request maintenance(const char* method, Client::Callback<Nothing> callback);

/// Asks for a property that nobody has, and is answered with its name: no other reply can be taken for this
/// one. The daemon looks one key up for it and logs nothing.
Request marker(const std::string& uniqueText);

}  // namespace request

}  // namespace propclient
