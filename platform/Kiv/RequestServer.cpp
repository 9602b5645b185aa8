#include "Kiv/RequestServer.h"

#include <errno.h>
#include <linux/sockios.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "Kiv/Exception.h"
#include "Kiv/Trace.h"

namespace Kiv {

namespace {
TraceHandle requestTrace("Kiv::RequestServer");
}  // namespace

RequestServer::RequestServer(EventLoop& loop, std::string path, PathTrust::Use use, Handler handler, Limits limits)
    : loop_(loop), handler_(std::move(handler)), limits_(limits), socket_(std::move(path), use), what_(use.what) {
  writable_ = FileDesc(::epoll_create1(EPOLL_CLOEXEC));
  if (!writable_) throw ErrnoException("epoll_create1", errno);
  loop_.readableIs(writable_.fd(), [this] { handleWritable(); });
  loop_.readableIs(socket_.fd(), [this] { doAccept(); });
  accepting_ = true;
  KIV_TRACE(requestTrace, 4, "serving the " << what_ << " " << socket_.path());
}

RequestServer::~RequestServer() {
  while (!clients_.empty()) doDrop(clients_.begin()->first);
  if (accepting_) loop_.readableDel(socket_.fd());
  loop_.readableDel(writable_.fd());
}

void RequestServer::doTimer(int fd, double seconds) {
  Client& c = clients_[fd];
  if (c.timer != 0) loop_.timerDel(c.timer);
  c.timer = loop_.timerIs(seconds, [this, fd] { handleTimer(fd); });
}

void RequestServer::handleTimer(int fd) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  Client& c = it->second;
  c.timer = 0;
  if (c.out.empty()) {
    ++refused_;
    KIV_TRACE(requestTrace, 2, "dropped a " << what_ << " client (pid " << c.peer.pid << ") that sent no request");
    doDrop(fd);
    return;
  }
  // Progress is the client taking bytes: what was sent since the last
  // look, or a shorter queue of bytes the client has not read.
  int queued = 0;
  bool const known = ::ioctl(fd, SIOCOUTQ, &queued) == 0;
  if (c.sent != c.sentAtCheck || (known && std::size_t(queued) < c.queuedAtCheck)) {
    c.sentAtCheck = c.sent;
    c.queuedAtCheck = known ? std::size_t(queued) : SIZE_MAX;
    doTimer(fd, limits_.stallTimeout);
    return;
  }
  ++stalled_;
  KIV_TRACE(requestTrace, 2, "dropped a " << what_ << " client (pid " << c.peer.pid << ") that stopped reading");
  doDrop(fd);
}

void RequestServer::doAccept() {
  while (clients_.size() < limits_.maxClients) {
    int const fd = ::accept4(socket_.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return;
    FileDesc conn(fd);
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || (cred.uid != ::geteuid() && cred.uid != 0)) {
      ++refused_;
      KIV_TRACE(requestTrace, 2,
                "refused a " << what_ << " client of user " << cred.uid << " (pid " << cred.pid << ")");
      continue;
    }
    Client& c = clients_[fd];
    c.fd = std::move(conn);
    c.peer = {cred.pid, cred.uid};
    doTimer(fd, requestTimeout);
    loop_.readableIs(fd, [this, fd] { doRead(fd); });
  }
  // Full: the rest wait in the listen queue until a client goes.
  loop_.readableDel(socket_.fd());
  accepting_ = false;
}

void RequestServer::doRead(int fd) {
  Client& c = clients_[fd];
  char buf[4096];
  ssize_t const n = ::read(fd, buf, sizeof buf);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n <= 0) {
    doDrop(fd);
    return;
  }
  c.in.append(buf, static_cast<std::size_t>(n));
  std::size_t const nl = c.in.find('\n');
  if (nl == std::string::npos || nl > limits_.maxRequestBytes) {
    if (c.in.size() > limits_.maxRequestBytes) {
      ++refused_;
      KIV_TRACE(requestTrace, 2,
                "dropped a " << what_ << " client (pid " << c.peer.pid << ") whose request is longer than "
                             << limits_.maxRequestBytes << " bytes");
      doDrop(fd);
    }
    return;
  }
  std::string const request = c.in.substr(0, nl);
  loop_.readableDel(fd);
  Answer answer = handler_(request, c.peer);
  if (!answer.ok) {
    for (char& ch : answer.text)
      if (ch == '\n') ch = ' ';
    c.out = "error " + answer.text + "\n";
  } else if (answer.text.size() > limits_.maxAnswerBytes) {
    c.out = "error the answer would be " + std::to_string(answer.text.size()) + " bytes, more than the " +
            std::to_string(limits_.maxAnswerBytes) + " it may be\n";
  } else {
    c.out = "ok " + std::to_string(answer.text.size()) + "\n";
    c.out.reserve(c.out.size() + answer.text.size());
    c.out += answer.text;
  }
  doWrite(fd);
}

