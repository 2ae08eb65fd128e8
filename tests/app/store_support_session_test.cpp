// Whole runs of the built store support program against scratch data libraries, checked from the
// outside: the store's rows before and after (read with SQLite itself, the cascade rules taken from the
// store model), the report files, the data folders, what a terminal would show, and the D-Bus signals a
// private bus carries to a listening dbus-monitor.
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <set>
#include <thread>

#include "app/report_listing.h"
#include "app/store_maintenance.h"
#include "app/store_verification.h"
#include "app_test_support.h"
#include "model/store_classes.h"
#include "objectstore/sqlite/schema.h"
#include "objectstore/sqlite/sqlite_store.h"
#include "private_bus.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;
using test::PrivateBus;
using test::spawnProcess;
using testing::ScratchHome;

// ---------------------------------------------------------------------------------------------
// The store as rows: "Entity/pN" for each row, with the rows that own it through a cascade rule.

struct Owner {
  std::string relationship;  // the owner's cascade relationship, e.g. "peptideID"
  std::string row;           // the owner's key
};

struct StoreRows {
  std::map<std::string, std::vector<Owner>> rows;

  std::set<std::string> keys() const {
    std::set<std::string> keys;
    for (const auto& [key, owners] : rows) keys.insert(key);
    return keys;
  }
  std::size_t countOf(std::string_view entity) const {
    return std::count_if(rows.begin(), rows.end(),
                         [&](const auto& row) { return row.first.starts_with(std::string(entity) + "/"); });
  }
};

StoreRows readRows(const fs::path& storeFile) {
  auto model = loadStoreModel();
  EXPECT_TRUE(model);
  StoreRows result;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(storeFile.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << "cannot open " << storeFile;
    sqlite3_close(db);
    return result;
  }
  auto query = [db](const std::string& sql, auto&& eachRow) {
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr), SQLITE_OK)
        << sql << ": " << sqlite3_errmsg(db);
    while (sqlite3_step(statement) == SQLITE_ROW) eachRow(statement);
    sqlite3_finalize(statement);
  };

  std::map<std::int64_t, std::string> entityNames;
  query("SELECT Z_ENT, Z_NAME FROM Z_PRIMARYKEY", [&](sqlite3_stmt* s) {
    entityNames[sqlite3_column_int64(s, 0)] = reinterpret_cast<const char*>(sqlite3_column_text(s, 1));
  });

  // Owner columns per table: the to-one side of every cascade relationship.
  struct OwnerColumn {
    std::string column, relationship, ownerTable;
  };
  std::map<std::string, std::vector<OwnerColumn>> ownerColumns;
  for (const auto& entity : (*model)->entities()) {
    auto& columns = ownerColumns[SqliteStore::tableName(*entity)];
    for (const auto& [name, relationship] : entity->relationshipsByName()) {
      const RelationshipDescription* inverse = relationship->inverseRelationship();
      if (relationship->isToMany() || inverse == nullptr || inverse->deleteRule() != DeleteRule::Cascade)
        continue;
      OwnerColumn column{columnName(name), inverse->name(),
                         SqliteStore::tableName(*relationship->destinationEntity())};
      if (std::none_of(columns.begin(), columns.end(),
                       [&](const OwnerColumn& c) { return c.column == column.column; }))
        columns.push_back(column);
    }
  }

  // Rows by table and key, to name owners by their own entity afterwards.
  std::map<std::pair<std::string, std::int64_t>, std::string> keyOfRow;
  std::vector<std::tuple<std::string, std::string, std::string, std::int64_t>> pending;
  for (const auto& [table, columns] : ownerColumns) {
    std::string sql = "SELECT Z_ENT, Z_PK";
    for (const auto& column : columns) sql += ", " + column.column;
    sql += " FROM " + table;
    query(sql, [&](sqlite3_stmt* s) {
      const std::string key =
          entityNames[sqlite3_column_int64(s, 0)] + "/p" + std::to_string(sqlite3_column_int64(s, 1));
      keyOfRow[{table, sqlite3_column_int64(s, 1)}] = key;
      result.rows[key];
      for (std::size_t c = 0; c < columns.size(); ++c) {
        if (sqlite3_column_type(s, static_cast<int>(c) + 2) == SQLITE_NULL) continue;
        pending.emplace_back(key, columns[c].relationship, columns[c].ownerTable,
                             sqlite3_column_int64(s, static_cast<int>(c) + 2));
      }
    });
  }
  for (const auto& [key, relationship, table, owner] : pending) {
    result.rows[key].push_back({relationship, keyOfRow[{table, owner}]});
  }
  sqlite3_close(db);
  return result;
}

