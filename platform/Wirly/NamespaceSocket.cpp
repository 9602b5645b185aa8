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

int namespaceSocket(NamespaceName const& ns, int domain, int type, int protocol) {
  if (ns.isDefault()) return Sys::sys().socket(domain, type, protocol);

  Kiv::FileDesc home(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  if (!home) return -1;
  std::string const path = "/run/netns/" + ns.str();
  Kiv::FileDesc target(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!target) return -1;
  if (::setns(target.fd(), CLONE_NEWNET) != 0) return -1;

  int const sd = Sys::sys().socket(domain, type, protocol);
  int const saved = errno;
  bool const back = ::setns(home.fd(), CLONE_NEWNET) == 0;
  KIV_ASSERT(back && "cannot return to the caller's network namespace");
  errno = saved;
  return sd;
}

}  // namespace Wirly
