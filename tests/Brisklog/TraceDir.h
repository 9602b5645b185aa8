// A private trace directory for one test: Brisklog writes there with the
// given sizes, and the directory goes when the test ends.
#pragma once

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "Brisklog/Brisklog.h"

namespace Brisklog::Test {

class TraceDir {
 public:
  explicit TraceDir(std::uint32_t ringBytes = 1u << 16, std::uint32_t ringCount = 2, std::uint32_t maxString = 200,
                    std::uint32_t descriptorBytes = 64u << 10) {
    char tmpl[] = "/tmp/brisklog-test-XXXXXX";
    dir_ = mkdtemp(tmpl);
    Config c;
    c.dir = dir_;
    c.ringBytes = ringBytes;
    c.ringCount = ringCount;
    c.maxStringBytes = maxString;
    c.descriptorBytes = descriptorBytes;
    configIs(c);
  }
  ~TraceDir() {
    close();
    if (DIR* d = opendir(dir_.c_str())) {
      while (dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n != "." && n != "..") unlink((dir_ + "/" + n).c_str());
      }
      closedir(d);
    }
    rmdir(dir_.c_str());
  }
  std::string const& dir() const { return dir_; }

 private:
  std::string dir_;
};

}  // namespace Brisklog::Test