// "x-coredata://<store>/Entity/pN" as "Entity/pN".
std::string rowKeyOfUri(const std::string& uri) {
  const auto afterHost = uri.find('/', std::string_view("x-coredata://").size());
  return afterHost == std::string::npos ? uri : uri.substr(afterHost + 1);
}

std::vector<std::string> reportKeys(const DeletionReport& report) {
  std::vector<std::string> keys;
  for (const Url& uri : report.uris) keys.push_back(rowKeyOfUri(uri.absoluteString()));
  return keys;
}

// A row goes when it is marked or an owner of it goes; every other row stays.
void expectCascadeRulesFollowed(const StoreRows& before, const std::set<std::string>& after,
                                const std::set<std::string>& markedKeys) {
  for (const auto& [key, owners] : before.rows) {
    const bool ownerGone = std::any_of(owners.begin(), owners.end(),
                                       [&](const Owner& owner) { return !after.contains(owner.row); });
    if (!after.contains(key)) {
      EXPECT_TRUE(markedKeys.contains(key) || ownerGone) << key << " went without its owner";
    } else {
      EXPECT_FALSE(ownerGone) << key << " stayed without its owner";
    }
  }
  for (const std::string& key : markedKeys) EXPECT_FALSE(after.contains(key)) << key;
  for (const std::string& key : after) EXPECT_TRUE(before.rows.contains(key)) << "new row " << key;
}

// ---------------------------------------------------------------------------------------------
// A private session bus with a dbus-monitor listening on our interface.

class MonitoredBus {
 public:
  explicit MonitoredBus(const fs::path& folder) : folder_(folder), bus_(folder) {
    if (bus_.address().empty()) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, monitorFile().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    monitor_ = spawnProcess(
        {"dbus-monitor", "--address", bus_.address(), "type='signal',interface='org.tesselune.StoreSupport'"},
        &actions);
    posix_spawn_file_actions_destroy(&actions);
    // The monitor is listening once the bus has taken its name away.
    ready_ = waitForMonitorText("member=NameLost");
  }
  ~MonitoredBus() {
    if (monitor_ > 0) {
      ::kill(monitor_, SIGTERM);
      ::waitpid(monitor_, nullptr, 0);
    }
  }
  MonitoredBus(const MonitoredBus&) = delete;
  MonitoredBus& operator=(const MonitoredBus&) = delete;

  bool ready() const { return ready_; }
  const std::string& address() const { return bus_.address(); }

  // The deletion signals seen so far. A marker signal sent now arrives after anything the bus
  // already took in, so every signal of a finished run is counted.
  int deletionSignals() {
    const std::string marker = "marker" + std::to_string(++markers_);
    pid_t sender = spawnProcess({"dbus-send", "--bus=" + address(), "--type=signal",
                                 "/org/tesselune/StoreSupport", "org.tesselune.StoreSupport." + marker},
                                nullptr);
    ::waitpid(sender, nullptr, 0);
    EXPECT_TRUE(waitForMonitorText("member=" + marker));
    const std::string text = testing::readWholeFile(monitorFile());
    int count = 0;
    for (auto at = text.find("member=remoteObjectsDelete"); at != std::string::npos;
         at = text.find("member=remoteObjectsDelete", at + 1)) {
      EXPECT_NE(text.find("string \"Tesselune-storeSupport\"", at), std::string::npos);
      EXPECT_NE(text.rfind("path=/org/tesselune/StoreSupport", at), std::string::npos);
      ++count;
    }
    return count;
  }

