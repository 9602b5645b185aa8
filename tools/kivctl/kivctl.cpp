// kivctl: looks inside a running agent through its introspection socket.
//
//   kivctl --agent mfib-demo-agent ls /
//   kivctl --agent mfib-demo-agent get /mfibVornDir/vornColl/default
//   kivctl --agent a --limit 20 get /mroute4/vrfMrouteTable/default/mroute
//   kivctl --agent a --raw get /kernelMfib4/vifIntf/3
//   kivctl --socket /run/kiv/x.sock --json get /bitMapperSm
//   kivctl --agent a set /bitMapperSm/config/bitMapMinIndex 10
//   kivctl --agent a invoke /bitMapperSm/doAllocBitIndex "Value('BitMapper::BitMapperKey', ...)"
//   kivctl --agent a invoke /mroute/vrfMrouteTable/default/reviewsInc 5
//
// Exit status: 0 answered, 1 the agent refused the request (its message on
// stderr), 2 bad command line or no agent to talk to.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/AttrServer.h"
#include "Kiv/ServerSocket.h"
#include "MrouteVersion.h"

namespace {

constexpr char const* usage =
    "usage: kivctl (--agent NAME | --socket PATH) [--json] [--raw] [--limit N] VERB PATH [ARGUMENT]\n"
    "\n"
    "Looks inside a running agent that serves introspection (Kiv::AttrServer).\n"
    "\n"
    "verbs:\n"
    "  ls PATH             the attributes of an entity (name, kind, type, rw/ro),\n"
    "                      the entries of a Dir, or the keys and values of a collection\n"
    "  get PATH            an entity's values, one attribute, a collection or one entry\n"
    "  set PATH VALUE      writes an attribute or a collection entry (value text form)\n"
    "  del PATH            removes a collection entry\n"
    "  invoke PATH [ARGS]  runs an operation; ARGS is a comma-separated list of values\n"
    "\n"
    "A collection's bulk delete and a counter's steps are operations named after\n"
    "the attribute, on writable entries:\n"
    "  invoke PATH/<collection>DelAll        removes every entry\n"
    "  invoke PATH/<counter>Inc [AMOUNT]     adds AMOUNT (default 1), wrapping; prints the value\n"
    "  invoke PATH/<counter>Dec [AMOUNT]     subtracts likewise\n"
    "\n"
    "options:\n"
    "  --agent NAME        the socket of agent NAME in $KIV_INTROSPECT_DIR, else /run/kiv/ for\n"
    "                      root and $XDG_RUNTIME_DIR/kiv/ for other users\n"
    "  --socket PATH       the socket at PATH\n"
    "  --json              answers as typed JSON: strings for names and addresses,\n"
    "                      numbers, true/false, null, objects for compound values\n"
    "                      (a route key is {\"source\", \"group\"}) and for collections\n"
    "                      (keyed by each key's plain text)\n"
    "  --raw               values in the value text form, Value('Type', ** {...}), as\n"
    "                      programs read them back (with --json: that form's typed\n"
    "                      JSON, \"_type\" and \"_entity\"/\"_name\" included); an\n"
    "                      entity's collections are then shown by their counts\n"
    "  --limit N           at most N entries of each collection (default 100; 0: all),\n"
    "                      then how many were left out\n"
    "  --help, --version\n"
    "\n"
    "Values are shown plainly: 10.1.0.2/32, Ethernet1, (10.1.0.2, 239.1.1.1), 100;\n"
    "an entity as its name or its key; a collection by its entries, one per line\n"
    "(key, tab, value).\n"
    "\n"
    "Paths start at /, the agent's root directory; a segment names a directory\n"
    "entry, an attribute, or a key of the collection before it. Quote a segment\n"
    "that holds a slash: /status/'a/b'.\n";

int fail(std::string const& msg) {
  std::fprintf(stderr, "kivctl: %s\n", msg.c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string socketPath, agent;
  bool json = false, raw = false;
  std::string limit = "100";
  std::vector<std::string> rest;
  for (int i = 1; i < argc; ++i) {
    std::string_view a = argv[i];
    if (a == "--help" || a == "-h") {
      std::fputs(usage, stdout);
      return 0;
    }
    if (a == "--version") {
      std::printf("kivctl (libmroute) %s\n", MROUTE_VERSION);
      return 0;
    }
    if (a == "--json") {
      json = true;
    } else if (a == "--raw") {
      raw = true;
    } else if (a == "--limit" && i + 1 < argc) {
      limit = argv[++i];
      if (limit.empty() || limit.size() > 18 || limit.find_first_not_of("0123456789") != std::string::npos)
        return fail("--limit takes a number of entries (0: all)");
    } else if ((a == "--agent" || a == "--socket") && i + 1 < argc) {
      (a == "--agent" ? agent : socketPath) = argv[++i];
    } else if (a.size() > 1 && a[0] == '-' && rest.empty()) {
      return fail("unknown option " + std::string(a) + "\n" + usage);
    } else {
      rest.emplace_back(a);
    }
  }
  if (socketPath.empty() == agent.empty()) return fail("give exactly one of --agent NAME and --socket PATH");
  if (rest.size() < 2) return fail("give a verb and a path; see --help");
  std::string const& verb = rest[0];
  if (verb != "ls" && verb != "get" && verb != "set" && verb != "del" && verb != "invoke")
    return fail("unknown verb " + verb + "; see --help");
  if (verb == "set" && rest.size() != 3) return fail("set takes a path and a value");
  if ((verb == "ls" || verb == "get" || verb == "del") && rest.size() != 2) return fail(verb + " takes a path");
  std::string arg;
  for (std::size_t i = 2; i < rest.size(); ++i) arg += (i > 2 ? ", " : "") + rest[i];
  if (arg.find('\n') != std::string::npos || rest[1].find('\t') != std::string::npos)
    return fail("arguments may not hold newlines or tabs");

  if (socketPath.empty()) {
    try {
      socketPath = Kiv::AttrServer::defaultPath(agent);
    } catch (std::exception const& e) {
      return fail(e.what());
    }
  }
  int fd = -1;
  try {
    // An agent of another user (a socket put where ours should be) is not
    // asked: it could answer anything.
    fd = Kiv::connectTrusted(socketPath, "introspection socket").release();
  } catch (Kiv::ErrnoException const& e) {
    return fail("cannot reach the agent at " + socketPath + ": " + std::strerror(e.error()));
  } catch (std::exception const& e) {
    return fail(e.what());
  }
  std::string const format =
      std::string(raw ? (json ? "rawjson" : "text") : (json ? "json" : "plain")) + ",limit=" + limit;
  std::string req = verb + "\t" + format + "\t" + rest[1] + "\t" + arg + "\n";
  for (std::size_t sent = 0; sent < req.size();) {
    ssize_t w = ::send(fd, req.data() + sent, req.size() - sent, MSG_NOSIGNAL);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      ::close(fd);
      return fail(std::string("send: ") + std::strerror(errno));
    }
    sent += static_cast<std::size_t>(w);
  }
  std::string reply;
  char buf[65536];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    reply.append(buf, static_cast<std::size_t>(n));
  }
  ::close(fd);
  std::size_t nl = reply.find('\n');
  if (nl == std::string::npos) return fail("the agent closed the connection without an answer");
  std::string status = reply.substr(0, nl), body = reply.substr(nl + 1);
  if (status == "ok") {
    std::fwrite(body.data(), 1, body.size(), stdout);
    return 0;
  }
  std::fprintf(stderr, "kivctl: %s", body.c_str());
  return 1;
}
