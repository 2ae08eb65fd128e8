// Costs of keyed archives at the sizes a deletion report reaches: the identifiers of every deleted
// object (tens to hundreds of thousands of object URIs), archived and read back.
#include <benchmark/benchmark.h>

#include "foundation/keyed_archiver.h"
#include "foundation/keyed_unarchiver.h"
#include "foundation/compact_archive.h"

namespace tesselune {
namespace {

Value objectUris(std::int64_t count) {
  Array uris;
  uris.reserve(static_cast<std::size_t>(count));
  for (std::int64_t i = 0; i < count; ++i) {
    uris.emplace_back(
        *Url::parse("x-coredata://0AD863BA-7584-40CF-8896-BD87B3280C34/Spectrum/p" + std::to_string(i)));
  }
  return Value(std::move(uris));
}

void BM_ArchiveObjectUris(benchmark::State& state) {
  const Value root = objectUris(state.range(0));
  std::size_t bytes = 0;
  for (auto _ : state) {
    auto data = KeyedArchiver::archivedDataWithRootObject(root);
    bytes = data->size();
    benchmark::DoNotOptimize(data);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["archive_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_ArchiveObjectUris)->Arg(1000)->Arg(100000)->Arg(220000)->Unit(benchmark::kMillisecond);

// The same archive (the same bytes) by the report's own path, without the tree of Values.
void BM_ArchiveObjectUrisAsURLArray(benchmark::State& state) {
  const Value root = objectUris(state.range(0));
  std::vector<Url> urls;
  for (const Value& uri : root.asArray()) urls.push_back(uri.asUrl());
  std::size_t bytes = 0;
  for (auto _ : state) {
    auto data = archivedURLArray(urls);
    bytes = data->size();
    benchmark::DoNotOptimize(data);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["archive_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_ArchiveObjectUrisAsURLArray)->Arg(1000)->Arg(100000)->Arg(220000)->Unit(benchmark::kMillisecond);

void BM_UnarchiveObjectUris(benchmark::State& state) {
  const auto data = *KeyedArchiver::archivedDataWithRootObject(objectUris(state.range(0)));
  const ClassSet classes{"NSArray", "NSURL", "NSString"};
  for (auto _ : state) {
    auto root = KeyedUnarchiver::unarchivedObjectOfClasses(classes, data);
    benchmark::DoNotOptimize(root);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_UnarchiveObjectUris)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tesselune
