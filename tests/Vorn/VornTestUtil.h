// Helpers shared by the Vorn tests: a private root directory per test and a
// few ways to reach into a region file the way a broken writer would.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <string>

#include "Vorn/TestSchema.h"

namespace VornTest {

// A fresh directory under /dev/shm, removed with everything in it.
class PrivateRoot {
 public:
  PrivateRoot() {
    std::random_device rd;
    path_ = "/dev/shm/vorn-test-" + std::to_string(getpid()) + "-" + std::to_string(rd());
    ::mkdir(path_.c_str(), 0700);
  }
  ~PrivateRoot() { removeAll(path_); }
  static void removeAll(std::string const& dir) {
    if (DIR* d = ::opendir(dir.c_str())) {
      while (dirent* e = ::readdir(d)) {
        std::string n = e->d_name;
        if (n == "." || n == "..") continue;
        std::string const p = dir + "/" + n;
        struct stat st;
        if (::lstat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
          removeAll(p);
        else
          ::unlink(p.c_str());
      }
      ::closedir(d);
    }
    ::rmdir(dir.c_str());
  }
  std::string const& path() const { return path_; }
  std::string file(std::string const& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline Kiv::Ptr<Vorn::TestStatus> mounted(std::string const& path, Vorn::Status::Mode mode,
                                          Vorn::MountOptions const& options = {}) {
  Kiv::Ptr<Vorn::TestStatus> s = new Vorn::TestStatus("test");
  s->mountIs(path, mode, options);
  return s;
}

inline Vorn::TestRecord record(std::uint64_t n, std::uint64_t version = 1) {
  return Vorn::TestRecord(Vorn::TestKey(n), version);
}

// Records every change a status announces, in order.
class Recorder : public Vorn::TestStatus::NotifieeConst {
 public:
  explicit Recorder(Kiv::Ptr<Vorn::TestStatus> const& s) { notifierIs(s); }
  void onEntry(Vorn::TestKey const& k) override { entries.push_back(k); }
  void onPeer(std::uint16_t p) override { peers.push_back(p); }
  std::vector<Vorn::TestKey> entries;
  std::vector<std::uint16_t> peers;
};

}  // namespace VornTest
