// Kiv::PathTrust: decides whether a directory or file that came in from
// outside the process (an environment variable, a default under /run, a
// file found in a shared directory) may be used, so that no other local
// user can hand this process a table, a socket or a trace directory.
//
//   std::string const root = Kiv::PathTrust::runtimeDir("vorn", "VORN_ROOT");
//   Kiv::PathTrust::dirMake(root, {"table root", "VORN_ROOT"});   // or throws
//
// A directory is trusted when it is owned by this process's effective user
// or by root, is not a symbolic link and is not writable by group or
// others; every directory above it must be owned by one of them too and be
// either not writable by group or others or sticky (/tmp, /dev/shm), so
// that nobody else can rename it away and put their own in its place. The
// path is walked one component at a time from "/" with O_PATH|O_NOFOLLOW
// and each step is checked with fstat on what was opened; a symbolic link
// above the last component is followed only when it is owned by this user
// or root. Once the whole chain is trusted, nobody else can change it, so
// callers may go on using the path by name.
//
// A file (a shared table) is trusted when it is a regular file owned by
// this user or root and not writable by group or others; readers of other
// users may still read it.
//
// Inside a user namespace every owner outside it reads as the overflow uid
// (65534) and cannot be told apart; directories above the last one owned by
// that uid are accepted there (their mode is still checked). The directory
// itself and files must belong to a user of the namespace.
//
// Every refusal is an UntrustedPathException whose what() is one line that
// names the path, its owner and the fix, e.g.
//   table root /run/vorn is owned by uid 65534 (nobody), not by root: remove
//   it or set VORN_ROOT to a directory you own
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "Kiv/Exception.h"
#include "Kiv/FileDesc.h"

namespace Kiv {

class UntrustedPathException : public Exception {
 public:
  using Exception::Exception;
};

namespace PathTrust {

// What a path is for, in refusals: what = "table root", envVar = the
// variable that chooses another (empty: none).
struct Use {
  std::string_view what;
  std::string_view envVar;
};

// $envVar when set and not empty; else /run/<name> for root (effective uid
// 0) and $XDG_RUNTIME_DIR/<name> for every other user. A user other than
// root with neither variable set gets Kiv::Exception naming both.
std::string runtimeDir(std::string_view name, char const* envVar);

// Checks the directory at path and returns it opened (O_RDONLY, or O_PATH
// where it may not be read). UntrustedPathException when it is missing or
// not trusted.
FileDesc dirCheck(std::string const& path, Use use);
// The same, but first creates what is missing of path with `mode` (less the
// umask) and then checks what it made like any other directory.
FileDesc dirMake(std::string const& path, Use use, mode_t mode = 0755);
// Checks a file this process has opened as fd (fstat: no second lookup).
void fileCheck(int fd, std::string const& path, std::string_view what);

// True for root and this process's effective user.
bool ownerTrusted(uid_t uid);
// "uid 65534 (nobody)", or "uid 4242" when no name resolves.
std::string ownerText(uid_t uid);

}  // namespace PathTrust
}  // namespace Kiv
