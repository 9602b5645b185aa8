// mroute-static: a routing application that publishes static multicast
// routes from a file (RouteFile.h) as MFIB tables, one per VRF, under
// $VORN_ROOT, for the agents that read the MFIB directory.
//
//   mroute-static --app static --file /etc/mroutes      # until SIGINT/SIGTERM
//   kill -HUP <pid>                                      # re-read, apply the differences
//
// After every (re)load it prints "static <app>: <n> routes (+a -r ~c)", and
// when lines were refused "; <k> refused: <m> malformed, <t> table full, ...";
// the same counts go to the trace. Malformed lines go to stderr as
// "<file>:<line>: ...". On SIGINT or SIGTERM it withdraws its tables. --once
// publishes and exits, leaving the tables announced; a later run for the
// same application takes them over.
//
// Exit status: 0 when the last load published every route of the file; 1
// when it refused a line (or, on a reload, could not read the file, which
// keeps the routes published before), or the file could not be read at the
// start; 2 for a usage error. A daemon keeps running and publishing what it
// can after a refusal; its status when it is stopped tells whether the
// tables it withdrew matched the file.
#include <signal.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <unistd.h>

#include "Brisklog/Brisklog.h"
#include "DaemonConfig.h"
#include "Journal.h"
#include "Kiv/Exception.h"
#include "MrouteVersion.h"
#include "RouteFile.h"
#include "StaticPublisher.h"
#include "Stelo/EntityManager.h"

namespace {

char const* const kUsage =
    "usage: mroute-static [--config FILE] --app NAME --file ROUTES [--once]\n"
    "       mroute-static --help | --version\n"
    "Publishes the routes of ROUTES as application NAME's MFIB tables under\n"
    "$VORN_ROOT (default /run/vorn for root, else $XDG_RUNTIME_DIR/vorn; it must\n"
    "belong to this user or root and be writable by nobody else), re-reads ROUTES\n"
    "on SIGHUP and applies the differences, and withdraws the tables on SIGINT or\n"
    "SIGTERM. --once publishes and exits, leaving the tables announced. --config\n"
    "FILE reads settings named like the options (\"app = static\", \"file = ...\"),\n"
    "one per line; the command line overrides them. One route\n"
    "per line:\n"
    "  <vrf> <source|*> <group> <iif> <oif>[,<oif>...]|- [priority 1..255, default 1]\n"
    "for example: default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2,Ethernet3 2\n"
    "Exit status: 0 when the last load published every line, 1 when it refused\n"
    "any (malformed, table full, ...) or the file could not be read, 2 for usage\n"
    "or a refused configuration file.\n";

// What --config FILE may set.
Daemon::ConfigOption const kSettings[] = {{"app"}, {"file"}, {"once", false}};

bool validAppName(std::string const& name) {
  if (name.empty() || name.size() > 64 || name[0] == '.') return false;
  return name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.") ==
         std::string::npos;
}

// Reads and parses the file, reporting its malformed lines; false when it
// cannot be read.
bool read(std::string const& file, MrouteStatic::ParsedFile& parsed) {
  std::ifstream in(file);
  if (!in) {
    std::cerr << "mroute-static: cannot read " << file << ": " << std::strerror(errno);
    return false;
  }
  parsed = MrouteStatic::parseRoutes(in, file);
  if (in.bad()) {
    std::cerr << "mroute-static: error reading " << file;
    return false;
  }
  for (std::string const& e : parsed.errors) std::cerr << e << "\n";
  return true;
}

// Publishes the file's routes; false when any line was refused.
bool apply(MrouteStatic::StaticPublisher& pub, MrouteStatic::ParsedFile const& parsed) {
  MrouteStatic::StaticPublisher::Change c = pub.apply(parsed.routes);
  c.malformed = parsed.errors.size();
  for (std::string const& p : pub.problems()) std::cerr << "mroute-static: " << p << "\n";
  std::cerr.flush();
  std::cout << pub.summary(c) << std::endl;
  BRISKLOG("MrouteStatic",
           "load: %zu routes (+%zu -%zu ~%zu), refused %zu: malformed %zu, table full %zu, no interface index %zu, "
           "no VRF table %zu, not published %zu",
           c.routes, c.added, c.removed, c.changed, c.refused(), c.malformed, c.tableFull, c.noOifIndex, c.noTable,
           c.otherwise);
  return c.refused() == 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (!Daemon::configMerge(args, kSettings, "mroute-static", std::cerr)) return 2;
  std::string app, file;
  bool once = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--version") {
      std::cout << "mroute-static (libmroute) " << MROUTE_VERSION << "\n";
      return 0;
    }
    if (args[i] == "--help" || args[i] == "-h") {
      std::cout << kUsage;
      return 0;
    }
    if (args[i] == "--once") {
      once = true;
    } else if ((args[i] == "--app" || args[i] == "--file") && i + 1 < args.size()) {
      (args[i] == "--app" ? app : file) = args[i + 1];
      ++i;
    } else {
      std::cerr << "mroute-static: unknown or incomplete option " << args[i] << "\n" << kUsage;
      return 2;
    }
  }
  if (app.empty() || file.empty()) {
    std::cerr << "mroute-static: --app and --file are required\n" << kUsage;
    return 2;
  }
  if (!validAppName(app)) {
    std::cerr << "mroute-static: application name '" << app
              << "' must be 1 to 64 letters, digits, '-', '_' or '.' (not first)\n";
    return 2;
  }

  // Under systemd: refused lines and failures as warnings, loads as information.
  Daemon::journalStreamIs(std::cerr, STDERR_FILENO, Daemon::Priority::warning);
  Daemon::journalStreamIs(std::cout, STDOUT_FILENO, Daemon::Priority::info);

  // Signals are taken one at a time by sigwaitinfo, between loads, so a
  // reload never interrupts a half-applied file.
  sigset_t signals;
  sigemptyset(&signals);
  for (int s : {SIGHUP, SIGINT, SIGTERM}) sigaddset(&signals, s);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);

  try {
    // A file that cannot be read at the start publishes nothing at all,
    // not even the application's directory entry.
    MrouteStatic::ParsedFile parsed;
    if (!read(file, parsed)) {
      std::cerr << std::endl;
      return 1;
    }
    auto em = Stelo::EntityManager::entityManagerIs();
    MrouteStatic::StaticPublisher pub(app, em);
    bool complete = apply(pub, parsed);
    if (once) return complete ? 0 : 1;
    for (;;) {
      int const sig = ::sigwaitinfo(&signals, nullptr);
      if (sig < 0) continue;  // EINTR
      if (sig == SIGHUP) {
        if (read(file, parsed)) {
          complete = apply(pub, parsed);
        } else {
          complete = false;
          std::cerr << "; keeping " << pub.published().size() << " routes" << std::endl;
          BRISKLOG("MrouteStatic", "reload: cannot read %s; keeping %zu routes", file, pub.published().size());
        }
        continue;
      }
      pub.withdraw();
      std::cout << "static " << app << ": withdrawn" << std::endl;
      return complete ? 0 : 1;
    }
  } catch (std::exception const& e) {
    std::cerr << "mroute-static: " << app << ": " << e.what() << std::endl;
    return 1;
  }
}
