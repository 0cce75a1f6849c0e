#include "propclient/Client.h"

#include <algorithm>
#include <future>
#include <iterator>
#include <mutex>
#include <random>
#include <set>
#include <unistd.h>
#include <utility>

#include "mqtt/Connection.h"
#include "mqtt/Text.h"
#include "propclient/Listing.h"
#include "propclient/Request.h"
#include "propclient/Session.h"
#include "propclient/Settings.h"
#include "wire/Columns.h"
#include "wire/Names.h"

namespace propclient {

namespace {

using namespace std::chrono_literals;

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
  if (!mqtt::isTopicLevel(options.name) || options.name.front() == '$' ||
      options.name == propertyservice::kServiceName) {
    throw std::invalid_argument("no name for a sender: \"" + options.name + '"');
  }
  if (!options.device.empty() && !mqtt::isTopicLevel(options.device)) {
    throw std::invalid_argument("no serial number: \"" + options.device + '"');
  }
  return options;
}

/// Groups as the daemon spells them. Throws `std::invalid_argument` for a group that cannot be part of a
/// topic.
std::set<std::string> readNames(const std::vector<std::string>& names) {
  std::set<std::string> watched;
  for (const std::string& name : names) {
    const auto groupOfKey = propertyservice::groupOf(name);
    const std::string group = groupOfKey.value_or(propertyservice::lowerCased(name));
    if (name != "%" && !mqtt::isTopicLevel(group)) {
      throw std::invalid_argument("no group: \"" + name + '"');
    }
    watched.insert(groupOfKey ? name : group);
  }
  return watched;
}

}  // namespace

/// The session and the connection that it speaks over, whose thread is the client's own. Calls of other
/// threads reach it as posted work.
class Client::Impl final : private mqtt::Listener, private Transport {
 public:
  explicit Impl(Options options);
  ~Impl() override;
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void connect();
  void ask(Request request);
  void list(Listing::Question question, Callback<std::vector<Columns>> callback, Progress progress);
  void watch(std::set<std::string> names, std::function<void(const Change&)> callback);
  void unwatch();

  /// Throws `std::logic_error` on the own thread, which would wait for itself.
  void refuseOnOwnThread() const;

  std::optional<bool> present();
  void onPresence(std::function<void(std::optional<bool>)> callback);
  void onConnection(std::function<void(bool)> callback);

 private:
  /// Empty where all went well.
  using Outcome = std::optional<std::string>;

  // Of the own thread, as of `mqtt::Listener`.
  void opened() override;
  void failed(const std::string& /*reason*/) override {}
  void lost(const std::string& /*reason*/) override;
  void subscribed(const std::vector<std::string>& refused) override { session_.subscribed(refused); }
  void received(const mqtt::Message& message) override { session_.received(message.topic, message.payload); }
  Deadline turned() override;

  // Of the own thread, as of `Transport`.
  void publish(const std::string& topic, const std::string& payload) override;
  void subscribe(const std::vector<std::string>& topics, Need need) override;
  void unsubscribe(const std::vector<std::string>& topics) override;

  void presenceChanged(std::optional<bool> present);

  /// Has the own thread do it, and waits until it has.
  void doThere(std::function<void()> work);

  std::string broker() const { return options_.host + ':' + std::to_string(options_.port); }

  const Options options_;
  mqtt::Connection connection_;

  // Of the own thread.
  Session session_;
  bool ended_ = false;
  std::function<void(std::optional<bool>)> tellPresence_ = [](std::optional<bool>) {};
  std::function<void(bool)> tellConnection_ = [](bool) {};
  bool connected_ = false;

  std::mutex mutex_;
  std::optional<bool> present_;  ///< Guarded by mutex_.
};

Client::Impl::Impl(Options options)
    : options_(complete(std::move(options))),
      connection_(settingsOf(options_, options_.name + '-' + randomText()), *this),
      session_(Topics(options_.name, options_.device), *this, options_.timeout, "?" + randomText() + '-',
               [this](std::optional<bool> present) { presenceChanged(present); }) {}

Client::Impl::~Impl() {
  doThere([this] {
    ended_ = true;
    session_.unwatch();
    session_.lost();
  });
  connection_.close(0s);
}

void Client::Impl::connect() {
  refuseOnOwnThread();
  try {
    connection_.connect();
    doThere([] {});  // what came with the connection, as the presence, is known then
  } catch (const mqtt::Error& error) {
    throw ConnectionError("no connection to the broker at " + broker() + ": " + error.what());
  }
}

void Client::Impl::ask(Request request) {
  connection_.post([this, request = std::move(request), asked = Clock::now()]() mutable {
    if (!ended_) {
      session_.ask(std::move(request), asked);
    }
  });
}

