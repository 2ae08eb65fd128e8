// tesselune-store, the maintenance command: make, fill, mark, inspect and check the shared store
// that the store support program works on, and read the reports it leaves; inspect, verify and
// delete also work on any other Core Data store.
//
//   tesselune-store [--store FILE] [--model MODEL] [--verbose] create | demo | mark | status | report |
//   verify
//                   | inspect [--json] | delete ENTITY --where PREDICATE [--dry-run]
//
// Without --store the store is the one in the shared data library. Exit status: 0 done, 1 failed
// (for verify: the store is damaged; for delete: refused, or a dry run found it would be), 2 the
// command line was wrong, 3 the store could not be opened (no such file, a folder, not a store,
// unreadable or locked) or the model given with --model is missing or does not fit it.
#pragma once

#include <cstdio>
#include <ostream>

namespace tesselune {

enum StoreCommandExit : int { kExitOk = 0, kExitFailure = 1, kExitUsage = 2, kExitUnopened = 3 };

// Where the command writes: results to `out`, messages to `err`, and a progress bar to `progress`
// when it is not nullptr (the program passes standard error when that is a terminal).
struct CommandOutput {
  std::ostream& out;
  std::ostream& err;
  std::FILE* progress = nullptr;
};

// Runs the command for the arguments, argv[0] included. Never throws for bad input.
int runStoreCommand(int argc, const char* const* argv, const CommandOutput& output);

}  // namespace tesselune
