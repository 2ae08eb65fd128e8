// Deletion reports as the main application reads them: the archive's exact shape, the choice of
// file names, the missing folder, and which files count as reports.

#include "deletion/deletion_report.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>

#include "fixtures.h"
#include "foundation/keyed_unarchiver.h"
#include "foundation/property_list.h"
#include "objectstore/description/managed_object_model.h"

// This test program's file system can be told to lack what FAT and some network mounts lack: a
// rename that refuses to replace, and hard links. The program's own calls reach these definitions,
// which otherwise pass the call on to the kernel.
namespace {
std::atomic<bool> refuseNoReplaceRename{false};
std::atomic<bool> refuseHardLinks{false};
}  // namespace

extern "C" int renameat2(int oldDirectory, const char* oldPath, int newDirectory, const char* newPath,
                         unsigned int flags) noexcept {
  if (refuseNoReplaceRename && (flags & RENAME_NOREPLACE) != 0) {
    errno = EINVAL;
    return -1;
  }
  return static_cast<int>(::syscall(SYS_renameat2, oldDirectory, oldPath, newDirectory, newPath, flags));
}

extern "C" int link(const char* from, const char* to) noexcept {
  if (refuseHardLinks) {
    errno = EPERM;
    return -1;
  }
  return static_cast<int>(::syscall(SYS_linkat, AT_FDCWD, from, AT_FDCWD, to, 0));
}

namespace tesselune {
namespace {

namespace fs = std::filesystem;

class DeletionReportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = test::scratchFolder("report") / "temporaryFiles";
    fs::create_directories(folder_);
    auto model = ManagedObjectModel::modelWithXml(
        R"(<model><entity name="Chromatogram"><attribute name="name" optional="YES" attributeType="String"/></entity>
           <entity name="Spectrum"><attribute name="name" optional="YES" attributeType="String"/></entity></model>)",
        "report");
    ASSERT_TRUE(model);
    model_ = *model;
  }
  ManagedObjectID id(const char* entity, std::int64_t key) const {
    return ManagedObjectID::permanent(*model_->entityNamed(entity), store_, key);
  }
  void touch(const std::string& name) { std::ofstream(folder_ / name) << "x"; }

  fs::path folder_;
  std::shared_ptr<const ManagedObjectModel> model_;
  Uuid store_ = *Uuid::parse("0AD863BA-7584-40CF-8896-BD87B3280C34");
};

TEST_F(DeletionReportTest, ArchivesTheURIsInOrderAndTheFlagAsOneByte) {
  const std::vector<ManagedObjectID> deleted = {id("Spectrum", 7), id("Spectrum", 8), id("Spectrum", 7),
                                                id("Chromatogram", 1)};
  auto file = writeDeletionReport(folder_, deleted, true);
  ASSERT_TRUE(file) << file.error().debugDescription();
  EXPECT_EQ(file->filename(), "storeSupport.info");

  // The outer archive is a plain dictionary of two data blobs, readable with Foundation's classes.
  std::ifstream in(*file, std::ios::binary);
  const Bytes bytes((std::istreambuf_iterator<char>(in)), {});
  auto plist = propertyListWithData(bytes);
  ASSERT_TRUE(plist);
  EXPECT_EQ((*plist)["$archiver"], Value("NSKeyedArchiver"));
  auto root = KeyedUnarchiver::unarchivedObjectOfClasses(foundationClasses(), bytes);
  ASSERT_TRUE(root);
  ASSERT_TRUE(root->isDictionary());
  EXPECT_EQ(root->asDictionary().size(), 2u);
  EXPECT_EQ((*root)["chromatogramDeleted"], Value(Bytes{1}));

  auto report = readDeletionReport(*file);
  ASSERT_TRUE(report);
  EXPECT_TRUE(report->chromatogramDeleted);
  ASSERT_EQ(report->uris.size(), 4u);
  EXPECT_EQ(report->uris[0].absoluteString(),
            "x-coredata://0AD863BA-7584-40CF-8896-BD87B3280C34/Spectrum/p7");
  EXPECT_EQ(report->uris[2], report->uris[0]) << "duplicates are kept";
  EXPECT_EQ(report->uris[3].absoluteString(),
            "x-coredata://0AD863BA-7584-40CF-8896-BD87B3280C34/Chromatogram/p1");

  auto second = writeDeletionReport(folder_, {id("Spectrum", 9)}, false);
  ASSERT_TRUE(second);
  EXPECT_FALSE(readDeletionReport(*second)->chromatogramDeleted);
}

