// Live introspection of a running agent: a Unix socket, served from the
// agent's own event loop, through which tools (kivctl) list, read, write and
// invoke every reachable entity's attributes by path.
//
//   Kiv::Ptr<Kiv::Dir> root = Kiv::Dir::DirIs("root");
//   root->entryIs("mfibVornDir", mfibVornDir);
//   Kiv::AttrServer introspect(loop, root, Kiv::AttrServer::defaultPath("mfib-agent"));
//   // $ kivctl --agent mfib-agent get /mfibVornDir/vornColl/default
//
// Nothing listens unless the agent builds an AttrServer. The socket lies in
// $KIV_INTROSPECT_DIR, or else /run/kiv/ for root and $XDG_RUNTIME_DIR/kiv/
// for other users, a directory that must belong to the agent's user or root
// and that others may not write (Kiv/PathTrust.h); the socket itself is mode
// 0600 and the server also checks each client's user id (SO_PEERCRED) and
// refuses any other user. A second process serving the same path is refused
// (Kiv/ServerSocket.h): the first keeps its socket.
//
// Paths: "/" is the root; a segment names an attribute, a key of the
// collection before it (its text form, a bare word read as a string, or
// the plain form of one of its keys: /mroute/(10.1.0.2, 239.1.1.1)), or
// a key of the entity's path collection (a Kiv::Dir's entries), and an
// entity reached through a pointer or a collection of entities is walked
// into. A segment holding '/' is quoted: /status/'a/b'. A last segment
// <collection>DelAll, <counter>Inc or <counter>Dec names that edit, which
// invoke runs (Inc and Dec take an optional amount).
//
// Formats: "plain" shows values in their plain forms (Kiv/ValuePlain.h:
// 10.1.0.2/32, Ethernet1, (10.1.0.2, 239.1.1.1)), an entity as its name or
// its key attribute, and a collection by its entries, also inside an
// entity's get ("name\tN entries", then "  key\tvalue" lines); "json" is
// the same as typed JSON: an entity's get is {"type", "name",
// "attributes"}, each collection in it an object of its entries keyed by
// their plain text, and a collection's ls or get is one such object. "text"
// is the value text form (an entity's collections by their counts) and
// "rawjson" its typed JSON (Kiv::jsonFromStrep). A format may carry
// ",limit=N": at most N entries of each collection are shown, then
// "... M more entries" (in JSON a last member "...": M); 0 or none is no
// limit.
//
// Protocol, one request per connection: the client sends
// "verb \t format \t path \t argument \n" (verb ls, get, set, del or invoke)
// and reads until the server closes: a first line "ok" or "error", then
// the body. A request is answered within the loop's turn
// that completes it; a client that sends nothing is dropped after
// requestTimeout seconds, so one stuck tool cannot hold the agent.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "Kiv/Entity.h"
#include "Kiv/EventLoop.h"
#include "Kiv/FileDesc.h"
#include "Kiv/Ptr.h"
#include "Kiv/ServerSocket.h"

namespace Kiv {

class AttrServer {
 public:
  static constexpr double requestTimeout = 2.0;
  static constexpr std::size_t maxRequest = 64 * 1024;

  // Binds path (replacing a socket nobody answers on) and serves root from
  // loop. Throws what Kiv::ServerSocket throws: SocketInUseException when a
  // live process serves path, UntrustedPathException for its directory.
  AttrServer(EventLoop& loop, Ptr<Entity> root, std::string path);
  ~AttrServer();
  AttrServer(AttrServer const&) = delete;
  AttrServer& operator=(AttrServer const&) = delete;

  std::string const& path() const { return socket_.path(); }
  // Requests answered (with ok or error) and clients refused or dropped.
  std::uint64_t requests() const { return requests_; }
  std::uint64_t refused() const { return refused_; }

  // Where an agent called agentName listens (the server makes the directory,
  // 0700, when it is missing). Kiv::Exception for a user other than root
  // without KIV_INTROSPECT_DIR or XDG_RUNTIME_DIR.
  static std::string defaultPath(std::string_view agentName);

  // The full answer ("ok\n..." or "error\n<message>\n") to one request line
  // (without its newline), as the socket would send it.
  static std::string answer(Entity const& root, std::string_view request);

 private:
  struct Client {
    FileDesc fd;
    std::string in;
    EventLoop::TimerId timer = 0;
  };
  void doAccept();
  void doRead(int fd);
  void doDrop(int fd);

  EventLoop& loop_;
  Ptr<Entity> root_;
  ServerSocket socket_;
  std::map<int, Client> clients_;
  std::uint64_t requests_ = 0;
  std::uint64_t refused_ = 0;
};

}  // namespace Kiv
