#include "Brisklog/Retention.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <map>

#include "Brisklog/Layout.h"

namespace Brisklog {

namespace {

// A file without a header younger than this is still being made.
constexpr std::int64_t kMakingNs = 10ll * 1000000000;

constexpr std::string_view kSuffix = ".brisklog";

// "<process>-<pid>.brisklog" gives "<process>".
bool processOf(std::string const& file, std::string& process) {
  if (file.size() <= kSuffix.size() || file.compare(file.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0)
    return false;
  std::string const stem = file.substr(0, file.size() - kSuffix.size());
  std::size_t const dash = stem.rfind('-');
  if (dash == std::string::npos || dash == 0 || dash + 1 == stem.size()) return false;
  if (stem.find_first_not_of("0123456789", dash + 1) != std::string::npos) return false;
  process = stem.substr(0, dash);
  return true;
}

std::int64_t nowNs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return std::int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

bool readLayout(int fd, FileLayout& l) {
  FileHeader h;
  if (pread(fd, &h, sizeof h, 0) != ssize_t(sizeof h)) return false;
  l = h.layout;
  return std::memcmp(l.magic, kMagic, sizeof kMagic) == 0 && h.layoutChecksum == layoutChecksum(l);
}

// The test for writers that hold no lock: the recorded pid runs, is not a
// zombie, and runs a program of the recorded name.
bool processRunsAs(std::uint32_t pid, std::string const& name) {
  if (pid == 0 || (kill(pid_t(pid), 0) != 0 && errno != EPERM)) return false;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string statLine;
  if (stat && std::getline(stat, statLine)) {
    std::size_t const close = statLine.rfind(')');
    if (close != std::string::npos && close + 2 < statLine.size() &&
        (statLine[close + 2] == 'Z' || statLine[close + 2] == 'X'))
      return false;
  }
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string running;
  if (!comm || !std::getline(comm, running)) return true;
  for (char& ch : running) {
    bool const ok = std::isalnum(static_cast<unsigned char>(ch)) || ch == '.' || ch == '_' || ch == '-';
    if (!ok) ch = '_';
  }
  return running == name;
}

struct Candidate {
  std::string path;
  std::string process;
  ino_t ino = 0;
  std::int64_t openedNs = 0;
  std::uint64_t bytes = 0;  // storage taken, not the apparent size
  bool gone = false;
};

// Classifies one file; false when it is not a regular file we can open.
bool classify(Candidate& c) {
  int fd = ::open(c.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    return false;
  }
  c.ino = st.st_ino;
  c.bytes = std::uint64_t(st.st_blocks) * 512;
  std::int64_t const mtimeNs = std::int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    ::close(fd);  // its writer holds it (or another pruner looks at it)
    return true;
  }
  FileLayout l;
  if (readLayout(fd, l)) {
    c.openedNs = l.opened.realNs;
    c.gone = !processRunsAs(l.pid, std::string(l.processName, strnlen(l.processName, sizeof l.processName)));
  } else {
    c.openedNs = mtimeNs;
    c.gone = nowNs() - mtimeNs > kMakingNs;
  }
  ::close(fd);
  return true;
}

// Removes the file if it is still the one classified and nobody holds it.
bool remove(Candidate const& c) {
  int fd = ::open(c.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat st {};
  bool removed = false;
  if (fstat(fd, &st) == 0 && st.st_ino == c.ino && flock(fd, LOCK_EX | LOCK_NB) == 0) {
    // The name must still lead to the file locked: a new writer of the same
    // name and pid makes a new file rather than reuse this one.
    struct stat now {};
    if (lstat(c.path.c_str(), &now) == 0 && now.st_ino == c.ino && now.st_dev == st.st_dev)
      removed = ::unlink(c.path.c_str()) == 0;
  }
  ::close(fd);
  return removed;
}

}  // namespace

bool writerRuns(std::string const& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return false;
  bool runs = true;
  if (flock(fd, LOCK_SH | LOCK_NB) == 0) {
    flock(fd, LOCK_UN);
    FileLayout l;
    runs = readLayout(fd, l) &&
           processRunsAs(l.pid, std::string(l.processName, strnlen(l.processName, sizeof l.processName)));
  }
  ::close(fd);
  return runs;
}

PruneResult prune(std::string const& dir, Retention const& r, std::string const& reserveFor) {
  PruneResult out;
  std::vector<Candidate> all;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      Candidate c;
      if (!processOf(e->d_name, c.process)) continue;
      c.path = dir + "/" + e->d_name;
      if (classify(c)) all.push_back(std::move(c));
    }
    closedir(d);
  }
  std::vector<Candidate const*> removed;
  // A file that could not be removed was taken by another pruner meanwhile
  // (or is no longer the one classified): it is no longer ours to count.
  auto drop = [&](Candidate& c) {
    if (remove(c)) {
      removed.push_back(&c);
      c.bytes = 0;
    }
    c.gone = false;
  };

  std::map<std::string, std::vector<Candidate*>> goneByProcess;
  for (Candidate& c : all)
    if (c.gone) goneByProcess[c.process].push_back(&c);
  for (auto& [process, files] : goneByProcess) {
    std::uint32_t keep = r.keepPerProgram;
    if (process == reserveFor && keep > 0) --keep;
    if (files.size() <= keep) continue;
    std::sort(files.begin(), files.end(),
              [](Candidate const* a, Candidate const* b) { return a->openedNs > b->openedNs; });
    for (std::size_t i = keep; i < files.size(); ++i) drop(*files[i]);
  }

  std::uint64_t total = 0;
  for (Candidate const& c : all) total += c.bytes;
  if (r.budgetBytes != 0 && total > r.budgetBytes) {
    std::vector<Candidate*> gone;
    for (Candidate& c : all)
      if (c.gone) gone.push_back(&c);
    std::sort(gone.begin(), gone.end(),
              [](Candidate const* a, Candidate const* b) { return a->openedNs < b->openedNs; });
    for (Candidate* c : gone) {
      if (total <= r.budgetBytes) break;
      std::uint64_t const before = c->bytes;
      drop(*c);
      total -= before - c->bytes;
    }
  }
  out.bytesLeft = total;
  std::sort(removed.begin(), removed.end(),
            [](Candidate const* a, Candidate const* b) { return a->openedNs < b->openedNs; });
  for (Candidate const* c : removed) out.removed.push_back(c->path);
  return out;
}

}  // namespace Brisklog