 private:
  fs::path monitorFile() const { return folder_ / "monitor.txt"; }

  // Delivery is asynchronous; the wait is bounded so that a lost signal fails instead of hanging.
  bool waitForMonitorText(const std::string& text) const {
    for (int attempt = 0; attempt < 500; ++attempt) {
      if (testing::readWholeFile(monitorFile()).find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

  fs::path folder_;
  PrivateBus bus_;
  pid_t monitor_ = -1;
  bool ready_ = false;
  int markers_ = 0;
};

// A process named as the main application, started the ways a desktop session starts programs: a
// copy of sleep under that name, a link of that name to sleep, or sleep itself started by a
// launcher that names it in its first argument.
class StandInApplication {
 public:
  enum class Start { Copy, Link, FirstArgument };

  explicit StandInApplication(const fs::path& folder, Start start = Start::Copy) {
    const fs::path named = folder / "Tesselune";
    fs::remove(named);
    if (start == Start::Copy) fs::copy_file("/bin/sleep", named);
    if (start == Start::Link) fs::create_symlink("/bin/sleep", named);
    const std::string program = start == Start::FirstArgument ? "/bin/sleep" : named.string();
    std::string name = named.string(), duration = "600";
    char* argv[] = {name.data(), duration.data(), nullptr};
    if (::posix_spawn(&pid_, program.c_str(), nullptr, nullptr, argv, environ) != 0) pid_ = -1;
    // The program looks in /proc: wait until the process runs its new image.
    const fs::path self = fs::read_symlink("/proc/self/exe");
    for (int attempt = 0; attempt < 500 && pid_ > 0; ++attempt) {
      std::error_code ec;
      const fs::path image = fs::read_symlink(fs::path("/proc") / std::to_string(pid_) / "exe", ec);
      if (!ec && image != self) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  ~StandInApplication() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }
  StandInApplication(const StandInApplication&) = delete;
  StandInApplication& operator=(const StandInApplication&) = delete;

 private:
  pid_t pid_ = -1;
};

// ---------------------------------------------------------------------------------------------

class StoreSupportSessionTest : public ::testing::Test {
 protected:
  // Headless, with the bus given (none reachable by default).
  std::map<std::string, std::string> environment(const std::string& busAddress = {}) {
    auto variables = home_.environment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "XDG_RUNTIME_DIR"})
      variables[name] = "";
    variables["DBUS_SESSION_BUS_ADDRESS"] =
        busAddress.empty() ? "unix:path=" + (home_.root() / "no-bus").string() : busAddress;
    return variables;
  }

  testing::ProcessResult runProgram(const std::string& busAddress = {}) {
    return testing::runProcess(TESSELUNE_STORE_SUPPORT, {}, environment(busAddress), home_.root());
  }

  // Standard error on a terminal, where the program echoes its log lines. With `killAt`, the program
  // is killed as soon as that text appears there.
  testing::ProcessResult runProgramOnTerminal(const std::string& killAt = {},
                                              const std::string& busAddress = {}) {
    testing::ProcessResult result;
    int master = -1, replica = -1;
    if (::openpty(&master, &replica, nullptr, nullptr, nullptr) != 0) {
      ADD_FAILURE() << "no pseudo-terminal";
      return result;
    }
    std::string terminalText;
    std::atomic<pid_t> child{-1};
    std::thread reader([&, master] {
      char buffer[4096];
      bool killed = false;
      for (ssize_t n; (n = ::read(master, buffer, sizeof buffer)) > 0;) {
        terminalText.append(buffer, n);
        if (killed || killAt.empty() || terminalText.find(killAt) == std::string::npos) continue;
        // The line can only come from the child, so it has been started and its id stored.
        while (child.load() <= 0) std::this_thread::yield();
        killed = ::kill(child.load(), SIGKILL) == 0;
      }
    });
    std::vector<std::string> entries = testing::childEnvironment(environment(busAddress));
    std::vector<char*> envp;
    for (auto& entry : entries) envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::string program = TESSELUNE_STORE_SUPPORT;
    char* argv[] = {program.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, replica, 2);
    posix_spawn_file_actions_addopen(&actions, 1, (home_.root() / "child.out").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, envp.data());
    if (spawned == 0) child = pid;
    posix_spawn_file_actions_destroy(&actions);
    ::close(replica);
    int status = 0;
    if (spawned == 0) {
      while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
      if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    }
    // The read ends with an error once the last writer, the child, has gone.
    reader.join();
    ::close(master);
    result.err = terminalText;
    result.out = testing::readWholeFile(home_.root() / "child.out");
    return result;
  }

  void buildDemo(const DemoOptions& options) {
    ASSERT_TRUE(buildDemoStore(home_.library(), options, nullptr));
  }
  // A small demo store of which nothing is marked for deletion.
  void buildDemoWithNothingMarked() {
    DemoOptions options = testing::smallDemo();
    options.markedChromatograms = options.markedSearches = options.markedSearchGroups =
        options.markedDataCollections = 0;
    buildDemo(options);
  }

  std::vector<MarkedObject> marked() {
    auto opened = openMaintenanceStore(home_.library().storeFile(), true);
    EXPECT_TRUE(opened);
    if (!opened) return {};
    auto found = storeStatus(*opened->store, home_.library());
    EXPECT_TRUE(found);
    return found ? found->marked : std::vector<MarkedObject>{};
  }

  StoreRows rows() { return readRows(home_.library().storeFile()); }
  std::vector<ReportListingEntry> reports() { return readReports(home_.library().temporaryFolder()); }
  fs::path dataFolder(int chromatogram) const {
    return home_.library().folder() / ("Chromatogram " + std::to_string(chromatogram) + ".data");
  }

  static std::size_t countOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
  }

  ScratchHome home_;
};

TEST_F(StoreSupportSessionTest, NothingMarkedIsOnePassThatChangesNothing) {
  buildDemoWithNothingMarked();
  const StoreRows before = rows();

  const auto run = runProgramOnTerminal();
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(countOf(run.err, "Starting store support application"), 1u) << run.err;
  EXPECT_EQ(countOf(run.err, "Starting delete operation"), 1u) << run.err;
  EXPECT_EQ(countOf(run.err, "Ending delete operation"), 1u) << run.err;
  EXPECT_EQ(countOf(run.err, "Ending store support application"), 1u) << run.err;
  EXPECT_EQ(run.err.find("Alert"), std::string::npos) << run.err;

  EXPECT_EQ(rows().keys(), before.keys());
  EXPECT_TRUE(reports().empty());
  EXPECT_TRUE(fs::exists(dataFolder(1)));
  EXPECT_TRUE(fs::exists(dataFolder(2)));
}

// The whole clean-up checked against the rows: what goes is exactly what the marks and the cascade
// rules reach, the report lists exactly what the clean-up itself deleted, and a rerun finds nothing.
TEST_F(StoreSupportSessionTest, MarkedObjectsGoWithExactlyTheirCascadeDependantsAndTheReportListsThem) {
  buildDemo(testing::smallDemo());
  const std::vector<MarkedObject> marks = marked();
  ASSERT_EQ(marks.size(), 4u);
  std::set<std::string> markedKeys;
  for (const auto& mark : marks) markedKeys.insert(rowKeyOfUri(mark.uri));
  const StoreRows before = rows();
  ASSERT_GT(before.countOf("PeptideID"), 0u);
  ASSERT_GT(before.countOf("PeptideIDJoined"), 0u);

  const auto run = runProgramOnTerminal();
  EXPECT_EQ(run.exitCode, 0) << run.err;
  // One pass that deletes, one that finds nothing left.
  EXPECT_EQ(countOf(run.err, "Starting delete operation"), 2u) << run.err;
  EXPECT_EQ(countOf(run.err, "Starting to delete a chromatogram"), 1u) << run.err;
  EXPECT_EQ(countOf(run.err, "Starting to delete a database search group"), 1u) << run.err;
  EXPECT_EQ(countOf(run.err, "Starting to delete data collections"), 1u) << run.err;
  EXPECT_EQ(run.err.find("Alert"), std::string::npos) << run.err;

  const std::set<std::string> after = rows().keys();
  expectCascadeRulesFollowed(before, after, markedKeys);

  // Rows reached by a marked object's own cascade relationships are the clean-up's and are
  // reported, except the peptide identifications, which the clean-up leaves to the store's delete
  // rules.
  std::set<std::string> expectedInReport = markedKeys;
  std::size_t removed = 0, peptidesGone = 0;
  for (const auto& [key, owners] : before.rows) {
    if (after.contains(key)) continue;
    ++removed;
    if (key.starts_with("PeptideID")) ++peptidesGone;
    for (const Owner& owner : owners) {
      const bool leftOut = owner.relationship == "peptideID" || owner.relationship == "peptideIDsJoined";
      if (markedKeys.contains(owner.row) && !leftOut) expectedInReport.insert(key);
    }
  }
  EXPECT_GT(peptidesGone, 0u) << "the store's delete rules take the peptide identifications";
  EXPECT_GT(removed, expectedInReport.size());

  EXPECT_FALSE(fs::exists(dataFolder(2)));
  EXPECT_TRUE(fs::exists(dataFolder(1)));
  {
    auto opened = openMaintenanceStore(home_.library().storeFile(), true);
    ASSERT_TRUE(opened);
    auto verified = verifyStore(*opened->store);
    ASSERT_TRUE(verified);
    EXPECT_TRUE(verified->ok()) << formatVerification(*verified);
  }

  const auto left = reports();
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].file.filename(), "storeSupport.info");
  ASSERT_TRUE(left[0].report) << left[0].report.error().debugDescription();
  EXPECT_TRUE(left[0].report->chromatogramDeleted);
  const std::vector<std::string> listed = reportKeys(*left[0].report);
  EXPECT_EQ(std::set<std::string>(listed.begin(), listed.end()), expectedInReport);
  EXPECT_EQ(listed.size(), expectedInReport.size()) << "an object listed twice";
  // Every URI names this store: the same prefix as the marked objects' own URIs.
  const std::string storePrefix =
      marks[0].uri.substr(0, marks[0].uri.size() - rowKeyOfUri(marks[0].uri).size());
  for (const Url& uri : left[0].report->uris) EXPECT_TRUE(uri.absoluteString().starts_with(storePrefix));

  const auto again = runProgramOnTerminal();
  EXPECT_EQ(again.exitCode, 0);
  EXPECT_EQ(countOf(again.err, "Starting delete operation"), 1u) << again.err;
  EXPECT_EQ(rows().keys(), after);
  EXPECT_EQ(reports().size(), 1u);
}