void RequestServer::doWrite(int fd) {
  Client& c = clients_[fd];
  while (c.sent < c.out.size()) {
    ssize_t const w = ::send(fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (w < 0 && errno == EINTR) continue;
    if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (w <= 0) {
      doDrop(fd);
      return;
    }
    c.sent += static_cast<std::size_t>(w);
  }
  if (c.sent == c.out.size()) {
    doDrop(fd);
    return;
  }
  if (c.polled) return;
  epoll_event ev{};
  ev.events = EPOLLOUT;
  ev.data.fd = fd;
  if (::epoll_ctl(writable_.fd(), EPOLL_CTL_ADD, fd, &ev) != 0) {
    doDrop(fd);
    return;
  }
  c.polled = true;
  // The bound is on a reader that takes nothing, not on a slow one: looked
  // at once per stallTimeout.
  int queued = 0;
  c.sentAtCheck = c.sent;
  c.queuedAtCheck = ::ioctl(fd, SIOCOUTQ, &queued) == 0 ? std::size_t(queued) : SIZE_MAX;
  doTimer(fd, limits_.stallTimeout);
}

void RequestServer::handleWritable() {
  epoll_event events[16];
  int const n = ::epoll_wait(writable_.fd(), events, 16, 0);
  for (int i = 0; i < n; ++i)
    if (clients_.count(events[i].data.fd)) doWrite(events[i].data.fd);
}

void RequestServer::doDrop(int fd) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  if (loop_.readable(fd)) loop_.readableDel(fd);
  if (it->second.polled) ::epoll_ctl(writable_.fd(), EPOLL_CTL_DEL, fd, nullptr);
  if (it->second.timer != 0) loop_.timerDel(it->second.timer);
  clients_.erase(it);
  if (!accepting_ && clients_.size() < limits_.maxClients) {
    accepting_ = true;
    loop_.readableIs(socket_.fd(), [this] { doAccept(); });
  }
}

RequestReply requestAnswer(int fd, std::string_view peer) {
  std::string const who(peer);
  std::string answer;
  char buf[65536];
  for (;;) {
    ssize_t const n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return {RequestReply::failed, "reading " + who + "'s answer: " + std::strerror(errno)};
    if (n == 0) break;
    answer.append(buf, std::size_t(n));
  }
  std::size_t const nl = answer.find('\n');
  std::string const head = answer.substr(0, nl);
  if (nl != std::string::npos && head.rfind("error ", 0) == 0) return {RequestReply::refused, head.substr(6)};
  char* end = nullptr;
  unsigned long long const size = head.rfind("ok ", 0) == 0 ? std::strtoull(head.c_str() + 3, &end, 10) : 0;
  if (nl == std::string::npos || end == nullptr || *end != '\0')
    return {RequestReply::failed,
            who + "'s answer is incomplete or not understood (" + std::to_string(answer.size()) + " bytes, no header)"};
  std::size_t const got = answer.size() - nl - 1;
  if (got < size)
    return {RequestReply::failed,
            who + "'s answer is incomplete: " + std::to_string(got) + " of " + std::to_string(size) + " bytes arrived"};
  if (got > size)
    return {RequestReply::failed,
            who + "'s answer is longer than announced: " + std::to_string(got) + " bytes, not " + std::to_string(size)};
  return {RequestReply::ok, answer.substr(nl + 1)};
}

RequestReply requestAsk(std::string const& path, std::string_view what, std::string const& request,
                        std::string_view peer) {
  FileDesc conn;
  try {
    conn = connectTrusted(path, what);
  } catch (ErrnoException const& e) {
    return {RequestReply::absent, std::strerror(e.error())};
  } catch (std::exception const& e) {
    return {RequestReply::failed, e.what()};
  }
  std::string const line = request + "\n";
  for (std::size_t sent = 0; sent < line.size();) {
    ssize_t const w = ::send(conn.fd(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return {RequestReply::failed, "cannot ask " + std::string(peer) + ": " + std::strerror(errno)};
    sent += std::size_t(w);
  }
  return requestAnswer(conn.fd(), peer);
}

}  // namespace Kiv
