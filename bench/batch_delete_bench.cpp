// Batch deletes at scale: parents with one or two cascaded children each and a nullified reference,
// deleted by a batch delete (the rules carried out by temporary triggers) against a plain SQL DELETE
// of the same rows without rules, and against the same work done by hand in three set-wise
// statements; and the batch delete again with chunks of several sizes. The counters give parents per
// second of CPU time (the Time column is wall-clock, which other work on the machine skews) and the
// benchmark's own peak resident memory, which must not grow with the number of rows.
//
// The template store is made once per size (in the system's temporary folder) and copied before each
// iteration, outside the timing.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "objectstore/sqlite/batch_delete.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kModel = R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<model type="com.apple.IDECoreDataModeler.DataModel" documentVersion="1.0">
  <entity name="Parent">
    <attribute name="name" optional="YES" attributeType="String"/>
    <relationship name="children" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Child" inverseName="parent" inverseEntity="Child"/>
    <relationship name="references" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Reference" inverseName="parent" inverseEntity="Reference"/>
  </entity>
  <entity name="Child">
    <attribute name="value" optional="YES" attributeType="Integer 64"/>
    <relationship name="parent" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Parent" inverseName="children" inverseEntity="Parent"/>
  </entity>
  <entity name="Reference">
    <attribute name="value" optional="YES" attributeType="Integer 64"/>
    <relationship name="parent" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Parent" inverseName="references" inverseEntity="Parent"/>
  </entity>
</model>)";

std::shared_ptr<const ManagedObjectModel> model() {
  static auto loaded = ManagedObjectModel::modelWithXml(kModel, "BatchDeleteBench.xcdatamodel/contents");
  if (!loaded) throw std::runtime_error(loaded.error().debugDescription());
  return *loaded;
}

void check(const Status& status) {
  if (!status) throw std::runtime_error(status.error().debugDescription());
}

// Entity numbers: Child 1, Parent 2, Reference 3.
fs::path templateStore(std::int64_t parents) {
  const fs::path path =
      fs::temp_directory_path() / ("tesselune-bench-batch-delete-" + std::to_string(parents) + ".sqlite");
  std::error_code ec;
  if (fs::exists(path, ec)) return path;
  const fs::path partial = path.string() + ".partial";
  for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(partial.string() + suffix, ec);
  {
    auto store = SqliteStore::create(partial, model(), {});
    if (!store) throw std::runtime_error(store.error().debugDescription());
    Database& db = (*store)->database();
    check(db.execute("PRAGMA journal_mode = DELETE"));
    check(db.execute("BEGIN"));
    auto parent = db.prepare("INSERT INTO ZPARENT (Z_PK, Z_ENT, Z_OPT, ZNAME) VALUES (?, 2, 1, 'parent')");
    auto child = db.prepare("INSERT INTO ZCHILD (Z_ENT, Z_OPT, ZVALUE, ZPARENT) VALUES (1, 1, ?, ?)");
    auto reference = db.prepare("INSERT INTO ZREFERENCE (Z_ENT, Z_OPT, ZVALUE, ZPARENT) VALUES (3, 1, ?, ?)");
    if (!parent || !child || !reference) throw std::runtime_error("cannot prepare the inserts");
    auto insert = [](Statement& statement, std::int64_t a, std::optional<std::int64_t> b) {
      check(statement.bind(1, Value(a)));
      if (b) check(statement.bind(2, Value(*b)));
      check(statement.run());
      check(statement.reset());
    };
    for (std::int64_t key = 1; key <= parents; ++key) {
      insert(*parent, key, std::nullopt);
      for (std::int64_t n = 0; n < 1 + key % 2; ++n) insert(*child, n, key);
      insert(*reference, key, key);
    }
    check(db.execute(
        "UPDATE Z_PRIMARYKEY SET Z_MAX = CASE Z_NAME WHEN 'Parent' THEN (SELECT MAX(Z_PK) FROM ZPARENT) "
        "WHEN 'Child' THEN (SELECT MAX(Z_PK) FROM ZCHILD) ELSE (SELECT MAX(Z_PK) FROM ZREFERENCE) END"));
    check(db.execute("COMMIT"));
    check(db.execute("PRAGMA journal_mode = WAL"));
  }
  fs::rename(partial, path);
  return path;
}

