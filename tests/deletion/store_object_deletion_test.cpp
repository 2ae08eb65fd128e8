// The deletion protocol of the store's objects against a real store made from the store model:
// chunked batch deletes, the one-level cascade clean-up with its progress, the relationships the
// searches leave out, and the chromatogram's data folder with its safety rules.

#include <gtest/gtest.h>

#include <fstream>

#include "deletion_test_support.h"
#include "model/database_search.h"

namespace tesselune::test {
namespace {

const std::string kFolderAlertPrefix =
    "Error when deleting chromatographic data of chromatogram: \"Run\". \rUse the command \"File -> Show in "
    "Finder\" to remove the data manually.\rReason: ";

void writeFile(const fs::path& file) {
  fs::create_directories(file.parent_path());
  std::ofstream(file) << "peaks";
}

class BatchDeleteWithFetchTest : public DeletionTest {
 protected:
  // `n` spectra of level 1 and three of level 2.
  void makeSpectra(int n) {
    context_ = newContext();
    for (int i = 0; i < n + 3; ++i) {
      auto spectrum = context_->insertNewObjectForEntityForName("Spectrum");
      spectrum->setValue(Value(std::int64_t{i < n ? 1 : 2}), "msLevel");
    }
    save(*context_);
  }
  static FetchRequest levelOne() {
    FetchRequest request = FetchRequest::fetchRequestWithEntityName("SpectrumSingle");
    request.predicate = *predicateWithFormat("msLevel == 1");
    return request;
  }

