#include "Wirly/FileDescriptor.h"

#include <errno.h>
#include <fcntl.h>

#include "Kiv/Exception.h"

namespace Wirly {

void FileDescriptor::nonBlockingIs(bool on) {
  int const flags = ::fcntl(fd_, F_GETFL);
  if (flags < 0) throw Kiv::ErrnoException("fcntl", errno);
  int const want = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  if (want != flags && ::fcntl(fd_, F_SETFL, want) < 0) throw Kiv::ErrnoException("fcntl", errno);
}

}  // namespace Wirly
