#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <utility>

#include "cmdlineparser/CmdLineParser.h"
#include "common/ServiceManager.h"
#include "common/Signal.h"
#include "core/Constants.h"
#include "core/Dispatcher.h"
#include "core/Init.h"
#include "core/Log.h"
#include "core/Messenger.h"
#include "core/StoreLock.h"
#include "dbg/Debug.h"
#include "ipc/IPCFactory.h"

namespace {

using namespace propertyservice;

constexpr unsigned kStartLogMask = 14;

}  // namespace

int main(int argc, char* argv[]) {
  common::signal::exitUntilRegistered();  // the files survive a start-up that is cut off anywhere
  const auto start = std::chrono::steady_clock::now();
  dbg::DebugStreamBuf::setMask(kStartLogMask);
  // Passwords are in the database and in backups: what is made from here on is for the owner alone.
  umask(S_IRWXG | S_IRWXO);

  cmdlineparser::CmdLineParser parser;
  parser.defineCmdLineOption("force-db-init", "Force database initialization", 0);
  parser.defineCmdLineOption("drop-state", "Drop state content at startup", 0);
  parser.defineCmdLineOption("help", "Show the options", 0);
  parser.defineCmdLineOption("version", "Show the version", 0);
  if (const int error = parser.parse(argc, argv); error != 0) {
    logger().error() << parser.getErrorString(error);
    return EXIT_FAILURE;
  }
  if (parser.checkOptionPassed("help")) {
    std::cout << "Usage: PropertyService [OPTION]...\n\n" << parser.getHelp();
    return EXIT_SUCCESS;
  }
  if (parser.checkOptionPassed("version")) {
    std::cout << "PropertyService " PROPERTYSERVICE_VERSION "\n";
    return EXIT_SUCCESS;
  }
  const bool forceDbInit = parser.checkOptionPassed("force-db-init");
  const bool dropState = parser.checkOptionPassed("drop-state");

  auto& manager = common::ServiceManager::instance();
  std::optional<StoreLock> lock;
  InitContext init;  // shares the database, which must be closed while the lock is held
  std::shared_ptr<IDatabaseService> database;
  std::unique_ptr<IDatabaseBackup> backup;
  try {
    lock.emplace(DevicePaths());
    std::tie(database, backup) = init.initializeDatabases(forceDbInit, dropState);
  } catch (const std::exception& exception) {
    logger().error() << exception.what() << "\nCRITICAL. Database was not initialized. Exitting.";
    return EXIT_FAILURE;
  }

  manager.setStatus("Connecting to the broker");
  const auto client =
      ipc::IPCFactory::createInstanceShared(kServiceName, kBusHost, false, [&] { return manager.alive(); });
  Dispatcher dispatcher(client, std::move(database), std::move(backup), std::make_unique<Messenger>(client));

  common::signal::registerHandler();
  common::signal::registerCustomHandler(SIGTERM, terminate);

  dispatcher.run([&] {
    const auto duration =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    manager.setStatus("Serving " + std::to_string(init.propertyCount()) + " properties");
    manager.ready();
    logger().info() << "Ready: version " PROPERTYSERVICE_VERSION ", " << init.propertyCount()
                    << " properties, " << duration.count() << " ms";
  });
  return EXIT_SUCCESS;
}
