#include "soak/Load.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "core/JsonText.h"

namespace propertyservice::soak {

using test::makeRequest;
using test::Row;

namespace {

constexpr int kRowsOfEachKind = 8;
constexpr int kVolatileKeys = 6;
constexpr std::chrono::seconds kPatience(30);

/// Properties under each kind of rule, half of them with aliases, with flags that have them in different
/// backups.
std::vector<Row> makeRows(const std::string& group) {
  std::vector<Row> rows;
  const auto add = [&](const char* kind, int i, const char* value, int flags) -> Row& {
    const std::string key = group + '.' + kind + std::to_string(i);
    Row& row = rows.emplace_back(Row{.key = key, .value = value, .defaultValue = value, .flags = flags});
    if (i % 2 == 0) {
      row.webui = "web-" + key;
      row.provisioning = "prov-" + key;
    }
    return row;
  };
  for (int i = 0; i < kRowsOfEachKind; ++i) {
    add("Text", i, "text", 2 | 8);
    Row& number = add("Number", i, "50", 8 | 16);
    number.rangeMin = 0;
    number.rangeMax = 100;
    add("Choice", i, "red", 4 | 16).allowed = "red,green,blue";
    add("Name", i, "desk", 4 | 8).regexp = "^[a-z0-9]{1,12}$";
  }
  add("Fixed", 0, "fixed", 1 | 8);
  return rows;
}

std::string withoutBlanks(std::string text) {
  std::erase(text, ' ');
  return text;
}

}  // namespace

Load::Load(int number, unsigned seed, const Disturbances& disturbances)
    : group_("Soak" + std::to_string(number)),
      disturbances_(disturbances),
      known_(disturbances.now()),
      generator_(seed),
      rows_(makeRows(group_)) {
  for (const Row& row : rows_) {
    model_.add(row.key, row.value);
  }
  for (int i = 0; i < kVolatileKeys; ++i) {
    volatileKeys_.push_back("State." + group_ + '.' + std::to_string(i));
    model_.add(volatileKeys_.back(), std::nullopt);
  }
}

void Load::sendRandomRequest() {
  using Action = void (Load::*)();
  struct Share {
    int percent;
    Action action;
  };
  constexpr std::array kMix = {
      Share{30, &Load::setValue},
      Share{5, &Load::setInvalidValue},
      Share{25, &Load::getValue},
      Share{5, &Load::getColumns},
      Share{2, &Load::getProvisioningDump},
      Share{12, &Load::setList},
      Share{4, &Load::resetOne},
      Share{1, &Load::resetAll},
      Share{12, &Load::useVolatile},
      Share{4, &Load::setVolatileList},
  };
  int draw = random(1, 100);
  for (const Share& share : kMix) {
    draw -= share.percent;
    if (draw <= 0) {
      (this->*share.action)();
      return;
    }
  }
}

void Load::verify() {
  Json::Value request = makeRequest("getColsL", group_ + ".%");
  request["fields"] = "key,value";
  const auto reply = ask(request);
  if (!reply) {
    throw std::logic_error("verified during a disturbance");
  }
  if ((*reply)["result"].size() != rows_.size()) {
    throw std::runtime_error("properties are missing: " + json::write(*reply));
  }
  for (const Json::Value& property : (*reply)["result"]) {
    model_.saw(property["key"].asString(), property["value"].asString());
  }
  for (const std::string& key : volatileKeys_) {
    readVolatile(key);
  }
}

void Load::getValue() {
  const Row& row = randomRow();
  Json::Value request = makeRequest("getV", row.key);
  if (row.webui && random(0, 1) == 0) {
    request["param"] = *row.webui;
    request["field"] = "webui";
  }
  if (const auto reply = ask(request)) {
    expectStatus(request, *reply, "Ok");
    model_.saw(row.key, (*reply)["result"].asString());
  }
}

void Load::getColumns() {
  Json::Value request = makeRequest("getColsL", group_ + ".T%");
  request["fields"] = "key, value";
  if (const auto reply = ask(request)) {
    expectStatus(request, *reply, "Ok");
    for (const Json::Value& property : (*reply)["result"]) {
      model_.saw(property["key"].asString(), property["value"].asString());
    }
  }
}

void Load::getProvisioningDump() {
  Json::Value request;
  request["method"] = "getProvDump";
  if (const auto reply = ask(request)) {
    for (const Row& row : rows_) {
      if (row.provisioning) {
        model_.saw(row.key, (*reply)[*row.provisioning].asString());
      }
    }
  }
}

void Load::setValue() {
  const Row& row = randomRow();
  if ((row.flags & 1) != 0) {
    return;
  }
  const std::string value = randomValue(row);
  Json::Value request = makeRequest("setV", row.key, value);
  if (row.provisioning && random(0, 1) == 0) {
    request["param"] = *row.provisioning;
    request["field"] = "provisioning";
  }
  const auto reply = ask(request);
  if (reply) {
    expectStatus(request, *reply, "Ok");
  }
  conclude(reply, row.key, value);
}

void Load::setInvalidValue() {
  const Row& row = randomRow();
  const Attempt attempt = randomInvalidValue(row);
  const Json::Value request = makeRequest("setV", row.key, attempt.value);
  if (const auto reply = ask(request)) {
    expectStatus(request, *reply, attempt.status);
  }
}

void Load::setList() {
  Json::Value request;
  request["method"] = "setVList";
  std::map<std::string, std::string> written;
  for (int i = random(1, 20); i > 0; --i) {
    const Row& row = randomRow();
    if ((row.flags & 1) == 0) {
      const std::string value = randomValue(row);
      request["list"][row.key] = value;
      written[row.key] = withoutBlanks(value);
    }
  }
  if (written.empty()) {
    return;
  }
  // Among values that are accepted one that is not changes nothing.
  request["list"]["No.Such"] = "x";
  const auto reply = ask(request);
  if (reply) {
    expectStatus(request, *reply, "Ok");
  }
  for (const auto& [key, value] : written) {
    conclude(reply, key, value);
  }
}

void Load::resetOne() {
  const Row& row = randomRow();
  const Json::Value request = makeRequest("resetVal", row.key);
  const auto reply = ask(request);
  if (reply) {
    expectStatus(request, *reply, "Ok");
  }
  conclude(reply, row.key, row.defaultValue);
}

void Load::resetAll() {
  const Json::Value request = makeRequest("resetVal", group_ + ".%");
  const auto reply = ask(request);
  if (reply) {
    expectStatus(request, *reply, "Ok");
  }
  for (const Row& row : rows_) {
    conclude(reply, row.key, row.defaultValue);
  }
}

void Load::useVolatile() {
  const std::string& key = volatileKeys_[static_cast<std::size_t>(random(0, kVolatileKeys - 1))];
  switch (random(0, 4)) {
    case 0: {
      const Json::Value request = makeRequest("resetVal", key);
      conclude(ask(request), key, std::nullopt);
      break;
    }
    case 1:
      readVolatile(key);
      break;
    default: {
      const std::string value = randomText(static_cast<std::size_t>(random(0, 2000)));
      const Json::Value request = makeRequest("setV", key, value);
      const auto reply = ask(request);
      if (reply) {
        expectStatus(request, *reply, "Ok");
      }
      conclude(reply, key, value);
    }
  }
}

void Load::readVolatile(const std::string& key) {
  if (const auto reply = ask(makeRequest("getV", key))) {
    model_.saw(key, (*reply)["status"] == "NotFound" ? Value() : (*reply)["result"].asString());
  }
}

void Load::setVolatileList() {
  Json::Value request;
  request["method"] = "setVList";
  for (const std::string& key : volatileKeys_) {
    request["list"][key] = randomText(20);
  }
  const auto reply = ask(request);
  if (reply) {
    expectStatus(request, *reply, "Ok");
  }
  for (const std::string& key : volatileKeys_) {
    conclude(reply, key, withoutBlanks(request["list"][key].asString()));
  }
}

std::optional<Json::Value> Load::ask(const Json::Value& request) {
  const Disturbances::Moment before = catchUp();
  Count& count = counts_[request["method"].asString()];
  std::optional<std::string> text;
  try {
    send(request);
    text = waitForReply(before);
  } catch (const std::runtime_error&) {
    if (disturbances_.calmSince(before)) {
      throw;
    }
    test::eventually([this] { return disturbances_.now().calm(); });
  }
  if (!disturbances_.calmSince(before)) {
    ++count.lost;
    return std::nullopt;
  }
  Json::Value reply;
  if (!text || !json::parse(*text, reply)) {
    throw std::runtime_error("no answer to " + json::write(request));
  }
  ++count.answered;
  return reply;
}

Disturbances::Moment Load::catchUp() {
  const Disturbances::Moment now = disturbances_.now();
  if (now.deaths != known_.deaths) {
    model_.died();
  }
  if (!(now == known_)) {
    bus_.reset();
  }
  return known_ = now;
}

/// After a disturbance under a new name: what may still come for the old one answers nothing any more.
void Load::send(const Json::Value& request) {
  if (!bus_) {
    bus_ = std::make_unique<test::BusClient>(group_ + '-' + std::to_string(++busNumber_));
  }
  bus_->forget();
  bus_->sendRequest(request);
}

/// Gives up when a disturbance is over: its requests have got lost, or will be served before any later one.
std::optional<std::string> Load::waitForReply(const Disturbances::Moment& before) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!bus_->waitForMessages(bus_->replyTopic(), 1, std::chrono::milliseconds(50))) {
    const bool disturbed = !disturbances_.calmSince(before);
    if ((disturbed && disturbances_.now().calm()) || std::chrono::steady_clock::now() > deadline) {
      return std::nullopt;
    }
  }
  return bus_->received(bus_->replyTopic()).front();
}

