// Wirly::namespaceSocket: opens a socket inside a named network namespace
// (and Wirly::namespaceOpen a file there).
//
//   int sd = Wirly::namespaceSocket(Wirly::NamespaceName("blue"), AF_NETLINK, SOCK_RAW, 0);
//   if (sd < 0) throw Kiv::ErrnoException("socket", errno);
//
// A socket belongs for life to the namespace it was created in, so the
// calling thread enters the namespace (/run/netns/<name>, as `ip netns`
// makes it), creates the socket through Wirly::Sys, and returns to the
// namespace it came from before anything else runs on it. The empty name is
// the caller's own namespace and touches no namespace at all.
//
// Returns the descriptor, or -1 with errno set: that of the failed open or
// setns (ENOENT for a namespace that does not exist, EPERM without
// CAP_SYS_ADMIN) or of the socket call. If the thread cannot get back to
// its own namespace the process cannot trust any socket it opens later, so
// that is an assertion.
#pragma once

#include "Wirly/NamespaceName.h"

namespace Wirly {

int namespaceSocket(NamespaceName const& ns, int domain, int type, int protocol);

// The same for a file whose contents depend on the namespace it is opened
// in (/proc/thread-self/net/...): the descriptor keeps reading that
// namespace's view. Opened close-on-exec; -1 with errno as above.
int namespaceOpen(NamespaceName const& ns, char const* path, int flags);

}  // namespace Wirly
