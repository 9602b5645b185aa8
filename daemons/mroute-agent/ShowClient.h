// The show command's side of the show socket: connects to the running
// agent's socket (showSocketPath), asks, and prints the answer.
#pragma once

#include <string>
#include <vector>

namespace MrouteAgent {

// Prints the agent's routes or interfaces (text or JSON) on stdout, those
// the filter words select (--vrf V --family F --group G --source S --intf I);
// 0, 2 with a message on stderr for a filter refused here or by the agent,
// or 1 when no agent of that name answers or its answer is an error or
// incomplete.
int showMain(std::string const& name, bool interfaces, bool json, std::vector<std::string> const& filterWords);

}  // namespace MrouteAgent
