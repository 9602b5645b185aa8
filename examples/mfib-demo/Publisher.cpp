// An application that publishes multicast routes: it announces one MFIB
// table per VRF in the MFIB directory, numbers its outgoing interfaces its
// own way (an oifIndexIntf table, or bit indices from its own bit mapper
// table), and plays the scenario's steps for itself, one round at a time.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <string>

#include "BitMapper/BitMapper.h"
#include "BitMapper/BitMapperSm.h"
#include "Demo.h"
#include "Mfib/MfibVorn.h"
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

class Publisher {
 public:
  explicit Publisher(App const& app) : app_(app), em_(Stelo::EntityManager::entityManagerIs()) {}
  ~Publisher() { doStop(); }

  // Plays the round's steps of this application; false on a failure it
  // has reported.
  bool play(unsigned round);
  bool stopped() const { return stopped_; }
  // Withdraws every VRF and the directory entry.
  void doStop();
  // Stops playing and leaves everything announced.
  void doLeave() { stopped_ = true; }

 private:
  struct Vrf {
    Kiv::Ptr<Status> table;
    // Bit indices of Ethernet1..8, for an application with a bit mapper.
    Kiv::Ptr<BitMapper::Config> config;
    Kiv::Ptr<BitMapper::Status> status;
    Kiv::Ptr<BitMapper::BitMapperSm> allocator;
  };

  bool doStart();
  bool doAddVrf(char const* vrf);
  void doDelVrf(std::string const& vrf);
  OifIndex oifOf(Vrf const& vrf, unsigned ethernet) const;

  App const& app_;
  Kiv::Ptr<Stelo::EntityManager> em_;
  Kiv::Ptr<Kiv::Dir> dir_;
  Kiv::Ptr<MfibVornDir> vornDir_ = mfibVornDirFactory();
  Kiv::Ptr<MfibDirWriter> writer_;
  std::map<std::string, Vrf> vrfs_;
  bool stopped_ = false;
};

bool Publisher::doStart() {
  KivVorn::Mount mount(em_);
  mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo::dirWriterOf(app_.name));
  dir_ = Kiv::ptrCast<Kiv::Dir>(mount.getEntity(MfibDir::sharedDirUrl));
  if (!dir_) {
    std::cerr << "mfib-demo publish " << app_.name << ": cannot publish in the MFIB directory under " << em_->root()
              << "\n";
    return false;
  }
  writer_ = mfibDirWriterFactory(app_.name, dir_, vornDir_, em_);
  return true;
}

bool Publisher::doAddVrf(char const* name) {
  if (!writer_ && !doStart()) return false;
  Vrf& vrf = vrfs_[name];
  vrf.table = writer_->doAddVorn(name, tableUrl(name, app_.name));
  if (!vrf.table) {
    std::cerr << "mfib-demo publish " << app_.name << ": cannot create " << tableUrl(name, app_.name) << "\n";
    return false;
  }
  if (app_.bitMapper) {
    Kiv::Ptr<BitMapper::VornStatus> shared = writer_->doAddBitMapperVorn(name, bitMapperUrl(name, app_.name));
    if (!shared) return false;
    vrf.config = BitMapper::configFactory(64, 0);
    vrf.status = BitMapper::statusFactory();
    vrf.allocator = BitMapper::bitMapperSmFactory(vrf.config, vrf.status, shared);
    for (unsigned n = 1; n <= ethernets; ++n) {
      vrf.config->allocRequestKeyIs(
          BitMapper::BitMapperKey(Wirly::IntfId("Ethernet" + std::to_string(n)), Wirly::IpGenAddr("192.0.2.1")));
      vrf.config->allocRequestCountInc(1);
    }
    return true;
  }
  // Mappings before the routes that use them, so that a reader never meets
  // an index it cannot resolve.
  for (unsigned n = 1; n <= ethernets; ++n)
    vrf.table->oifIndexIntfIs(OifIndexIntf(oifOf(vrf, n), Wirly::IntfId("Ethernet" + std::to_string(n))));
  return true;
}

OifIndex Publisher::oifOf(Vrf const& vrf, unsigned n) const {
  if (!vrf.status) return OifIndex(static_cast<std::uint16_t>(app_.oifBase + n));
  BitMapper::BitMapperKey const key(Wirly::IntfId("Ethernet" + std::to_string(n)), Wirly::IpGenAddr("192.0.2.1"));
  return OifIndex(vrf.status->bitIndex(key).value());
}

void Publisher::doDelVrf(std::string const& name) {
  auto it = vrfs_.find(name);
  if (it == vrfs_.end()) return;
  if (app_.bitMapper) {
    std::string const url = bitMapperUrl(name.c_str(), app_.name);
    it->second.allocator = nullptr;
    writer_->doDelBitMapperVorn(name, url);
    KivVorn::Mount(em_).cleanup(url);
  }
  it->second.table = nullptr;
  writer_->doDelVorn(name, tableUrl(name.c_str(), app_.name));
  vrfs_.erase(it);
}

void Publisher::doStop() {
  if (stopped_ || !writer_) return;
  stopped_ = true;
  while (!vrfs_.empty()) doDelVrf(vrfs_.begin()->first);
  dir_->entryDel(app_.name);  // the entry's shared table goes with it
  writer_ = nullptr;
}

bool Publisher::play(unsigned round) {
  for (DirStep const& d : dirSteps())
    if (d.round == round && d.what == DirStep::addVrf && app_.name == std::string(d.app) && !doAddVrf(d.vrf))
      return false;
  bool first = true;
  for (Step const& s : steps()) {
    if (s.round != round || std::strcmp(s.app, app_.name) != 0) continue;
    if (!first) ::usleep(kWritePauseUs);
    first = false;
    Vrf const& vrf = vrfs_.at(s.vrf);
    if (s.withdraw)
      vrf.table->routeDel(keyOf(s));
    else
      vrf.table->routePublish(routeOf(s, app_, [&](unsigned n) { return oifOf(vrf, n); }));
  }
  for (DirStep const& d : dirSteps()) {
    if (d.round != round || app_.name != std::string(d.app)) continue;
    if (d.what == DirStep::delVrf) doDelVrf(d.vrf);
    if (d.what == DirStep::stop) doStop();
  }
  return true;
}

}  // namespace

int publishMain(App const& app, int reportFd, int goFd) {
  Publisher publisher(app);
  if (!publisher.play(1) || !say(reportFd, "ready")) return 1;
  while (!publisher.stopped()) {
    unsigned char round;
    ssize_t const n = ::read(goFd, &round, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      std::cerr << "mfib-demo publish " << app.name << ": read: " << std::strerror(errno) << "\n";
      return 1;
    }
    if (n == 0) break;  // the agent is done
    if (!publisher.play(round)) return 1;
    if (!say(reportFd, publisher.stopped() ? "stopped " + std::to_string(round) : "round " + std::to_string(round)))
      return 1;
  }
  // `run --keep` leaves the announcements and the tables for vornctl, as
  // an application that stopped without withdrawing would.
  if (std::getenv(kKeepTablesEnv) != nullptr) publisher.doLeave();
  return 0;  // the publisher's destructor withdraws what is left
}

}  // namespace MfibDemo
