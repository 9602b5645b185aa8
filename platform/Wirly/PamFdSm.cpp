#include "Wirly/PamFdSm.h"

#include "Kiv/EventLoop.h"
#include "Wirly/Pam.h"

namespace Wirly {

PamFdSm::PamFdSm(Pam* pam, int fd) : pam_(pam), fd_(fd), loop_(pam->eventLoop()) {
  if (loop_) loop_->readableIs(fd_, [this] { handleReadable(); });
}

PamFdSm::~PamFdSm() {
  if (loop_) loop_->readableDel(fd_);
}

void PamFdSm::handleReadable() {
  // The read step may disable the Pam and so destroy this reactor; hold it.
  Kiv::Ptr<PamFdSm> self(this);
  Kiv::Ptr<Pam> pam(pam_);
  pam->doGetRxPkt();
}

}  // namespace Wirly
