#include <algorithm>
#include <benchmark/benchmark.h>
#include <string>
#include <vector>

#include <json/reader.h>
#include <json/writer.h>

#include "core/Dispatcher.h"
#include "core/Messenger.h"
#include "support/SampleDevice.h"

// Uses the same reader as the daemon, for the same reason (core/JsonText.cpp).
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace propertyservice {

namespace {

constexpr int kFew = 200;
constexpr int kMiddle = 4096;
constexpr int kMany = 65'536;

/// So many writes are made in a row: what waits for the disk stays small.
constexpr int kWrites = 20'000;

class IgnoringBus final : public ipc::IIPCClient {
 public:
  void connect(int, int, const std::string&) override {}
  void disconnect() override {}
  void publish(const std::string&, const std::string& payload, int) override {
    benchmark::DoNotOptimize(payload.data());
  }
  void subscribe(const std::string&, ipc::IIPCCallback*) override {}
};

/// From request text to reply text: all of the daemon but the bus.
class Service {
 public:
  explicit Service(std::size_t count) : device_(bench::sampleDevice(count)) {}
  ~Service() { device_.waitForWriter(); }

  void request(const std::string& payload) { dispatcher_.messageArrived("panel/prop-service", payload); }

 private:
  bench::SampleDevice& device_;
  const std::shared_ptr<IgnoringBus> bus_ = std::make_shared<IgnoringBus>();
  Dispatcher dispatcher_{bus_, device_.sharedDatabase(), nullptr, std::make_unique<Messenger>(bus_)};
};

std::string getRequest(std::size_t index) {
  return R"({"method":"getV","param":")" + bench::sampleKey(index) + "\"}";
}

std::string setRequest(std::size_t index, std::size_t value) {
  return R"({"method":"setV","param":")" + bench::sampleKey(index) + R"(","value":")" +
         std::to_string(value) + "\"}";
}

void requestInTurn(benchmark::State& state, const std::vector<std::string>& requests) {
  Service service(static_cast<std::size_t>(state.range(0)));
  std::size_t turn = 0;
  for (auto iteration : state) {
    service.request(requests[turn++ % requests.size()]);
  }
}

std::size_t generated(const benchmark::State& state) {
  return bench::generatedSettings(static_cast<std::size_t>(state.range(0)));
}

void getV(benchmark::State& state) {
  std::vector<std::string> requests;
  for (std::size_t index = 0; index < generated(state); ++index) {
    requests.push_back(getRequest(index));
  }
  requestInTurn(state, requests);
}
BENCHMARK(getV)->Arg(kFew)->Arg(kMiddle)->Arg(kMany);

/// A changed value each time: under the four kinds of rule in turn.
void setV(benchmark::State& state) {
  std::vector<std::string> requests;
  for (std::size_t round = 0; round < 10; ++round) {
    for (std::size_t index = 0; index < std::min<std::size_t>(generated(state), 400); ++index) {
      requests.push_back(setRequest(index, round));
    }
  }
  requestInTurn(state, requests);
}
BENCHMARK(setV)->Arg(kFew)->Arg(kMiddle)->Arg(kMany)->Iterations(kWrites);

void setVUnchanged(benchmark::State& state) {
  requestInTurn(state, {setRequest(1, 7)});
}
BENCHMARK(setVUnchanged)->Arg(kMiddle);

void getColsLTen(benchmark::State& state) {
  requestInTurn(state, {R"({"method":"getColsL","param":"Account.0001.%","fields":"key,value"})"});
}
BENCHMARK(getColsLTen)->Arg(kFew)->Arg(kMiddle)->Arg(kMany)->Unit(benchmark::kMicrosecond);

void getColsLAll(benchmark::State& state) {
  requestInTurn(state, {R"({"method":"getColsL","param":"%","fields":"key,value"})"});
}
BENCHMARK(getColsLAll)->Arg(kFew)->Arg(kMiddle)->Arg(kMany)->Unit(benchmark::kMicrosecond);

void getProvDump(benchmark::State& state) {
  requestInTurn(state, {R"({"method":"getProvDump"})"});
}
BENCHMARK(getProvDump)->Arg(kMiddle)->Unit(benchmark::kMicrosecond);

void parse(benchmark::State& state, const std::string& text) {
  for (auto iteration : state) {
    Json::Value request;
    Json::Reader().parse(text, request, false);
    benchmark::DoNotOptimize(request);
  }
}

void parseGetV(benchmark::State& state) {
  parse(state, getRequest(1));
}
BENCHMARK(parseGetV);

void parseSetV(benchmark::State& state) {
  parse(state, setRequest(1, 7));
}
BENCHMARK(parseSetV);

/// The yardstick of `getV`: its request and its reply with JsonCpp alone.
void jsonOfGetV(benchmark::State& state) {
  const std::string text = getRequest(1);
  for (auto iteration : state) {
    Json::Value request;
    Json::Reader().parse(text, request, false);
    Json::Value reply;
    reply["param"] = request["param"];
    reply["result"] = "5";
    reply["status"] = "Ok";
    benchmark::DoNotOptimize(Json::FastWriter().write(reply));
  }
}
BENCHMARK(jsonOfGetV);

/// The yardstick of `setV`: its request and its reply with JsonCpp alone.
void jsonOfSetV(benchmark::State& state) {
  const std::string text = setRequest(1, 7);
  for (auto iteration : state) {
    Json::Value request;
    Json::Reader().parse(text, request, false);
    Json::Value reply;
    reply["param"] = request["param"];
    reply["status"] = "Ok";
    benchmark::DoNotOptimize(Json::FastWriter().write(reply));
  }
}
BENCHMARK(jsonOfSetV);

/// The same and both notifications.
void jsonOfSetVAndNotifications(benchmark::State& state) {
  const std::string text = setRequest(1, 7);
  for (auto iteration : state) {
    Json::Value request;
    Json::Reader().parse(text, request, false);
    Json::Value reply;
    reply["param"] = request["param"];
    reply["status"] = "Ok";
    benchmark::DoNotOptimize(Json::FastWriter().write(reply));
    Json::Value toGroup;
    toGroup["param"] = request["param"];
    toGroup["value"] = request["value"];
    benchmark::DoNotOptimize(Json::FastWriter().write(toGroup));
    Json::Value toAll;
    toAll[request["param"].asString()] = request["value"];
    benchmark::DoNotOptimize(Json::FastWriter().write(toAll));
  }
}
BENCHMARK(jsonOfSetVAndNotifications);

}  // namespace

}  // namespace propertyservice
