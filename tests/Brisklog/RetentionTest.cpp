// Which trace files a directory keeps, with real processes (the helper
// program) that end normally, die by SIGKILL, or run while others start.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "Brisklog/Layout.h"
#include "Brisklog/Reader.h"
#include "Brisklog/Retention.h"
#include "TraceDir.h"

namespace {

using Brisklog::Test::TraceDir;

struct Helper {
  pid_t pid = -1;
  int in = -1;  // its standard input; closing it ends a "hold"
  FILE* out = nullptr;
  std::string path;  // its trace file, as it printed it
};

// Starts the helper with `env` added to the environment; returns once it
// has made its trace file.
Helper start(std::vector<std::string> const& args, std::vector<std::string> const& env) {
  int in[2], out[2];
  // Close-on-exec, so that later helpers do not hold this one's input open.
  EXPECT_EQ(pipe2(in, O_CLOEXEC), 0);
  EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
  Helper h;
  h.pid = fork();
  if (h.pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    for (std::string const& e : env) putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> argv{const_cast<char*>(BRISKLOG_HELPER)};
    for (std::string const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(BRISKLOG_HELPER, argv.data());
    _exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  h.in = in[1];
  h.out = fdopen(out[0], "r");
  char buf[512];
  if (std::fgets(buf, sizeof buf, h.out)) h.path.assign(buf, std::strcspn(buf, "\n"));
  return h;
}

// Ends a helper (closing its input) and returns its exit status, or -signal.
int finish(Helper& h) {
  ::close(h.in);
  std::fclose(h.out);
  int status = 0;
  waitpid(h.pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int run(std::vector<std::string> const& args, std::vector<std::string> const& env, std::string* path = nullptr) {
  Helper h = start(args, env);
  if (path) *path = h.path;
  return finish(h);
}

std::vector<std::string> traceFiles(std::string const& dir) {
  std::vector<std::string> out;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string const n = e->d_name;
      if (n.size() > 9 && n.compare(n.size() - 9, 9, ".brisklog") == 0) out.push_back(dir + "/" + n);
    }
    closedir(d);
  }
  std::sort(out.begin(), out.end());
  return out;
}

struct Size {
  std::uint64_t apparent = 0;
  std::uint64_t allocated = 0;
};

Size sizeOf(std::string const& path) {
  struct stat st {};
  stat(path.c_str(), &st);
  return {std::uint64_t(st.st_size), std::uint64_t(st.st_blocks) * 512};
}

bool exists(std::string const& path) { return access(path.c_str(), F_OK) == 0; }

TEST(BrisklogRetention, ARestartLoopLeavesAtMostTheConfiguredFilesAndShortRunsCostLittle) {
  TraceDir dir;
  std::vector<std::string> const env = {"BRISKLOG_DIR=" + dir.dir(), "BRISKLOG_KEEP=3"};
  std::vector<std::string> paths;
  for (int i = 0; i < 100; ++i) {
    std::string path;
    ASSERT_EQ(run({"exit"}, env, &path), 0);
    paths.push_back(path);
  }
  // The three newest, each of them trimmed to what it wrote.
  std::vector<std::string> newest(paths.end() - 3, paths.end());
  std::sort(newest.begin(), newest.end());
  EXPECT_EQ(traceFiles(dir.dir()), newest);
  for (std::string const& p : newest) {
    Size s = sizeOf(p);
    EXPECT_GT(s.apparent, 4u << 20) << p;
    EXPECT_LT(s.allocated, 64u << 10) << p;
  }
  Brisklog::Reader reader(paths.back());
  std::vector<Brisklog::Record> records = reader.read();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text(), "started to exit");
  EXPECT_TRUE(reader.problems().empty()) << reader.problems().front();
  EXPECT_FALSE(reader.writerAlive());
}

// A killed process keeps its whole file (its records are what a crash
// leaves); the budget then removes the oldest files of gone processes,
// whatever their names.
TEST(BrisklogRetention, CrashedProcessesKeepTheirRecordsWithinTheDirectoryBudget) {
  TraceDir dir;
  // Files of about 390 KiB: two fit in 1 MiB, three do not.
  std::vector<std::string> const env = {"BRISKLOG_DIR=" + dir.dir(), "BRISKLOG_RING_KB=64", "BRISKLOG_RINGS=2",
                                        "BRISKLOG_KEEP=10", "BRISKLOG_DIR_MB=1"};
  std::vector<std::string> paths;
  for (char const* name : {"alpha", "beta", "gamma", "alpha"}) {
    std::string path;
    ASSERT_EQ(run({"--name", name, "kill"}, env, &path), -SIGKILL);
    paths.push_back(path);
  }
  EXPECT_EQ(traceFiles(dir.dir()), (std::vector<std::string>{paths[3], paths[2]}));
  Size s = sizeOf(paths[3]);
  EXPECT_GE(s.allocated, s.apparent & ~std::uint64_t(4095));
  Brisklog::Reader reader(paths[3]);
  std::vector<Brisklog::Record> records = reader.read();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text(), "started to kill");
}

// Many processes starting at once, each pruning while the others make
// their files: none loses its own. Files of gone processes go, including one
// whose pid now belongs to a process of another name; with nothing to keep,
// each process removes its own file when it ends.
TEST(BrisklogRetention, RunningProcessesFilesSurviveConcurrentPruning) {
  TraceDir dir;
  std::vector<std::string> const env = {"BRISKLOG_DIR=" + dir.dir(), "BRISKLOG_RING_KB=64", "BRISKLOG_RINGS=2",
                                        "BRISKLOG_KEEP=0", "BRISKLOG_DIR_MB=1"};
  std::string crashed;
  ASSERT_EQ(run({"kill"}, env, &crashed), -SIGKILL);
  // The crashed file, as if its pid had been reused by this test process.
  std::ifstream in(crashed, std::ios::binary);
  std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  Brisklog::FileHeader h;
  std::memcpy(&h, bytes.data(), sizeof h);
  h.layout.pid = std::uint32_t(getpid());
  h.layoutChecksum = Brisklog::layoutChecksum(h.layout);
  std::memcpy(bytes.data(), &h, sizeof h);
  std::string const reused = dir.dir() + "/brisklog-helper-" + std::to_string(getpid()) + ".brisklog";
  std::ofstream(reused, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
  EXPECT_FALSE(Brisklog::writerRuns(reused));

  for (int round = 0; round < 2; ++round) {
    std::vector<Helper> holders;
    for (int i = 0; i < 12; ++i) holders.push_back(start({"hold"}, env));
    for (Helper const& h : holders) {
      EXPECT_TRUE(exists(h.path)) << h.path;
      EXPECT_TRUE(Brisklog::writerRuns(h.path)) << h.path;
    }
    EXPECT_FALSE(exists(crashed));
    EXPECT_FALSE(exists(reused));
    for (Helper& h : holders) EXPECT_EQ(finish(h), 0) << "its file went while it ran: " << h.path;
    EXPECT_TRUE(traceFiles(dir.dir()).empty());
  }
}

TEST(BrisklogRetention, PruneAloneKeepsTheNewestPerNameAndReportsWhatItRemoved) {
  TraceDir dir;
  std::vector<std::string> const env = {"BRISKLOG_DIR=" + dir.dir(), "BRISKLOG_KEEP=10", "BRISKLOG_DIR_MB=0"};
  std::map<std::string, std::vector<std::string>> byName;
  for (char const* name : {"alpha", "beta", "alpha", "beta", "alpha"}) {
    std::string path;
    ASSERT_EQ(run({"--name", name, "exit"}, env, &path), 0);
    byName[name].push_back(path);
  }
  std::ofstream(dir.dir() + "/notes.txt") << "not a trace";
  Brisklog::PruneResult r = Brisklog::prune(dir.dir(), Brisklog::Retention{1, 0});
  EXPECT_EQ(r.removed, (std::vector<std::string>{byName["alpha"][0], byName["beta"][0], byName["alpha"][1]}));
  EXPECT_EQ(traceFiles(dir.dir()), (std::vector<std::string>{byName["alpha"][2], byName["beta"][1]}));
  EXPECT_TRUE(exists(dir.dir() + "/notes.txt"));
  EXPECT_GT(r.bytesLeft, 0u);
}

}  // namespace
