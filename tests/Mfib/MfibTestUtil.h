// MFIB tables in a private shared-memory root, and small helpers for the
// MFIB tests.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "Mfib/MfibVorn.h"
#include "tests/Vorn/VornTestUtil.h"

namespace MfibTest {

using namespace Vorn::Multicast::Fib;

inline IpGenRouteKey key(unsigned n, unsigned group = 1) {
  return IpGenRouteKey(Wirly::IpGenPrefix(Wirly::IpGenAddr::v4(0x0a000000u + n)),
                       Wirly::IpGenPrefix(Wirly::IpGenAddr::v4(0xef010000u + group)));
}

inline Route route(IpGenRouteKey const& k, unsigned priority) {
  Route r(k);
  r.priorityIs(RoutePriority(static_cast<std::uint8_t>(priority)));
  return r;
}

class Tables {
 public:
  Kiv::Ptr<Status> table(std::string const& name, Vorn::Status::Mode mode = Vorn::Status::Mode::writer) {
    Kiv::Ptr<Status> s = new Status(name);
    s->mountIs(root.file(name), mode);
    return s;
  }
  VornTest::PrivateRoot root;
};

// Leaves the route of `k` half-written by a writer that is gone, so that
// reading it raises Pelto::CorruptionDetectedException.
inline void tear(Status& s, IpGenRouteKey const& k) {
  pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  s.region()->header()->writerPid.store(static_cast<std::uint32_t>(child));
  Vorn::TableGeometry const& g = s.region()->table(s.routeTable().index());
  for (std::uint32_t i = 1; i <= g.capacity(); ++i) {
    auto* h = reinterpret_cast<Vorn::Layout::EntryHead*>(g.entries + std::size_t(i) * g.entrySize);
    IpGenRouteKey stored;
    std::memcpy(static_cast<void*>(&stored), g.entries + std::size_t(i) * g.entrySize + g.keyOffset, sizeof stored);
    if (h->live == 1 && stored == k) {
      h->dseq.fetch_add(1);
      return;
    }
  }
}

}  // namespace MfibTest
