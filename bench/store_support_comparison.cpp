// The store support program as a whole against plain SQL: one demo store with a marked chromatogram of
// many spectra (and its fragment spectra, ion groups, maps and the rest), copied twice. On copy A the
// built tesselune-store-support runs as it would for the user (open, passes, data folder, report);
// on copy B the sqlite3 shell deletes the same rows with hand-made DELETE statements, one per cascade
// relationship, in one transaction. Each runs in a child process, so wall time, CPU time and peak
// resident memory are the child's own. The copies are compared afterwards, table by table, so that
// the figures are known to be for the same work (join tables, which the SQL leaves alone, aside).
//
// Usage: store_support_comparison [spectra] [folder]
//   defaults: 200000 spectra of the marked chromatogram (a tenth as many fragment spectra), a folder
//   in the temporary folder (removed afterwards when it was made here)

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "model/store_classes.h"
#include "objectstore/sqlite/schema.h"
#include "objectstore/sqlite/sqlite_store.h"

extern char** environ;

namespace tesselune {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kLibraryPath = "Group Containers/KV3N8Q2ZR5.TesseluneGroup/Tesselune Data Library";
constexpr std::string_view kStoreFile = "TesseluneStore.tesselune";

[[noreturn]] void die(const std::string& text) {
  std::fprintf(stderr, "store_support_comparison: %s\n", text.c_str());
  std::exit(2);
}

struct Outcome {
  int exitCode = -1;
  double seconds = 0;
  double cpuSeconds = 0;
  double peakMegabytes = 0;
};

// Runs a program with `home` as HOME and its "data" folder as XDG_DATA_HOME, standard input from
// `input` (or /dev/null), standard output and error appended to `log`.
Outcome runChild(std::vector<std::string> arguments, const fs::path& home, const fs::path& input,
                 const fs::path& log) {
  // Headless and away from the user's library and session bus.
  auto replaced = [](const std::string& entry) {
    for (const char* name :
         {"HOME=", "XDG_DATA_HOME=", "DISPLAY=", "WAYLAND_DISPLAY=", "DBUS_SESSION_BUS_ADDRESS="})
      if (entry.starts_with(name)) return true;
    return false;
  };
  std::vector<std::string> variables;
  for (char** e = environ; *e != nullptr; ++e) {
    if (!replaced(*e)) variables.emplace_back(*e);
  }
  variables.push_back("HOME=" + home.string());
  variables.push_back("XDG_DATA_HOME=" + (home / "data").string());
  variables.push_back("DBUS_SESSION_BUS_ADDRESS=unix:path=" + (home / "no-bus").string());
  std::vector<char*> envp;
  for (auto& variable : variables) envp.push_back(variable.data());
  envp.push_back(nullptr);
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, input.empty() ? "/dev/null" : input.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  Outcome outcome;
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = -1;
  if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0)
    die("cannot start " + arguments[0]);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  outcome.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                       static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  outcome.peakMegabytes = static_cast<double>(usage.ru_maxrss) / 1024.0;
  if (WIFEXITED(status)) outcome.exitCode = WEXITSTATUS(status);
  return outcome;
}

fs::path storeOf(const fs::path& home) {
  return home / "data" / kLibraryPath / kStoreFile;
}

class Connection {
 public:
  explicit Connection(const fs::path& file) {
    if (sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK)
      die("cannot open " + file.string());
  }
  ~Connection() { sqlite3_close(db_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  std::vector<std::vector<std::string>> rows(const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK)
      die(sql + ": " + sqlite3_errmsg(db_));
    std::vector<std::vector<std::string>> result;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      auto& row = result.emplace_back();
      for (int c = 0; c < sqlite3_column_count(statement); ++c) {
        const unsigned char* text = sqlite3_column_text(statement, c);
        row.emplace_back(text == nullptr ? "" : reinterpret_cast<const char*>(text));
      }
    }
    sqlite3_finalize(statement);
    return result;
  }

 private:
  sqlite3* db_ = nullptr;
};

// What a person would type: for each cascade relationship, the dependants' dependants first, then
// the dependants, then the object itself.
void cascadeDeletes(const EntityDescription& entity, const std::string& keys, int depth, std::string& sql) {
  if (depth > 6) return;
  for (const auto& [name, relationship] : entity.relationshipsByName()) {
    const RelationshipDescription* inverse = relationship->inverseRelationship();
    if (relationship->deleteRule() != DeleteRule::Cascade || inverse == nullptr || inverse->isToMany())
      continue;
    const EntityDescription& destination = *relationship->destinationEntity();
    const std::string table = SqliteStore::tableName(destination);
    const std::string where = fmt::format("{} IN ({})", columnName(inverse->name()), keys);
    cascadeDeletes(destination, fmt::format("SELECT Z_PK FROM {} WHERE {}", table, where), depth + 1, sql);
    sql += fmt::format("DELETE FROM {} WHERE {};\n", table, where);
  }
}

// Rows and the sum of their keys per entity table: equal for two copies that lost the same rows.
std::map<std::string, std::string> tableDigest(const fs::path& store) {
  Connection db(store);
  std::map<std::string, std::string> digest;
  for (const auto& table : db.rows(
           "SELECT name FROM sqlite_master WHERE type = 'table' AND name LIKE 'Z%' AND name NOT LIKE 'Z\\_%' "
           "ESCAPE '\\'")) {
    digest[table[0]] = db.rows(fmt::format("SELECT count(*) || '/' || total(Z_PK) FROM {}", table[0]))[0][0];
  }
  return digest;
}

