#include "Kiv/ServerSocket.h"

#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Kiv {

namespace {

sockaddr_un addressOf(std::string const& path, std::string_view what) {
  sockaddr_un addr{};
  if (path.size() >= sizeof addr.sun_path) throw RangeException(std::string(what) + " path too long: " + path);
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  return addr;
}

std::string dirOf(std::string const& path) {
  std::size_t const slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Holds an exclusive lock on the socket's directory while it lives. A
// directory this user may not read cannot be locked; the check then runs
// unguarded, as it would on a file system without locks.
class DirLock {
 public:
  explicit DirLock(FileDesc const& dir) : fd_(dir.fd()) {
    while (::flock(fd_, LOCK_EX) != 0) {
      if (errno != EINTR) {
        fd_ = -1;
        return;
      }
    }
  }
  ~DirLock() {
    if (fd_ >= 0) ::flock(fd_, LOCK_UN);
  }
  DirLock(DirLock const&) = delete;
  DirLock& operator=(DirLock const&) = delete;

 private:
  int fd_;
};

}  // namespace

ServerSocket::ServerSocket(std::string path, PathTrust::Use use) : path_(std::move(path)) {
  sockaddr_un const addr = addressOf(path_, use.what);
  dir_ = PathTrust::dirMake(dirOf(path_), {std::string(use.what) + " directory", use.envVar}, 0700);
  DirLock lock(dir_);
  std::string const head = std::string(use.what) + " " + path_;
  struct stat st {};
  if (::lstat(path_.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode))
      throw UntrustedPathException(head + " is not a socket (owned by " + PathTrust::ownerText(st.st_uid) +
                                   "): remove it");
    FileDesc probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!probe) throw ErrnoException("socket", errno);
    if (::connect(probe.fd(), reinterpret_cast<sockaddr const*>(&addr), sizeof addr) == 0) {
      ucred cred{};
      socklen_t len = sizeof cred;
      pid_t const pid = ::getsockopt(probe.fd(), SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 ? cred.pid : 0;
      throw SocketInUseException(head + " is in use by pid " + std::to_string(pid), pid);
    }
    int const err = errno;
    // A full backlog: someone is there, too busy to say who.
    if (err == EAGAIN) throw SocketInUseException(head + " is in use by a process that accepts no connection", 0);
    if (err != ECONNREFUSED) throw ErrnoException("connect(" + path_ + ")", err);
    // Nobody listens: left by a process that is gone.
    if (::unlink(path_.c_str()) != 0 && errno != ENOENT) throw ErrnoException("unlink(" + path_ + ")", errno);
  } else if (errno != ENOENT) {
    throw ErrnoException("lstat(" + path_ + ")", errno);
  }
  listen_ = FileDesc(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!listen_) throw ErrnoException("socket", errno);
  // A closed mask: nobody else can connect between the bind and any chmod.
  mode_t const old = ::umask(077);
  int const rc = ::bind(listen_.fd(), reinterpret_cast<sockaddr const*>(&addr), sizeof addr);
  int const err = errno;
  ::umask(old);
  if (rc != 0) throw ErrnoException("bind(" + path_ + ")", err);
  if (::lstat(path_.c_str(), &st) != 0) {
    int const e = errno;
    ::unlink(path_.c_str());
    throw ErrnoException("lstat(" + path_ + ")", e);
  }
  dev_ = st.st_dev;
  ino_ = st.st_ino;
  owner_ = ::getpid();
  if (::listen(listen_.fd(), 16) != 0) {
    int const e = errno;
    ::unlink(path_.c_str());
    owner_ = 0;
    throw ErrnoException("listen", e);
  }
}

ServerSocket::~ServerSocket() {
  // A forked child holds a copy of this object but not the path.
  if (owner_ != ::getpid()) return;
  DirLock lock(dir_);
  struct stat st {};
  if (::lstat(path_.c_str(), &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_) ::unlink(path_.c_str());
}

FileDesc connectTrusted(std::string const& path, std::string_view what) {
  sockaddr_un const addr = addressOf(path, what);
  FileDesc fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) throw ErrnoException("socket", errno);
  if (::connect(fd.fd(), reinterpret_cast<sockaddr const*>(&addr), sizeof addr) != 0)
    throw ErrnoException("connect(" + path + ")", errno);
  ucred cred{};
  socklen_t len = sizeof cred;
  if (::getsockopt(fd.fd(), SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0)
    throw ErrnoException("getsockopt(SO_PEERCRED " + path + ")", errno);
  if (!PathTrust::ownerTrusted(cred.uid))
    throw UntrustedPathException(
        std::string(what) + " " + path + " is served by " + PathTrust::ownerText(cred.uid) + " (pid " +
        std::to_string(cred.pid) + "), " +
        (::geteuid() == 0 ? std::string("not by root") : "not by " + PathTrust::ownerText(::geteuid()) + " or root") +
        ": not talking to it");
  return fd;
}

}  // namespace Kiv
