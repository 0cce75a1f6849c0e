#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include <json/value.h>

#include "core/IDatabaseBackup.h"
#include "core/IMessenger.h"
#include "core/Property.h"
#include "core/Status.h"
#include "database/IDatabaseService.h"
#include "ipc/IIPCCallback.h"
#include "ipc/IIPCClient.h"

namespace propertyservice {

/// Answers the requests that arrive on "<sender>/prop-service" on "prop-service/<sender>".
///
/// Requests are served one at a time, in the order of their arrival, on the bus client's callback thread;
/// what a handler throws is left to the bus client. `run` belongs to the main thread.
class Dispatcher : public ipc::IIPCCallback {
 public:
  Dispatcher(std::shared_ptr<ipc::IIPCClient> client, std::shared_ptr<IDatabaseService> database,
             std::unique_ptr<IDatabaseBackup> backup, std::unique_ptr<IMessenger> messenger);

  /// Serves requests until a termination. Throws `std::runtime_error` when the bus fails to connect or
  /// disconnect.
  void run();

  void connectionLost(const std::string& cause) override;
  void messageArrived(const std::string& topic, const std::string& payload) override;
  void deliveryComplete(const std::string& topic) override;

  /// Blocks until `terminate` is called.
  virtual void waitForShutdown();

 private:
  using Handler = std::function<std::string(const Json::Value& request)>;

  // DispatcherReads.cpp
  std::string getValue(const Json::Value& request);
  std::string getColumns(const Json::Value& request);
  std::string getProvisioningDump();

  // DispatcherWrites.cpp
  std::string setValue(const Json::Value& request);
  std::string setList(const Json::Value& request);
  std::string reset(const Json::Value& request);
  std::string restore();

  std::string reply(const Json::Value& request);

  const std::shared_ptr<ipc::IIPCClient> client_;
  const std::shared_ptr<IDatabaseService> database_;
  const std::unique_ptr<IDatabaseBackup> backup_;
  const std::unique_ptr<IMessenger> messenger_;
  std::map<Json::Value, Handler> handlers_;  // constant after construction
};

/// Ends every `Dispatcher::waitForShutdown` that is under way. A handler for
/// `common::signal::registerCustomHandler`.
void terminate(int signal);

}  // namespace propertyservice
