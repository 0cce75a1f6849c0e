#include <benchmark/benchmark.h>
#include <string>
#include <vector>

#include "core/Constants.h"
#include "support/SampleDevice.h"

namespace propertyservice {

namespace {

using bench::Rule;

constexpr int kMiddle = 4096;

/// So many writes are made in a row: what waits for the disk stays small.
constexpr int kWrites = 20'000;

std::size_t countOf(const benchmark::State& state) {
  return static_cast<std::size_t>(state.range(0));
}

/// Reads all generated settings in turn, each by the name that `name` gives it in `column`.
void readInTurn(benchmark::State& state, std::string_view column, std::string (*name)(std::size_t)) {
  IDatabaseService& database = bench::sampleDevice(countOf(state)).database();
  std::vector<Property> wanted;
  for (std::size_t index = 0; index < bench::generatedSettings(countOf(state)); ++index) {
    wanted.push_back(Property({{column, name(index)}}));
  }
  std::size_t turn = 0;
  for (auto iteration : state) {
    Property property = wanted[turn++ % wanted.size()];
    database.get(property);
    benchmark::DoNotOptimize(property);
  }
}

void readByKey(benchmark::State& state) {
  readInTurn(state, column::kKey, bench::sampleKey);
}
BENCHMARK(readByKey)->Arg(kMiddle);

void readByWebui(benchmark::State& state) {
  readInTurn(state, column::kWebui, bench::sampleWebui);
}
BENCHMARK(readByWebui)->Arg(kMiddle);

void readByProvisioning(benchmark::State& state) {
  readInTurn(state, column::kProvisioning, bench::sampleProvisioning);
}
BENCHMARK(readByProvisioning)->Arg(kMiddle);

/// Writes 100 settings of one rule in turn, a new value each time round.
void writeUnder(benchmark::State& state, Rule rule) {
  bench::SampleDevice& device = bench::sampleDevice(kMiddle);
  std::vector<Property> writes;
  for (std::size_t round = 0; round < 10; ++round) {
    for (std::size_t n = 0; n < 100; ++n) {
      writes.push_back(Property({{column::kKey, bench::sampleKey(4 * n + static_cast<std::size_t>(rule))},
                                 {column::kValue, std::to_string(round)}}));
    }
  }
  std::size_t turn = 0;
  for (auto iteration : state) {
    Property property = writes[turn++ % writes.size()];
    device.database().set(property);
    benchmark::DoNotOptimize(property);
  }
  device.waitForWriter();
}
BENCHMARK_CAPTURE(writeUnder, none, Rule::none)->Iterations(kWrites);
BENCHMARK_CAPTURE(writeUnder, expression, Rule::expression)->Iterations(kWrites);
BENCHMARK_CAPTURE(writeUnder, range, Rule::range)->Iterations(kWrites);
BENCHMARK_CAPTURE(writeUnder, list, Rule::list)->Iterations(kWrites);

void writeUnchanged(benchmark::State& state) {
  IDatabaseService& database = bench::sampleDevice(kMiddle).database();
  Property stored({{column::kKey, bench::sampleKey(1)}});
  database.get(stored);
  const Property same({{column::kKey, bench::sampleKey(1)}, {column::kValue, stored.text(column::kValue)}});
  for (auto iteration : state) {
    Property property = same;
    database.set(property);
    benchmark::DoNotOptimize(property);
  }
}
BENCHMARK(writeUnchanged);

void readWildcard(benchmark::State& state, const char* pattern) {
  IDatabaseService& database = bench::sampleDevice(countOf(state)).database();
  for (auto iteration : state) {
    auto properties = database.getMultiple(pattern, {"key", "value"}, "");
    benchmark::DoNotOptimize(properties);
  }
}
BENCHMARK_CAPTURE(readWildcard, ten, "Account.0042.%")->Arg(kMiddle);
BENCHMARK_CAPTURE(readWildcard, all, "%")->Arg(kMiddle)->Unit(benchmark::kMicrosecond);

void dumpProvisioning(benchmark::State& state) {
  IDatabaseService& database = bench::sampleDevice(countOf(state)).database();
  for (auto iteration : state) {
    auto dump = database.getProvisioningDump();
    benchmark::DoNotOptimize(dump);
  }
}
BENCHMARK(dumpProvisioning)->Arg(kMiddle)->Unit(benchmark::kMicrosecond);

}  // namespace

}  // namespace propertyservice