// A fresh copy of the template for one iteration.
fs::path freshCopy(std::int64_t parents) {
  const fs::path source = templateStore(parents);
  const fs::path copy = fs::temp_directory_path() / "tesselune-bench-batch-delete-run.sqlite";
  std::error_code ec;
  for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(copy.string() + suffix, ec);
  fs::copy_file(source, copy);
  return copy;
}

// The process's peak resident memory is a high-water mark over its whole life; Linux lets it be
// reset, so that each benchmark reports its own peak rather than the largest before it. Memory the
// allocator kept from earlier benchmarks goes back to the system first.
void resetPeakResident() {
  malloc_trim(0);
  std::ofstream("/proc/self/clear_refs") << "5";
}

double peakResidentMegabytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with("VmHWM:")) return std::stod(line.substr(6)) / 1024.0;  // kilobytes
  }
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

void report(benchmark::State& state, std::int64_t parents) {
  state.counters["parents_per_second"] = benchmark::Counter(
      static_cast<double>(parents) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["peak_rss_mb"] = peakResidentMegabytes();
}

void runBatchDelete(benchmark::State& state, std::int64_t parents, std::int64_t rowsPerChunk) {
  (void)templateStore(parents);
  resetPeakResident();
  for (auto _ : state) {
    state.PauseTiming();
    auto store = SqliteStore::open(freshCopy(parents), model(), {});
    if (!store) throw std::runtime_error(store.error().debugDescription());
    const EntityDescription& parent = *model()->entityNamed("Parent");
    state.ResumeTiming();
    auto result = batchDeleteRows(**store, parent, {"SELECT Z_PK FROM ZPARENT", {}},
                                  BatchDeleteRequestResultType::ResultTypeCount, nullptr, rowsPerChunk);
    if (!result || result->count != parents) state.SkipWithError("the batch delete failed");
    state.PauseTiming();
    store->reset();
    state.ResumeTiming();
  }
  report(state, parents);
}

// Arguments: parents.
void BM_BatchDeleteWithRules(benchmark::State& state) {
  runBatchDelete(state, state.range(0), kBatchDeleteRowsPerChunk);
}

// Arguments: parents, rows per chunk.
void BM_BatchDeleteChunkSizes(benchmark::State& state) {
  runBatchDelete(state, state.range(0), state.range(1));
}

// Runs `statements` in one exclusive transaction on a fresh copy of the store per iteration, timing
// only the transaction.
void runSqlDelete(benchmark::State& state, const std::vector<std::string>& statements) {
  const std::int64_t parents = state.range(0);
  (void)templateStore(parents);
  resetPeakResident();
  for (auto _ : state) {
    state.PauseTiming();
    auto db = Database::open(freshCopy(parents), Database::Mode::ReadWrite);
    if (!db) throw std::runtime_error(db.error().debugDescription());
    state.ResumeTiming();
    check((*db)->execute("BEGIN EXCLUSIVE"));
    for (const std::string& statement : statements) check((*db)->execute(statement));
    check((*db)->execute("COMMIT"));
    state.PauseTiming();
    db->reset();
    state.ResumeTiming();
  }
  report(state, parents);
}

// The same rows, no rules: SQLite's own speed for the request's own statement.
void BM_PlainDeleteWithoutRules(benchmark::State& state) {
  runSqlDelete(state, {"DELETE FROM ZPARENT WHERE Z_PK IN (SELECT Z_PK FROM ZPARENT)"});
}

// The rules done by hand, one statement per relationship over the whole set.
void BM_SetWiseDeleteByHand(benchmark::State& state) {
  runSqlDelete(state, {"DELETE FROM ZCHILD WHERE ZPARENT IN (SELECT Z_PK FROM ZPARENT)",
                       "UPDATE ZREFERENCE SET ZPARENT = NULL, Z_OPT = Z_OPT + 1 WHERE ZPARENT IN (SELECT "
                       "Z_PK FROM ZPARENT)",
                       "DELETE FROM ZPARENT WHERE Z_PK IN (SELECT Z_PK FROM ZPARENT)"});
}

BENCHMARK(BM_BatchDeleteWithRules)
    ->Arg(100000)
    ->Arg(1000000)
    ->Arg(2000000)
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BatchDeleteChunkSizes)
    ->ArgsProduct({{1000000}, {1000, 5000, 20000, 50000, 200000}})
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainDeleteWithoutRules)
    ->Arg(100000)
    ->Arg(1000000)
    ->Arg(2000000)
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SetWiseDeleteByHand)
    ->Arg(100000)
    ->Arg(1000000)
    ->Arg(2000000)
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tesselune
