// An application that publishes multicast routes: one writer table per
// VRF, its own numbering of outgoing interfaces, and the scenario's steps
// for this application, one round at a time.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <string>

#include "Demo.h"
#include "Schema/Mfib/MfibStatus.h"
#include "Stelo/EntityManager.h"
#include "Stelo/Mount.h"

namespace MfibDemo {

using namespace Vorn::Multicast::Fib;

namespace {

// Between two writes of a round, so that the agent hears a round over
// several wake-ups rather than in one burst.
constexpr useconds_t kWritePauseUs = 20000;

bool say(int fd, std::string const& line) {
  std::string const text = line + "\n";
  return ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

}  // namespace

int publishMain(App const& app, int reportFd, int goFd) {
  auto const em = Stelo::EntityManager::entityManagerIs();
  KivVorn::Mount mount(em);
  mount.handleInitialized();

  std::map<std::string, Kiv::Ptr<Status>> tables;  // by VRF
  for (char const* vrf : vrfs) {
    std::string const url = tableUrl(vrf, app.name);
    mount.doMount(url, Status::typeNameText, KivVorn::MountInfo(KivVorn::MountInfo::writer));
    Kiv::Ptr<Status> table = Kiv::ptrCast<Status>(mount.getEntity(url));
    if (!table) {
      std::cerr << "mfib-demo publish " << app.name << ": cannot create " << url << " under " << em->root() << "\n";
      return 1;
    }
    // Mappings before the routes that use them, so that a reader never
    // meets an index it cannot resolve.
    for (unsigned n = 1; n <= ethernets; ++n)
      table->oifIndexIntfIs(OifIndexIntf(OifIndex(static_cast<std::uint16_t>(app.oifBase + n)),
                                         Wirly::IntfId("Ethernet" + std::to_string(n))));
    tables[vrf] = table;
  }

  auto play = [&](unsigned round) {
    bool first = true;
    for (Step const& s : steps()) {
      if (s.round != round || std::strcmp(s.app, app.name) != 0) continue;
      if (!first) ::usleep(kWritePauseUs);
      first = false;
      Status& table = *tables.at(s.vrf);
      if (s.withdraw) table.routeDel(keyOf(s));
      else table.routePublish(routeOf(s, app));
    }
  };

  play(1);
  if (!say(reportFd, "ready")) return 1;
  for (;;) {
    unsigned char round;
    ssize_t const n = ::read(goFd, &round, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      std::cerr << "mfib-demo publish " << app.name << ": read: " << std::strerror(errno) << "\n";
      return 1;
    }
    if (n == 0) break;  // the agent is done
    play(round);
    if (!say(reportFd, "round " + std::to_string(round))) return 1;
  }

  // `run --keep` leaves the tables for vornctl: unmount without removing.
  bool const keep = std::getenv(kKeepTablesEnv) != nullptr;
  for (char const* vrf : vrfs) {
    std::string const url = tableUrl(vrf, app.name);
    mount.doUnmount(url);
    if (!keep) mount.cleanup(url);
  }
  return 0;
}

}  // namespace MfibDemo