// A run killed part-way (the chromatogram and the search gone, the search group, the data collection
// and the report not yet) leaves a store that the next run completes: the marks stay until their
// objects go.
TEST_F(StoreSupportSessionTest, ARunKilledPartWayIsCompletedByTheNextRun) {
  buildDemo(testing::smallDemo());
  std::set<std::string> markedKeys;
  for (const auto& mark : marked()) markedKeys.insert(rowKeyOfUri(mark.uri));
  const StoreRows before = rows();

  const auto killed = runProgramOnTerminal("Starting to delete a database search group");
  if (killed.exitCode != -1) GTEST_SKIP() << "the run ended before it could be killed:\n" << killed.err;
  ASSERT_EQ(marked().size(), 2u) << "the kill should leave the search group and the data collection";
  EXPECT_TRUE(reports().empty());
  const auto completed = runProgram();
  EXPECT_EQ(completed.exitCode, 0) << completed.err;

  expectCascadeRulesFollowed(before, rows().keys(), markedKeys);
  EXPECT_FALSE(fs::exists(dataFolder(2)));
  auto opened = openMaintenanceStore(home_.library().storeFile(), true);
  ASSERT_TRUE(opened);
  auto verified = verifyStore(*opened->store);
  ASSERT_TRUE(verified);
  EXPECT_TRUE(verified->ok()) << formatVerification(*verified);
  EXPECT_FALSE(reports().empty());
}

