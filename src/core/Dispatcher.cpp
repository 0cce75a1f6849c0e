#include "core/Dispatcher.h"

#include <condition_variable>
#include <exception>
#include <malloc.h>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

#include "common/JSONDefinitions.h"
#include "common/Quote.h"
#include "common/ServiceManager.h"
#include "common/Signal.h"
#include "core/Constants.h"
#include "core/JsonText.h"
#include "core/Log.h"
#include "core/Replies.h"
#include "ipc/IPCException.h"
#include "wire/Names.h"

namespace propertyservice {

using namespace common::JSONDefinitions;

namespace {

constexpr std::size_t kLargestPayloadBytes = std::size_t{1024} * 1024;

/// The allocator would keep what a larger request and its reply took. Giving it back takes up to a
/// millisecond.
constexpr std::size_t kLargeExchangeBytes = std::size_t{128} * 1024;
constexpr std::size_t kManyDeliveries = 4096;

struct Shutdown {
  std::mutex mutex;
  std::condition_variable requested;
  std::function<void()> cancel;  ///< Guarded by the mutex; ends what cannot wait for `requested`.
};

/// Never destroyed: a termination may be announced until the very end of the process.
Shutdown& shutdown() {
  static auto* const instance = new Shutdown;
  return *instance;
}

/// Has a termination call `cancel` while this object lives.
class Cancellable {
 public:
  explicit Cancellable(std::function<void()> cancel) { set(std::move(cancel)); }
  Cancellable(const Cancellable&) = delete;
  Cancellable& operator=(const Cancellable&) = delete;
  ~Cancellable() { set(nullptr); }