void Load::expectStatus(const Json::Value& request, const Json::Value& reply,
                        const std::string& status) const {
  if (reply["status"] != status) {
    throw std::runtime_error(json::write(request) + " was not answered with " + status + " but " +
                             json::write(reply));
  }
}

void Load::conclude(const std::optional<Json::Value>& reply, const std::string& key, const Value& value) {
  reply ? model_.wrote(key, value) : model_.mayHaveWritten(key, value);
}

const Row& Load::randomRow() {
  return rows_[static_cast<std::size_t>(random(0, static_cast<int>(rows_.size()) - 1))];
}

std::string Load::randomValue(const Row& row) {
  if (row.rangeMin) {
    return std::to_string(random(*row.rangeMin, *row.rangeMax));
  }
  if (row.allowed) {
    return std::array{"red", "green", "blue"}[static_cast<std::size_t>(random(0, 2))];
  }
  if (row.regexp) {
    return "n" + std::to_string(random(0, 1'000'000));
  }
  return randomText(static_cast<std::size_t>(random(0, 256)));
}

Load::Attempt Load::randomInvalidValue(const Row& row) {
  if ((row.flags & 1) != 0) {
    return {"other", "ReadOnly"};
  }
  if (row.rangeMin) {
    return {random(0, 1) == 0 ? "101" : "many", "ValueOutOfBounds"};
  }
  if (row.allowed) {
    return {"mauve", "ValueError"};
  }
  if (row.regexp) {
    return {"No!", "RegExpError"};
  }
  return {std::string(257, 'x'), "ValueError"};
}

/// Of `length` characters, none of which a backup file could not carry.
std::string Load::randomText(std::size_t length) {
  constexpr std::array kCharacters = {"a", "B", "7", " ", "'", "\"", "\\", "%", "|", ",", "$", "ä", "€", "😀"};
  std::string text;
  for (std::size_t i = 0; i < length; ++i) {
    text += kCharacters[static_cast<std::size_t>(random(0, kCharacters.size() - 1))];
  }
  return text;
}

int Load::random(int least, int greatest) {
  return std::uniform_int_distribution(least, greatest)(generator_);
}

}  // namespace propertyservice::soak
