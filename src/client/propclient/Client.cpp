#include "propclient/Client.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <future>
#include <iterator>
#include <poll.h>
#include <random>
#include <set>
#include <thread>
#include <unistd.h>
#include <utility>

#include "propclient/Connection.h"
#include "propclient/Inbox.h"
#include "propclient/Request.h"
#include "propclient/Session.h"
#include "wire/Names.h"

namespace propclient {

namespace {

std::string randomText() {
  std::random_device random;
  std::string text;
  for (int i = 0; i < 12; ++i) {
    text += "0123456789abcdef"[random() % 16];
  }
  return text;
}

std::string ownName() {
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  std::string name = "client-" + std::string(host) + '-' + std::to_string(getpid()) + '-' + randomText();
  std::replace_if(
      name.begin(), name.end(), [](char byte) { return byte == '/' || byte == '+' || byte == '#'; }, '-');
  return name;
}

/// Fills what was left to the client. Throws `std::invalid_argument`.
Options complete(Options options) {
  if (options.name.empty()) {
    options.name = options.user.empty() ? ownName() : options.user;
  }
  // The broker delivers no topic that begins with "$", and the daemon does not answer itself.
  if (!isTopicLevel(options.name) || options.name.front() == '$' ||
      options.name == propertyservice::kServiceName) {
    throw std::invalid_argument("no name for a sender: \"" + options.name + '"');
  }
  if (!options.device.empty() && !isTopicLevel(options.device)) {
    throw std::invalid_argument("no serial number: \"" + options.device + '"');
  }
  return options;
}

/// As the daemon spells them. Throws `std::invalid_argument` for what is no part of a topic.
std::set<std::string> readGroups(const std::vector<std::string>& names) {
  std::set<std::string> groups;
  for (const std::string& name : names) {
    if (!isTopicLevel(name)) {
      throw std::invalid_argument("no group: \"" + name + '"');
    }
    groups.insert(propertyservice::lowerCased(name));
  }
  return groups;
}

/// A write to a connection that the broker has closed must not end the program, nor must its signal handlers
/// run here.
void blockSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

int pollTimeoutMs(const Deadline& until) {
  if (!until) {
    return -1;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*until - Clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 60'000));
}

}  // namespace

/// The client's own thread and what belongs to it. Calls of other threads reach it as work in the inbox.
class Client::Impl final : public TransportListener {
 public:
  explicit Impl(Options options);
  ~Impl() override;
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void connect();
  void ask(Request request);
  void watch(std::set<std::string> groups, std::function<void(const Change&)> callback);
  void unwatch();

  /// Throws `std::logic_error` on the own thread, which would wait for itself.
  void refuseOnOwnThread() const;

  // Called on the own thread.
  void opened() override;
  void failed(const std::string& reason) override;
  void lost() override { session_.lost(); }
  void subscribed(const std::optional<std::string>& refused) override { session_.subscribed(refused); }
  void received(const std::string& topic, const std::string& payload) override {
    session_.received(topic, payload);
  }

 private:
  /// Empty where the connection was made.
  using Outcome = std::optional<std::string>;

  bool isOnOwnThread() const { return std::this_thread::get_id() == thread_.get_id(); }
  void run();
  void answerConnect(const Outcome& failure);
  std::string broker() const { return options_.host + ':' + std::to_string(options_.port); }

  const Options options_;
  Inbox inbox_;

  // Of the own thread.
  Connection connection_;
  Session session_;
  std::vector<std::shared_ptr<std::promise<Outcome>>> connecting_;  ///< Calls of `connect` that wait.
  bool stopping_ = false;