// Reports the main application has not read yet stay; the new one takes the first free name. With no
// chromatogram among the deleted objects the report says so.
TEST_F(StoreSupportSessionTest, ANewReportFillsTheFirstGapAndSaysWhetherAChromatogramWent) {
  DemoOptions options = testing::smallDemo();
  options.markedChromatograms = 0;
  buildDemo(options);
  const fs::path folder = home_.library().temporaryFolder();
  fs::create_directories(folder);
  std::ofstream(folder / "storeSupport.info") << "unread";
  std::ofstream(folder / "storeSupport_1.info") << "unread";

  const auto run = runProgram();
  EXPECT_EQ(run.exitCode, 0) << run.err;
  ASSERT_TRUE(fs::exists(folder / "storeSupport_0.info"));
  EXPECT_EQ(testing::readWholeFile(folder / "storeSupport.info"), "unread");
  EXPECT_EQ(testing::readWholeFile(folder / "storeSupport_1.info"), "unread");
  EXPECT_FALSE(fs::exists(folder / "storeSupport_2.info"));
  auto report = readDeletionReport(folder / "storeSupport_0.info");
  ASSERT_TRUE(report) << report.error().debugDescription();
  EXPECT_FALSE(report->chromatogramDeleted);
  EXPECT_FALSE(report->uris.empty());
  EXPECT_TRUE(fs::exists(dataFolder(2)));
}

