// vornctl as an operator runs it against damaged tables: a real process,
// its exit status, and how long it takes.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "VornTestUtil.h"

using namespace VornTest;
using Mode = Vorn::Status::Mode;

namespace {

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
  double seconds = 0;
};

ToolRun vornctl(std::string const& root, std::string const& args) {
  std::string const errFile = root + "/vornctl.err";
  std::string const cmd = std::string(VORNCTL) + " --root " + root + " " + args + " 2>" + errFile;
  ToolRun r;
  auto const start = std::chrono::steady_clock::now();
  FILE* p = popen(cmd.c_str(), "r");
  char buf[4096];
  std::size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  int status = pclose(p);
  r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::ifstream e(errFile);
  std::stringstream ss;
  ss << e.rdbuf();
  r.err = ss.str();
  return r;
}

Vorn::Layout::EntryHead* headOf(Vorn::Status const& s, std::uint32_t i) {
  Vorn::TableGeometry const& g = s.region()->table(0);
  return reinterpret_cast<Vorn::Layout::EntryHead*>(g.entries + std::size_t(i) * g.entrySize);
}

class Vornctl : public ::testing::Test {
 protected:
  PrivateRoot root;
  std::string path = root.file("t.vorn");
};

}  // namespace

TEST_F(Vornctl, ShowRefusesImpossibleCountsAndSaysSo) {
  auto w = mounted(path, Mode::writer);
  for (std::uint64_t n = 0; n < 10; ++n) w->entryIs(record(n));
  ToolRun ok = vornctl(root.path(), "show t");
  EXPECT_EQ(ok.status, 0) << ok.err;
  EXPECT_NE(ok.out.find("entry: 10 of 63 records (limit 1024)"), std::string::npos) << ok.out;
  w->region()->table(0).control->size.store(1500000000u);
  w->region()->table(0).control->tombstones.store(1500000000u);
  ToolRun bad = vornctl(root.path(), "show t");
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.out.find("1500000000"), std::string::npos) << bad.out;
  EXPECT_NE(bad.err.find("damaged: table 'entry': size 1500000000 exceeds capacity 63"), std::string::npos) << bad.err;
  EXPECT_NE(bad.err.find("1500000000 tombstones in 128 hash slots"), std::string::npos) << bad.err;
}

// Every entry stuck mid-write under a writer that runs: watching costs
// about one bound, and --seconds holds.
TEST_F(Vornctl, WatchOnATableOfStuckEntriesHonoursItsSeconds) {
  Vorn::MountOptions options;
  options.limit["entry"] = 2000;
  auto w = mounted(path, Mode::writer, options);
  for (std::uint64_t n = 0; n < 2000; ++n) w->entryIs(record(n));
  for (std::uint32_t i = 1; i <= 2000; ++i) headOf(*w, i)->dseq.fetch_add(1);
  ToolRun r = vornctl(root.path(), "watch t --seconds 1");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_LT(r.seconds, 3.0);
}
