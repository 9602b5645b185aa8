// Wirly::Sys: the one seam between the networking code and the kernel's
// socket calls. Every socket the library opens, configures, reads, writes or
// closes goes through Sys::sys(), so a test can put a fake in its place and
// drive every errno branch without a kernel.
//
//   struct FailBind : Wirly::Sys {
//     int bind(int, sockaddr const*, socklen_t) override { errno = EADDRINUSE; return -1; }
//   };
//   FailBind fake;
//   Wirly::SysOverride use(&fake);   // restored when `use` goes
//
// Each call has the contract of the system call of the same name: the result,
// and errno set when it reports failure. The real implementation is a plain
// forwarder; a fake may forward to it for the calls it does not change.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

namespace Wirly {

class Sys {
 public:
  virtual ~Sys() = default;

  virtual int socket(int domain, int type, int protocol);
  virtual int bind(int fd, sockaddr const* addr, socklen_t len);
  virtual int setsockopt(int fd, int level, int name, void const* value, socklen_t len);
  virtual ssize_t recvmsg(int fd, msghdr* msg, int flags);
  virtual ssize_t recv(int fd, void* buf, size_t len, int flags);
  // Several datagrams in one call (timeout none): the number read, or -1.
  virtual int recvmmsg(int fd, mmsghdr* msgs, unsigned n, int flags);
  virtual ssize_t sendmsg(int fd, msghdr const* msg, int flags);
  virtual int close(int fd);
  virtual char const* getenv(char const* name);
  // Socket requests that carry a structure both ways (SIOCGETSGCNT).
  virtual int ioctl(int fd, unsigned long request, void* arg);
  virtual int getsockopt(int fd, int level, int name, void* value, socklen_t* len);

  // The implementation in use; the real one unless a test replaced it.
  static Sys& sys();
  // nullptr restores the real implementation; returns the previous one.
  static Sys* sysIs(Sys* s);
  // The real implementation, for fakes that forward.
  static Sys& real();
};

// Installs a Sys for its lifetime.
class SysOverride {
 public:
  explicit SysOverride(Sys* s) : previous_(Sys::sysIs(s)) {}
  ~SysOverride() { Sys::sysIs(previous_); }
  SysOverride(SysOverride const&) = delete;
  SysOverride& operator=(SysOverride const&) = delete;

 private:
  Sys* previous_;
};

}  // namespace Wirly
