#include "Kiv/PathTrust.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>

namespace Kiv::PathTrust {

namespace {

constexpr int kMaxLinks = 40;  // as the kernel's own lookup

// Owners outside a user namespace all read as the overflow uid there.
struct Namespace {
  bool nested = false;
  uid_t overflow = 65534;
};

Namespace const& userNamespace() {
  static Namespace const ns = [] {
    Namespace n;
    std::ifstream map("/proc/self/uid_map");
    unsigned long inside = 0, outside = 0, count = 0;
    if (map >> inside >> outside >> count) n.nested = !(inside == 0 && outside == 0 && count == 4294967295ul);
    std::ifstream ov("/proc/sys/kernel/overflowuid");
    unsigned long o = 0;
    if (ov >> o) n.overflow = static_cast<uid_t>(o);
    return n;
  }();
  return ns;
}

std::string modeText(mode_t m) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "%04o", static_cast<unsigned>(m & 07777));
  return buf;
}

std::string notOwnerText() {
  uid_t const me = ::geteuid();
  return me == 0 ? "not by root" : "not by " + ownerText(me) + " or root";
}

std::string dirFix(Use use) {
  return use.envVar.empty() ? "use a directory you own" : "set " + std::string(use.envVar) + " to a directory you own";
}

[[noreturn]] void refuse(std::string const& text) { throw UntrustedPathException(text); }

std::string head(Use use, std::string const& path) { return std::string(use.what) + " " + path; }

void checkTarget(Use use, std::string const& path, struct stat const& st) {
  std::string const owned = "owned by " + ownerText(st.st_uid);
  if (S_ISLNK(st.st_mode)) refuse(head(use, path) + " is a symbolic link (" + owned + "): remove it or " + dirFix(use));
  if (!S_ISDIR(st.st_mode))
    refuse(head(use, path) + " is not a directory (" + owned + "): remove it or " + dirFix(use));
  if (!ownerTrusted(st.st_uid))
    refuse(head(use, path) + " is " + owned + ", " + notOwnerText() + ": remove it or " + dirFix(use));
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    refuse(head(use, path) + " is writable by group or others (mode " + modeText(st.st_mode) + ", " + owned +
           "): run chmod go-w on it or " + dirFix(use));
}

// A directory above the one asked for: whoever may rename entries in it
// could swap the one below for their own.
void checkAbove(Use use, std::string const& path, std::string const& above, struct stat const& st) {
  std::string const owned = "owned by " + ownerText(st.st_uid);
  std::string const lies = head(use, path) + " lies under " + above + ", which ";
  if (!S_ISDIR(st.st_mode)) refuse(lies + "is not a directory (" + owned + "): " + dirFix(use));
  Namespace const& ns = userNamespace();
  if (!ownerTrusted(st.st_uid) && !(ns.nested && st.st_uid == ns.overflow))
    refuse(lies + "is " + owned + ", " + notOwnerText() + ": " + dirFix(use));
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (st.st_mode & S_ISVTX) == 0)
    refuse(lies + "group or others may write and which is not sticky (mode " + modeText(st.st_mode) + ", " + owned +
           "): " + dirFix(use));
}

std::string joined(std::string const& dir, std::string const& name) {
  return dir == "/" ? "/" + name : dir + "/" + name;
}

std::string parentOf(std::string const& dir) {
  std::size_t const slash = dir.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : dir.substr(0, slash);
}

void splitInto(std::string const& text, std::deque<std::string>& out) {
  std::deque<std::string> parts;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('/', start);
    if (end == std::string::npos) end = text.size();
    std::string part = text.substr(start, end - start);
    if (!part.empty() && part != ".") parts.push_back(std::move(part));
    start = end + 1;
  }
  out.insert(out.begin(), parts.begin(), parts.end());
}