  std::unique_ptr<ManagedObjectContext> context_;
};

TEST_F(BatchDeleteWithFetchTest, DeletesWhatMatchesInChunksOfAThousand) {
  makeSpectra(2500);
  std::vector<std::size_t> chunks;
  DeletionSupport support = deletionSupport(fakes_->services());
  support.chunkDeleted = [&chunks](const std::vector<ManagedObjectID>& ids) { chunks.push_back(ids.size()); };

  Expected<std::vector<ManagedObjectID>> deleted;
  context_->performBlockAndWait([&] { deleted = batchDeleteWithFetch(*context_, levelOne(), support); });
  ASSERT_TRUE(deleted) << deleted.error().debugDescription();
  EXPECT_EQ(chunks, (std::vector<std::size_t>{1000, 1000, 500}));
  EXPECT_EQ(deleted->size(), 2500u);
  EXPECT_EQ(count("SpectrumSingle"), 3) << "what does not match stays";

  // Nothing left to match: no chunk at all.
  chunks.clear();
  context_->performBlockAndWait([&] { deleted = batchDeleteWithFetch(*context_, levelOne(), support); });
  ASSERT_TRUE(deleted);
  EXPECT_TRUE(deleted->empty());
  EXPECT_TRUE(chunks.empty());
}

TEST_F(BatchDeleteWithFetchTest, AFailingCountPrintsOneLineAndDeletesNothing) {
  makeSpectra(4);
  FetchRequest request = FetchRequest::fetchRequestWithEntityName("SpectrumSingle");
  request.predicate = *predicateWithFormat("noSuchKey == 1");
  Expected<std::vector<ManagedObjectID>> deleted;
  context_->performBlockAndWait(
      [&] { deleted = batchDeleteWithFetch(*context_, request, deletionSupport(fakes_->services())); });
  ASSERT_TRUE(deleted) << "a failing count is no failure of the call";
  EXPECT_TRUE(deleted->empty());
  const auto printed = fakes_->printedLines();
  ASSERT_EQ(printed.size(), 1u);
  EXPECT_TRUE(printed[0].starts_with(
      "An error occurred when counting objects in course of a batch delete.\nPrimary object: chromatogram - "
      "entities: SpectrumSingle\nError:"))
      << printed[0];
  EXPECT_EQ(count("SpectrumSingle"), 7);
}

class CascadeCleanUpTest : public DeletionTest {
 protected:
  void SetUp() override {
    DeletionTest::SetUp();
    context_ = newContext();
  }
  std::unique_ptr<ManagedObjectContext> context_;
  RecordingReporter reporter_;
};

TEST_F(CascadeCleanUpTest, ASearchLeavesItsPeptideIdentificationsToTheBatchDeleteOfItself) {
  auto search = std::dynamic_pointer_cast<DatabaseSearchResult>(
      context_->insertNewObjectForEntityForName("DatabaseSearchResult"));
  ASSERT_TRUE(search);
  insertChildren(*context_, search, "PeptideID", "databaseSearchResult", 3);
  insertChildren(*context_, search, "ProteinID", "databaseSearchResult", 2);
  insertChildren(*context_, search, "IonVolumeGroup", "databaseSearchResult", 1);
  save(*context_);

  EXPECT_EQ(search->numberOfCascadingRelationships(), 3);
  std::vector<ManagedObjectID> deleted;
  context_->performBlockAndWait(
      [&] { deleted = search->willBeDeleted(&reporter_, deletionSupport(fakes_->services())); });
  EXPECT_EQ(deleted.size(), 3u);
  EXPECT_EQ(reporter_.increments, 2) << "the left-out relationship sends no progress";
  EXPECT_EQ(reporter_.texts, std::vector<std::string>{"Deleting a database search"});
  EXPECT_EQ(count("ProteinID"), 0);
  EXPECT_EQ(count("IonVolumeGroup"), 0);
  EXPECT_EQ(count("PeptideID"), 3);
  EXPECT_EQ(count("DatabaseSearchResult"), 1) << "the search itself stays";
}

TEST_F(CascadeCleanUpTest, ASearchGroupLeavesItsJoinedIdentifications) {
  auto group = std::dynamic_pointer_cast<DatabaseSearchJoin>(
      context_->insertNewObjectForEntityForName("DatabaseSearchJoin"));
  ASSERT_TRUE(group);
  insertChildren(*context_, group, "PeptideIDJoined", "databaseSearchJoin", 4);
  save(*context_);

  EXPECT_EQ(group->numberOfCascadingRelationships(), 1);
  std::vector<ManagedObjectID> deleted;
  context_->performBlockAndWait(
      [&] { deleted = group->willBeDeleted(nullptr, deletionSupport(fakes_->services())); });
  EXPECT_TRUE(deleted.empty());
  EXPECT_EQ(count("PeptideIDJoined"), 4);
}

TEST_F(CascadeCleanUpTest, AChromatogramCleansEveryCascadeRelationshipOneLevelDeep) {
  auto run = insertChromatogram(*context_, "Run", "", true);
  auto other = insertChromatogram(*context_, "Other", "", false);
  insertChildren(*context_, run, "Spectrum", "chromatogramNative", 3);
  insertChildren(*context_, run, "FragmentSpectrum", "precursorChromatogram", 2);
  insertChildren(*context_, run, "ChromatogramMap", "chromatogram", 1);
  insertChildren(*context_, other, "Spectrum", "chromatogramNative", 2);
  auto lists = context_->insertNewObjectForEntityForName("PrecursorListGroup");
  lists->setValue(Value(ObjectPtr(run)), "chromatogram");
  insertChildren(*context_, lists, "PrecursorList", "precursorListGroup", 2);
  save(*context_);

  reporter_.indicator = 7;
  reporter_.maximum = 20;
  EXPECT_EQ(run->numberOfCascadingRelationships(), 10);
  std::vector<ManagedObjectID> deleted;
  context_->performBlockAndWait(
      [&] { deleted = run->willBeDeleted(&reporter_, deletionSupport(fakes_->services())); });

  EXPECT_EQ(deleted.size(), 7u);  // spectra, fragment spectra, the map, the list group
  EXPECT_EQ(count("SpectrumSingle"), 2) << "the other chromatogram's spectra stay";
  EXPECT_EQ(count("ChromatogramMap"), 0);
  EXPECT_EQ(count("PrecursorListGroup"), 0);
  EXPECT_EQ(count("Chromatogram"), 2) << "the chromatogram itself stays";

  // The file phase is indeterminate; afterwards the reporter is as it was, plus one step per relationship.
  EXPECT_EQ(reporter_.maxima, (std::vector<double>{-1.0, 20.0}));
  EXPECT_EQ(reporter_.texts, (std::vector<std::string>{"Deleting a chromatogram: removing data files",
                                                       "Deleting a chromatogram: removing store entries"}));
  EXPECT_EQ(reporter_.increments, 10);
  EXPECT_EQ(reporter_.indicator, 17);
  EXPECT_TRUE(fakes_->log->lines().empty());
  EXPECT_TRUE(deliverAlerts().empty());
}

// A store opened read-only lets the counts and fetches through and refuses the deletes: each kind
// of object reports the failure its own way and carries on.
TEST_F(CascadeCleanUpTest, FailedRelationshipsAreLoggedOrPrintedAndTheOthersStillGo) {
  auto run = insertChromatogram(*context_, "Run", "", true);
  insertChildren(*context_, run, "Spectrum", "chromatogramNative", 2);
  insertChildren(*context_, run, "Spectrum", "precursorChromatogram", 1);
  auto search = context_->insertNewObjectForEntityForName("DatabaseSearchResult");
  insertChildren(*context_, search, "ProteinID", "databaseSearchResult", 1);
  save(*context_);

  auto coordinator = container_->dataContainer().activateReadOnlyStoreCoordinator();
  ManagedObjectContext reading(ManagedObjectContextConcurrencyType::PrivateQueue);
  reading.setPersistentStoreCoordinator(coordinator.get());
  reading.performBlockAndWait([&] {
    auto readOnlyRun = std::dynamic_pointer_cast<StoreObject>(reading.objectWithID(run->objectID()));
    auto readOnlySearch = std::dynamic_pointer_cast<StoreObject>(reading.objectWithID(search->objectID()));
    ASSERT_TRUE(readOnlyRun && readOnlySearch);
    EXPECT_TRUE(readOnlyRun->willBeDeleted(&reporter_, deletionSupport(fakes_->services())).empty());
    EXPECT_TRUE(readOnlySearch->willBeDeleted(nullptr, deletionSupport(fakes_->services())).empty());
  });
  EXPECT_EQ(reporter_.increments, 10) << "every relationship advances the progress, failed or not";

  const auto logged = fakes_->log->lines();
  ASSERT_EQ(logged.size(), 2u);
  std::vector<std::string> labels;
  for (const std::string& line : logged) {
    const std::string head =
        "An error occurred when cleaning out relationships in course of a batch delete.\nPrimary object: "
        "chromatogram - entities: ";
    ASSERT_TRUE(line.starts_with(head)) << line;
    labels.push_back(line.substr(head.size(), line.find('\n', head.size()) - head.size()));
    EXPECT_NE(line.find("\nError:"), std::string::npos);
  }
  std::sort(labels.begin(), labels.end());
  EXPECT_EQ(labels, (std::vector<std::string>{"FragmentSpectrum", "Spectrum"}));

  const auto printed = fakes_->printedLines();
  ASSERT_EQ(printed.size(), 1u);
  EXPECT_TRUE(printed[0].starts_with(
      "An error occurred when cleaning out relationships in course of a batch delete.\nPrimary object: "
      "DatabaseSearchResult - entities: ProteinID\nError:"))
      << printed[0];
  EXPECT_EQ(count("SpectrumSingle"), 3);
  container_->dataContainer().deactivateReadOnlyStoreCoordinatorWithReadOnlyStoreCoordinator(
      std::move(coordinator));
}

class DataFolderTest : public DeletionTest {
 protected:
  void SetUp() override {
    DeletionTest::SetUp();
    context_ = newContext();
    outside_ = group_ / "outside";
    writeFile(outside_ / "keep.bin");
  }
  // Deletes a chromatogram (with two spectra) whose data folder is `relativePath`; answers the alerts.
  std::vector<AlertContent> deleteRun(const std::string& relativePath) {
    auto run = insertChromatogram(*context_, "Run", relativePath, true);
    insertChildren(*context_, run, "Spectrum", "chromatogramNative", 2);
    save(*context_);
    std::vector<ManagedObjectID> deleted;
    context_->performBlockAndWait(
        [&] { deleted = run->willBeDeleted(nullptr, deletionSupport(fakes_->services())); });
    EXPECT_EQ(deleted.size(), 2u) << "store entries go whatever became of the folder";
    // As the pass does: the chromatogram goes too, so that it protects no folder any more.
    context_->performBlockAndWait([&] {
      context_->deleteObject(run);
      save(*context_);
    });
    std::vector<AlertContent> alerts = deliverAlerts();
    alerts.erase(alerts.begin(), alerts.begin() + static_cast<std::ptrdiff_t>(alertsSeen_));
    alertsSeen_ += alerts.size();
    return alerts;
  }
  static void expectRefused(const std::vector<AlertContent>& alerts) {
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].style, AlertContent::Style::Critical);
    EXPECT_EQ(alerts[0].messageText, "An Error Occurred.");
    EXPECT_TRUE(alerts[0].informativeText.starts_with(kFolderAlertPrefix)) << alerts[0].informativeText;
  }

