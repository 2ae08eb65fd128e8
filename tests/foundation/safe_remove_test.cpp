// Removal below a folder held open: links removed as links, paths that climb out or pass through
// links refused only when they name something, protected entries left whole, and names swapped by
// another thread while a removal runs never leading it outside.
#include "foundation/safe_remove.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <thread>

#include "fixtures.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

void writeFile(const fs::path& file) {
  fs::create_directories(file.parent_path());
  std::ofstream(file) << "peaks";
}

// Every path below `folder`, links not followed, for comparing a tree before and after.
std::set<std::string> treeOf(const fs::path& folder) {
  std::set<std::string> paths;
  for (auto it = fs::recursive_directory_iterator(folder); it != fs::recursive_directory_iterator(); ++it)
    paths.insert(fs::relative(it->path(), folder).string());
  return paths;
}

FileIdentity identityOf(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return {status.st_dev, status.st_ino};
}

class SafeRemoveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = test::scratchFolder("safe-remove");
    library_ = root_ / "library";
    outside_ = root_ / "outside";
    writeFile(outside_ / "run1" / "keep.bin");
    writeFile(outside_ / "keep.bin");
    fs::create_directories(library_);
    auto base = FolderDescriptor::open(library_);
    ASSERT_TRUE(base) << base.error().debugDescription();
    base_ = std::move(*base);
    outsideTree_ = treeOf(outside_);
  }
  void TearDown() override { EXPECT_EQ(treeOf(outside_), outsideTree_) << "something outside was touched"; }

  Expected<RemovalOutcome> remove(std::string_view path, const RemovalRules& rules = {}) {
    return removeBelow(base_, path, rules);
  }
  void expectRefused(std::string_view path, const RemovalRules& rules = {}) {
    auto removed = remove(path, rules);
    ASSERT_FALSE(removed) << path;
    EXPECT_EQ(removed.error().domain(), kCocoaErrorDomain);
    EXPECT_EQ(removed.error().code(), kFileWriteNoPermissionError);
  }
  void expectOutcome(std::string_view path, RemovalOutcome outcome, const RemovalRules& rules = {}) {
    auto removed = remove(path, rules);
    ASSERT_TRUE(removed) << path << ": " << removed.error().debugDescription();
    EXPECT_EQ(*removed, outcome) << path;
  }

  fs::path root_, library_, outside_;
  FolderDescriptor base_;
  std::set<std::string> outsideTree_;
};

TEST_F(SafeRemoveTest, FoldersFilesAndLinksAreRemovedAsWhatTheyAre) {
  // A folder with contents, among them links out of the library that must not be followed.
  writeFile(library_ / "runs" / "run1" / "scans" / "a.bin");
  fs::create_directory_symlink(outside_, library_ / "runs" / "run1" / "scans" / "out");
  fs::create_symlink(outside_ / "keep.bin", library_ / "runs" / "run1" / "keep-link");
  expectOutcome("runs/run1", RemovalOutcome::kRemoved);
  EXPECT_FALSE(fs::exists(fs::symlink_status(library_ / "runs" / "run1")));
  EXPECT_TRUE(fs::is_directory(library_ / "runs"));

  // A link is removed as a link wherever it points: into the library, out of it, or nowhere.
  writeFile(library_ / "store" / "run2" / "a.bin");
  fs::create_directory_symlink(library_ / "store" / "run2", library_ / "run2");
  fs::create_directory_symlink(outside_ / "run1", library_ / "run3");
  fs::create_symlink(root_ / "never-made", library_ / "run4");
  for (const char* link : {"run2", "run3/", "run4"}) expectOutcome(link, RemovalOutcome::kRemoved);
  EXPECT_TRUE(fs::exists(library_ / "store" / "run2" / "a.bin"));
  EXPECT_EQ(treeOf(library_), (std::set<std::string>{"runs", "store", "store/run2", "store/run2/a.bin"}));

  // A data "folder" that is a plain file.
  writeFile(library_ / "runs" / "run5");
  expectOutcome("./runs//run5", RemovalOutcome::kRemoved);
  EXPECT_FALSE(fs::exists(library_ / "runs" / "run5"));
}

TEST_F(SafeRemoveTest, PathsThatNameNothingTouchNothingAndAreNoError) {
  writeFile(library_ / "runs" / "plain");
  fs::create_directory_symlink(outside_, library_ / "escape");
  const auto before = treeOf(library_);
  for (const char* path : {"missing", "runs/missing/deeper", "runs/plain/inner", "../never-made",
                           "runs/../nope", "/never/made/anywhere", "escape/never-made"}) {
    expectOutcome(path, RemovalOutcome::kAbsent);
  }
  EXPECT_EQ(treeOf(library_), before);
}

TEST_F(SafeRemoveTest, PathsLeadingOutOrThroughLinksAreRefusedWhenSomethingIsThere) {
  writeFile(library_ / "runs" / "run1" / "a.bin");
  fs::create_directory_symlink(outside_, library_ / "escape");
  fs::create_directory_symlink(library_ / "runs", library_ / "alias");
  const auto before = treeOf(library_);
  for (const std::string& path :
       {std::string("../outside"), std::string("../outside/run1"), outside_.string(),
        std::string("escape/run1"), std::string("alias/run1"), std::string("runs/../runs/run1"),
        std::string(""), std::string("."), std::string("./"), std::string("runs/..")}) {
    SCOPED_TRACE(path);
    expectRefused(path);
  }
  EXPECT_EQ(treeOf(library_), before);
}

