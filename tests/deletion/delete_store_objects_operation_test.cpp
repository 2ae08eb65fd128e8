// Deletion passes and their driver on a real store in a scratch data library, with fake seams: the
// whole event from a marked chromatogram to its report and notification, the four jobs, the pass
// limit, collected errors and their alert, report names, and the launch.

#include "deletion/delete_store_objects_operation.h"

#include <gtest/gtest.h>

#include <cerrno>

#include <algorithm>
#include <fstream>

#include "deletion/deletion_report.h"
#include "deletion/deletion_rounds.h"
#include "deletion_test_support.h"

namespace tesselune::test {
namespace {

using Strings = std::vector<std::string>;

Strings urisOf(const std::vector<ManagedObjectID>& ids) {
  Strings uris;
  for (const ManagedObjectID& id : ids) uris.push_back(id.URIRepresentation().absoluteString());
  return uris;
}

Strings sorted(Strings strings) {
  std::sort(strings.begin(), strings.end());
  return strings;
}

class DeletionPassTest : public DeletionTest {
 protected:
  void SetUp() override {
    DeletionTest::SetUp();
    context_ = newContext();
  }
  // The report files in the temporary folder, by name.
  Strings reportNames() const {
    Strings names;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(temporaryFolder(), ec))
      names.push_back(entry.path().filename());
    return sorted(names);
  }
  DeletionReport report(const std::string& name) const {
    auto read = readDeletionReport(temporaryFolder() / name);
    EXPECT_TRUE(read) << read.error().debugDescription();
    return read ? *read : DeletionReport{};
  }
  static Strings urisOfReport(const DeletionReport& report) {
    Strings uris;
    for (const Url& uri : report.uris) uris.push_back(uri.absoluteString());
    return uris;
  }
  std::vector<ManagedObjectID> idsOf(const std::string& entity) const {
    FetchRequest request = FetchRequest::fetchRequestWithEntityName(entity);
    request.resultType = FetchRequestResultType::ManagedObjectID;
    auto found = context_->executeFetchRequest(request);
    EXPECT_TRUE(found);
    std::vector<ManagedObjectID> ids;
    for (const Value& value : *found) ids.push_back(*objectIDOfValue(value));
    return ids;
  }

