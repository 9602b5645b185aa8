#include "Kiv/FileDesc.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "Kiv/Exception.h"

namespace Kiv {

FileDesc& FileDesc::operator=(FileDesc&& o) noexcept {
  if (this != &o) {
    close();
    fd_ = o.release();
  }
  return *this;
}

void FileDesc::nonBlockingIs(bool on) {
  int flags = ::fcntl(fd_, F_GETFL);
  if (flags < 0) throw ErrnoException("fcntl", errno);
  int want = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  if (want != flags && ::fcntl(fd_, F_SETFL, want) < 0) throw ErrnoException("fcntl", errno);
}

bool FileDesc::nonBlocking() const {
  int flags = ::fcntl(fd_, F_GETFL);
  return flags >= 0 && (flags & O_NONBLOCK);
}

void FileDesc::close() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

}  // namespace Kiv
