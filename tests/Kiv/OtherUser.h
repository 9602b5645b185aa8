// Test helpers for ownership checks: a scratch directory that the user
// nobody may enter, and a way to run a piece of a test as that user.
#pragma once

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <functional>
#include <string>

namespace KivTest {

constexpr uid_t kNobody = 65534;

// Runs fn in a forked child as uid and gid `uid` (no supplementary groups;
// this process's own uid: unchanged) and returns what it returned, or
// "exception: <what()>" when it threw.
inline std::string asUser(uid_t uid, std::function<std::string()> const& fn) {
  int p[2];
  if (::pipe(p) != 0) return "pipe failed";
  pid_t const pid = ::fork();
  if (pid == 0) {
    ::close(p[0]);
    std::string out;
    bool const same = uid == ::geteuid();
    if (!same && (::setgroups(0, nullptr) != 0 || ::setresgid(uid, uid, uid) != 0 || ::setresuid(uid, uid, uid) != 0)) {
      out = "cannot become uid " + std::to_string(uid);
    } else {
      try {
        out = fn();
      } catch (std::exception const& e) {
        out = std::string("exception: ") + e.what();
      }
    }
    for (std::size_t n = 0; n < out.size();) {
      ssize_t const w = ::write(p[1], out.data() + n, out.size() - n);
      if (w <= 0) break;
      n += std::size_t(w);
    }
    ::_exit(0);
  }
  ::close(p[1]);
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = ::read(p[0], buf, sizeof buf)) > 0;) out.append(buf, std::size_t(n));
  ::close(p[0]);
  int st = 0;
  ::waitpid(pid, &st, 0);
  return out;
}

// A fresh directory under /dev/shm, sticky and open to everyone as /tmp and
// /dev/shm are, so that another user can make something there first;
// removed with what is in it.
class Scratch {
 public:
  Scratch() {
    char tmpl[] = "/dev/shm/pathtrust-test.XXXXXX";
    if (::mkdtemp(tmpl) != nullptr) path_ = tmpl;
    ::chmod(path_.c_str(), 01777);
  }
  ~Scratch() {
    if (!path_.empty()) std::system(("rm -rf '" + path_ + "'").c_str());
  }
  Scratch(Scratch const&) = delete;
  Scratch& operator=(Scratch const&) = delete;
  std::string const& path() const { return path_; }
  std::string operator/(std::string const& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace KivTest
