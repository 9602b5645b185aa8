// mroute-static: a routing application that publishes static multicast
// routes from a file (RouteFile.h) as MFIB tables, one per VRF, under
// $VORN_ROOT, for the agents that read the MFIB directory, and takes route
// changes at run time from its command line (RouteControl.h).
//
//   mroute-static --app static --file /etc/mroutes      # until SIGINT/SIGTERM
//   kill -HUP <pid>                                      # re-read, apply the differences
//   mroute-static add --app static default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2
//   mroute-static del --app static --persist default 10.1.0.2 239.1.1.1
//   mroute-static list --app static [--json]
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
// start, or another instance serves the application's control socket; 2
// for a usage error. A daemon keeps running and publishing what it can
// after a refusal; its status when it is stopped tells whether the tables
// it withdrew matched the file. The commands exit 0 when the instance did
// what was asked, 1 when it refused or did not answer, 2 for usage.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include <unistd.h>

#include "Brisklog/Brisklog.h"
#include "DaemonConfig.h"
#include "Journal.h"
#include "Kiv/EventLoop.h"
#include "Kiv/Exception.h"
#include "Kiv/RequestServer.h"
#include "MrouteVersion.h"
#include "RouteControl.h"
#include "RouteFile.h"
#include "StaticPublisher.h"
#include "Stelo/EntityManager.h"

