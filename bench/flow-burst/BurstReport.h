// BurstReport: the figures of one burst of new flows, drawn from per-flow
// times, and their text forms: a "key value" file per system under test and
// a side-by-side table of two such files.
//
//   std::vector<FlowTimes> flows(n);        // filled by the sender and the watchers
//   Figures f = summarize(flows, installedAtEnd);
//   writeFigures(out, "smcroute", f);
//   ...
//   printSideBySide(std::cout, {readFigures(base), readFigures(agent)});
//
// Times are nanoseconds on CLOCK_MONOTONIC, -1 where a flow never got there.
// Latencies are measured from the flow's first packet leaving the sender.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

namespace FlowBurst {

struct FlowTimes {
  std::int64_t sentNs = -1;        // before the sender's sendto
  std::int64_t reportedNs = -1;    // the kernel reported the no-cache upcall (read by the watcher)
  std::int64_t unresolvedNs = -1;  // the kernel queued the unresolved entry: the upcall reached the daemon's socket
  std::int64_t entryNs = -1;       // the kernel announced the resolved entry (read by the watcher)
  std::int64_t deliveredNs = -1;   // the first packet reached the receiver (kernel receive stamp)
};

struct Figures {
  unsigned flows = 0;          // flows in the burst
  double sendSeconds = 0;      // first to last sendto
  unsigned reported = 0;       // flows the kernel raised an upcall for
  unsigned upcallsQueued = 0;  // flows whose upcall reached the routing socket (an unresolved entry queued)
  unsigned entriesSeen = 0;    // flows with a resolved-entry notification
  unsigned installed = 0;      // flows with a resolved entry in the kernel's cache at the end
  unsigned delivered = 0;      // flows whose first packet reached the receiver
  double entryMedianMs = -1;   // first packet -> entry notification
  double entryP99Ms = -1;
  double deliveryMedianMs = -1;  // first packet -> packet at the receiver
  double deliveryP99Ms = -1;
  double allEntriesSeconds = -1;  // first packet -> last entry, when every flow got one
  double installRate = 0;         // entries per second, first packet to last entry
};

// Nearest-rank percentile (p in 0..100) of `v`; -1 for an empty vector.
double percentile(std::vector<double> v, double p);

Figures summarize(std::vector<FlowTimes> const& flows, unsigned installedAtEnd);

// "key value" lines, one per figure, after "system <name>".
void writeFigures(std::ostream& out, std::string const& system, Figures const& f);

// The lines of a figures file, in order; lines without a space are skipped.
using FigureList = std::vector<std::pair<std::string, std::string>>;
FigureList readFigures(std::istream& in);

// The per-flow times as `flow-burst run --times` writes them (a header line,
// then "flow,sent,reported,unresolved,entry,delivered"); bad lines are skipped.
void writeTimes(std::ostream& out, std::vector<FlowTimes> const& flows);
std::vector<FlowTimes> readTimes(std::istream& in);

// What the agent itself recorded for a flow of the burst (its --flow-log:
// "<ipv4|ipv6> <source> <group> <learnedNs> <installedNs> <upcall|recovered>",
// CLOCK_MONOTONIC): when it learned of the flow and when it installed it.
struct AgentFlow {
  std::int64_t learnedNs = -1;
  std::int64_t installedNs = -1;
  bool recovered = false;  // learned from the kernel's leftovers, not from an upcall
};

// The burst's flows (source, groups from firstGroup up) in the agent's log,
// indexed like the burst; the first line for a flow counts.
std::vector<AgentFlow> readAgentFlowLog(std::istream& in, std::string const& source, std::uint32_t firstGroup,
                                        std::size_t flows);

// "agent_..." lines: the agent's own timings beside the sender's times.
void writeAgentFigures(std::ostream& out, std::vector<FlowTimes> const& flows, std::vector<AgentFlow> const& agent);

// A table: one row per key, in the order the runs first give them, one
// column per run, "-" where a run lacks the key.
void printSideBySide(std::ostream& out, std::vector<FigureList> const& runs);

}  // namespace FlowBurst
