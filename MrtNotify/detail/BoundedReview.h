// The review loop of MrtNotifySm and MrtIcmpV6RelaySm; see MrtNotifySm.h.
#pragma once

#include "Brisklog/Brisklog.h"
#include "Kiv/System.h"
#include "Kiv/Trace.h"
#include "Wirly/Pam.h"

namespace Routing::Multicast::Notify {

template <class Parse>
std::uint32_t boundedReview(Wirly::Pam& pam, double quantum, Kiv::TraceHandle& th, Parse&& parse) {
  double const start = Kiv::System::currentTime();
  double const deadline = start + quantum;
  BRISKLOG("MrtPam", "Start review of kernel upcalls");
  std::uint32_t count = 0;
  while (Kiv::System::currentTime() < deadline) {
    Kiv::Ptr<Wirly::Pkt> pkt = pam.rxPkt();
    if (!pkt) {
      KIV_TRACE(th, 1, "RX: Error - No Packet");
      break;
    }
    parse(pkt);
    ++count;
  }
  double const elapsed = Kiv::System::currentTime() - start;
  KIV_TRACE(th, 3, "Processed " << count << " messages in " << elapsed << " seconds.");
  BRISKLOG("MrtPam", "Finished review of %u kernel upcalls in %f seconds", count, elapsed);
  return count;
}

}  // namespace Routing::Multicast::Notify
