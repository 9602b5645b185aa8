#include "Wirly/NamespaceSocket.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <string>

#include "Kiv/Assert.h"
#include "Kiv/FileDesc.h"
#include "Wirly/Sys.h"

namespace Wirly {

namespace {

// Runs make() (a call that returns a descriptor or -1 with errno) inside ns.
template <class F>
int inNamespace(NamespaceName const& ns, F const& make) {
  Kiv::FileDesc home(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  if (!home) return -1;
  std::string const path = "/run/netns/" + ns.str();
  Kiv::FileDesc target(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!target) return -1;
  if (::setns(target.fd(), CLONE_NEWNET) != 0) return -1;

  int const sd = make();
  int const saved = errno;
  bool const back = ::setns(home.fd(), CLONE_NEWNET) == 0;
  KIV_ASSERT(back && "cannot return to the caller's network namespace");
  errno = saved;
  return sd;
}

}  // namespace

int namespaceSocket(NamespaceName const& ns, int domain, int type, int protocol) {
  if (ns.isDefault()) return Sys::sys().socket(domain, type, protocol);
  return inNamespace(ns, [&] { return Sys::sys().socket(domain, type, protocol); });
}

int namespaceOpen(NamespaceName const& ns, char const* path, int flags) {
  if (ns.isDefault()) return ::open(path, flags | O_CLOEXEC);
  return inNamespace(ns, [&] { return ::open(path, flags | O_CLOEXEC); });
}

}  // namespace Wirly
