// The deletion journal: what reaches it is read back whole, a torn last line is left out, and only
// journals whose writer is gone are taken up by a later run.

#include "deletion/deletion_journal.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "fixtures.h"
#include "objectstore/description/managed_object_model.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

std::shared_ptr<const ManagedObjectModel> oneEntityModel() {
  auto model = ManagedObjectModel::modelWithXml(
      R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<model type="com.apple.IDECoreDataModeler.DataModel" documentVersion="1.0">
  <entity name="Spectrum" representedClassName="NSManagedObject">
    <attribute name="scan" optional="YES" attributeType="Integer 64" defaultValueString="0"/>
  </entity>
</model>)",
      "journal");
  EXPECT_TRUE(model);
  return model ? *model : nullptr;
}

// A process ID that no process has any more: a child that has ended and been waited for.
pid_t endedProcess() {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  int status = 0;
  ::waitpid(child, &status, 0);
  return child;
}

TEST(DeletionJournal, RecordsWholeLinesAndIsGoneOnceDiscarded) {
  auto model = oneEntityModel();
  ASSERT_TRUE(model);
  const Uuid store = Uuid::random();
  const EntityDescription& spectrum = *model->entityNamed("Spectrum");
  const fs::path folder = test::scratchFolder("journal");

  DeletionJournal journal(folder);
  EXPECT_FALSE(fs::exists(journal.path())) << "nothing is written before the first record";
  ASSERT_TRUE(journal.noteChromatogramDeleted());
  ASSERT_TRUE(journal.append(
      {ManagedObjectID::permanent(spectrum, store, 1), ManagedObjectID::permanent(spectrum, store, 2)}));
  ASSERT_TRUE(journal.append({ManagedObjectID::permanent(spectrum, store, 3)}));
  // A kill in the middle of a record leaves a torn line: it does not count.
  { std::ofstream(journal.path(), std::ios::app) << "x-coredata://" << store.string() << "/Spectrum/p4"; }

  auto read = readJournal(journal.path());
  ASSERT_TRUE(read) << read.error().debugDescription();
  EXPECT_TRUE(read->chromatogramDeleted);
  ASSERT_EQ(read->uris.size(), 3u);
  EXPECT_EQ(read->uris[2].absoluteString(), "x-coredata://" + store.string() + "/Spectrum/p3");

  journal.discard();
  EXPECT_FALSE(fs::exists(journal.path()));
}

TEST(DeletionJournal, OnlyJournalsOfEndedProcessesAreLeftOver) {
  const fs::path folder = test::scratchFolder("left");
  const pid_t ended = endedProcess();
  for (pid_t pid : {::getpid(), ::getppid(), ended}) {
    std::ofstream(folder / (".storeSupport." + std::to_string(pid) + ".1.journal")) << "chromatogram\n";
  }
  std::ofstream(folder / ".storeSupport.123.tmp") << "a report being written";
  std::ofstream(folder / "storeSupport.info") << "a report";

  const std::vector<fs::path> left = leftJournals(folder);
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left.front().filename().string(), ".storeSupport." + std::to_string(ended) + ".1.journal");
}

}  // namespace
}  // namespace tesselune
