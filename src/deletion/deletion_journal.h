// DeletionJournal: the durable record of what a deletion pass is about to delete, so that a pass
// killed (or failing) between its deletes and its report still gets every deleted object reported.
//
// Before each batch delete the pass appends the IDs it is about to remove and the record reaches the
// disk (fdatasync) before the delete runs. A pass whose report is written drops its journal; a
// journal found by a later run is turned into a report of those of its objects whose rows are gone.
// The journal lives beside the reports (its folder made when missing) as a hidden file
// (".storeSupport.<pid>.<n>.journal"), which the main application never reads: one URI per line,
// "chromatogram" when the pass deleted chromatograms, only whole lines counting (a kill mid-line loses
// nothing that was flushed).
//
// A journal belongs to one pass and is used from its thread.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "foundation/error.h"
#include "foundation/url.h"
#include "objectstore/managed_object_id.h"

namespace tesselune {

class DeletionJournal {
 public:
  // A journal in `folder`; no file exists until the first append.
  explicit DeletionJournal(std::filesystem::path folder);
  ~DeletionJournal();
  DeletionJournal(const DeletionJournal&) = delete;
  DeletionJournal& operator=(const DeletionJournal&) = delete;

  // Records the IDs, on disk when it returns. A failure (disk full, folder gone) means nothing of
  // them may be deleted.
  [[nodiscard]] Status append(const std::vector<ManagedObjectID>& ids);
  // Records that the pass deleted chromatograms (the report's flag).
  [[nodiscard]] Status noteChromatogramDeleted();
  // Removes the file: the pass's report is written (or it deleted nothing).
  void discard();

  const std::filesystem::path& path() const { return path_; }

 private:
  [[nodiscard]] Status write(const std::string& lines);

  std::filesystem::path path_;
  int fd_ = -1;
};

// A journal left by a pass that did not end normally.
struct LeftJournal {
  std::filesystem::path path;
  std::vector<Url> uris;
  bool chromatogramDeleted = false;
};

// The journals in `folder` whose writing process is gone (not this one, not one still running).
std::vector<std::filesystem::path> leftJournals(const std::filesystem::path& folder);
// Reads a journal; a torn last line is left out.
[[nodiscard]] Expected<LeftJournal> readJournal(const std::filesystem::path& path);

}  // namespace tesselune
