// Which trace files a directory keeps once their processes are gone.
//
//   Brisklog::Retention r{3, 64ull << 20};
//   for (std::string const& p : Brisklog::prune("/dev/shm", r).removed) ...
//
// Trace files are named "<process>-<pid>.brisklog". A writer holds an
// exclusive flock(2) on its file for as long as it has it open, so a file
// whose lock can be taken belongs to a process that has gone (or never
// finished making it); a pid that has been reused cannot make it look alive.
// Files of writers that never took the lock (made by older builds) count as
// alive while a process with the recorded pid and name runs.
//
// What prune() promises:
// - It never removes a file whose writer is alive, nor one being made (no
//   header yet, changed in the last 10 s), nor anything that is not named
//   like a trace file.
// - Of the gone files of each process name it keeps the `keepPerProgram`
//   newest (by the time recorded in their header); then, while the trace
//   files of the directory together take more than `budgetBytes` of storage,
//   it removes gone files oldest first. Live files count towards the budget
//   but are never removed for it.
// - Several processes may prune one directory at once: a file is removed
//   only by the one that holds its lock, and only if the name still refers
//   to the file it locked.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Brisklog {

struct Retention {
  std::uint32_t keepPerProgram = 3;         // gone processes' files kept per name
  std::uint64_t budgetBytes = 64ull << 20;  // storage of all trace files; 0: no bound
};

struct PruneResult {
  std::vector<std::string> removed;  // paths, oldest first
  std::uint64_t bytesLeft = 0;       // storage the directory's trace files take afterwards
};

// `reserveFor`: the name of a process about to leave a file of its own, for
// which one fewer gone file is kept, so that after it has gone its name still
// has at most keepPerProgram files.
PruneResult prune(std::string const& dir, Retention const& r, std::string const& reserveFor = {});

// True while the file's writer runs (see above); false for a file that
// cannot be opened.
bool writerRuns(std::string const& path);

}  // namespace Brisklog