  std::unique_ptr<ManagedObjectContext> context_;
};

// The event the program exists for: one marked chromatogram with spectra and its data folder.
TEST_F(DeletionPassTest, AMarkedChromatogramGoesWithItsFolderAndIsReported) {
  auto run = insertChromatogram(*context_, "Run", "runs/run1", true);
  insertChildren(*context_, run, "Spectrum", "chromatogramNative", 3);
  insertChildren(*context_, run, "FragmentSpectrum", "precursorChromatogram", 2);
  save(*context_);
  const Strings spectra = urisOf(idsOf("SpectrumSingle"));
  auto kept = insertChromatogram(*context_, "Kept", "runs/kept", false);
  insertChildren(*context_, kept, "Spectrum", "chromatogramNative", 1);
  save(*context_);
  fs::create_directories(library() / "runs" / "run1");
  std::ofstream(library() / "runs" / "run1" / "scan.bin") << "peaks";
  fs::create_directories(library() / "runs" / "kept");
  fakes_->workspace->setNames({"Finder", "Tesselune"});

  const DeletionRoundsSummary summary = runDeletionRounds(container_);

  EXPECT_EQ(summary.passes, 2) << "the second pass finds nothing";
  EXPECT_EQ(summary.deletedObjects, 6);
  EXPECT_TRUE(summary.errors.empty()) << summary.errors[0].debugDescription();
  EXPECT_FALSE(fs::exists(library() / "runs" / "run1"));
  EXPECT_TRUE(fs::exists(library() / "runs" / "kept"));
  EXPECT_EQ(count("Chromatogram"), 1);
  EXPECT_EQ(count("SpectrumSingle"), 1);

  ASSERT_EQ(reportNames(), Strings{"storeSupport.info"});
  const DeletionReport written = report("storeSupport.info");
  EXPECT_TRUE(written.chromatogramDeleted);
  const Strings uris = urisOfReport(written);
  ASSERT_EQ(uris.size(), 6u);
  EXPECT_EQ(uris.back(), run->objectID().URIRepresentation().absoluteString())
      << "the chromatogram comes last";
  EXPECT_EQ(sorted(Strings(uris.begin(), uris.end() - 1)), sorted(spectra));

  // A report waits in both passes, and the main application runs: each pass tells it.
  const std::pair<std::string, std::string> posted{"remoteObjectsDelete", "Tesselune-storeSupport"};
  EXPECT_EQ(fakes_->notifications->posted(), (std::vector{posted, posted}));
  EXPECT_EQ(fakes_->log->lines(),
            (Strings{"Starting delete operation", "Starting to delete a chromatogram",
                     "Ending the delete of a chromatogram", "Sending global notification remoteObjectsDelete",
                     "Ending delete operation", "Starting delete operation",
                     "Sending global notification remoteObjectsDelete", "Ending delete operation",
                     "Ending store support application"}));
  EXPECT_TRUE(deliverAlerts().empty());
  EXPECT_EQ(fakes_->terminationCount(), 1);
}

TEST_F(DeletionPassTest, NothingIsPostedWhileTheMainApplicationIsNotRunning) {
  insertChromatogram(*context_, "Run", "", true);
  save(*context_);
  fakes_->workspace->setNames({"Finder", "tesselune", "Tesselune Helper"});
  runDeletionRounds(container_);
  EXPECT_EQ(reportNames(), Strings{"storeSupport.info"});
  EXPECT_TRUE(fakes_->notifications->posted().empty());
  const Strings lines = fakes_->log->lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Sending global notification remoteObjectsDelete"), 0);
}

TEST_F(DeletionPassTest, SearchesGroupsAndCollectionsGoInTheirJobsAndAreCounted) {
  auto search = context_->insertNewObjectForEntityForName("DatabaseSearchResult");
  search->setValue(Value(true), "destinedForDeletion");
  insertChildren(*context_, search, "PeptideID", "databaseSearchResult", 2);
  insertChildren(*context_, search, "ProteinID", "databaseSearchResult", 1);
  auto group = context_->insertNewObjectForEntityForName("DatabaseSearchJoin");
  group->setValue(Value(true), "destinedForDeletion");
  insertChildren(*context_, group, "PeptideIDJoined", "databaseSearchJoin", 2);
  auto collection = context_->insertNewObjectForEntityForName("DataCollection");
  collection->setValue(Value(true), "destinedForDeletion");
  auto member = insertChromatogram(*context_, "Member", "", false);
  collection->setValue(Value(ValueSet{Value(ObjectPtr(member))}), "chromatograms");
  auto unmarked = context_->insertNewObjectForEntityForName("DataCollection");
  save(*context_);
  const Strings proteins = urisOf(idsOf("ProteinID"));

  auto pass = std::make_shared<DeleteStoreObjectsOperation>(container_);
  container_->defaultOperationQueue().addOperation(pass);
  pass->waitUntilFinished();

  EXPECT_TRUE(pass->errors().empty());
  // The protein, the search, the group and the collection; identifications are left to the batch delete.
  EXPECT_EQ(pass->numberOfDeletedObjects(), 4);
  const DeletionReport written = report("storeSupport.info");
  EXPECT_FALSE(written.chromatogramDeleted);
  EXPECT_EQ(urisOfReport(written),
            (Strings{proteins[0], search->objectID().URIRepresentation().absoluteString(),
                     group->objectID().URIRepresentation().absoluteString(),
                     collection->objectID().URIRepresentation().absoluteString()}));
  EXPECT_EQ(count("DatabaseSearchResult"), 0);
  EXPECT_EQ(count("DatabaseSearchJoin"), 0);
  EXPECT_EQ(count("ProteinID"), 0);
  EXPECT_EQ(count("DataCollection"), 1) << "the unmarked collection stays";
  EXPECT_EQ(count("Chromatogram"), 1) << "a collection's members are only unlinked";
  EXPECT_EQ(
      fakes_->log->lines(),
      (Strings{"Starting to delete a database search group", "Ending the delete of a database search group",
               "Starting to delete data collections", "Ending the delete of data collections"}));
  (void)unmarked;
}

// A chromatogram the store refuses to delete stays marked: every pass counts it again, so exactly
// five passes run, and their errors come together in one alert after the last.
TEST_F(DeletionPassTest, AnObjectThatNeverGoesStopsAfterFivePassesWithOneAlert) {
  insertChromatogram(*context_, "Stubborn", "", true);
  save(*context_);
  runSql(
      storeFile(),
      "CREATE TRIGGER keep_chromatograms BEFORE DELETE ON ZCHROMATOGRAM BEGIN SELECT RAISE(ABORT, 'kept by "
      "the test'); END;");

  const DeletionRoundsSummary summary = runDeletionRounds(container_);
  EXPECT_EQ(summary.passes, 5);
  EXPECT_EQ(summary.deletedObjects, 5);
  EXPECT_EQ(summary.errors.size(), 5u);
  EXPECT_EQ(count("Chromatogram"), 1);
  const Strings lines = fakes_->log->lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Starting delete operation"), 5);
  EXPECT_EQ(lines.back(), "Ending store support application");

  const auto alerts = fakes_->alerts->shown();
  ASSERT_EQ(alerts.size(), 1u);
  EXPECT_EQ(alerts[0].style, AlertContent::Style::Informational);
  EXPECT_EQ(alerts[0].messageText, "Several errors ocurred in course of chromatogram deletion..");
  const std::string& text = alerts[0].informativeText;
  EXPECT_TRUE(text.starts_with("Errors:\n\t1. ")) << text;
  EXPECT_NE(text.find("\t4. "), std::string::npos);
  EXPECT_EQ(text.find("\t5. "), std::string::npos);
  EXPECT_TRUE(text.ends_with("...")) << text;
  EXPECT_EQ(fakes_->terminationCount(), 1);

  // Every pass left a report, each under the first free name.
  EXPECT_EQ(reportNames(), (Strings{"storeSupport.info", "storeSupport_0.info", "storeSupport_1.info",
                                    "storeSupport_2.info", "storeSupport_3.info"}));
  fs::remove(temporaryFolder() / "storeSupport_1.info");
  runSql(storeFile(), "DROP TRIGGER keep_chromatograms;");
  runDeletionRounds(container_);
  EXPECT_EQ(count("Chromatogram"), 0);
  EXPECT_EQ(reportNames().size(), 5u) << "the gap is filled first";
  EXPECT_TRUE(report("storeSupport_1.info").chromatogramDeleted);
}

// Where neither the journal nor a report can be written, nothing is deleted: what went would be
// reported to nobody. The pass ends with its error shown and no notification.
TEST_F(DeletionPassTest, AFolderThatCannotTakeTheJournalDeletesNothingAndSaysSo) {
  insertChromatogram(*context_, "Run", "", true);
  save(*context_);
  std::ofstream(temporaryFolder()) << "a file where the folder belongs";
  fakes_->workspace->setNames({"Tesselune"});

  const DeletionRoundsSummary summary = runDeletionRounds(container_);
  EXPECT_EQ(summary.passes, 1);
  ASSERT_EQ(summary.errors.size(), 1u);
  EXPECT_EQ(summary.errors[0].domain(), "NSPOSIXErrorDomain");
  EXPECT_EQ(summary.errors[0].code(), ENOTDIR);
  EXPECT_EQ(count("Chromatogram", "destinedForDeletion == TRUE"), 1) << "nothing goes unrecorded";
  EXPECT_TRUE(fakes_->notifications->posted().empty());
  const auto alerts = fakes_->alerts->shown();
  ASSERT_EQ(alerts.size(), 1u);
  EXPECT_EQ(alerts[0].messageText, "An error ocurred  in course of chromatogram deletion..");
  EXPECT_EQ(alerts[0].informativeText, "Error: " + summary.errors[0].localizedDescription());
}

TEST_F(DeletionPassTest, LaunchWithNothingMarkedRunsOnePassAndEnds) {
  auto started = startStoreSupport(fakes_->services());
  ASSERT_TRUE(started);
  started->defaultOperationQueue().waitUntilAllOperationsAreFinished();
  EXPECT_EQ(fakes_->log->lines(), (Strings{"Starting store support application", "Starting delete operation",
                                           "Ending delete operation", "Ending store support application"}));
  EXPECT_EQ(fakes_->terminationCount(), 1);
  EXPECT_TRUE(reportNames().empty());
  EXPECT_TRUE(fakes_->alerts->shown().empty());
}

TEST_F(DeletionPassTest, LaunchOnAStoreThatCannotBeOpenedShowsTheCriticalAlertOnly) {
  container_.reset();
  fs::remove(storeFile());
  fs::create_directory(storeFile());  // a folder where the store file belongs
  EXPECT_FALSE(startStoreSupport(fakes_->services()));
  const auto alerts = fakes_->alerts->shown();
  ASSERT_EQ(alerts.size(), 1u);
  EXPECT_EQ(alerts[0].style, AlertContent::Style::Critical);
  EXPECT_EQ(alerts[0].messageText, "Failure when trying to delete a large object from the store.");
  EXPECT_TRUE(alerts[0].informativeText.starts_with("Failure to add the Tesselune store.\rReason: "))
      << alerts[0].informativeText;
  EXPECT_EQ(alerts[0].informativeText.find(storeFile().string()), std::string::npos)
      << "no path for the user";
  // The log line of the failure keeps what the user is spared.
  const Strings lines = fakes_->log->lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "Starting store support application");
  EXPECT_TRUE(lines[1].starts_with("Failure when trying to open the store: Tesselune-storeSupport 1: "))
      << lines[1];
  EXPECT_EQ(fakes_->terminationCount(), 0) << "the caller exits at once instead";
}

