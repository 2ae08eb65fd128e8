// Opening a large store: reading metadata, entity numbers and checking the model must not touch
// the objects, so a store of over a gigabyte opens as fast as an empty one. The benchmark makes the
// store once (in the system's temporary folder) and reuses it on later runs.
#include <benchmark/benchmark.h>

#include <filesystem>

#include "objectstore/sqlite/sqlite_store.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kTargetSize = std::uintmax_t{1} << 30;

std::shared_ptr<const ManagedObjectModel> moodyModel() {
  static auto model = ManagedObjectModel::modelWithContentsOfFile(
      fs::path(TESSELUNE_FIXTURES_DIR) / "coredata/moody/Moody.xcdatamodeld/Moody.xcdatamodel");
  return *model;
}

// A Moody store of more than a gigabyte: moods with 64 KiB of colours each.
fs::path largeStore() {
  const fs::path path = fs::temp_directory_path() / "tesselune-bench-large.moody";
  std::error_code ec;
  if (fs::exists(path, ec) && fs::file_size(path, ec) >= kTargetSize) return path;
  for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(path.string() + suffix, ec);
  auto store = SqliteStore::create(path, moodyModel(), {});
  if (!store) throw std::runtime_error(store.error().debugDescription());
  Database& db = (*store)->database();
  (void)db.execute("PRAGMA journal_mode = DELETE");
  (void)db.execute("BEGIN");
  auto insert = db.prepare(
      "INSERT INTO ZMOOD (Z_ENT, Z_OPT, ZDATE, ZCOLORS, ZMARKEDFORREMOTEDELETION) VALUES (4, 1, ?, ?, 0)");
  const Value colors(Bytes(64 * 1024, 0x5A));
  const std::int64_t rows = static_cast<std::int64_t>(kTargetSize / (64 * 1024)) + 64;
  for (std::int64_t i = 0; i < rows; ++i) {
    (void)insert->bind(1, Value(static_cast<double>(i)));
    (void)insert->bind(2, colors);
    (void)insert->run();
    (void)insert->reset();
  }
  (void)db.execute("UPDATE Z_PRIMARYKEY SET Z_MAX = (SELECT MAX(Z_PK) FROM ZMOOD) WHERE Z_NAME = 'Mood'");
  (void)db.execute("COMMIT");
  (void)db.execute("PRAGMA journal_mode = WAL");
  return path;
}

void BM_OpenLargeStore(benchmark::State& state) {
  const fs::path path = largeStore();
  const auto model = moodyModel();
  for (auto _ : state) {
    auto store = SqliteStore::open(path, model, {.readOnly = state.range(0) != 0});
    if (!store) state.SkipWithError(store.error().debugDescription().c_str());
    benchmark::DoNotOptimize(store);
  }
  state.counters["store_bytes"] = static_cast<double>(fs::file_size(path));
}
BENCHMARK(BM_OpenLargeStore)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tesselune