  std::unique_ptr<ManagedObjectContext> context_;
  fs::path outside_;
  std::size_t alertsSeen_ = 0;
};

TEST_F(DataFolderTest, AFolderInsideTheLibraryIsRemovedWithItsContents) {
  writeFile(library() / "runs" / "run1" / "scans" / "a.bin");
  EXPECT_TRUE(deleteRun("runs/run1").empty());
  EXPECT_FALSE(fs::exists(library() / "runs" / "run1"));
  EXPECT_TRUE(fs::exists(library() / "runs"));
  EXPECT_TRUE(fs::exists(storeFile()));
}

TEST_F(DataFolderTest, NoFolderOrOneThatNamesNothingIsNoError) {
  fs::create_directory_symlink(outside_, library() / "escape");
  for (const char* path : {"", "runs/never-made", "../never-made", "/never/made", "escape/never-made"}) {
    SCOPED_TRACE(path);
    EXPECT_TRUE(deleteRun(path).empty());
  }
  EXPECT_TRUE(fs::exists(outside_ / "keep.bin"));
}

TEST_F(DataFolderTest, LinksAndPlainFilesAreRemovedAsThemselves) {
  writeFile(library() / "store" / "run1" / "a.bin");
  fs::create_directory_symlink(library() / "store" / "run1", library() / "run1");
  fs::create_directory_symlink(outside_, library() / "escape");
  writeFile(library() / "run2.raw");
  EXPECT_TRUE(deleteRun("run1").empty());
  EXPECT_TRUE(deleteRun("escape").empty());
  EXPECT_TRUE(deleteRun("run2.raw").empty());
  for (const char* gone : {"run1", "escape", "run2.raw"})
    EXPECT_FALSE(fs::exists(fs::symlink_status(library() / gone))) << gone;
  EXPECT_TRUE(fs::exists(library() / "store" / "run1" / "a.bin")) << "a link's target stays";
  EXPECT_TRUE(fs::exists(outside_ / "keep.bin"));
}

