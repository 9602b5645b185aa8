// mcast-probe: multicast test traffic for the routing demo and benches.
//
//   mcast-probe send --group G[,G..] [--count N] [--interval-ms M] [--ttl T]
//                    [--intf X] [--source A] [--port P] [--summary]
//   mcast-probe recv --group G[,G..] --intf X [--seconds S] [--port P] [--summary]
//
// Probe.h describes the group lists and the output line.
#include <iostream>
#include <string>
#include <vector>

#include "Kiv/Exception.h"
#include "MrouteVersion.h"
#include "Probe.h"

namespace {

char const* const kUsage =
    "usage: mcast-probe send --group G[,G..] [--count N] [--interval-ms M] [--ttl T] [--intf X]\n"
    "                        [--source A] [--port P] [--summary]\n"
    "       mcast-probe recv --group G[,G..] --intf X [--seconds S] [--port P] [--summary]\n"
    "       mcast-probe --version\n"
    "G is an IPv4 or IPv6 multicast address, or A+N for N groups from A. send sends\n"
    "N rounds (default 1) of one datagram per group, M ms apart (default 100), with\n"
    "TTL / hop limit T (default 8); recv joins the groups on X and counts what\n"
    "arrives on X for S seconds (default 5) or until SIGINT/SIGTERM. Each prints one\n"
    "line: 'sent|recv [X] G=n ... total=n' (--summary: 'groups=n reached=n total=n').\n";

unsigned number(std::string const& opt, std::string const& v, unsigned max) {
  if (v.empty() || v.size() > 9 || v.find_first_not_of("0123456789") != std::string::npos || std::stoul(v) > max)
    throw Kiv::ParseException(opt + " takes a number up to " + std::to_string(max) + ", not '" + v + "'");
  return unsigned(std::stoul(v));
}

double seconds(std::string const& opt, std::string const& v) {
  std::size_t used = 0;
  double d = -1;
  try {
    d = std::stod(v, &used);
  } catch (std::exception const&) {
  }
  if (used != v.size() || !(d > 0 && d <= 86400))
    throw Kiv::ParseException(opt + " takes seconds from 0 to 86400 (0.5 is half a second), not '" + v + "'");
  return d;
}

void listening() { std::cerr << "mcast-probe recv: listening" << std::endl; }

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> const args(argv + 1, argv + argc);
  if (args.size() == 1 && args[0] == "--version") {
    std::cout << "mcast-probe (libmroute) " << MROUTE_VERSION << "\n";
    return 0;
  }
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::cout << kUsage;
    return 0;
  }
  if (args.empty() || (args[0] != "send" && args[0] != "recv")) {
    std::cerr << kUsage;
    return 2;
  }
  bool const sending = args[0] == "send";
  McastProbe::SendOptions so;
  McastProbe::RecvOptions ro;
  bool summary = false, haveGroups = false;
  try {
    for (std::size_t i = 1; i < args.size(); ++i) {
      std::string const& opt = args[i];
      if (opt == "--summary") {
        summary = true;
        continue;
      }
      if (i + 1 >= args.size()) throw Kiv::ParseException(opt + " needs a value");
      std::string const& v = args[++i];
      if (opt == "--group") {
        so.groups = ro.groups = McastProbe::parseGroups(v);
        haveGroups = true;
      } else if (opt == "--intf") {
        so.intf = ro.intf = v;
      } else if (opt == "--port") {
        so.port = ro.port = static_cast<std::uint16_t>(number(opt, v, 65535));
      } else if (sending && opt == "--count") {
        so.count = number(opt, v, 100000000);
      } else if (sending && opt == "--interval-ms") {
        so.intervalMs = number(opt, v, 3600000);
      } else if (sending && (opt == "--ttl" || opt == "--hops")) {
        so.ttl = number(opt, v, 255);
      } else if (sending && opt == "--source") {
        so.source = v;
      } else if (!sending && opt == "--seconds") {
        ro.seconds = seconds(opt, v);
      } else {
        throw Kiv::ParseException("unknown option " + opt);
      }
    }
    if (!haveGroups) throw Kiv::ParseException("--group is required");
    if (!sending && ro.intf.empty()) throw Kiv::ParseException("recv needs --intf");
  } catch (std::exception const& e) {
    std::cerr << "mcast-probe " << args[0] << ": " << e.what() << "\n" << kUsage;
    return 2;
  }
  try {
    if (sending) {
      std::cout << McastProbe::send(so).line("sent", "", summary) << std::endl;
    } else {
      std::cout << McastProbe::receive(ro, listening).line("recv", ro.intf, summary) << std::endl;
    }
  } catch (std::exception const& e) {
    std::cerr << "mcast-probe " << args[0] << ": " << e.what() << "\n";
    return 1;
  }
  return 0;
}
