// Tables and traces on a file system with no room: refused when they are
// made or grown, never a write that reports success and reaches nobody.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "Brisklog/Brisklog.h"
#include "VornTestUtil.h"

using namespace VornTest;
using Mode = Vorn::Status::Mode;

namespace {

// Runs `body` in a child with its own mount namespace and a 256 KiB tmpfs
// at `dir` (0755: a trace directory others may write would be refused);
// returns the child's exit status, or -1 with `why` set when the
// namespace or the mount is not permitted here.
int inSmallTmpfs(std::string const& dir, int (*body)(std::string const&), std::string& why) {
  int pipeFd[2];
  if (pipe(pipeFd) != 0) return -1;
  pid_t child = fork();
  if (child == 0) {
    ::close(pipeFd[0]);
    char ok = 1;
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=256k,mode=0755") != 0) {
      ok = 0;
      [[maybe_unused]] ssize_t n = ::write(pipeFd[1], &ok, 1);
      std::perror("mount namespace");
      _exit(77);
    }
    [[maybe_unused]] ssize_t n = ::write(pipeFd[1], &ok, 1);
    _exit(body(dir));
  }
  ::close(pipeFd[1]);
  char ok = 0;
  [[maybe_unused]] ssize_t n = ::read(pipeFd[0], &ok, 1);
  ::close(pipeFd[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (!ok) {
    why = "no private mount namespace with a tmpfs here (needs root)";
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool dirEmpty(std::string const& dir) {
  DIR* d = opendir(dir.c_str());
  int n = 0;
  while (dirent* e = readdir(d)) n += std::string(e->d_name) != "." && std::string(e->d_name) != "..";
  closedir(d);
  return n == 0;
}

bool refusedForRoom(std::exception_ptr e, char const* what) {
  try {
    std::rethrow_exception(e);
  } catch (Kiv::ErrnoException const& x) {
    if (x.error() == ENOSPC && std::string(x.what()).find("posix_fallocate") != std::string::npos) return true;
    std::fprintf(stderr, "%s: unexpected refusal: %s\n", what, x.what());
  } catch (std::exception const& x) {
    std::fprintf(stderr, "%s: unexpected refusal: %s\n", what, x.what());
  }
  return false;
}

// A table that grows past the file system's room: the write that needs the
// room is refused (the process lives), everything written before reaches
// another mapping, and the table keeps serving; a second table finds no
// room at all and is refused when it is made, leaving nothing behind.
int tableGrowingPastTheRoomIsRefused(std::string const& dir) {
  std::string const path = dir + "/t.vorn";
  Vorn::MountOptions big;
  big.limit["entry"] = 4096;  // about 1.5 MiB at its limit
  auto w = mounted(path, Mode::writer, big);
  std::uint64_t written = 0;
  for (;; ++written) {
    try {
      w->entryIs(record(written));
    } catch (...) {
      if (!refusedForRoom(std::current_exception(), "growth")) return 1;
      break;
    }
    if (written == 4096) {
      std::fprintf(stderr, "a table larger than the file system was written\n");
      return 2;
    }
  }
  if (written < 63) return 3;  // it did grow before it ran out
  auto r = mounted(path, Mode::reader);
  for (std::uint64_t n = 0; n < written; ++n)
    if (r->entry(Vorn::TestKey(n)) != record(n)) return 4;
  if (r->entry(Vorn::TestKey(written)) != Vorn::TestRecord() || r->entryTable().size() != written) return 5;
  // Full, not broken: replacements and deletes go on, and a freed place is
  // taken again without more room.
  if (!w->entryIs(record(0, 2)) || !w->entryDel(Vorn::TestKey(1)) || !w->entryIs(record(written))) return 6;
  if (r->entry(Vorn::TestKey(0)) != record(0, 2) || r->entry(Vorn::TestKey(written)) != record(written)) return 7;
  std::string const other = dir + "/u.vorn";
  // Whatever room is left goes to a filler file; then a new table.
  FILE* f = std::fopen((dir + "/filler").c_str(), "w");
  std::vector<char> chunk(4096, 1);
  while (std::fwrite(chunk.data(), 1, chunk.size(), f) == chunk.size() && std::fflush(f) == 0) {
  }
  std::fclose(f);
  try {
    mounted(other, Mode::writer, big);
    std::fprintf(stderr, "a table was made on a full file system\n");
    return 8;
  } catch (...) {
    if (!refusedForRoom(std::current_exception(), "new table")) return 9;
  }
  DIR* d = opendir(dir.c_str());
  while (dirent* e = readdir(d))
    if (std::string(e->d_name).rfind("u.vorn", 0) == 0) return 10;
  closedir(d);
  return 0;
}

int traceTooLargeIsRefused(std::string const& dir) {
  Brisklog::Config c;
  c.dir = dir;
  c.ringBytes = 1u << 20;
  c.ringCount = 1;
  Brisklog::configIs(c);
  if (Brisklog::open()) return 1;
  BRISKLOG("Full", "record %d", 1);  // writes nothing, and lives
  if (!dirEmpty(dir)) return 2;
  c.ringBytes = 16u << 10;
  c.descriptorBytes = 16u << 10;
  Brisklog::configIs(c);
  if (!Brisklog::open()) return 3;
  for (int i = 0; i < 10000; ++i) BRISKLOG("Full", "record %d", i);
  return 0;
}

// A table written, then its file system remounted read-only: readers (and
// so vornctl dump) still read it.
int readOnlyFileSystemIsRead(std::string const& dir) {
  std::string const path = dir + "/t.vorn";
  try {
    Vorn::MountOptions small;
    small.limit["entry"] = 64;
    auto w = mounted(path, Mode::writer, small);
    for (std::uint64_t n = 0; n < 10; ++n) w->entryIs(record(n));
  } catch (std::exception const& e) {
    std::fprintf(stderr, "writer: %s\n", e.what());
    return 9;
  }
  if (mount(nullptr, dir.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
    std::perror("remount read-only");
    return 10;
  }
  try {
    auto r = mounted(path, Mode::reader);
    for (std::uint64_t n = 0; n < 10; ++n)
      if (r->entry(Vorn::TestKey(n)) != record(n)) return 1;
    Vorn::TestKey k;
    Vorn::TestRecord rec;
    Vorn::IterHint hint;
    if (!r->entryTable().first(k, rec, hint) || k != Vorn::TestKey(0)) return 2;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "reader on a read-only file system: %s\n", e.what());
    return 3;
  }
  return 0;
}

class FullFileSystem : public ::testing::Test {
 protected:
  PrivateRoot root;
};

}  // namespace

TEST_F(FullFileSystem, ATableGrowingPastTheRoomIsRefusedAtTheWriteThatNeedsItAndKeepsServing) {
  std::string why;
  int code = inSmallTmpfs(root.path(), tableGrowingPastTheRoomIsRefused, why);
  if (code < 0) GTEST_SKIP() << why;
  EXPECT_EQ(code, 0);
}

TEST_F(FullFileSystem, ATraceWithoutRoomIsRefusedWhenMadeAndTheProcessLives) {
  std::string why;
  int code = inSmallTmpfs(root.path(), traceTooLargeIsRefused, why);
  if (code < 0) GTEST_SKIP() << why;
  EXPECT_EQ(code, 0);
}

TEST_F(FullFileSystem, ReadersReadATableOnAReadOnlyFileSystem) {
  std::string why;
  int code = inSmallTmpfs(root.path(), readOnlyFileSystemIsRead, why);
  if (code < 0) GTEST_SKIP() << why;
  EXPECT_EQ(code, 0);
}
