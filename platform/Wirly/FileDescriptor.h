// Wirly::FileDescriptor: a descriptor published as an entity, so observers
// can see which descriptor a socket holds. It never closes the descriptor
// itself: the owner decides, because some descriptors (the IPv6 multicast
// routing socket an agent hands over) belong to someone else.
#pragma once

#include "Kiv/Entity.h"

namespace Wirly {

class FileDescriptor : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<FileDescriptor> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onFd() {}
  };

  static Kiv::Ptr<FileDescriptor> fileDescriptorIs(Kiv::Name name, int fd) {
    return new FileDescriptor(std::move(name), fd);
  }
  std::string_view typeName() const override { return "Wirly::FileDescriptor"; }

  int fd() const { return fd_; }
  void fdIs(int fd) {
    if (Kiv::changed(fd_, fd)) notify(&NotifieeConst::onFd);
  }
  // Switches O_NONBLOCK; raises Kiv::ErrnoException ("fcntl") on failure.
  void nonBlockingIs(bool on);

 private:
  FileDescriptor(Kiv::Name name, int fd) : Kiv::Entity(std::move(name)), fd_(fd) {}
  int fd_;
};

}  // namespace Wirly
