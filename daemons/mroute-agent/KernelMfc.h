// MrouteAgent::KernelMfc: the kernel's multicast forwarding cache (MFC) of one
// address family, programmed through the agent's multicast routing socket.
// The kernel stands in for switch hardware: a VIF (IPv4) or MIF (IPv6) per
// configured interface, one entry per (S, G) with its incoming VIF and its
// outgoing VIFs.
//
//   KernelMfc v4(Wirly::ipv4);
//   v4.open();                                   // socket + MRT_INIT; throws Kiv::ErrnoException
//   v4.vifIs(1, if_nametoindex("Ethernet1"));    // VIFs from 1: 0 means "unknown" to the agent
//   int err = v4.mfcIs(src, grp, 1, {2, 3});     // 0, or the errno the kernel gave
//   v4.mfcDel(src, grp);
//
// Every system call goes through Wirly::Sys, so tests see the exact bytes of
// each vifctl/mfcctl and mif6ctl/mf6cctl and drive every errno branch.
// Closing the socket (destruction) makes the kernel drop the VIFs and every
// entry this socket added; a restarted agent rebuilds them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Wirly/AddressFamily.h"
#include "Wirly/IpGenAddr.h"

namespace MrouteAgent {

class KernelMfc {
 public:
  // MAXVIFS and MAXMIFS: the kernel accepts indices below this.
  static constexpr std::uint16_t maxVifs = 32;
  // TTL threshold of an outgoing VIF: forward packets whose TTL exceeds it.
  static constexpr std::uint8_t forwardTtl = 1;
  // Receive buffer asked for the routing socket; upcalls queue there too.
  static constexpr int rcvBufBytes = 8 << 20;

  struct Counters {
    bool valid = false;  // the kernel answered
    std::uint64_t pkts = 0;
    std::uint64_t bytes = 0;
    std::uint64_t wrongIf = 0;
  };

  explicit KernelMfc(Wirly::AddressFamily af) : af_(af) {}
  ~KernelMfc();
  KernelMfc(KernelMfc const&) = delete;
  KernelMfc& operator=(KernelMfc const&) = delete;

  Wirly::AddressFamily af() const { return af_; }
  // The routing socket, -1 before open().
  int fd() const { return fd_; }

  // socket() + MRT_INIT/MRT6_INIT (+ the assert option, so the kernel
  // reports packets that arrive on the wrong interface), then the largest
  // receive buffer permitted. Throws Kiv::ErrnoException naming the call;
  // "setsockopt(MRT_INIT)" with EADDRINUSE means another agent owns the
  // kernel's table.
  void open();
  // The receive buffer obtained (as the kernel reports it), 0 if unknown.
  int rcvBuf() const { return rcvBuf_; }

  // Adds VIF/MIF `vif` (1..31) on the interface with Linux index ifIndex.
  // Throws Kiv::ErrnoException("setsockopt(MRT_ADD_VIF)") and the like.
  void vifIs(std::uint16_t vif, int ifIndex);

  // Writes (replaces) the entry (source, group): packets arriving on iif go
  // out on every VIF of oifs; an empty oifs is a drop entry. Returns 0 or
  // the errno of the refusal (ENOBUFS/ENOMEM: the kernel's table is full).
  int mfcIs(Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group, std::uint16_t iif,
            std::vector<std::uint16_t> const& oifs);
  // The same with the outgoing VIFs as bits (VIF v is bit v): one system
  // call and nothing else, for the agent's every route.
  int mfcIs(Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group, std::uint16_t iif, std::uint32_t oifMask);
  // Deletes the entry; 0 or the errno (ENOENT: there was none).
  int mfcDel(Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group, std::uint16_t iif);

  // SIOCGETSGCNT / SIOCGETSGCNT_IN6 for one entry.
  Counters counters(Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group) const;

  // The wire images, for tests and traces: struct mfcctl (60 bytes) or
  // struct mf6cctl (92 bytes).
  std::vector<std::uint8_t> mfcBytes(Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group, std::uint16_t iif,
                                     std::vector<std::uint16_t> const& oifs) const;

 private:
  void doClose();

  Wirly::AddressFamily af_;
  int fd_ = -1;
  int rcvBuf_ = 0;
};

}  // namespace MrouteAgent
