// The show command's side of the show socket: connects to the running
// agent's socket (showSocketPath), asks, and prints the answer.
#pragma once

#include <string>

namespace MrouteAgent {

// Prints the agent's routes (text or JSON) on stdout; 0, or 1 with a
// message on stderr when no agent of that name answers or its answer is an
// error or incomplete.
int showMain(std::string const& name, bool json);

}  // namespace MrouteAgent
