// Kiv::RequestServer: one request line in, one answer out, over a Unix
// socket that one process serves (Kiv/ServerSocket.h), for a command that
// asks a running program something (an agent's show, a daemon's control).
//
//   Kiv::RequestServer s(loop, path, {"show socket", "MROUTE_AGENT_DIR"},
//                        [&](std::string const& request, Kiv::RequestServer::Peer const&) {
//                          return request == "hello" ? Answer::okIs("hi\n") : Answer::errorIs("what?");
//                        });
//   // client: Kiv::RequestReply r = Kiv::requestAsk(path, "show socket", "hello", "the agent");
//
// Protocol: the client sends one line; the server answers "ok <bytes>\n"
// and exactly that many bytes, or one line "error <why>\n", and closes. A
// client that reads fewer bytes than announced knows its answer was cut.
// Only this process's own user and root are served (SO_PEERCRED); others
// are closed at once, counted and traced. A client that sends no whole line
// within requestTimeout seconds, or a longer line than maxRequestBytes, is
// dropped.
//
// The server never waits for a client: it sends what the socket takes and
// keeps the rest until the socket can take more, so a reader that pauses
// gets its whole answer later. Bounds (Limits): an answer larger than
// maxAnswerBytes is refused with an error line; a client that takes no byte
// for stallTimeout seconds is dropped (its answer ends short; looked at once
// per stallTimeout, so within twice that); at most maxClients are served at
// once, later ones wait in the listen queue.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "Kiv/EventLoop.h"
#include "Kiv/FileDesc.h"
#include "Kiv/ServerSocket.h"

namespace Kiv {

class RequestServer {
 public:
  static constexpr double requestTimeout = 2.0;
  struct Limits {
    std::size_t maxAnswerBytes = std::size_t(1) << 30;
    double stallTimeout = 60.0;
    std::size_t maxClients = 8;
    std::size_t maxRequestBytes = 256;
  };
  // Who asks: its process and user, as the kernel says (SO_PEERCRED).
  struct Peer {
    pid_t pid = 0;
    uid_t uid = 0;
  };
  struct Answer {
    bool ok = true;
    std::string text;  // the body, or one line saying why not
    static Answer okIs(std::string body) { return {true, std::move(body)}; }
    static Answer errorIs(std::string why) { return {false, std::move(why)}; }
  };
  // Called once per request, without its newline.
  using Handler = std::function<Answer(std::string const& request, Peer const& peer)>;

  // Binds path (replacing a socket nobody answers on). Throws what
  // Kiv::ServerSocket throws: SocketInUseException when a live process
  // serves path, UntrustedPathException for its directory.
  RequestServer(EventLoop& loop, std::string path, PathTrust::Use use, Handler handler, Limits limits);
  RequestServer(EventLoop& loop, std::string path, PathTrust::Use use, Handler handler)
      : RequestServer(loop, std::move(path), use, std::move(handler), Limits()) {}
  ~RequestServer();
  RequestServer(RequestServer const&) = delete;
  RequestServer& operator=(RequestServer const&) = delete;

  std::string const& path() const { return socket_.path(); }
  // Clients connected now; those dropped because they stopped reading;
  // those refused as another user or for a missing or oversized request.
  std::size_t clients() const { return clients_.size(); }
  std::uint64_t stalledClients() const { return stalled_; }
  std::uint64_t refusedClients() const { return refused_; }

 private:
  struct Client {
    FileDesc fd;
    Peer peer;
    std::string in;
    std::string out;  // the answer; out[sent..] still to go
    std::size_t sent = 0;
    bool polled = false;  // in writable_
    std::size_t sentAtCheck = 0;
    std::size_t queuedAtCheck = 0;  // unread bytes in the socket (SIOCOUTQ)
    EventLoop::TimerId timer = 0;
  };
  void doAccept();
  void doRead(int fd);
  void doWrite(int fd);
  void handleWritable();
  void doDrop(int fd);
  void doTimer(int fd, double seconds);
  void handleTimer(int fd);

  EventLoop& loop_;
  Handler handler_;
  Limits limits_;
  ServerSocket socket_;
  std::string what_;
  // Clients waiting for their socket to take more of their answer; its
  // descriptor is one readable descriptor of the server's loop.
  FileDesc writable_;
  bool accepting_ = false;
  std::map<int, Client> clients_;
  std::uint64_t stalled_ = 0;
  std::uint64_t refused_ = 0;
};

// The client's side. status ok: text is the body, whole. refused: the
// server answered an error; text is its reason. absent: nobody serves the
// path; text is why the connection failed ("No such file or directory").
// failed: a cut or garbled answer, or a server of another user; text says
// what went wrong, naming the server as `peer` ("the agent's answer is
// incomplete: 10 of 90 bytes arrived").
struct RequestReply {
  enum Status { ok, refused, absent, failed };
  Status status = failed;
  std::string text;
};

// Reads one answer from fd (the request sent) to its end.
RequestReply requestAnswer(int fd, std::string_view peer);
// Connects (refusing a server of another user: connectTrusted), sends
// request and a newline, and reads the answer.
RequestReply requestAsk(std::string const& path, std::string_view what, std::string const& request,
                        std::string_view peer);

}  // namespace Kiv
