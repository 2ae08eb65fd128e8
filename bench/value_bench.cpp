// Costs of the dynamic value on the sizes a deletion pass meets: sets of tens of thousands of object
// URIs, and URL resolution of object URIs.
#include <benchmark/benchmark.h>

#include "foundation/value.h"

namespace tesselune {
namespace {

Url objectUri(std::int64_t key) {
  return *Url::parse("x-coredata://0AD863BA-7584-40CF-8896-BD87B3280C34/Spectrum/p" + std::to_string(key));
}

void BM_SetOfObjectUris(benchmark::State& state) {
  std::vector<Value> uris;
  for (std::int64_t i = 0; i < state.range(0); ++i) uris.emplace_back(objectUri(i));
  for (auto _ : state) {
    ValueSet set;
    for (const Value& uri : uris) set.insert(uri);
    benchmark::DoNotOptimize(set.size());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_SetOfObjectUris)->Arg(1000)->Arg(100000);

void BM_ResolveRelativeUrl(benchmark::State& state) {
  Url base = Url::fileUrl("/home/user/.local/share/Group Containers/KV3N8Q2ZR5.TesseluneGroup/", true);
  for (auto _ : state) {
    auto u = Url::parse("Tesselune%20Data%20Library/run/raw/", base);
    benchmark::DoNotOptimize(u->absoluteString());
  }
}
BENCHMARK(BM_ResolveRelativeUrl);

}  // namespace
}  // namespace tesselune
