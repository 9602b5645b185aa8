// Wirly::PamFdSm: the descriptor reactor of a Pam. While it lives, the
// Pam's read step (doGetRxPkt) runs each time the descriptor is readable on
// the Pam's event loop. The loop is level-triggered, so data left in the
// socket after a user stopped reading early (a review that ran out of time)
// wakes the loop again on its next turn.
//
//   fdSm_ = new Wirly::PamFdSm(this, sd);   // registers when the Pam has a loop
//   fdSm_ = nullptr;                        // unregisters
//
// The reactor holds a plain pointer to its Pam: the Pam owns it and drops
// it before the descriptor closes.
#pragma once

#include "Kiv/Ptr.h"

namespace Kiv {
class EventLoop;
}

namespace Wirly {

class Pam;

class PamFdSm : public Kiv::PtrInterface {
 public:
  PamFdSm(Pam* pam, int fd);
  ~PamFdSm() override;
  PamFdSm(PamFdSm const&) = delete;
  PamFdSm& operator=(PamFdSm const&) = delete;

  int fd() const { return fd_; }
  // The loop it registered with; null when the Pam had none.
  Kiv::EventLoop* loop() const { return loop_; }

  void handleReadable();

 private:
  Pam* pam_;
  int fd_;
  Kiv::EventLoop* loop_;
};

}  // namespace Wirly
