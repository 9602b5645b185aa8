#include "Wirly/Pam.h"

namespace Wirly {

namespace {
Kiv::EventLoop* defaultLoop = nullptr;
}  // namespace

Pam::~Pam() = default;

Kiv::EventLoop* Pam::eventLoop() const { return loopSet_ ? loop_ : defaultLoop; }
Kiv::EventLoop* Pam::defaultEventLoop() { return defaultLoop; }
void Pam::defaultEventLoopIs(Kiv::EventLoop* loop) { defaultLoop = loop; }

Kiv::Ptr<Pkt> Pam::rxPkt() {
  if (queue_.empty() && !pulling_) {
    pulling_ = true;
    doGetRxPkt();
    pulling_ = false;
  }
  if (queue_.empty()) return nullptr;
  Kiv::Ptr<Pkt> p = std::move(queue_.front());
  queue_.pop_front();
  return p;
}

void Pam::doRxPktEnqueue(Kiv::Ptr<Pkt> const& pkt) {
  if (!pkt) return;
  if (queue_.size() >= rxQueueLimit_) {
    ++rxQueueDrops_;
    return;
  }
  queue_.push_back(pkt);
  if (!pulling_) notify(&NotifieeConst::onReadableCount);
}

}  // namespace Wirly
