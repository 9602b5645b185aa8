// Wirly::Pam: a packet access manager, the receiving end of a socket as its
// user sees it. A subclass owns the socket and supplies the read step
// (doGetRxPkt), which reads one datagram and hands it to the receive path
// (doRxPktEnqueue); the user takes packets with rxPkt().
//
//   struct Reader : Wirly::Pam::NotifieeConst {
//     void onReadableCount() override { while (auto p = pam->rxPkt()) handle(p); }
//   };
//
// Promises:
// - onReadableCount runs when packets were queued by the read step that the
//   descriptor reactor (Wirly::PamFdSm) called; taking packets out does not
//   notify, so a user that drains the queue from the hook is not re-entered.
// - rxPkt() on an empty queue runs the read step once itself, so a user
//   that loops on rxPkt() drains the socket, not just the queue; a packet
//   read that way is returned at once and announces nothing. A datagram
//   that the read step drops (not for this user, or malformed) makes that
//   call return null; the next call reads on.
// - The queue holds at most rxQueueLimit() packets; a packet that finds it
//   full is dropped and counted in rxQueueDrops().
//
// Subclasses that add attributes give their NotifieeConst this class's
// NotifieeConst as base and announce their own hooks with notifyAs, which
// reaches only the notifiees of the derived kind: a plain Pam notifiee may be
// registered on a derived entity.
#pragma once

#include <cstdint>
#include <deque>

#include "Kiv/Entity.h"
#include "Wirly/Pkt.h"

namespace Kiv {
class EventLoop;
}

namespace Wirly {

class Pam : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Pam> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onReadableCount() {}

    // Used by notifyAs; not a hook.
    virtual void kivDispatch(void* ctx, void (*call)(void*, NotifieeConst*)) { call(ctx, this); }
  };

  std::string_view typeName() const override { return "Wirly::Pam"; }

  // Packets waiting in the queue.
  std::uint32_t readableCount() const { return std::uint32_t(queue_.size()); }
  // The next packet, reading one from the socket when the queue is empty;
  // null when there is none.
  Kiv::Ptr<Pkt> rxPkt();

  std::uint32_t rxQueueLimit() const { return rxQueueLimit_; }
  void rxQueueLimitIs(std::uint32_t n) { rxQueueLimit_ = n ? n : 1; }
  std::uint32_t rxQueueDrops() const { return rxQueueDrops_; }

  // The loop whose descriptor reactors this Pam's sockets register with;
  // by default the process's default loop (below), which may be null: then
  // nothing reads the socket until the user calls rxPkt(). The loop must
  // outlive every socket registered with it.
  Kiv::EventLoop* eventLoop() const;
  void eventLoopIs(Kiv::EventLoop* loop) {
    loop_ = loop;
    loopSet_ = true;
  }
  static Kiv::EventLoop* defaultEventLoop();
  static void defaultEventLoopIs(Kiv::EventLoop* loop);

  // The read step: read at most one datagram and pass it to doRxPktEnqueue.
  virtual void doGetRxPkt() {}

 protected:
  explicit Pam(Kiv::Name name) : Kiv::Entity(std::move(name)) {}
  ~Pam() override;

  // The receive path.
  void doRxPktEnqueue(Kiv::Ptr<Pkt> const& pkt);

  // Calls hook(args...) on the registered notifiees that are N.
  template <class N, class... P, class... A>
  void notifyAs(void (N::*hook)(P...), A const&... args) const {
    auto bound = [&](NotifieeConst* n) {
      if (auto* d = dynamic_cast<N*>(n)) (d->*hook)(args...);
    };
    using Bound = decltype(bound);
    notify(
        &NotifieeConst::kivDispatch, static_cast<void*>(&bound),
        +[](void* ctx, NotifieeConst* n) { (*static_cast<Bound*>(ctx))(n); });
  }

 private:
  std::deque<Kiv::Ptr<Pkt>> queue_;
  std::uint32_t rxQueueLimit_ = 4096;
  std::uint32_t rxQueueDrops_ = 0;
  bool pulling_ = false;
  Kiv::EventLoop* loop_ = nullptr;
  bool loopSet_ = false;
};

}  // namespace Wirly
