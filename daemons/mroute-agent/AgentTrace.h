// The agent's one trace handle, "Mroute::Agent": enable it with
// KIV_TRACE='Mroute::Agent/0-9' (levels: 2 refusals and failures, 3 routes
// left unprogrammed, 4 tables and VRFs coming and going).
#pragma once

#include "Kiv/Trace.h"

namespace MrouteAgent {

inline Kiv::TraceHandle& agentTrace() {
  static Kiv::TraceHandle h("Mroute::Agent");
  return h;
}

}  // namespace MrouteAgent
