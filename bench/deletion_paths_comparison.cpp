// Four ways to delete a million child rows, each on its own copy of one generated store and in a
// process of its own (so that its peak memory is its own):
//   batch   - the engine's batch delete, in chunks of 1000 object IDs fetched page by page
//   plain   - one `DELETE FROM ZCHILD WHERE ZPARENT = ?`, in the sqlite3 shell when it is installed
//   chunked - plain SQL again, but 1000 rows per transaction as the batch path commits: SQLite's own
//             speed at the same number of durable commits, so batch / chunked is the engine's overhead
//   context - fetching the objects into a context, deleting each and saving
// Prints time, rows per second, peak resident memory and CPU time of each, and the ratios the engine aims at
// (batch within 1.5x of plain, at least 20x faster than the context, under 64 MB). Each batch request
// is a transaction of its own, made durable with a sync of the write-ahead log, while the plain DELETE
// syncs once: so it also prints what that many syncs alone take on the disk at hand, the floor under
// the batch path's time.
//
// Usage: deletion_paths_comparison [rows] [folder] [path]
//   defaults: 1000000 rows, a folder in the temporary folder, all four paths (or just the one named)

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "objectstore/managed_object_context.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kModel = R"(<model>
  <entity name="Parent">
    <attribute name="name" optional="YES" attributeType="String"/>
    <relationship name="children" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Child" inverseName="parent" inverseEntity="Child"/>
  </entity>
  <entity name="Child">
    <attribute name="value" optional="YES" attributeType="Double"/>
    <attribute name="label" optional="YES" attributeType="String"/>
    <relationship name="parent" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Parent" inverseName="children" inverseEntity="Parent"/>
  </entity>
</model>)";

std::shared_ptr<const ManagedObjectModel> model() {
  static auto loaded = ManagedObjectModel::modelWithXml(kModel, "comparison");
  return *loaded;
}

void check(const Status& status, const char* what) {
  if (status) return;
  std::fprintf(stderr, "%s: %s\n", what, status.error().debugDescription().c_str());
  std::exit(2);
}

// Parent 1 holds `rows` children; parent 2 holds a thousand that must survive every path.
void generate(const fs::path& path, std::int64_t rows) {
  std::error_code ec;
  for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(path.string() + suffix, ec);
  auto store = SqliteStore::create(path, model(), {});
  if (!store) check(fail(store.error()), "create");
  Database& db = (*store)->database();
  const std::int64_t parent = *(*store)->entityNumber(*model()->entityNamed("Parent"));
  const std::int64_t child = *(*store)->entityNumber(*model()->entityNamed("Child"));
  check(db.execute("BEGIN"), "begin");
  check(db.execute(fmt::format("INSERT INTO ZPARENT (Z_PK, Z_ENT, Z_OPT, ZNAME) VALUES (1, {0}, 1, 'big'), "
                               "(2, {0}, 1, 'small')",
                               parent)),
        "parents");
  auto insert = db.prepare(fmt::format(
      "INSERT INTO ZCHILD (Z_PK, Z_ENT, Z_OPT, ZPARENT, ZVALUE, ZLABEL) VALUES (?, {}, 1, ?, ?, ?)", child));
  if (!insert) check(fail(insert.error()), "prepare");
  for (std::int64_t i = 1; i <= rows + 1000; ++i) {
    check(insert->bind(1, Value(i)), "bind");
    check(insert->bind(2, Value(std::int64_t{i <= rows ? 1 : 2})), "bind");
    check(insert->bind(3, Value(static_cast<double>(i) * 0.5)), "bind");
    check(insert->bind(4, Value("child " + std::to_string(i))), "bind");
    check(insert->run(), "insert");
    check(insert->reset(), "reset");
  }
  check(db.execute(fmt::format("UPDATE Z_PRIMARYKEY SET Z_MAX = 2 WHERE Z_ENT = {}", parent)), "max");
  check(db.execute(fmt::format("UPDATE Z_PRIMARYKEY SET Z_MAX = {} WHERE Z_ENT = {}", rows + 1000, child)),
        "max");
  check(db.execute("COMMIT"), "commit");
  check(db.execute("PRAGMA wal_checkpoint(TRUNCATE)"), "checkpoint");
}

