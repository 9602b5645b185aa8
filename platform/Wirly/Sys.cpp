#include "Wirly/Sys.h"

#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Wirly {

int Sys::socket(int domain, int type, int protocol) { return ::socket(domain, type, protocol); }
int Sys::bind(int fd, sockaddr const* addr, socklen_t len) { return ::bind(fd, addr, len); }
int Sys::setsockopt(int fd, int level, int name, void const* value, socklen_t len) {
  return ::setsockopt(fd, level, name, value, len);
}
ssize_t Sys::recvmsg(int fd, msghdr* msg, int flags) { return ::recvmsg(fd, msg, flags); }
ssize_t Sys::recv(int fd, void* buf, size_t len, int flags) { return ::recv(fd, buf, len, flags); }
int Sys::recvmmsg(int fd, mmsghdr* msgs, unsigned n, int flags) { return ::recvmmsg(fd, msgs, n, flags, nullptr); }
ssize_t Sys::sendmsg(int fd, msghdr const* msg, int flags) { return ::sendmsg(fd, msg, flags); }
int Sys::close(int fd) { return ::close(fd); }
char const* Sys::getenv(char const* name) { return ::getenv(name); }
int Sys::ioctl(int fd, unsigned long request, void* arg) { return ::ioctl(fd, request, arg); }
int Sys::getsockopt(int fd, int level, int name, void* value, socklen_t* len) {
  return ::getsockopt(fd, level, name, value, len);
}

namespace {
Sys* current = nullptr;
}  // namespace

Sys& Sys::real() {
  static Sys theReal;
  return theReal;
}

Sys& Sys::sys() { return current ? *current : real(); }

Sys* Sys::sysIs(Sys* s) {
  Sys* previous = current;
  current = s;
  return previous;
}

}  // namespace Wirly