void print(const char* what, const Outcome& outcome, std::int64_t rows) {
  std::printf("%-34s %8.2f s  %8.0f rows/s  CPU %7.2f s  peak RSS %7.1f MB\n", what, outcome.seconds,
              static_cast<double>(rows) / outcome.seconds, outcome.cpuSeconds, outcome.peakMegabytes);
}

int run(int argc, char** argv) {
  const int spectra = argc > 1 ? std::atoi(argv[1]) : 200000;
  if (spectra < 1) die("the number of spectra must be positive");
  const bool ownFolder = argc <= 2;
  fs::path folder = ownFolder
                        ? fs::temp_directory_path() / fmt::format("store-support-comparison-{}", getpid())
                        : fs::path(argv[2]);
  fs::remove_all(folder / "origin");
  fs::remove_all(folder / "a");
  fs::remove_all(folder / "b");
  fs::create_directories(folder);
  const fs::path log = folder / "children.log";

  std::printf("demo store: 2 chromatograms of %d spectra and %d fragment spectra, the second marked\n",
              spectra, spectra / 10);
  std::fflush(stdout);
  const Outcome made = runChild({TESSELUNE_STORE_COMMAND,
                                 "demo",
                                 "--chromatograms",
                                 "2",
                                 "--spectra",
                                 std::to_string(spectra),
                                 "--fragment-spectra",
                                 std::to_string(spectra / 10),
                                 "--searches",
                                 "1",
                                 "--search-groups",
                                 "0",
                                 "--collections",
                                 "1",
                                 "--mark-searches",
                                 "0",
                                 "--mark-search-groups",
                                 "0",
                                 "--mark-collections",
                                 "0",
                                 "--mark-chromatograms",
                                 "1"},
                                folder / "origin", {}, log);
  if (made.exitCode != 0) die("tesselune-store demo failed; see " + log.string());
  std::printf("  made in %.1f s, store %.1f MB\n", made.seconds,
              static_cast<double>(fs::file_size(storeOf(folder / "origin"))) / 1e6);
  for (const char* copy : {"a", "b"}) fs::copy(folder / "origin", folder / copy, fs::copy_options::recursive);

  auto model = loadStoreModel();
  if (!model) die(model.error().debugDescription());
  std::int64_t before = 0;
  std::string sql = "BEGIN;\n";
  {
    Connection db(storeOf(folder / "b"));
    const auto marked = db.rows("SELECT Z_PK FROM ZCHROMATOGRAM WHERE ZDESTINEDFORDELETION = 1");
    if (marked.size() != 1) die("expected one marked chromatogram");
    cascadeDeletes(*(*model)->entityNamed("Chromatogram"), marked[0][0], 0, sql);
    sql += fmt::format("DELETE FROM ZCHROMATOGRAM WHERE Z_PK = {};\nCOMMIT;\n", marked[0][0]);
    for (const auto& [table, entry] : tableDigest(storeOf(folder / "b"))) before += std::atoll(entry.c_str());
  }
  const fs::path script = folder / "delete.sql";
  std::ofstream(script) << sql;

  const Outcome program = runChild({TESSELUNE_STORE_SUPPORT}, folder / "a", {}, log);
  if (program.exitCode != 0) die("tesselune-store-support failed; see " + log.string());
  const Outcome shell = runChild({"sqlite3", storeOf(folder / "b").string()}, folder / "b", script, log);
  if (shell.exitCode != 0) die("the sqlite3 shell failed; see " + log.string());

  const auto digestA = tableDigest(storeOf(folder / "a"));
  const auto digestB = tableDigest(storeOf(folder / "b"));
  std::int64_t after = 0;
  for (const auto& [table, entry] : digestA) after += std::atoll(entry.c_str());
  const std::int64_t deleted = before - after;
  std::printf("rows deleted: %lld (of %lld)\n", static_cast<long long>(deleted),
              static_cast<long long>(before));
  print("tesselune-store-support (copy A)", program, deleted);
  print("sqlite3 shell, plain DELETE (B)", shell, deleted);
  std::printf("ratio program / shell: wall %.2fx, CPU %.2fx\n", program.seconds / shell.seconds,
              program.cpuSeconds / std::max(shell.cpuSeconds, 1e-6));
  std::printf(
      "data folder of the marked chromatogram on A: %s\n",
      fs::exists(storeOf(folder / "a").parent_path() / "Chromatogram 2.data") ? "still there" : "removed");
  bool same = true;
  for (const auto& [table, entry] : digestA) {
    if (digestB.at(table) == entry) continue;
    std::printf("  differs: %s program %s, shell %s\n", table.c_str(), entry.c_str(),
                digestB.at(table).c_str());
    same = false;
  }
  std::printf("copies hold the same rows afterwards: %s\n", same ? "yes" : "NO");
  if (ownFolder) fs::remove_all(folder);
  return same ? 0 : 1;
}

}  // namespace
}  // namespace tesselune

int main(int argc, char** argv) {
  return tesselune::run(argc, argv);
}