FileDesc walk(std::string const& path, Use use, bool create, mode_t mode) {
  if (path.empty()) refuse(std::string(use.what) + " is an empty path: " + dirFix(use));
  std::string const cannot = "cannot use " + head(use, path) + ": ";
  std::string start = path;
  if (start.front() != '/') {
    char cwd[4096];
    if (::getcwd(cwd, sizeof cwd) == nullptr) refuse(cannot + "getcwd: " + std::strerror(errno));
    start = std::string(cwd) + "/" + path;
  }
  std::deque<std::string> rest;
  splitInto(start, rest);
  auto openRoot = [&] {
    FileDesc fd(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!fd) refuse(cannot + "open(/): " + std::strerror(errno));
    return fd;
  };
  FileDesc cur = openRoot();
  std::string curPath = "/";
  struct stat st {};
  if (::fstat(cur.fd(), &st) != 0) refuse(cannot + "fstat(/): " + std::strerror(errno));
  if (rest.empty()) checkTarget(use, path, st);
  int links = 0;
  while (!rest.empty()) {
    std::string const name = rest.front();
    rest.pop_front();
    bool const last = rest.empty();
    std::string const next = name == ".." ? parentOf(curPath) : joined(curPath, name);
    FileDesc fd(::openat(cur.fd(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!fd && errno == ENOENT && create) {
      if (::mkdirat(cur.fd(), name.c_str(), mode) != 0 && errno != EEXIST)
        refuse("cannot create " + head(use, path) + ": mkdir(" + next + "): " + std::strerror(errno) + ": " +
               dirFix(use));
      fd = FileDesc(::openat(cur.fd(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    }
    if (!fd) refuse(cannot + next + ": " + std::strerror(errno));
    if (::fstat(fd.fd(), &st) != 0) refuse(cannot + "fstat(" + next + "): " + std::strerror(errno));
    if (S_ISLNK(st.st_mode) && !last) {
      if (!ownerTrusted(st.st_uid))
        refuse(head(use, path) + " lies under the symbolic link " + next + ", which is owned by " +
               ownerText(st.st_uid) + ", " + notOwnerText() + ": " + dirFix(use));
      if (++links > kMaxLinks) refuse(cannot + "too many symbolic links");
      char target[4096];
      ssize_t const n = ::readlinkat(fd.fd(), "", target, sizeof target - 1);
      if (n < 0) refuse(cannot + "readlink(" + next + "): " + std::strerror(errno));
      target[n] = '\0';
      splitInto(target, rest);
      if (target[0] == '/') {
        cur = openRoot();
        curPath = "/";
      }
      continue;
    }
    if (last) {
      checkTarget(use, path, st);
    } else {
      checkAbove(use, path, next, st);
    }
    cur = std::move(fd);
    curPath = next;
  }
  // A descriptor that can be read (and locked); one that only names the
  // directory where this user may not read it.
  FileDesc readable(::openat(cur.fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return readable ? std::move(readable) : std::move(cur);
}

}  // namespace

std::string runtimeDir(std::string_view name, char const* envVar) {
  if (char const* v = std::getenv(envVar); v != nullptr && *v != '\0') return v;
  std::string const n(name);
  if (::geteuid() == 0) return "/run/" + n;
  if (char const* x = std::getenv("XDG_RUNTIME_DIR"); x != nullptr && x[0] == '/') return std::string(x) + "/" + n;
  throw Exception("neither " + std::string(envVar) + " nor XDG_RUNTIME_DIR is set (/run/" + n +
                  " is root's): set one of them");
}

FileDesc dirCheck(std::string const& path, Use use) { return walk(path, use, false, 0); }

FileDesc dirMake(std::string const& path, Use use, mode_t mode) { return walk(path, use, true, mode); }

void fileCheck(int fd, std::string const& path, std::string_view what) {
  struct stat st {};
  std::string const head = std::string(what) + " " + path;
  if (::fstat(fd, &st) != 0) refuse("cannot use " + head + ": fstat: " + std::strerror(errno));
  std::string const owned = "owned by " + ownerText(st.st_uid);
  if (!S_ISREG(st.st_mode)) refuse(head + " is not a regular file (" + owned + "): remove it");
  if (!ownerTrusted(st.st_uid)) refuse(head + " is " + owned + ", " + notOwnerText() + ": remove it");
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    refuse(head + " is writable by group or others (mode " + modeText(st.st_mode) + ", " + owned +
           "): run chmod go-w on it or remove it");
}

bool ownerTrusted(uid_t uid) { return uid == 0 || uid == ::geteuid(); }

std::string ownerText(uid_t uid) {
  std::string out = "uid " + std::to_string(uid);
  passwd pw{};
  passwd* found = nullptr;
  char buf[1024];
  if (::getpwuid_r(uid, &pw, buf, sizeof buf, &found) == 0 && found != nullptr)
    out += " (" + std::string(pw.pw_name) + ")";
  return out;
}

}  // namespace Kiv::PathTrust
