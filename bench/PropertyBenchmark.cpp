#include <benchmark/benchmark.h>

#include "core/Constants.h"
#include "core/Property.h"

namespace propertyservice {

namespace {

void buildProperty(benchmark::State& state) {
  for (auto iteration : state) {
    Property property({{column::kKey, "Account.0042.Setting3"}, {column::kValue, "5"}});
    benchmark::DoNotOptimize(property);
  }
}
BENCHMARK(buildProperty);

Property fullProperty() {
  return Property({{column::kKey, "Account.0042.Setting3"},
                   {column::kValue, "5"},
                   {column::kWebui, "Account42Setting3"},
                   {column::kProvisioning, "account.42.setting.3"},
                   {column::kTr069, "Device.Account.42.Setting.3"},
                   {column::kRangeMin, "0"},
                   {column::kRangeMax, "255"},
                   {column::kRegexp, "^[0-9]{1,3}$"},
                   {column::kEnum, "0,1,2,3,4,5,6,7,8,9"},
                   {column::kFlags, "14"},
                   {column::kDefaultValues, "5"}});
}

void buildFullProperty(benchmark::State& state) {
  for (auto iteration : state) {
    Property property = fullProperty();
    benchmark::DoNotOptimize(property);
  }
}
BENCHMARK(buildFullProperty);

void copyFullProperty(benchmark::State& state) {
  const Property property = fullProperty();
  for (auto iteration : state) {
    Property copy = property;
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(copyFullProperty);

}  // namespace

}  // namespace propertyservice