TEST_F(SafeRemoveTest, ProtectedEntriesAndWhatHoldsThemAreLeftWhole) {
  writeFile(library_ / "temporaryFiles" / "storeSupport.info");
  writeFile(library_ / "store.sqlite");
  writeFile(library_ / "runs" / "run1" / "a.bin");
  writeFile(library_ / "runs" / "run2" / "a.bin");
  writeFile(library_ / "shared" / "a.bin");
  writeFile(library_ / "shared" / "z" / "b.bin");
  fs::create_directory_symlink(library_ / "shared" / "z", library_ / "elsewhere");
  RemovalRules rules;
  rules.protectedPaths = {"temporaryFiles", "store.sqlite", "runs/run2", ".", ""};
  // Known by identity only, as a folder reached through a link is.
  rules.protectedItems = {identityOf(library_ / "elsewhere")};
  const auto before = treeOf(library_);

  for (const char* path :
       {"temporaryFiles", "./temporaryFiles/", "temporaryFiles/storeSupport.info", "store.sqlite", "runs",
        "runs/run2", "runs/run2/a.bin", "shared", "shared/z", "shared/z/b.bin"}) {
    SCOPED_TRACE(path);
    expectRefused(path, rules);
  }
  // A folder refused for what it holds is left whole, also what comes before the protected part.
  EXPECT_EQ(treeOf(library_), before);

  // A protected path that names nothing is no refusal; neighbours of protected entries may go.
  expectOutcome("temporaryFiles/never-made", RemovalOutcome::kAbsent, rules);
  expectOutcome("runs/run1", RemovalOutcome::kRemoved, rules);
  expectOutcome("shared/a.bin", RemovalOutcome::kRemoved, rules);
  // The link itself is no protected item: removing it leaves the folder it names.
  expectOutcome("elsewhere", RemovalOutcome::kRemoved, rules);
  EXPECT_TRUE(fs::exists(library_ / "shared" / "z" / "b.bin"));
}

TEST_F(SafeRemoveTest, AFolderThatCannotBeEmptiedFailsWithTheCause) {
  if (::geteuid() == 0) GTEST_SKIP() << "permissions do not hold for root";
  writeFile(library_ / "locked" / "inner" / "a.bin");
  fs::permissions(library_ / "locked" / "inner", fs::perms::owner_read | fs::perms::owner_exec);
  auto removed = remove("locked");
  fs::permissions(library_ / "locked" / "inner", fs::perms::owner_all);
  ASSERT_FALSE(removed);
  EXPECT_EQ(removed.error().domain(), kPosixErrorDomain);
  EXPECT_EQ(removed.error().code(), EACCES);
  EXPECT_NE(removed.error().localizedDescription().find("a.bin"), std::string::npos)
      << removed.error().localizedDescription();
  EXPECT_TRUE(fs::exists(library_ / "locked" / "inner" / "a.bin"));
}

// Another thread keeps exchanging a folder on the way (the parent, the folder itself, a folder
// inside it) with a link to the same place outside. Whatever the interleaving, the removal may
// remove, refuse or find nothing, but never reaches outside.
TEST_F(SafeRemoveTest, NamesSwappedWhileRemovingNeverLeadOutside) {
  struct Swap {
    fs::path folder, link, pointsTo;
  };
  const std::vector<Swap> swaps = {
      {library_ / "runs", library_ / "decoy", outside_},
      {library_ / "runs" / "run1", library_ / "runs" / "decoy", outside_ / "run1"},
      {library_ / "runs" / "run1" / "sub", library_ / "runs" / "run1" / "decoy", outside_ / "run1"},
  };
  int removed = 0;
  int exchanged = 0;
  for (const Swap& swap : swaps) {
    for (int i = 0; i < 150; ++i) {
      std::error_code ec;
      fs::remove_all(library_, ec);
      writeFile(library_ / "runs" / "run1" / "a.bin");
      writeFile(library_ / "runs" / "run1" / "sub" / "keep.bin");
      writeFile(library_ / "runs" / "run1" / "sub" / "more" / "b.bin");
      fs::create_directory_symlink(swap.pointsTo, swap.link);
      auto base = FolderDescriptor::open(library_);
      ASSERT_TRUE(base);

      std::atomic<bool> stop = false;
      std::atomic<int> count = 0;
      std::thread swapper([&] {
        while (!stop.load()) {
          if (::renameat2(AT_FDCWD, swap.folder.c_str(), AT_FDCWD, swap.link.c_str(), RENAME_EXCHANGE) == 0)
            count.fetch_add(1);
        }
      });
      while (count.load() < 2) std::this_thread::yield();
      auto outcome = removeBelow(*base, "runs/run1");
      stop = true;
      swapper.join();
      exchanged += count.load();
      if (outcome && *outcome == RemovalOutcome::kRemoved) ++removed;
      ASSERT_EQ(treeOf(outside_), outsideTree_) << "iteration " << i << " of " << swap.folder;
    }
  }
  if (exchanged == 0) GTEST_SKIP() << "the file system cannot exchange names";
  EXPECT_GT(removed, 0) << "the removal never got through";
}

}  // namespace
}  // namespace tesselune
