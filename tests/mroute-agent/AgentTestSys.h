// A Wirly::Sys for the agent's tests: sockets are real AF_UNIX descriptors
// (so the event loop and close work), every setsockopt is recorded with
// its bytes, chosen calls fail with a chosen errno, and SIOCGETSGCNT
// answers from a table the test fills.
#pragma once

#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
// The kernel's multicast routing headers after the C library's.
#include <linux/mroute.h>
#include <linux/mroute6.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Wirly/Sys.h"

namespace MrouteAgentTest {

class AgentTestSys : public Wirly::Sys {
 public:
  struct Option {
    int level;
    int name;
    std::vector<std::uint8_t> bytes;
  };

  AgentTestSys() : use_(this) {}
  ~AgentTestSys() override {
    for (int fd : open_) ::close(fd);
  }

  // By option name (MRT_ADD_MFC, SO_RCVBUFFORCE, ...) or "socket": errno.
  std::map<int, int> failOption;
  int failSocket = 0;
  std::vector<Option> options;
  // What SIOCGETSGCNT(_IN6) answers, for every entry.
  std::uint64_t pktCount = 0, byteCount = 0;
  bool ioctlFails = false;

  std::vector<Option> optionsNamed(int name) const {
    std::vector<Option> out;
    for (Option const& o : options)
      if (o.name == name && o.level != SOL_SOCKET) out.push_back(o);
    return out;
  }
  std::set<int> const& openSockets() const { return open_; }

  int socket(int domain, int, int) override {
    if (failSocket) {
      errno = failSocket;
      return -1;
    }
    int const fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    open_.insert(fd);
    domain_[fd] = domain;
    return fd;
  }
  int setsockopt(int, int level, int name, void const* value, socklen_t len) override {
    auto const* p = static_cast<std::uint8_t const*>(value);
    options.push_back({level, name, std::vector<std::uint8_t>(p, p + len)});
    auto it = failOption.find(name);
    if (it != failOption.end() && it->second != 0) {
      errno = it->second;
      return -1;
    }
    return 0;
  }
  int getsockopt(int, int, int, void* value, socklen_t* len) override {
    int const v = 4096;
    std::memcpy(value, &v, sizeof v);
    *len = sizeof v;
    return 0;
  }
  int ioctl(int fd, unsigned long request, void* arg) override {
    if (ioctlFails) {
      errno = EADDRNOTAVAIL;
      return -1;
    }
    // SIOCGETSGCNT and SIOCGETSGCNT_IN6 share a number: the socket tells.
    if (request == SIOCGETSGCNT && domain_[fd] == AF_INET) {
      auto* r = static_cast<sioc_sg_req*>(arg);
      r->pktcnt = static_cast<unsigned long>(pktCount);
      r->bytecnt = static_cast<unsigned long>(byteCount);
    } else if (request == SIOCGETSGCNT_IN6) {
      auto* r = static_cast<sioc_sg_req6*>(arg);
      r->pktcnt = static_cast<unsigned long>(pktCount);
      r->bytecnt = static_cast<unsigned long>(byteCount);
    }
    return 0;
  }
  int close(int fd) override {
    open_.erase(fd);
    return ::close(fd);
  }

 private:
  Wirly::SysOverride use_;
  std::set<int> open_;
  std::map<int, int> domain_;
};

}  // namespace MrouteAgentTest