// A place where the data folder cannot be made: a file where the group's folder belongs.
Url blockedGroupContainer() {
  const fs::path blocked = scratchFolder("blocked");
  std::ofstream(blocked / "group") << "a file where the folder belongs";
  return Url::fileUrl((blocked / "group").string(), true);
}

TEST_F(DeletionPassTest, LaunchWhereTheDataFolderCannotBeMadeShowsItsAlertOnly) {
  container_.reset();
  fakes_->groups->setContainer(blockedGroupContainer());
  EXPECT_FALSE(startStoreSupport(fakes_->services()));
  const auto alerts = fakes_->alerts->shown();
  ASSERT_EQ(alerts.size(), 1u);
  EXPECT_EQ(alerts[0].messageText,
            "Fatal Error when trying to create the folder to store the application data.");
  EXPECT_EQ(fakes_->terminationCount(), 1);
  EXPECT_EQ(fakes_->log->lines(), Strings{"Starting store support application"});
}

// The data folder can no longer be made while a pass runs: its alert is the last one, the pass takes
// up no further object, reports what went, and no pass follows.
TEST_F(DeletionPassTest, ADataFolderLostDuringAPassEndsTheRunAfterOneAlert) {
  insertChromatogram(*context_, "First", "runs/first", true);
  insertChromatogram(*context_, "Second", "runs/second", true);
  save(*context_);
  const Url blocked = blockedGroupContainer();
  fakes_->log->onLine = [&](std::string_view line) {
    if (line == "Starting to delete a chromatogram") fakes_->groups->setContainer(blocked);
  };

  const DeletionRoundsSummary summary = runDeletionRounds(container_);
  EXPECT_EQ(summary.passes, 1);
  EXPECT_EQ(summary.deletedObjects, 1);
  EXPECT_EQ(count("Chromatogram"), 1);
  const auto alerts = fakes_->alerts->shown();
  ASSERT_EQ(alerts.size(), 1u);
  EXPECT_EQ(alerts[0].messageText,
            "Fatal Error when trying to create the folder to store the application data.");
  EXPECT_EQ(fakes_->terminationCount(), 1);
  const Strings lines = fakes_->log->lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Starting to delete a chromatogram"), 1) << lines.size();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Ending store support application"), 0);
  EXPECT_EQ(reportNames(), Strings{"storeSupport.info"});
}