namespace {

char const* const kUsage =
    "usage: mroute-static [--config FILE] --app NAME --file ROUTES [--once]\n"
    "       mroute-static add [--app NAME] [--persist] VRF SOURCE|* GROUP IIF OIF[,OIF...]|- [PRIORITY]\n"
    "       mroute-static del [--app NAME] [--persist] VRF SOURCE|* GROUP\n"
    "       mroute-static list [--app NAME] [--json]\n"
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
    "add, del and list change and show the routes of the running instance for\n"
    "NAME (default static) through its control socket $MROUTE_STATIC_DIR/NAME.sock\n"
    "(default /run/mroute-static for root, else $XDG_RUNTIME_DIR/mroute-static).\n"
    "add replaces a route of the same VRF, source and group. Without --persist a\n"
    "change is not written to ROUTES: it is kept across SIGHUP until ROUTES says\n"
    "the same, and lost when the instance stops. --persist rewrites that route's\n"
    "line in ROUTES (the rest of the file as it was) and then publishes.\n"
    "Exit status: 0 when the last load published every line, 1 when it refused\n"
    "any (malformed, table full, ...) or the file could not be read, 2 for usage\n"
    "or a refused configuration file;\n"
    "for add, del and list: 0 done, 1 refused or no instance answered, 2 usage.\n";

// What --config FILE may set (the daemon's options only).
Daemon::ConfigOption const kSettings[] = {{"app"}, {"file"}, {"once", false}};

int usage(std::string const& why) {
  std::cerr << "mroute-static: " << why << "\n" << kUsage;
  return 2;
}

bool validAppName(std::string const& name) {
  if (name.empty() || name.size() > 64 || name[0] == '.') return false;
  return name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.") ==
         std::string::npos;
}

// What the command line asks for. A command (add, del, list) is its first
// word; every option may stand anywhere after it, "--" ends the options.
struct Options {
  std::string command;  // empty: run the daemon
  std::string app;
  std::string file;
  bool once = false;
  bool persist = false;
  bool json = false;
  std::vector<std::string> words;  // a command's route words
};

// The options, or the exit status of --help, --version or a usage error.
std::variant<Options, int> parseOptions(std::vector<std::string> const& args) {
  Options o;
  std::size_t i = 0;
  if (!args.empty() && (args[0] == "add" || args[0] == "del" || args[0] == "list")) o.command = args[i++];
  bool const daemon = o.command.empty();
  for (bool options = true; i < args.size(); ++i) {
    std::string const& a = args[i];
    if (!options || a.rfind("--", 0) != 0 || a == "-") {
      if (daemon) return usage("unexpected argument " + a);
      o.words.push_back(a);
    } else if (a == "--") {
      options = false;
    } else if (a == "--version" || a == "--help" || a == "-h") {
      if (a == "--version") {
        std::cout << "mroute-static (libmroute) " << MROUTE_VERSION << "\n";
      } else {
        std::cout << kUsage;
      }
      return 0;
    } else if (a == "--app" || (daemon && a == "--file")) {
      if (i + 1 >= args.size()) return usage("option " + a + " needs a value");
      (a == "--app" ? o.app : o.file) = args[++i];
    } else if (daemon && a == "--once") {
      o.once = true;
    } else if ((o.command == "add" || o.command == "del") && a == "--persist") {
      o.persist = true;
    } else if (o.command == "list" && a == "--json") {
      o.json = true;
    } else {
      return usage("unknown option " + a + (daemon ? "" : " for " + o.command));
    }
  }
  if (!daemon && o.app.empty()) o.app = "static";
  if (daemon && (o.app.empty() || o.file.empty())) return usage("--app and --file are required");
  if (!validAppName(o.app)) {
    std::cerr << "mroute-static: application name '" << o.app
              << "' must be 1 to 64 letters, digits, '-', '_' or '.' (not first)\n";
    return 2;
  }
  if (o.command == "list" && !o.words.empty()) return usage("list takes no route");
  if (o.command == "add" && o.words.empty()) return usage("add needs a route: VRF SOURCE|* GROUP IIF OIFS [PRIORITY]");
  if (o.command == "del" && o.words.empty()) return usage("del needs a route: VRF SOURCE|* GROUP");
  for (std::string const& w : o.words)
    if (w.empty() || w.find_first_of(" \t\r\n") != std::string::npos)
      return usage("route word '" + w + "' is empty or holds white space");
  return o;
}

// add, del, list: one request to the running instance.
int command(Options const& o) {
  std::string path;
  try {
    path = MrouteStatic::controlSocketPath(o.app);
  } catch (std::exception const& e) {
    std::cerr << "mroute-static: " << e.what() << "\n";
    return 1;
  }
  std::string request = o.command;
  if (o.command == "list") {
    request += o.json ? " json" : " text";
  } else {
    request += o.persist ? " persist" : " runtime";
    for (std::string const& w : o.words) request += " " + w;
  }
  Kiv::RequestReply const reply = Kiv::requestAsk(path, MrouteStatic::controlSocketUse.what, request, "mroute-static");
  switch (reply.status) {
    case Kiv::RequestReply::ok:
      std::cout << reply.text << std::flush;
      return 0;
    case Kiv::RequestReply::absent:
      std::cerr << "mroute-static: no instance for application '" << o.app << "' answers at " << path << ": "
                << reply.text << "\n";
      return 1;
    case Kiv::RequestReply::refused:
    case Kiv::RequestReply::failed:
      break;
  }
  std::cerr << "mroute-static: " << reply.text << "\n";
  return 1;
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

int daemon(Options const& o) {
  // Under systemd: refused lines and failures as warnings, loads as information.
  Daemon::journalStreamIs(std::cerr, STDERR_FILENO, Daemon::Priority::warning);
  Daemon::journalStreamIs(std::cout, STDOUT_FILENO, Daemon::Priority::info);

  // Signals are taken from a signalfd in the loop, between loads and
  // requests, so a reload never interrupts a half-applied change.
  sigset_t signals;
  sigemptyset(&signals);
  for (int s : {SIGHUP, SIGINT, SIGTERM}) sigaddset(&signals, s);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);

  try {
    // A file that cannot be read at the start publishes nothing at all,
    // not even the application's directory entry.
    MrouteStatic::ParsedFile parsed;
    if (!read(o.file, parsed)) {
      std::cerr << std::endl;
      return 1;
    }
    if (o.once) {
      auto em = Stelo::EntityManager::entityManagerIs();
      MrouteStatic::StaticPublisher pub(o.app, em);
      MrouteStatic::RouteControl control(pub, o.file, std::cout, std::cerr);
      control.load(parsed);
      return control.complete() ? 0 : 1;
    }
    Kiv::EventLoop loop;
    // Claimed before anything is published: a second instance for the same
    // application leaves the first one's tables alone. No request is read
    // before the loop turns, and by then control is made.
    std::unique_ptr<MrouteStatic::RouteControl> control;
    std::unique_ptr<Kiv::RequestServer> server;
    try {
      Kiv::RequestServer::Limits limits;
      limits.maxRequestBytes = MrouteStatic::maxRequestBytes;
      server = std::make_unique<Kiv::RequestServer>(
          loop, MrouteStatic::controlSocketPath(o.app), MrouteStatic::controlSocketUse,
          [&control](std::string const& request, Kiv::RequestServer::Peer const& peer) {
            return control->answer(request, peer);
          },
          limits);
    } catch (Kiv::SocketInUseException const& e) {
      std::cerr << "mroute-static: " << e.what() << ": an instance for application '" << o.app
                << "' runs already; stop it or give this one another --app" << std::endl;
      return 1;
    } catch (std::exception const& e) {
      std::cerr << "mroute-static: no control socket: " << e.what() << std::endl;
      return 1;
    }
    auto em = Stelo::EntityManager::entityManagerIs();
    MrouteStatic::StaticPublisher pub(o.app, em);
    control = std::make_unique<MrouteStatic::RouteControl>(pub, o.file, std::cout, std::cerr);
    control->load(parsed);

    Kiv::FileDesc sfd(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!sfd) throw Kiv::ErrnoException("signalfd", errno);
    bool stop = false, readable = true;
    loop.readableIs(sfd.fd(), [&] {
      signalfd_siginfo si{};
      while (::read(sfd.fd(), &si, sizeof si) == ssize_t(sizeof si)) {
        if (si.ssi_signo != SIGHUP) {
          stop = true;
          return;
        }
        if (read(o.file, parsed)) {
          readable = true;
          control->load(parsed);
        } else {
          readable = false;
          std::cerr << "; keeping " << pub.published().size() << " routes" << std::endl;
          BRISKLOG("MrouteStatic", "reload: cannot read %s; keeping %zu routes", o.file, pub.published().size());
        }
      }
    });
    while (!stop) loop.runOnce(-1);
    server.reset();
    std::size_t const lost = control->runtimeChanges();
    pub.withdraw();
    std::cout << "static " << o.app << ": withdrawn";
    if (lost != 0) std::cout << "; " << MrouteStatic::changesText(lost) << " not in " << o.file << " gone";
    std::cout << std::endl;
    return readable && control->complete() ? 0 : 1;
  } catch (std::exception const& e) {
    std::cerr << "mroute-static: " << o.app << ": " << e.what() << std::endl;
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  bool const isCommand = !args.empty() && (args[0] == "add" || args[0] == "del" || args[0] == "list");
  // The configuration file sets the daemon's options; a command names its
  // instance on the command line.
  if (!isCommand && !Daemon::configMerge(args, kSettings, "mroute-static", std::cerr)) return 2;
  std::variant<Options, int> parsed = parseOptions(args);
  if (int const* status = std::get_if<int>(&parsed)) return *status;
  Options const& o = std::get<Options>(parsed);
  return o.command.empty() ? daemon(o) : command(o);
}
