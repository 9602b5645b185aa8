// Kiv::ServerSocket: a listening Unix stream socket at a path that one
// process alone serves, for a tool's way into a running program (the
// introspection socket, an agent's show socket).
//
//   Kiv::ServerSocket s("/run/kiv/mroute-agent.sock", {"introspection socket", "KIV_INTROSPECT_DIR"});
//   loop.readableIs(s.fd(), ...);   // accept4(s.fd(), ...)
//
// The socket's directory is made (0700) when missing and must be trusted
// (Kiv/PathTrust.h). A socket at the path that a live process answers on is
// never taken over: the constructor throws SocketInUseException naming that
// process (SO_PEERCRED). One that refuses connections is left by a process
// that is gone, and is replaced. The check, the bind and the listen happen
// under an exclusive lock on the directory, so two processes starting at
// once cannot both decide that the path is free. The socket is bound with
// mode 0600. At destruction the path is removed only when it still is this
// process's socket (same inode, same pid): a process that lost its path to
// another never deletes the other's.
#pragma once

#include <sys/types.h>

#include <string>

#include "Kiv/Exception.h"
#include "Kiv/FileDesc.h"
#include "Kiv/PathTrust.h"

namespace Kiv {

// Another live process serves the path; pid() says which (0: unknown).
class SocketInUseException : public NameInUseException {
 public:
  SocketInUseException(std::string const& message, pid_t pid) : NameInUseException(message), pid_(pid) {}
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};

class ServerSocket {
 public:
  // use.what names the socket in refusals ("introspection socket"),
  // use.envVar the variable that chooses its directory. Throws
  // UntrustedPathException (directory), SocketInUseException, or
  // ErrnoException naming the call that failed.
  ServerSocket(std::string path, PathTrust::Use use);
  ~ServerSocket();
  ServerSocket(ServerSocket const&) = delete;
  ServerSocket& operator=(ServerSocket const&) = delete;

  int fd() const { return listen_.fd(); }
  std::string const& path() const { return path_; }

 private:
  std::string path_;
  FileDesc dir_;
  FileDesc listen_;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
  pid_t owner_ = 0;
};

// Connects to the server at path and refuses (Kiv::Exception) one that runs
// as another user than this process's or root: a tool must not send its
// requests to, or believe, a socket someone else put there.
FileDesc connectTrusted(std::string const& path, std::string_view what);

}  // namespace Kiv