// The main application (or another run) deletes a marked object after the pass fetched it: the
// pass skips it without counting or reporting it, and so does not run again for its sake.
TEST_F(DeletionPassTest, AnObjectThatWentAfterTheFetchIsNeitherCountedNorReported) {
  auto kept = insertChromatogram(*context_, "Marked", "", true);
  insertChromatogram(*context_, "Gone", "", true);
  save(*context_);
  bool removed = false;
  fakes_->log->onLine = [&](std::string_view line) {
    if (line != "Starting to delete a chromatogram" || removed) return;
    removed = true;
    runSql(storeFile(), "DELETE FROM ZCHROMATOGRAM WHERE ZCHROMATOGRAMNAME = 'Gone';");
  };

  const DeletionRoundsSummary summary = runDeletionRounds(container_);
  EXPECT_TRUE(removed);
  EXPECT_TRUE(summary.errors.empty()) << summary.errors[0].debugDescription();
  EXPECT_EQ(summary.deletedObjects, 1);
  EXPECT_EQ(summary.passes, 2);
  EXPECT_EQ(count("Chromatogram"), 0);
  ASSERT_EQ(reportNames(), Strings{"storeSupport.info"});
  EXPECT_EQ(urisOfReport(report("storeSupport.info")),
            Strings{kept->objectID().URIRepresentation().absoluteString()});
}

}  // namespace
}  // namespace tesselune::test