struct Stack {
  std::unique_ptr<PersistentStoreCoordinator> coordinator;
  std::unique_ptr<ManagedObjectContext> context;
  std::shared_ptr<ManagedObject> parent;
};

Stack open(const fs::path& path) {
  Stack stack;
  stack.coordinator = std::make_unique<PersistentStoreCoordinator>(model());
  auto store = stack.coordinator->addPersistentStore(
      PersistentStoreDescription::persistentStoreDescriptionWithURL(Url::fileUrl(path.string(), false)));
  if (!store) check(fail(store.error()), "open");
  stack.context = std::make_unique<ManagedObjectContext>(ManagedObjectContextConcurrencyType::PrivateQueue);
  stack.context->setPersistentStoreCoordinator(stack.coordinator.get());
  stack.parent = stack.context->objectWithID(
      ManagedObjectID::permanent(*model()->entityNamed("Parent"), (*store)->identifier(), 1));
  return stack;
}

FetchRequest childrenOfBigParent(const Stack& stack) {
  auto request = FetchRequest::fetchRequestWithEntityName("Child");
  request.predicate = *predicateWithFormat("parent == %@", {valueWithObjectID(stack.parent->objectID())});
  return request;
}

void runBatch(const fs::path& path) {
  Stack stack = open(path);
  FetchRequest page = childrenOfBigParent(stack);
  page.resultType = FetchRequestResultType::ManagedObjectID;
  page.fetchLimit = 1000;
  for (;;) {
    auto ids = stack.context->executeFetchRequest(page);
    if (!ids) check(fail(ids.error()), "fetch IDs");
    if (ids->empty()) break;
    std::vector<ManagedObjectID> chunk;
    chunk.reserve(ids->size());
    for (const Value& id : *ids) chunk.push_back(*objectIDOfValue(id));
    auto deleted = stack.context->executeRequest(BatchDeleteRequest::initWithObjectIDs(std::move(chunk)));
    if (!deleted) check(fail(deleted.error()), "batch delete");
  }
}

void runPlain(const fs::path& path) {
  const std::string sql = "DELETE FROM ZCHILD WHERE ZPARENT = 1;";
  if (std::system("command -v sqlite3 >/dev/null 2>&1") == 0) {
    const std::string command = "sqlite3 '" + path.string() + "' '" + sql + "'";
    if (std::system(command.c_str()) != 0) std::exit(2);
    return;
  }
  auto db = Database::open(path, Database::Mode::ReadWrite);
  if (!db) check(fail(db.error()), "open");
  check((*db)->execute(sql), "delete");
}

void runChunked(const fs::path& path) {
  auto db = Database::open(path, Database::Mode::ReadWrite);
  if (!db) check(fail(db.error()), "open");
  check((*db)->execute("PRAGMA journal_mode = WAL"), "journal mode");
  // A count would scan what is left after every chunk; whether any is left is one index probe.
  auto finished = (*db)->prepare("SELECT NOT EXISTS (SELECT 1 FROM ZCHILD WHERE ZPARENT = 1)");
  if (!finished) check(fail(finished.error()), "probe");
  for (;;) {
    check((*db)->execute("BEGIN IMMEDIATE; DELETE FROM ZCHILD WHERE Z_PK IN (SELECT Z_PK FROM ZCHILD WHERE "
                         "ZPARENT = 1 LIMIT 1000); COMMIT"),
          "delete a chunk");
    (void)finished->step();
    const bool done = finished->integer(0) == 1;
    (void)finished->reset();
    if (done) break;
  }
}

void runContext(const fs::path& path) {
  Stack stack = open(path);
  auto children = stack.context->fetchObjects(childrenOfBigParent(stack));
  if (!children) check(fail(children.error()), "fetch");
  for (const auto& child : *children) stack.context->deleteObject(child);
  check(stack.context->save(), "save");
}

struct Outcome {
  double seconds = 0;
  double peakMegabytes = 0;
  double cpuSeconds = 0;  // user and system: the time not spent waiting for the disk or other processes
};

