// The demonstration's three roles, one sub-command each. Processes talk
// over inherited pipes at fixed descriptors:
//
//   publish APP        writes its tables; reports "ready" and "round N"
//                      lines on fd 3, reads one byte per round (the round's
//                      number) from fd 4; end of file on fd 4: it withdraws
//                      its tables and exits.
//   agent APP...       for the i-th APP (from 0), reads its reports on fd
//                      3 + 2i and starts its rounds on fd 4 + 2i.
//   run [--keep]       makes a private table root (or uses $VORN_ROOT),
//                      starts the publishers and the agent wired that way,
//                      and removes the private root unless --keep.
#pragma once

#include <string>
#include <vector>

#include "Scenario.h"

namespace MfibDemo {

// Set in the publishers' environment by `run --keep` or a caller's
// $VORN_ROOT: they leave their tables behind for inspection.
inline constexpr char const* kKeepTablesEnv = "MFIB_DEMO_KEEP_TABLES";

int publishMain(App const& app, int reportFd, int goFd);

struct AgentPublisher {
  App const* app;
  int reportFd;
  int goFd;
};
int agentMain(std::vector<AgentPublisher> const& publishers);

}  // namespace MfibDemo
