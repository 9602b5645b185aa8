#include "RoutingSocketReader.h"

#include <errno.h>

#include <cstring>

#include "AgentTrace.h"
#include "Wirly/Sys.h"

namespace MrouteAgent {

RoutingSocketReader::RoutingSocketReader(int fd, Datagram onDatagram)
    : fd_(fd), onDatagram_(std::move(onDatagram)), slots_(batch), iov_(batch), msgs_(batch) {
  // Only the drop count matters where nothing is parsed: a small buffer.
  std::size_t const size = onDatagram_ ? datagramMax : 64;
  for (Slot& s : slots_) s.data.resize(size);
  int const on = 1;
  if (Wirly::Sys::sys().setsockopt(fd_, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on) != 0)
    KIV_TRACE(agentTrace(), 2, "routing socket: no drop count (SO_RXQ_OVFL): " << std::strerror(errno));
}

void RoutingSocketReader::doDropCount(msghdr const& m) {
  if (m.msg_flags & MSG_CTRUNC) return;
  for (cmsghdr const* c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(const_cast<msghdr*>(&m), const_cast<cmsghdr*>(c))) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SO_RXQ_OVFL || c->cmsg_len < CMSG_LEN(sizeof(std::uint32_t)))
      continue;
    std::uint32_t count;
    std::memcpy(&count, CMSG_DATA(c), sizeof count);
    // The kernel's count is cumulative and 32 bits wide: the rise since the
    // last datagram that carried it (wrapping).
    std::uint32_t const rise = count - lastCount_;
    lastCount_ = count;
    if (rise == 0) continue;
    drops_ += rise;
    if (onDrops_) onDrops_(rise);
  }
}

std::size_t RoutingSocketReader::handleReadable(unsigned maxBatches) {
  Wirly::Sys& sys = Wirly::Sys::sys();
  std::size_t read = 0;
  for (unsigned b = 0; b < maxBatches; ++b) {
    for (unsigned i = 0; i < batch; ++i) {
      iov_[i] = {slots_[i].data.data(), slots_[i].data.size()};
      msghdr& h = msgs_[i].msg_hdr;
      h = msghdr{};
      h.msg_iov = &iov_[i];
      h.msg_iovlen = 1;
      h.msg_control = slots_[i].control;
      h.msg_controllen = sizeof slots_[i].control;
      msgs_[i].msg_len = 0;
    }
    int const n = sys.recvmmsg(fd_, msgs_.data(), batch, MSG_DONTWAIT);
    if (n <= 0) {
      if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
        KIV_TRACE(agentTrace(), 2, "routing socket: recvmmsg: " << std::strerror(errno));
      break;
    }
    for (int i = 0; i < n; ++i) {
      msghdr const& h = msgs_[i].msg_hdr;
      doDropCount(h);
      ++datagrams_;
      if (!onDatagram_) continue;
      if ((h.msg_flags & MSG_TRUNC) || msgs_[i].msg_len > slots_[i].data.size()) {
        ++truncated_;
        KIV_TRACE(agentTrace(), 2, "routing socket: datagram cut at " << slots_[i].data.size() << " bytes, dropped");
        continue;
      }
      onDatagram_(slots_[i].data.data(), msgs_[i].msg_len);
    }
    read += std::size_t(n);
    if (unsigned(n) < batch) break;
  }
  return read;
}

}  // namespace MrouteAgent
