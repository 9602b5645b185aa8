// libFuzzer target over the mount and read paths of a Vorn region.
//
// The input is a list of patches to a valid region (4-byte offset, 1-byte
// value), optionally ending in a truncation, so the fuzzer spends its time
// on files that pass the first checks. A reader mounts the damaged file,
// looks keys up, walks the table in order and unordered, reads the size and
// the change log; then a writer adopts it and is read back. Any exception
// other than the framework's is a finding, and so is a crash or a hang.
// Damage must not outlive adoption: once a fresh writer has mounted the
// file, every operation of that writer and of a fresh reader must work, and
// an exception there is a finding too.
//
//   tests/Vorn/fuzz/build.sh && /tmp/VornFuzz -max_total_time=60
// `make test` runs it for a few seconds (ctest entry VornFuzz).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Kiv/Exception.h"
#include "Vorn/TestSchema.h"

namespace {

std::string const dir = "/dev/shm/vorn-fuzz-" + std::to_string(getpid());
std::string const path = dir + "/f.vorn";
std::vector<unsigned char> pristine;

void exercise(Vorn::TestStatus& s) {
  auto& t = s.entryTable();
  for (std::uint64_t n = 0; n < 24; ++n) s.entry(Vorn::TestKey(n));
  Vorn::IterHint hint;
  Vorn::TestKey k;
  Vorn::TestRecord r;
  int steps = 0;
  for (bool ok = t.first(k, r, hint); ok && steps < 100000; ok = t.next(k, k, r, hint)) ++steps;
  t.lowerBound(Vorn::TestKey(7), k, r, hint);
  std::uint32_t pos = 0;
  while (t.unorderedNext(pos, k, r)) {
  }
  t.size();
  s.peer(3);
  std::uint16_t pk;
  Vorn::TestPeer p;
  Vorn::IterHint ph;
  s.peerTable().first(pk, p, ph);
}

// Outcomes a damaged file may have before adoption, never after.
template <class F>
void afterAdoption(char const* what, F f) {
  try {
    f();
  } catch (std::exception const& e) {
    std::fprintf(stderr, "adoption left the table unusable: %s: %s\n", what, e.what());
    std::abort();
  }
}

void removeDir() {
  ::unlink(path.c_str());
  ::unlink((path + ".in").c_str());
  ::rmdir(dir.c_str());
}

template <class F>
void guarded(F f) {
  try {
    f();
  } catch (Kiv::Exception const&) {
    // CorruptionDetected, Errno, Range: the expected outcomes.
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  mkdir(dir.c_str(), 0700);
  std::atexit(removeDir);
  Vorn::MountOptions o;
  o.limit["entry"] = 16;
  o.limit["peer"] = 8;
  o.logCapacity = 16;
  {
    Kiv::Ptr<Vorn::TestStatus> w = new Vorn::TestStatus("w");
    w->mountIs(path, Vorn::Status::Mode::writer, o);
    for (std::uint64_t n = 0; n < 12; ++n) w->entryIs(Vorn::TestRecord(Vorn::TestKey(n), n));
    w->entryDel(Vorn::TestKey(5));
    w->peerIs({3, 0, 1});
  }
  int fd = open(path.c_str(), O_RDONLY);
  struct stat st;
  fstat(fd, &st);
  pristine.resize(static_cast<std::size_t>(st.st_size));
  if (read(fd, pristine.data(), pristine.size()) != static_cast<ssize_t>(pristine.size())) abort();
  close(fd);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::vector<unsigned char> file = pristine;
  std::size_t i = 0;
  for (; i + 5 <= size; i += 5) {
    std::uint32_t off;
    std::memcpy(&off, data + i, 4);
    file[off % file.size()] = data[i + 4];
  }
  if (size - i >= 4) {
    std::uint32_t cut;
    std::memcpy(&cut, data + i, 4);
    file.resize(cut % (file.size() + 1));
  }
  std::string const tmp = path + ".in";
  int fd = open(tmp.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  if (write(fd, file.data(), file.size()) != static_cast<ssize_t>(file.size())) abort();
  close(fd);
  rename(tmp.c_str(), path.c_str());
  guarded([] {
    Kiv::Ptr<Vorn::TestStatus> r = new Vorn::TestStatus("r");
    r->mountIs(path, Vorn::Status::Mode::reader);
    guarded([&] { exercise(*r); });
    guarded([&] { r->drain(); });
  });
  // A damaged file is adopted or replaced; either way the writer and its
  // readers are fully served from then on.
  Kiv::Ptr<Vorn::TestStatus> w = new Vorn::TestStatus("w");
  afterAdoption("writer mount", [&] { w->mountIs(path, Vorn::Status::Mode::writer); });
  afterAdoption("writer reads", [&] { exercise(*w); });
  afterAdoption("writer writes", [&] {
    w->entryIs(Vorn::TestRecord(Vorn::TestKey(99), 1));
    w->entryDel(Vorn::TestKey(3));
  });
  afterAdoption("writer reads again", [&] { exercise(*w); });
  afterAdoption("reader", [&] {
    Kiv::Ptr<Vorn::TestStatus> r = new Vorn::TestStatus("r");
    r->mountIs(path, Vorn::Status::Mode::reader);
    exercise(*r);
  });
  return 0;
}
