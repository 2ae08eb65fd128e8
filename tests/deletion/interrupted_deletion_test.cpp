// A deletion run killed in the middle of a chromatogram's clean-up, and the run after it: each batch
// delete is one transaction, so the killed run leaves whole chunks deleted and the chromatogram still
// marked, and the next run reports what the killed one deleted (from its journal) and finishes the job.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <set>

#include "deletion/deletion_journal.h"
#include "deletion/deletion_report.h"
#include "deletion/deletion_rounds.h"
#include "deletion_test_support.h"

namespace tesselune::test {
namespace {

constexpr int kSpectra = 1100;

// The store is made by the child, so that the parent forks before it has opened anything.
class InterruptedDeletionTest : public DeletionTest {
 protected:
  void SetUp() override {
    queue_ = std::make_shared<RunLoopMainQueue>();
    setMainQueue(queue_);
    group_ = scratchFolder("group");
    fakes_.emplace(group_);
  }

  // In the child: a marked chromatogram with its spectra, maps and data folder, then a run that
  // kills its own process once the first full chunk of spectra is committed. Never returns.
  [[noreturn]] void runChildThatIsKilled() {
    StoreSupportServices services = fakes_->services();
    services.chunkDeleted = [](const std::vector<ManagedObjectID>& ids) {
      if (ids.size() == kBatchDeleteChunkSize) std::raise(SIGKILL);
    };
    auto container = StoreSupportContainer::create(services);
    if (!container || !(*container)->openStore()) ::_exit(2);
    container_ = *container;
    auto context = newContext();
    auto run = insertChromatogram(*context, "Run", "run1", true);
    insertManyChildren(*context, run, "Spectrum", "spectrum", kSpectra);
    insertChildren(*context, run, "ChromatogramMap", "chromatogram", 2);
    if (!context->save()) ::_exit(3);
    fs::create_directories(library() / "run1");
    std::ofstream(library() / "run1" / "scan.bin") << "peaks";
    runDeletionRounds(container_);
    ::_exit(4);  // the kill did not come
  }
};

TEST_F(InterruptedDeletionTest, AKilledRunLeavesWholeChunksAndTheNextRunCompletes) {
  const pid_t child = ::fork();
  ASSERT_NE(child, -1);
  if (child == 0) runChildThatIsKilled();
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status)) << "child exited with " << WEXITSTATUS(status);
  ASSERT_EQ(WTERMSIG(status), SIGKILL);

  // What the killed run committed stays; the rest waits, still marked.
  container_ = makeContainer();
  EXPECT_FALSE(fs::exists(library() / "run1"));
  EXPECT_EQ(count("Chromatogram", "destinedForDeletion == TRUE"), 1);
  EXPECT_EQ(count("SpectrumSingle"), kSpectra - 1000);
  EXPECT_FALSE(deletionReportExists(temporaryFolder()));
  EXPECT_EQ(leftJournals(temporaryFolder()).size(), 1u);

  const DeletionRoundsSummary summary = runDeletionRounds(container_);
  EXPECT_TRUE(summary.errors.empty());
  EXPECT_EQ(summary.passes, 2);
  EXPECT_EQ(count("Chromatogram"), 0);
  EXPECT_EQ(count("SpectrumSingle"), 0);
  // First what the killed run deleted, from its journal; then the pass that finished the job: every
  // object once.
  auto earlier = readDeletionReport(temporaryFolder() / "storeSupport.info");
  ASSERT_TRUE(earlier) << earlier.error().debugDescription();
  EXPECT_EQ(earlier->uris.size(), 2u + 1000u);  // the two maps, then the first chunk of spectra
  EXPECT_TRUE(earlier->chromatogramDeleted);
  auto report = readDeletionReport(temporaryFolder() / "storeSupport_0.info");
  ASSERT_TRUE(report) << report.error().debugDescription();
  EXPECT_EQ(report->uris.size(), static_cast<std::size_t>(kSpectra - 1000 + 1));
  EXPECT_TRUE(report->chromatogramDeleted);
  std::set<std::string> reported;
  for (const auto* r : {&*earlier, &*report})
    for (const Url& uri : r->uris)
      EXPECT_TRUE(reported.insert(uri.absoluteString()).second) << uri.absoluteString();
  for (const auto& entry : fs::directory_iterator(temporaryFolder()))
    EXPECT_FALSE(entry.path().string().ends_with(".journal")) << entry.path();
  EXPECT_TRUE(deliverAlerts().empty());
}

}  // namespace
}  // namespace tesselune::test
