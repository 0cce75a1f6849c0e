#include <benchmark/benchmark.h>
#include <queue>
#include <stdexcept>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "core/Constants.h"
#include "database/PersistentDatabaseCache.h"
#include "database/PersistentStorage.h"
#include "support/SampleDevice.h"

namespace propertyservice {

namespace {

constexpr std::size_t kRows = 4096;
constexpr std::size_t kBatch = 300;

/// A disk has good and bad moments.
constexpr double kDiskSeconds = 1.0;

/// A database file on a disk: TMPDIR must not be in memory.
class DatabaseFile {
 public:
  explicit DatabaseFile(std::size_t rows) { bench::createDatabase(path(), rows); }

  std::string path() const { return directory_.path("nvm"); }

 private:
  const test::TemporaryDirectory directory_;
};

std::vector<std::string> keysOfOneBatch() {
  std::vector<std::string> keys;
  for (std::size_t n = 0; n < kBatch; ++n) {
    keys.push_back(bench::sampleKey(n * (bench::generatedSettings(kRows) / kBatch)));
  }
  return keys;
}

void writeBatch(benchmark::State& state) {
  const DatabaseFile file(kRows);
  PersistentStorage storage(openDatabase(file.path()));
  const std::vector<std::string> keys = keysOfOneBatch();
  std::size_t round = 0;
  for (auto iteration : state) {
    state.PauseTiming();  // building the properties is the requests' part
    const std::string value = std::to_string(++round);
    std::queue<Property> properties;
    for (const std::string& key : keys) {
      properties.push(Property({{column::kKey, key}, {column::kValue, value}}));
    }
    state.ResumeTiming();
    storage.updateValues(properties);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}
BENCHMARK(writeBatch)->UseRealTime()->MinTime(kDiskSeconds)->Unit(benchmark::kMicrosecond);

/// The statement of the daemon for one full batch.
std::string batchStatement() {
  std::string cases;
  std::string keys;
  for (std::size_t n = 0; n < kBatch; ++n) {
    const std::string number = std::to_string(n);
    cases += "when key = :key" + number + " then :value" + number + " ";
    keys += (n == 0 ? ":key" : ",:key") + number;
  }
  return "UPDATE settings SET value = (case " + cases + "END) WHERE key IN (" + keys + ")";
}

void require(bool succeeded, sqlite3* database) {
  if (!succeeded) {
    throw std::runtime_error(sqlite3_errmsg(database));
  }
}

/// The yardstick of `writeBatch`: the C interface and nothing else.
void writeBatchInC(benchmark::State& state) {
  const DatabaseFile file(kRows);
  const std::vector<std::string> keys = keysOfOneBatch();
  const std::string sql = batchStatement();
  sqlite3* database = nullptr;
  require(sqlite3_open(file.path().c_str(), &database) == SQLITE_OK, database);
  sqlite3_stmt* statement = nullptr;
  require(sqlite3_prepare_v2(database, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK, database);
  std::size_t round = 0;
  for (auto iteration : state) {
    const std::string value = std::to_string(++round);
    int parameter = 0;
    for (const std::string& key : keys) {
      sqlite3_bind_text(statement, ++parameter, key.c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_text(statement, ++parameter, value.c_str(), -1, SQLITE_STATIC);
    }
    require(sqlite3_step(statement) == SQLITE_DONE, database);
    sqlite3_reset(statement);
  }
  sqlite3_finalize(statement);
  sqlite3_close(database);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}
BENCHMARK(writeBatchInC)->UseRealTime()->MinTime(kDiskSeconds)->Unit(benchmark::kMicrosecond);

/// From the file into the cache, as at start-up.
void loadRows(benchmark::State& state) {
  const DatabaseFile file(static_cast<std::size_t>(state.range(0)));
  PersistentStorage storage(openDatabase(file.path()));
  for (auto iteration : state) {
    PersistentDatabaseCache cache;
    cache.load(storage.selectMultiple(std::string(kSqlWildcard)));
    benchmark::DoNotOptimize(cache);
  }
}
BENCHMARK(loadRows)->Arg(4096)->Arg(65'536)->Unit(benchmark::kMillisecond);

void writeState(benchmark::State& state) {
  IDatabaseService& database = bench::sampleDevice(kRows).database();
  std::size_t round = 0;
  for (auto iteration : state) {
    Property property({{column::kKey, "State.Call.Duration"}, {column::kValue, std::to_string(++round)}});
    database.set(property);
  }
}
BENCHMARK(writeState);

void readState(benchmark::State& state) {
  IDatabaseService& database = bench::sampleDevice(kRows).database();
  Property stored({{column::kKey, "State.Call.Peer"}, {column::kValue, "200"}});
  database.set(stored);
  for (auto iteration : state) {
    Property property({{column::kKey, "State.Call.Peer"}});
    database.get(property);
    benchmark::DoNotOptimize(property);
  }
}
BENCHMARK(readState);

}  // namespace

}  // namespace propertyservice
