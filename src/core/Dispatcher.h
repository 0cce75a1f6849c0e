#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include <json/value.h>

#include "core/IDatabaseBackup.h"
#include "core/IMessenger.h"
#include "core/Property.h"
#include "database/IDatabaseService.h"
#include "ipc/IIPCCallback.h"
#include "ipc/IIPCClient.h"

namespace propertyservice {

/// Answers the requests that arrive on "<sender>/prop-service" on "prop-service/<sender>".
///
/// Requests are served one at a time, in the order of their arrival, on the bus client's callback thread;
/// what a handler throws is logged and left to the bus client. `run` belongs to the main thread.
class Dispatcher : public ipc::IIPCCallback {
 public:
  Dispatcher(std::shared_ptr<ipc::IIPCClient> client, std::shared_ptr<IDatabaseService> database,
             std::unique_ptr<IDatabaseBackup> backup, std::unique_ptr<IMessenger> messenger);

  /// Serves requests until a termination, which also cancels a connect that is under way; calls `onReady`
  /// when the first request would be answered. What was changed until the end is announced before it
  /// disconnects. Throws `std::runtime_error`, after logging it, when the bus fails to subscribe, connect or
  /// disconnect, unless a termination has been asked for.
  void run(const std::function<void()>& onReady = [] {});

  void connectionLost(const std::string& cause) override;

  /// A message that is no JSON object is logged and not answered; neither is one larger than 1 MiB, or one
  /// whose reply would be a request again. The memory that a large request took is given back.
  void messageArrived(const std::string& topic, const std::string& payload) override;

  void deliveryComplete(const std::string& topic) override;

  /// Blocks until `terminate` is called. One that was called before does not count.
  virtual void waitForShutdown();

 private:
  using Handler = std::function<std::string(const Json::Value& request)>;

  void stop();

  /// Returns the size of the reply.
  std::size_t serve(const std::string& topic, const std::string& payload);

  /// The reply to a request, as text. So it is with every handler.
  std::string answer(const Json::Value& request);

  // DispatcherReads.cpp
  std::string getValue(const Json::Value& request);
  std::string getColumns(const Json::Value& request);
  std::string getProvisioningDump();

  /// Returns the property of a "getV" or "setV", with its name under the column that the request chose.
  static Property requestedProperty(const Json::Value& request);

  // DispatcherWrites.cpp
  std::string setValue(const Json::Value& request);
  std::string setList(const Json::Value& request);
  std::string reset(const Json::Value& request);
  std::string restore();

  const std::shared_ptr<ipc::IIPCClient> client_;
  const std::shared_ptr<IDatabaseService> database_;
  const std::unique_ptr<IDatabaseBackup> backup_;
  const std::unique_ptr<IMessenger> messenger_;
  std::map<Json::Value, Handler> handlers_;  // by request name; constant after construction
  bool replyIsLarge_ = false;                // and is not delivered yet
  std::size_t deliveries_ = 0;
};

/// Ends a `Dispatcher::waitForShutdown` that is under way, or cancels the connect of `Dispatcher::run`. A
/// handler for `common::signal::registerCustomHandler`; it locks, so it must run in ordinary thread context.
void terminate(int signal);

}  // namespace propertyservice
