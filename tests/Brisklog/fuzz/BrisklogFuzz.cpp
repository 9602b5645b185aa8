// libFuzzer target over the trace decoder.
//
// The input is a list of patches to a valid trace file (4-byte offset,
// 1-byte value), optionally ending in a truncation, so the fuzzer spends its
// time on files that pass the first checks. The file has an exclusive ring
// and a shared one, records of every argument kind, cut strings and a
// record too long for its ring. The decoder reads it twice (as a follower
// does), builds every record's text and time; it promises never to throw,
// crash or loop without end, so any of those is a finding.
//
//   tests/Brisklog/fuzz/build.sh && /tmp/BrisklogFuzz -max_total_time=60
// `make test` runs it for a few seconds (ctest entry BrisklogFuzz).
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Brisklog/Brisklog.h"
#include "Brisklog/Layout.h"
#include "Brisklog/Reader.h"

namespace {

std::string const dir = "/dev/shm/brisklog-fuzz-" + std::to_string(getpid());
std::string const path = dir + "/f.brisklog";
std::vector<unsigned char> pristine;

void removeDir() {
  ::unlink(path.c_str());
  ::unlink((path + ".in").c_str());
  ::rmdir(dir.c_str());
}

void someRecords(int thread) {
  in6_addr v6;
  inet_pton(AF_INET6, "ff02::1:ff00:1", &v6);
  for (int i = 0; i < 12; ++i) {
    BRISKLOG("Fuzz", "thread %d record %u of %s at %p: %.3f %c %s", thread, unsigned(i), "Ethernet1",
             static_cast<void*>(nullptr), i * 0.5, char('a' + i), i % 2 == 0);
    BRISKLOG("FuzzAddr", "%s from %s: %s", Brisklog::Addr(v6), Brisklog::Addr::v4(0x0a000001u + i),
             std::string(i * 30, 'x'));
  }
  BRISKLOG("FuzzLong", "%s %s %s", std::string(300, 'y'), std::string(300, 'z'), std::string(300, 'w'));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  mkdir(dir.c_str(), 0700);
  std::atexit(removeDir);
  Brisklog::Config c;
  c.dir = dir;
  c.ringBytes = 4096;
  c.ringCount = 2;
  c.maxStringBytes = 200;
  c.descriptorBytes = 4096;
  Brisklog::configIs(c);
  someRecords(0);
  std::thread([] { someRecords(1); }).join();
  std::string const written = Brisklog::path();
  Brisklog::close();
  int fd = open(written.c_str(), O_RDONLY);
  struct stat st;
  fstat(fd, &st);
  pristine.resize(static_cast<std::size_t>(st.st_size));
  if (read(fd, pristine.data(), pristine.size()) != static_cast<ssize_t>(pristine.size())) abort();
  close(fd);
  ::unlink(written.c_str());
  // As a dead process left it: a live writer's file makes the decoder wait
  // for records it may still finish.
  Brisklog::FileHeader h;
  std::memcpy(&h, pristine.data(), sizeof h);
  h.layout.pid = 0;
  h.layoutChecksum = Brisklog::layoutChecksum(h.layout);
  std::memcpy(pristine.data(), &h, sizeof h);
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

  Brisklog::Reader reader(path);
  std::size_t bytes = 0;
  for (int pass = 0; pass < 2; ++pass) {
    for (Brisklog::Record const& r : reader.read()) {
      bytes += r.text().size() + r.source().size() + Brisklog::wallTimeText(r.wallNs).size();
      for (Brisklog::Arg const& a : r.args) bytes += a.text().size();
    }
  }
  for (std::string const& p : reader.problems()) bytes += p.size();
  for (std::string const& n : reader.notes()) bytes += n.size();
  return bytes == 0 ? 0 : 0;
}