  std::thread thread_;  ///< Last: it uses all of the above.
};

Client::Impl::Impl(Options options)
    : options_(complete(std::move(options))),
      connection_(options_, options_.name + '-' + randomText(), *this),
      session_(Topics(options_.name, options_.device), connection_, options_.timeout,
               "?" + randomText() + '-'),
      thread_([this] { run(); }) {}

Client::Impl::~Impl() {
  inbox_.put([this] { stopping_ = true; });
  thread_.join();
}

void Client::Impl::connect() {
  refuseOnOwnThread();
  const auto outcome = std::make_shared<std::promise<Outcome>>();
  inbox_.put([this, outcome] {
    if (connection_.isOpen()) {
      outcome->set_value(std::nullopt);
      return;
    }
    connecting_.push_back(outcome);
    connection_.open();
  });
  if (const Outcome failure = outcome->get_future().get()) {
    throw ConnectionError("no connection to the broker at " + broker() + ": " + *failure);
  }
}

void Client::Impl::ask(Request request) {
  inbox_.put([this, request = std::move(request), asked = Clock::now()]() mutable {
    session_.ask(std::move(request), asked);
  });
}

void Client::Impl::watch(std::set<std::string> groups, std::function<void(const Change&)> callback) {
  refuseOnOwnThread();
  const auto outcome = std::make_shared<std::promise<Outcome>>();
  inbox_.put([this, groups = std::move(groups), callback = std::move(callback), outcome]() mutable {
    session_.watch(std::move(groups), std::move(callback),
                   [outcome](const Outcome& failure) { outcome->set_value(failure); });
  });
  auto result = outcome->get_future();
  if (result.wait_for(options_.timeout) == std::future_status::timeout) {
    unwatch();
    throw ConnectionError("no watch over the broker at " + broker() +
                          ": the daemon does not answer, or with more than the broker lets pass");
  }
  if (const Outcome failure = result.get()) {
    throw ConnectionError("no watch over the broker at " + broker() + ": " + *failure);
  }
}

void Client::Impl::unwatch() {
  if (isOnOwnThread()) {
    session_.unwatch();
    return;
  }
  const auto done = std::make_shared<std::promise<void>>();
  inbox_.put([this, done] {
    session_.unwatch();
    done->set_value();
  });
  done->get_future().wait();
}

void Client::Impl::refuseOnOwnThread() const {
  if (isOnOwnThread()) {
    throw std::logic_error("propclient: a call that waits for an answer, made from a callback");
  }
}

void Client::Impl::opened() {
  answerConnect(std::nullopt);
  session_.opened();
}

void Client::Impl::failed(const std::string& reason) {
  answerConnect(reason);
}

void Client::Impl::answerConnect(const Outcome& failure) {
  for (const auto& connecting : std::exchange(connecting_, {})) {
    connecting->set_value(failure);
  }
}

void Client::Impl::run() {
  blockSignals();
  while (!stopping_) {
    pollfd descriptors[] = {{connection_.socket(), connection_.awaitedEvents(), 0},
                            {inbox_.descriptor(), POLLIN, 0}};
    const auto until = earlier(connection_.nextTurn(), session_.nextDeadline());
    poll(descriptors, std::size(descriptors), pollTimeoutMs(until));

    connection_.turn(descriptors[0].revents);
    for (const Inbox::Work& work : inbox_.take()) {
      work();
    }
    session_.keepTime(Clock::now());
  }
  connection_.close();
  session_.unwatch();
  session_.lost();
}

Client::Client(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Client::~Client() = default;

void Client::connect() {
  impl_->connect();
}

namespace {

/// The blocking form of a request, made of the one with a callback.
template <typename T, typename Ask>
Answer<T> await(Ask ask) {
  const auto promise = std::make_shared<std::promise<Answer<T>>>();
  ask([promise](const Answer<T>& answer) { promise->set_value(answer); });
  return promise->get_future().get();
}

}  // namespace

Answer<Client::Nothing> Client::ping() {
  impl_->refuseOnOwnThread();
  return await<Nothing>([&](auto callback) { ping(callback); });
}

void Client::ping(Callback<Nothing> callback) {
  impl_->ask(request::ping(std::move(callback)));
}

Answer<std::string> Client::get(const std::string& name, Field field) {
  impl_->refuseOnOwnThread();
  return await<std::string>([&](auto callback) { get(name, field, callback); });
}

void Client::get(const std::string& name, Field field, Callback<std::string> callback) {
  impl_->ask(request::get(name, field, std::move(callback)));
}

Answer<Client::Nothing> Client::set(const std::string& name, const std::string& value, Field field) {
  impl_->refuseOnOwnThread();
  return await<Nothing>([&](auto callback) { set(name, value, field, callback); });
}

void Client::set(const std::string& name, const std::string& value, Field field, Callback<Nothing> callback) {
  impl_->ask(request::set(name, value, field, std::move(callback)));
}

Answer<std::vector<Columns>> Client::list(const std::string& pattern, const std::vector<std::string>& columns,
                                          Field field) {
  impl_->refuseOnOwnThread();
  return await<std::vector<Columns>>([&](auto callback) { list(pattern, columns, field, callback); });
}

void Client::list(const std::string& pattern, const std::vector<std::string>& columns, Field field,
                  Callback<std::vector<Columns>> callback) {
  impl_->ask(request::list(pattern, columns, field, std::move(callback)));
}

Answer<Client::Nothing> Client::setList(const Values& values, Field field) {
  impl_->refuseOnOwnThread();
  return await<Nothing>([&](auto callback) { setList(values, field, callback); });
}

void Client::setList(const Values& values, Field field, Callback<Nothing> callback) {
  impl_->ask(request::setList(values, field, std::move(callback)));
}

std::map<std::string, Status> Client::setEach(const Values& values, Field field) {
  impl_->refuseOnOwnThread();
  std::map<std::string, std::future<Status>> outstanding;
  for (const auto& [name, value] : values) {
    const auto promise = std::make_shared<std::promise<Status>>();
    outstanding.emplace(name, promise->get_future());
    set(name, value, field, [promise](const Answer<Nothing>& answer) { promise->set_value(answer.status); });
  }
  std::map<std::string, Status> statuses;
  for (auto& [name, status] : outstanding) {
    statuses.emplace(name, status.get());
  }
  return statuses;
}

Answer<Client::Nothing> Client::reset(const std::string& pattern) {
  impl_->refuseOnOwnThread();
  return await<Nothing>([&](auto callback) { reset(pattern, callback); });
}

void Client::reset(const std::string& pattern, Callback<Nothing> callback) {
  impl_->ask(request::reset(pattern, std::move(callback)));
}

Answer<Values> Client::provisioningDump() {
  impl_->refuseOnOwnThread();
  return await<Values>([&](auto callback) { provisioningDump(callback); });
}

void Client::provisioningDump(Callback<Values> callback) {
  impl_->ask(request::provisioningDump(std::move(callback)));
}

Answer<Client::Nothing> Client::makeBackup(bool allSettings) {
  impl_->refuseOnOwnThread();
  return await<Nothing>([&](auto callback) { makeBackup(allSettings, callback); });
}

void Client::makeBackup(bool allSettings, Callback<Nothing> callback) {
  impl_->ask(request::makeBackup(allSettings, std::move(callback)));
}

Answer<Client::Nothing> Client::restore() {
  impl_->refuseOnOwnThread();
  return await<Nothing>([&](auto callback) { restore(callback); });
}

void Client::restore(Callback<Nothing> callback) {
  impl_->ask(request::maintenance(propertyservice::method::kRestore, std::move(callback)));
}

Answer<Client::Nothing> Client::prepareVersionChange() {
  impl_->refuseOnOwnThread();
  return await<Nothing>([&](auto callback) { prepareVersionChange(callback); });
}

void Client::prepareVersionChange(Callback<Nothing> callback) {
  impl_->ask(request::maintenance(propertyservice::method::kPrepareVersionChange, std::move(callback)));
}

Answer<Client::Nothing> Client::prepareFactoryReset() {
  impl_->refuseOnOwnThread();
  return await<Nothing>([&](auto callback) { prepareFactoryReset(callback); });
}

void Client::prepareFactoryReset(Callback<Nothing> callback) {
  impl_->ask(request::maintenance(propertyservice::method::kPrepareFactoryReset, std::move(callback)));
}

Answer<Client::Nothing> Client::makeSysdump() {
  impl_->refuseOnOwnThread();
  return await<Nothing>([&](auto callback) { makeSysdump(callback); });
}

void Client::makeSysdump(Callback<Nothing> callback) {
  impl_->ask(request::maintenance(propertyservice::method::kMakeSysdump, std::move(callback)));
}

void Client::watch(const std::vector<std::string>& groups, std::function<void(const Change&)> callback) {
  impl_->watch(readGroups(groups), std::move(callback));
}

void Client::unwatch() {
  impl_->unwatch();
}

}  // namespace propclient