void Client::Impl::list(Listing::Question question, Callback<std::vector<Columns>> callback,
                        Progress progress) {
  connection_.post([this, question = std::move(question), callback = std::move(callback),
                    progress = std::move(progress)]() mutable {
    if (ended_) {
      return;
    }
    const auto answer = std::make_shared<Answer<std::vector<Columns>>>();
    Listing::start(
        std::move(question), [this](Request request) { session_.ask(std::move(request), Clock::now()); },
        [answer, progress](std::vector<Columns> rows, std::size_t all) {
          std::move(rows.begin(), rows.end(), std::back_inserter(answer->value));
          if (progress) {
            progress(answer->value.size(), all);
          }
          return true;
        },
        [answer, callback](Status status) {
          answer->status = status;
          callback(answer->ok() ? *answer : Answer<std::vector<Columns>>{status, {}});
        });
  });
}

void Client::Impl::watch(std::set<std::string> names, std::function<void(const Change&)> callback) {
  refuseOnOwnThread();
  const auto outcome = std::make_shared<std::promise<Outcome>>();
  connection_.post([this, names = std::move(names), callback = std::move(callback), outcome]() mutable {
    session_.watch(std::move(names), std::move(callback),
                   [outcome](const Outcome& failure) { outcome->set_value(failure); });
  });
  if (const Outcome failure = outcome->get_future().get()) {
    throw ConnectionError("no watch over the broker at " + broker() + ": " + *failure);
  }
}

void Client::Impl::unwatch() {
  if (connection_.isOwnThread()) {
    session_.unwatch();
  } else {
    doThere([this] { session_.unwatch(); });
  }
}

void Client::Impl::refuseOnOwnThread() const {
  if (connection_.isOwnThread()) {
    throw std::logic_error("propclient: a call that waits for an answer, made from a callback");
  }
}

void Client::Impl::opened() {
  session_.opened();
  connected_ = true;
  tellConnection_(connected_);
}

void Client::Impl::lost(const std::string& /*reason*/) {
  session_.lost();
  connected_ = false;
  tellConnection_(connected_);
}

Deadline Client::Impl::turned() {
  session_.keepTime(Clock::now());
  return session_.nextDeadline();
}

void Client::Impl::publish(const std::string& topic, const std::string& payload) {
  connection_.publish(topic, payload, kQosOfRequests);
}

void Client::Impl::subscribe(const std::vector<std::string>& topics, Need need) {
  for (const std::string& topic : topics) {
    connection_.subscribe(topic, need == Need::optional);
  }
}

void Client::Impl::unsubscribe(const std::vector<std::string>& topics) {
  for (const std::string& topic : topics) {
    connection_.unsubscribe(topic);
  }
}

void Client::Impl::presenceChanged(std::optional<bool> present) {
  {
    const std::lock_guard lock(mutex_);
    present_ = present;
  }
  tellPresence_(present);
}

std::optional<bool> Client::Impl::present() {
  const std::lock_guard lock(mutex_);
  return present_;
}

void Client::Impl::onPresence(std::function<void(std::optional<bool>)> callback) {
  connection_.post([this, callback = std::move(callback)]() mutable {
    tellPresence_ = std::move(callback);
    tellPresence_(present());
  });
}

void Client::Impl::onConnection(std::function<void(bool)> callback) {
  connection_.post([this, callback = std::move(callback)]() mutable {
    tellConnection_ = std::move(callback);
    tellConnection_(connected_);
  });
}

void Client::Impl::doThere(std::function<void()> work) {
  const auto done = std::make_shared<std::promise<void>>();
  connection_.post([work = std::move(work), done] {
    work();
    done->set_value();
  });
  done->get_future().wait();
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

std::optional<bool> Client::present() const {
  return impl_->present();
}

void Client::onPresence(std::function<void(std::optional<bool>)> callback) {
  impl_->onPresence(std::move(callback));
}

void Client::onConnection(std::function<void(bool)> callback) {
  impl_->onConnection(std::move(callback));
}

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
                                          Field field, const Progress& progress) {
  impl_->refuseOnOwnThread();
  return await<std::vector<Columns>>(
      [&](auto callback) { list(pattern, columns, field, callback, progress); });
}

void Client::list(const std::string& pattern, const std::vector<std::string>& columns, Field field,
                  Callback<std::vector<Columns>> callback, const Progress& progress) {
  impl_->list({.pattern = pattern, .columns = columns, .field = field}, std::move(callback), progress);
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
  const std::string name(propertyservice::column::kProvisioning);
  const std::string value(propertyservice::column::kValue);
  list("%", {name, value}, Field::provisioning,
       [=, callback = std::move(callback)](const Answer<std::vector<Columns>>& listed) {
         Answer<Values> answer{listed.status == Status::notFound ? Status::ok : listed.status, {}};
         for (const Columns& property : listed.value) {
           const auto found = property.find(value);
           answer.value.emplace(property.at(name), found == property.end() ? std::string() : found->second);
         }
         callback(answer);
       });
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

void Client::watch(const std::vector<std::string>& names, std::function<void(const Change&)> callback) {
  impl_->watch(readNames(names), std::move(callback));
}

void Client::unwatch() {
  impl_->unwatch();
}

}  // namespace propclient