TEST_F(DeletionReportTest, TakesTheFirstFreeNameAndNeverOverwrites) {
  touch("storeSupport.info");
  touch("storeSupport_1.info");
  EXPECT_EQ(writeDeletionReport(folder_, {id("Spectrum", 1)}, false)->filename(), "storeSupport_0.info");
  EXPECT_EQ(writeDeletionReport(folder_, {id("Spectrum", 1)}, false)->filename(), "storeSupport_2.info");
  for (int n = 3; n <= 999; ++n) touch("storeSupport_" + std::to_string(n) + ".info");
  auto full = writeDeletionReport(folder_, {id("Spectrum", 1)}, false);
  ASSERT_FALSE(full);
  EXPECT_EQ(full.error().domain(), "Tesselune-storeSupport");
  EXPECT_EQ(full.error().code(), 3);
  EXPECT_EQ(full.error().localizedDescription(),
            "An error occurred when trying to write the deleted objectIDs to disk. The temporary info file "
            "could not "
            "be saved to report the changes to the main application.");
  std::ifstream in(folder_ / "storeSupport_1.info");
  std::string text;
  in >> text;
  EXPECT_EQ(text, "x");
}

TEST_F(DeletionReportTest, CreatesAMissingFolderAndLeavesNoPartialFiles) {
  fs::remove_all(folder_);
  auto file = writeDeletionReport(folder_ / "deeper", {id("Chromatogram", 3)}, true);
  ASSERT_TRUE(file) << file.error().debugDescription();
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder_ / "deeper"))
    names.push_back(entry.path().filename());
  EXPECT_EQ(names, std::vector<std::string>{"storeSupport.info"});
}

TEST_F(DeletionReportTest, FindsReportsByNameAmongRegularVisibleFiles) {
  EXPECT_FALSE(deletionReportExists(folder_ / "missing"));
  EXPECT_FALSE(deletionReportExists(folder_));
  fs::create_directories(folder_ / "storeSupport.info");
  touch(".storeSupport_1.info");
  touch("storeSupport.txt");
  touch("report.info");
  EXPECT_FALSE(deletionReportExists(folder_));
  touch("storeSupportOld.info");
  EXPECT_TRUE(deletionReportExists(folder_));
}

// On a file system without a rename that refuses to replace, and then without hard links too,
// reports are still written whole under free names, and reports already there are kept.
TEST_F(DeletionReportTest, ReportsAreWrittenWhereRenamesCannotRefuseAndLinksAreMissing) {
  struct Restore {
    ~Restore() { refuseNoReplaceRename = refuseHardLinks = false; }
  } restore;
  std::ofstream(folder_ / "storeSupport_0.info") << "unread";
  const std::vector<ManagedObjectID> deleted{id("Chromatogram", 3), id("Spectrum", 9)};
  std::vector<fs::path> written;
  for (bool noLinks : {false, true}) {
    refuseNoReplaceRename = true;
    refuseHardLinks = noLinks;
    for (int i = 0; i < 2; ++i) {
      auto file = writeDeletionReport(folder_, deleted, true);
      ASSERT_TRUE(file) << file.error().debugDescription();
      written.push_back(*file);
    }
  }
  EXPECT_EQ(written,
            (std::vector<fs::path>{folder_ / "storeSupport.info", folder_ / "storeSupport_1.info",
                                   folder_ / "storeSupport_2.info", folder_ / "storeSupport_3.info"}));
  for (const fs::path& file : written) {
    auto report = readDeletionReport(file);
    ASSERT_TRUE(report) << file << ": " << report.error().debugDescription();
    EXPECT_EQ(report->uris.size(), 2u);
  }
  std::ifstream unread(folder_ / "storeSupport_0.info");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(unread), {}), "unread");
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()), 5)
      << "no scratch file left";
}

// A run killed while it wrote leaves its scratch file; the next report clears it away. A writer that
// still runs keeps its file, and so does anything else in the folder.
TEST_F(DeletionReportTest, AKilledRunsScratchFilesAreClearedByTheNextReport) {
  const pid_t gone = ::fork();
  if (gone == 0) ::_exit(0);
  ASSERT_GT(gone, 0);
  ::waitpid(gone, nullptr, 0);
  const std::string abandoned = ".storeSupport." + std::to_string(gone) + ".2718.tmp";
  const std::string running = ".storeSupport." + std::to_string(::getppid()) + ".3141.tmp";
  for (const std::string& name :
       {abandoned, running, std::string(".storeSupport.notes.tmp"), std::string("other.tmp")})
    touch(name);

  ASSERT_TRUE(writeDeletionReport(folder_, {id("Chromatogram", 1)}, true));
  EXPECT_FALSE(fs::exists(folder_ / abandoned));
  EXPECT_TRUE(fs::exists(folder_ / running));
  EXPECT_TRUE(fs::exists(folder_ / ".storeSupport.notes.tmp"));
  EXPECT_TRUE(fs::exists(folder_ / "other.tmp"));
  EXPECT_TRUE(fs::exists(folder_ / "storeSupport.info"));
}

}  // namespace
}  // namespace tesselune