TEST_F(DataFolderTest, PathsLeadingOutOfTheLibraryAreRefusedAndReported) {
  writeFile(library() / "runs" / "run1" / "a.bin");
  fs::create_directory_symlink(outside_, library() / "escape");
  expectRefused(deleteRun(outside_.string()));
  expectRefused(deleteRun("../outside"));
  expectRefused(deleteRun("escape/keep.bin"));
  expectRefused(deleteRun("runs/../runs/run1"));
  expectRefused(deleteRun("."));  // the library itself
  EXPECT_TRUE(fs::exists(outside_ / "keep.bin"));
  EXPECT_TRUE(fs::exists(library() / "runs" / "run1" / "a.bin"));
  EXPECT_TRUE(fs::exists(storeFile()));
  EXPECT_EQ(count("SpectrumSingle"), 0);
}

TEST_F(DataFolderTest, TheLibrarysOwnFilesAndFoldersOfOtherChromatogramsStay) {
  writeFile(temporaryFolder() / "storeSupport.info");
  writeFile(library() / "shared" / "run" / "a.bin");
  writeFile(library() / "real" / "run9" / "a.bin");
  fs::create_directory_symlink(library() / "real" / "run9", library() / "alias");
  auto other = insertChromatogram(*context_, "Other", "shared/run", false);
  insertChromatogram(*context_, "Aliased", "alias", false);
  save(*context_);

  for (const char* path : {"temporaryFiles", "temporaryFiles/storeSupport.info", "TesseluneStore.tesselune",
                           "TesseluneStore.tesselune-wal", "shared", "shared/run", "shared/run/a.bin", "real",
                           "real/run9", "alias"}) {
    SCOPED_TRACE(path);
    expectRefused(deleteRun(path));
  }
  EXPECT_TRUE(fs::exists(temporaryFolder() / "storeSupport.info"));
  EXPECT_TRUE(fs::exists(library() / "shared" / "run" / "a.bin"));
  EXPECT_TRUE(fs::exists(library() / "real" / "run9" / "a.bin"));
  EXPECT_TRUE(fs::is_symlink(library() / "alias"));
  EXPECT_EQ(count("Chromatogram", "chromatogramName == 'Run'"), 0);

  // Once the other chromatogram has gone, its folder is an ordinary one.
  context_->performBlockAndWait([&] {
    context_->deleteObject(other);
    save(*context_);
  });
  EXPECT_TRUE(deleteRun("shared").empty());
  EXPECT_FALSE(fs::exists(library() / "shared"));
}

TEST_F(DataFolderTest, AFolderThatCannotBeRemovedIsReportedWithTheCause) {
  if (::geteuid() == 0) GTEST_SKIP() << "permissions do not hold for root";
  writeFile(library() / "locked" / "inner" / "a.bin");
  fs::permissions(library() / "locked", fs::perms::owner_read | fs::perms::owner_exec);
  const auto alerts = deleteRun("locked");
  fs::permissions(library() / "locked", fs::perms::owner_all);
  expectRefused(alerts);
  EXPECT_TRUE(fs::exists(library() / "locked" / "inner" / "a.bin"));
}

}  // namespace
}  // namespace tesselune::test