 private:
  static void set(std::function<void()> cancel) {
    const std::scoped_lock lock(shutdown().mutex);
    shutdown().cancel = std::move(cancel);
  }
};

/// Returns "b/c/a" for a request on "a/b/c". A request on a topic without "/" has no reply topic.
std::optional<std::string> replyTopic(const std::string& topic) {
  const std::size_t slash = topic.find('/');
  if (slash == std::string::npos) {
    return std::nullopt;
  }
  return topic.substr(slash + 1) + '/' + topic.substr(0, slash);
}

bool readRequest(const std::string& payload, Json::Value& request) {
  return payload.size() <= kLargestPayloadBytes && json::parse(payload, request) && request.isObject();
}

}  // namespace

Dispatcher::Dispatcher(std::shared_ptr<ipc::IIPCClient> client, std::shared_ptr<IDatabaseService> database,
                       std::unique_ptr<IDatabaseBackup> backup, std::unique_ptr<IMessenger> messenger)
    : client_(std::move(client)),
      database_(std::move(database)),
      backup_(std::move(backup)),
      messenger_(std::move(messenger)) {
  handlers_[method::kGetValue] = [this](const Json::Value& request) { return getValue(request); };
  handlers_[method::kSetValue] = [this](const Json::Value& request) { return setValue(request); };
  handlers_[method::kGetColumns] = [this](const Json::Value& request) { return getColumns(request); };
  handlers_[method::kSetList] = [this](const Json::Value& request) { return setList(request); };
  handlers_[method::kReset] = [this](const Json::Value& request) { return reset(request); };
  handlers_[method::kProvisioningDump] = [this](const Json::Value&) { return getProvisioningDump(); };
  handlers_[method::kMakeBackup] = [this](const Json::Value& request) {
    return reply::withStatus(backup_->makeBackup(request));
  };
  handlers_[method::kPrepareVersionChange] = [this](const Json::Value&) {
    return reply::withStatus(backup_->prepareVersionChange());
  };
  handlers_[method::kPrepareFactoryReset] = [this](const Json::Value&) {
    return reply::withStatus(backup_->prepareFactoryReset());
  };
  handlers_[method::kMakeSysdump] = [this](const Json::Value&) {
    return reply::withStatus(backup_->makeSysdump());
  };
  handlers_[method::kRestore] = [this](const Json::Value&) { return restore(); };
}

void Dispatcher::run(const std::function<void()>& onReady) {
  constexpr int kKeepSession = 0;
  constexpr int kGreatestQos = 2;
  try {
    client_->subscribe(topic::request("+"), this);
    {
      const Cancellable connecting([this] { stop(); });
      client_->connect(kKeepSession, kGreatestQos, kBusHost);
    }
    onReady();
    waitForShutdown();
    common::ServiceManager::instance().stopping();
    stop();
  } catch (const ipc::IPCException& error) {
    if (common::signal::isTerminating()) {
      logger().info() << "Ending: " << error.what();
      return;
    }
    logger().error() << error.what();
    throw std::runtime_error(error.what());
  }
}

/// The callback thread serves requests until the client has disconnected. What these change is announced
/// before they are answered, since the messenger has stopped.
void Dispatcher::stop() {
  if (database_) {
    database_->hurry();  // a request that waits for the writer would hold up the disconnect
  }
  if (messenger_) {
    messenger_->stop();
  }
  client_->disconnect();
}

void Dispatcher::connectionLost(const std::string& cause) {
  logger().error() << "Connection lost due to: " << cause;
}

void Dispatcher::messageArrived(const std::string& topic, const std::string& payload) {
  const std::size_t replySize = serve(topic, payload);
  if (payload.size() + replySize > kLargeExchangeBytes) {
    malloc_trim(0);
    replyIsLarge_ = replySize > kLargeExchangeBytes;
  }
}

std::size_t Dispatcher::serve(const std::string& topic, const std::string& payload) {
  constexpr int kQos = 1;
  // Many that come at once may take longer than the watchdog allows.
  common::ServiceManager::instance().alive();
  const auto answerTopic = replyTopic(topic);
  Json::Value request;
  // A reply on the request's own topic would come back as a request, and be answered for ever.
  if (answerTopic == topic || !readRequest(payload, request)) {
    logger().error() << "Invalid message: " << [&] { return excerpt(payload); };
    return 0;
  }
  try {
    const std::string text = answer(request);
    if (answerTopic) {
      client_->publish(*answerTopic, text, kQos);
    }
    return text.size();
  } catch (const std::exception& error) {
    const Json::Value& name = request[PROPERTY_METHOD];
    logger().error() << "No reply to "
                     << common::quote(excerpt(name.isString() ? name.asString() : json::write(name)))
                     << " of " << common::quote(excerpt(topic.substr(0, topic.find('/')))) << ": "
                     << error.what();
    throw;
  }
}

void Dispatcher::deliveryComplete(const std::string& topic) {
  logger().info() << "Delivery completed on topic " << [&] { return common::quote(excerpt(topic)); };
  // Frees what a request caused, as it is delivered.
  if (std::exchange(replyIsLarge_, false) || ++deliveries_ % kManyDeliveries == 0) {
    malloc_trim(0);
  }
}

void Dispatcher::waitForShutdown() {
  std::unique_lock lock(shutdown().mutex);
  shutdown().requested.wait(lock);  // NOLINT(bugprone-spuriously-wake-up-functions): ends the service early
}

std::string Dispatcher::answer(const Json::Value& request) {
  const Json::Value& name = request[PROPERTY_METHOD];
  if (const auto handler = handlers_.find(name); handler != handlers_.end()) {
    return handler->second(request);
  }
  if (request[PROPERTY_PARAM] == kLivenessQuestion) {
    Json::Value alive;
    alive[PROPERTY_PARAM] = kLivenessAnswer;
    return json::write(alive);
  }
  logger().error() << "Unknown request: " << [&] { return excerpt(json::write(name)); };
  return reply::withStatus(Status::InvalidRequest);
}

void terminate(int /*signal*/) {
  const std::scoped_lock lock(shutdown().mutex);
  if (shutdown().cancel) {
    try {
      shutdown().cancel();
    } catch (const ipc::IPCException& error) {
      logger().error() << error.what();
    }
  }
  shutdown().requested.notify_one();
}

}  // namespace propertyservice
