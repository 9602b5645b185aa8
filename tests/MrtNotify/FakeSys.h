// A Wirly::Sys for tests: records every call in order, fails the calls a
// test names with the errno it names, and plays scripted datagrams. Sockets
// it opens are real (AF_UNIX) descriptors, so fcntl and the event loop work
// on them; openSockets() tells whether the code under test closed them.
#pragma once

#include <errno.h>
#include <linux/filter.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Wirly/Sys.h"

namespace MrtNotifyTest {

class FakeSys : public Wirly::Sys {
 public:
  FakeSys() : use_(this) {}
  ~FakeSys() override {
    for (int fd : open_) ::close(fd);
  }

  // "socket(16,2,0)", "bind", "setsockopt(1,33)=1490", "close", "recvmsg", "sendmsg".
  std::vector<std::string> calls;
  // Call key without the "=value" part (e.g. "setsockopt(0,213)") or with
  // it ("setsockopt(0,213)=3"), to the errno it fails with.
  std::map<std::string, int> fail;
  std::map<std::string, std::string> env;
  // Each scripted receive fills the message and returns the byte count, or
  // sets errno and returns -1.
  std::deque<std::function<ssize_t(msghdr*)>> rx;
  std::vector<std::vector<std::uint8_t>> sent;
  int sendErrno = 0;
  std::vector<sock_filter> attached;

  std::set<int> const& openSockets() const { return open_; }
  std::vector<std::string> callsAfter(std::size_t n) const {
    return std::vector<std::string>(calls.begin() + long(n), calls.end());
  }

  int socket(int domain, int type, int protocol) override {
    std::string key =
        "socket(" + std::to_string(domain) + "," + std::to_string(type) + "," + std::to_string(protocol) + ")";
    calls.push_back(key);
    if (failed(key, "")) return -1;
    int fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    open_.insert(fd);
    return fd;
  }
  int bind(int, sockaddr const*, socklen_t) override {
    calls.push_back("bind");
    return failed("bind", "") ? -1 : 0;
  }
  int setsockopt(int, int level, int name, void const* value, socklen_t len) override {
    std::string key = "setsockopt(" + std::to_string(level) + "," + std::to_string(name) + ")";
    std::string shown = key;
    if (level == SOL_SOCKET && name == SO_ATTACH_FILTER) {
      auto const* prog = static_cast<sock_fprog const*>(value);
      attached.assign(prog->filter, prog->filter + prog->len);
      shown += "=" + std::to_string(prog->len);
    } else if (len == sizeof(int)) {
      int v;
      std::memcpy(&v, value, sizeof(v));
      shown += "=" + std::to_string(v);
    }
    calls.push_back(shown);
    return failed(key, shown) ? -1 : 0;
  }
  ssize_t recvmsg(int, msghdr* msg, int) override {
    calls.push_back("recvmsg");
    if (rx.empty()) {
      errno = EAGAIN;
      return -1;
    }
    auto step = std::move(rx.front());
    rx.pop_front();
    return step(msg);
  }
  ssize_t sendmsg(int, msghdr const* msg, int) override {
    calls.push_back("sendmsg");
    auto const* p = static_cast<std::uint8_t const*>(msg->msg_iov[0].iov_base);
    sent.emplace_back(p, p + msg->msg_iov[0].iov_len);
    if (sendErrno) {
      errno = sendErrno;
      return -1;
    }
    return ssize_t(msg->msg_iov[0].iov_len);
  }
  int close(int fd) override {
    calls.push_back("close");
    open_.erase(fd);
    return ::close(fd);
  }
  char const* getenv(char const* name) override {
    auto it = env.find(name);
    return it == env.end() ? nullptr : it->second.c_str();
  }

 private:
  bool failed(std::string const& key, std::string const& shown) {
    auto it = fail.find(key);
    if (it == fail.end() && !shown.empty()) it = fail.find(shown);
    if (it == fail.end()) return false;
    errno = it->second;
    return true;
  }

  Wirly::SysOverride use_;
  std::set<int> open_;
};

// A scripted datagram: payload bytes and, optionally, control messages and
// a sender address.
struct Datagram {
  std::vector<std::uint8_t> payload;
  std::vector<std::uint8_t> control;
  std::vector<std::uint8_t> name;
  int flags = 0;

  template <class T>
  Datagram& cmsg(int level, int type, T const& value, std::size_t len = sizeof(T)) {
    std::size_t const at = control.size();
    control.resize(at + CMSG_SPACE(len));
    cmsghdr h{};
    h.cmsg_len = CMSG_LEN(len);
    h.cmsg_level = level;
    h.cmsg_type = type;
    std::memcpy(control.data() + at, &h, sizeof(h));
    std::memcpy(control.data() + at + CMSG_LEN(0), &value, len < sizeof(T) ? len : sizeof(T));
    return *this;
  }
  template <class T>
  Datagram& from(T const& addr) {
    name.assign(reinterpret_cast<std::uint8_t const*>(&addr), reinterpret_cast<std::uint8_t const*>(&addr) + sizeof(T));
    return *this;
  }

  std::function<ssize_t(msghdr*)> play() const {
    return [d = *this](msghdr* msg) -> ssize_t {
      std::size_t n = d.payload.size() < msg->msg_iov[0].iov_len ? d.payload.size() : msg->msg_iov[0].iov_len;
      if (n) std::memcpy(msg->msg_iov[0].iov_base, d.payload.data(), n);
      msg->msg_flags = d.flags | (n < d.payload.size() ? MSG_TRUNC : 0);
      if (msg->msg_name) {
        std::size_t nl = d.name.size() < msg->msg_namelen ? d.name.size() : msg->msg_namelen;
        if (nl) std::memcpy(msg->msg_name, d.name.data(), nl);
        msg->msg_namelen = socklen_t(nl);
      }
      if (msg->msg_control) {
        std::size_t cl = d.control.size() < msg->msg_controllen ? d.control.size() : msg->msg_controllen;
        if (cl) std::memcpy(msg->msg_control, d.control.data(), cl);
        msg->msg_controllen = cl;
      }
      return ssize_t(n);
    };
  }
};

inline std::function<ssize_t(msghdr*)> rxError(int err) {
  return [err](msghdr*) -> ssize_t {
    errno = err;
    return -1;
  };
}

}  // namespace MrtNotifyTest