// Runs one path in a child process on a fresh copy of the store.
Outcome measure(const char* name, void (*path)(const fs::path&), const fs::path& original,
                std::int64_t rows) {
  const fs::path copy = original.parent_path() / (std::string("copy-") + name + ".sqlite");
  std::error_code ec;
  for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(copy.string() + suffix, ec);
  fs::copy_file(original, copy);
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    path(copy);
    _exit(0);
  }
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  Outcome outcome;
  outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  outcome.peakMegabytes = static_cast<double>(usage.ru_maxrss) / 1024.0;
  const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  outcome.cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "%s failed\n", name);
    std::exit(2);
  }
  // Every path must have deleted exactly the big parent's children.
  auto db = Database::open(copy, Database::Mode::ReadOnly);
  auto left =
      (*db)->prepare("SELECT (SELECT COUNT(*) FROM ZCHILD WHERE ZPARENT = 1), (SELECT COUNT(*) FROM ZCHILD)");
  (void)left->step();
  if (left->integer(0) != 0 || left->integer(1) != 1000) {
    std::fprintf(stderr, "%s left %lld of the big parent's children and %lld rows in all\n", name,
                 static_cast<long long>(left->integer(0)), static_cast<long long>(left->integer(1)));
    std::exit(2);
  }
  std::printf("%-8s %9.2f s %12.0f rows/s %9.1f MB peak %9.2f s CPU\n", name, outcome.seconds,
              static_cast<double>(rows) / outcome.seconds, outcome.peakMegabytes, outcome.cpuSeconds);
  std::fflush(stdout);
  for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(copy.string() + suffix, ec);
  return outcome;
}

// The median time of writing a page and syncing it to the disk, in seconds: what one durable commit
// costs at least.
double syncSeconds(const fs::path& folder) {
  const fs::path file = folder / "sync-probe";
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) return 0;
  std::array<char, 4096> page{};
  std::array<double, 21> times{};
  for (double& time : times) {
    const auto start = std::chrono::steady_clock::now();
    if (::pwrite(fd, page.data(), page.size(), 0) != static_cast<ssize_t>(page.size()) ||
        ::fdatasync(fd) != 0)
      break;
    time = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  ::close(fd);
  std::error_code ec;
  fs::remove(file, ec);
  std::nth_element(times.begin(), times.begin() + times.size() / 2, times.end());
  return times[times.size() / 2];
}

void printSyncFloor(const fs::path& folder, std::int64_t rows) {
  const std::int64_t requests = (rows + 999) / 1000;
  const double sync = syncSeconds(folder);
  std::printf("one sync here: %.2f ms; the batch path's %lld commits sync for at least %.2f s\n", sync * 1000,
              static_cast<long long>(requests), sync * static_cast<double>(requests));
}

}  // namespace
}  // namespace tesselune

int main(int argc, char** argv) {
  using namespace tesselune;
  const std::int64_t rows = argc > 1 ? std::atoll(argv[1]) : 1000000;
  const fs::path folder =
      argc > 2 ? fs::path(argv[2]) : fs::temp_directory_path() / "tesselune-deletion-paths";
  fs::create_directories(folder);
  const fs::path original = folder / "original.sqlite";
  std::printf("generating %lld child rows in %s\n", static_cast<long long>(rows), original.c_str());
  std::fflush(stdout);
  generate(original, rows);
  if (argc > 3) {
    const std::string only = argv[3];
    measure(only.c_str(),
            only == "batch"     ? runBatch
            : only == "plain"   ? runPlain
            : only == "chunked" ? runChunked
                                : runContext,
            original, rows);
    if (only == "batch") printSyncFloor(folder, rows);
    return 0;
  }
  const Outcome batch = measure("batch", runBatch, original, rows);
  const Outcome plain = measure("plain", runPlain, original, rows);
  const Outcome chunked = measure("chunked", runChunked, original, rows);
  const Outcome context = measure("context", runContext, original, rows);
  printSyncFloor(folder, rows);
  std::printf(
      "batch / plain time: %.2fx (goal <= 1.5x); batch / chunked time: %.2fx; context / batch time: %.1fx "
      "(goal >= 20x); batch peak %.1f MB (goal < 64 MB)\n",
      batch.seconds / plain.seconds, batch.seconds / chunked.seconds, context.seconds / batch.seconds,
      batch.peakMegabytes);
  std::error_code ec;
  fs::remove_all(folder, ec);
  return 0;
}