TEST_F(StoreSupportSessionTest, AMissingTemporaryFolderIsCreatedForTheReport) {
  buildDemo(testing::smallDemo());
  fs::remove_all(home_.library().temporaryFolder());
  const auto run = runProgram();
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(fs::is_directory(home_.library().temporaryFolder()));
  EXPECT_EQ(reports().size(), 1u);
}

// Each pass that finds a report tells a running main application: the pass that wrote it and the
// pass after it that found nothing to delete; a later run finds the report still there.
TEST_F(StoreSupportSessionTest, TheSignalGoesOutOncePerPassThatFindsAReportWhileTheApplicationRuns) {
  MonitoredBus bus(home_.root() / "bus");
  ASSERT_TRUE(bus.ready()) << "dbus-daemon and dbus-monitor are needed";
  buildDemo(testing::smallDemo());
  // Every pass of these runs finds the report the first one left, so each posts once; the passes
  // are counted from the log the program echoes on a terminal.
  int passes = 0;
  {
    StandInApplication application(home_.root());
    auto run = runProgramOnTerminal({}, bus.address());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    passes = static_cast<int>(countOf(run.err, "Starting delete operation"));
    EXPECT_GE(passes, 2) << run.err;
    EXPECT_EQ(bus.deletionSignals(), passes) << run.err;
    run = runProgramOnTerminal({}, bus.address());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    passes += static_cast<int>(countOf(run.err, "Starting delete operation"));
    EXPECT_EQ(bus.deletionSignals(), passes) << run.err;
  }
  // The same report is waiting, but nobody is there to read it.
  const auto run = runProgram(bus.address());
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(bus.deletionSignals(), passes);
}

