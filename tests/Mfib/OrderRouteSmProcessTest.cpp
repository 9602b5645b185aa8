// The ordering machine in an agent process, fed by two application
// processes that write their MFIB tables while the agent's event loop
// delivers the changes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "Kiv/EventLoop.h"
#include "MfibTestUtil.h"

using namespace MfibTest;

namespace {

constexpr unsigned kKeys = 200;

// One application: creates its table, waits for the go, then publishes,
// changes and removes routes; `priority` sets its routes' priority.
[[noreturn]] void application(std::string const& path, unsigned priority, unsigned seed, int created, int go) {
  Kiv::Ptr<Status> t = new Status("app");
  t->mountIs(path, Vorn::Status::Mode::writer);
  char c = 'c';
  if (::write(created, &c, 1) != 1 || ::read(go, &c, 1) != 1) _exit(2);
  for (unsigned round = 0; round < 3; ++round) {
    for (unsigned n = 0; n < kKeys; ++n) {
      unsigned const pick = (n * 7 + seed + round * 13) % 5;
      if (pick == 0) {
        t->routeDel(key(n));
      } else {
        Route r = route(key(n), pick == 4 ? 3 : priority);  // pick 4: a tie at 3 across both
        r.oifIs(OifIndex(static_cast<std::uint16_t>(round)), true);
        t->routePublish(r);
      }
    }
  }
  _exit(0);
}

TEST(OrderRouteSmAcrossProcesses, OrderedCollectionMatchesTheBestChoiceOnceTheApplicationsAreDone) {
  VornTest::PrivateRoot root;
  std::string const paths[2] = {root.file("pim"), root.file("static")};
  int created[2], go[2];
  ASSERT_EQ(::pipe(created), 0);
  ASSERT_EQ(::pipe(go), 0);
  pid_t apps[2];
  for (int i = 0; i < 2; ++i) {
    apps[i] = fork();
    if (apps[i] == 0) application(paths[i], i == 0 ? 2 : 1, i * 3, created[1], go[0]);
  }
  char c;
  for (int i = 0; i < 2; ++i) ASSERT_EQ(::read(created[0], &c, 1), 1);

  Kiv::EventLoop loop;
  auto coll = mfibVornCollFactory(L3::VrfName("default"));
  std::vector<Kiv::Ptr<Status>> tables;
  for (auto const& p : paths) {
    Kiv::Ptr<Status> t = new Status(p);
    t->mountIs(p, Vorn::Status::Mode::reader);
    t->followIs(&loop);
    coll->vornPtrIs(t.ptr(), t);
    tables.push_back(t);
  }
  auto ordered = RouteOrderedCollection::create();
  auto sm = orderRouteSmFactory(coll, ordered);
  for (int i = 0; i < 2; ++i) ASSERT_EQ(::write(go[1], "g", 1), 1);

  int exited = 0;
  loop.runUntil(
      [&] {
        int status;
        while (exited < 2 && waitpid(-1, &status, WNOHANG) > 0) {
          EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
          ++exited;
        }
        return exited == 2;
      },
      20.0);
  ASSERT_EQ(exited, 2);
  for (auto const& t : tables) t->drain();
  EXPECT_GT(tables[0]->changesHeard(), 0u);

  // Brute force: the first table in the collection's order wins a tie.
  std::map<IpGenRouteKey, Status const*> expected;
  for (unsigned n = 0; n < kKeys; ++n) {
    Status const* best = nullptr;
    RoutePriority bestPriority;
    for (auto const& [k, t] : coll->vornPtrMap()) {
      Route const r = t->route(key(n));
      if (r != Route() && bestPriority < r.priority()) {
        best = k;
        bestPriority = r.priority();
      }
    }
    if (best) expected[key(n)] = best;
  }
  EXPECT_EQ(ordered->routeMap(), expected);
}

}  // namespace
