// Wirly::MrtMessage: one multicast routing upcall of the kernel, parsed.
// Wirly::MrtMessageType numbers equal the kernel's upcall type numbers for
// both IPv4 (igmpmsg) and IPv6 (mrt6msg), so a parser stores the kernel's
// byte unchanged.
//
//   Kiv::Ptr<MyNoCache> m = ...;            // a subclass fixes the type
//   m->sourceIs(Wirly::IpGenAddr("10.0.1.2"));
//   m->groupIs(Wirly::IpGenAddr("239.1.1.1"));
//   m->intfIdIs(Wirly::IntfId("Ethernet1"));
//
// Subclasses per kind live with the parser; a whole-packet message carries
// the data packet the kernel handed up and returns it from rcvdPkt().
#pragma once

#include <cstdint>
#include <iosfwd>

#include "Kiv/Entity.h"
#include "Wirly/IntfId.h"
#include "Wirly/IpGenAddr.h"
#include "Wirly/Pkt.h"

namespace Wirly {

enum class MrtMessageType : std::uint8_t { none = 0, igmpNoCache = 1, igmpWrongVif = 2, igmpWholePkt = 3 };

std::ostream& operator<<(std::ostream& os, MrtMessageType t);

class MrtMessage : public Kiv::Entity {
 public:
  using Ptr = Kiv::Ptr<MrtMessage>;

  class NotifieeConst : public Kiv::NotifieeConstBase<MrtMessage> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onWrongVifAlert() {}
    virtual void onNoCacheAlert() {}
    virtual void onWholePktAlert() {}
    virtual void onSource() {}
    virtual void onGroup() {}
    virtual void onIntfId() {}
  };

  std::string_view typeName() const override { return "Wirly::MrtMessage"; }

  // Alert switches of the networking library's own users; the upcall
  // parsers neither read nor write them.
  bool wrongVifAlert() const { return wrongVifAlert_; }
  void wrongVifAlertIs(bool v) {
    if (Kiv::changed(wrongVifAlert_, v)) notify(&NotifieeConst::onWrongVifAlert);
  }
  bool noCacheAlert() const { return noCacheAlert_; }
  void noCacheAlertIs(bool v) {
    if (Kiv::changed(noCacheAlert_, v)) notify(&NotifieeConst::onNoCacheAlert);
  }
  bool wholePktAlert() const { return wholePktAlert_; }
  void wholePktAlertIs(bool v) {
    if (Kiv::changed(wholePktAlert_, v)) notify(&NotifieeConst::onWholePktAlert);
  }

  MrtMessageType msgType() const { return msgType_; }

  IpGenAddr const& source() const { return source_; }
  void sourceIs(IpGenAddr const& a) {
    if (Kiv::changed(source_, a)) notify(&NotifieeConst::onSource);
  }
  IpGenAddr const& group() const { return group_; }
  void groupIs(IpGenAddr const& a) {
    if (Kiv::changed(group_, a)) notify(&NotifieeConst::onGroup);
  }
  IntfId intfId() const { return intfId_; }
  void intfIdIs(IntfId id) {
    if (Kiv::changed(intfId_, id)) notify(&NotifieeConst::onIntfId);
  }

  // The data packet of a whole-packet upcall, without the kernel's header;
  // null for the other kinds.
  virtual Kiv::Ptr<Pkt> rcvdPkt() const { return nullptr; }

 protected:
  MrtMessage(Kiv::Name name, MrtMessageType type) : Kiv::Entity(std::move(name)), msgType_(type) {}

 private:
  bool wrongVifAlert_ = false;
  bool noCacheAlert_ = false;
  bool wholePktAlert_ = false;
  MrtMessageType const msgType_;
  IpGenAddr source_;
  IpGenAddr group_;
  IntfId intfId_;
};

}  // namespace Wirly