// However the session started the main application, a waiting report is announced to it.
TEST_F(StoreSupportSessionTest, TheApplicationIsFoundThroughALinkOrALauncherAsThroughACopy) {
  MonitoredBus bus(home_.root() / "bus");
  ASSERT_TRUE(bus.ready()) << "dbus-daemon and dbus-monitor are needed";
  buildDemoWithNothingMarked();
  fs::create_directories(home_.library().temporaryFolder());
  std::ofstream(home_.library().temporaryFolder() / "storeSupport_3.info") << "unread";

  int expected = 0;
  for (auto start : {StandInApplication::Start::Copy, StandInApplication::Start::Link,
                     StandInApplication::Start::FirstArgument}) {
    StandInApplication application(home_.root(), start);
    const auto run = runProgram(bus.address());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(bus.deletionSignals(), ++expected) << "start " << static_cast<int>(start) << "\n" << run.err;
  }
}

TEST_F(StoreSupportSessionTest, NoSignalWithoutTheApplicationOrWithoutAReport) {
  MonitoredBus bus(home_.root() / "bus");
  ASSERT_TRUE(bus.ready()) << "dbus-daemon and dbus-monitor are needed";
  buildDemoWithNothingMarked();
  {
    StandInApplication application(home_.root());
    EXPECT_EQ(runProgram(bus.address()).exitCode, 0);
    EXPECT_EQ(bus.deletionSignals(), 0);
  }
}

// Without a reachable bus the running application cannot be told: each pass that would have posted
// counts it among its errors, the alert at the end shows them, and the log never claims a signal
// went out.
TEST_F(StoreSupportSessionTest, WithoutABusEachPassThatWouldPostEndsInTheErrorAlert) {
  buildDemo(testing::smallDemo());
  StandInApplication application(home_.root());
  const auto run = runProgramOnTerminal();
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(countOf(run.err, "Starting delete operation"), 2u) << run.err;
  EXPECT_EQ(countOf(run.err, "Sending global notification remoteObjectsDelete"), 0u) << run.err;
  EXPECT_EQ(countOf(run.err, "Alert ("), 1u) << run.err;
  EXPECT_NE(
      run.err.find("Alert (informational): Several errors ocurred in course of chromatogram deletion.."),
      std::string::npos)
      << run.err;
  EXPECT_EQ(countOf(run.err, "The notification remoteObjectsDelete could not be posted"), 2u) << run.err;
  EXPECT_TRUE(run.out.empty()) << run.out;
  EXPECT_EQ(reports().size(), 1u);
}

TEST_F(StoreSupportSessionTest, AReadOnlyDataFolderIsReportedAndTheStoreEntriesStillGo) {
  if (::geteuid() == 0) GTEST_SKIP() << "running as root: folder permissions do not stop the removal";
  buildDemo(testing::smallDemo());
  fs::permissions(dataFolder(2), fs::perms::owner_read | fs::perms::owner_exec);
  const auto run = runProgram();
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_NE(run.err.find("Error when deleting chromatographic data of chromatogram: \"Chromatogram 2\"."),
            std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find("Use the command \"File -> Show in Finder\" to remove the data manually."),
            std::string::npos);
  EXPECT_TRUE(fs::exists(dataFolder(2)));
  EXPECT_EQ(rows().countOf("Chromatogram"), 1u);
}

// A data folder that is a link out of the library goes as a link: what it leads to is left alone and
// nothing is reported; the chromatogram's store entries go as usual.
TEST_F(StoreSupportSessionTest, ADataFolderLinkLeadingOutOfTheLibraryIsRemovedAsALink) {
  buildDemo(testing::smallDemo());
  const fs::path outside = home_.root() / "elsewhere";
  fs::create_directories(outside);
  std::ofstream(outside / "precious.raw") << "keep";
  fs::remove_all(dataFolder(2));
  fs::create_directory_symlink(outside, dataFolder(2));

  const auto run = runProgram();
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.err.find("Error when deleting chromatographic data"), std::string::npos) << run.err;
  EXPECT_FALSE(fs::exists(fs::symlink_status(dataFolder(2))));
  EXPECT_EQ(testing::readWholeFile(outside / "precious.raw"), "keep");
  EXPECT_EQ(rows().countOf("Chromatogram"), 1u);
  EXPECT_TRUE(marked().empty());
  EXPECT_EQ(reports().size(), 1u);
}

}  // namespace
}  // namespace tesselune
