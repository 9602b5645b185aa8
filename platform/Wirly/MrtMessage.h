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
#include "Kiv/Reflect.h"
#include "Kiv/ValueText.h"
#include "Wirly/IntfId.h"
#include "Wirly/IpGenAddr.h"
#include "Wirly/Pkt.h"

namespace Wirly {

enum class MrtMessageType : std::uint8_t { none = 0, igmpNoCache = 1, igmpWrongVif = 2, igmpWholePkt = 3 };

std::ostream& operator<<(std::ostream& os, MrtMessageType t);
// The inverse of operator<< for the four names; Kiv::ParseException otherwise.
MrtMessageType mrtMessageTypeFromName(std::string_view name);

}  // namespace Wirly

// Its text form is the quoted name ('igmpNoCache').
template <>
struct Kiv::ValueText<Wirly::MrtMessageType> {
  static std::string toStrep(Wirly::MrtMessageType t);
  static Wirly::MrtMessageType fromStrep(std::string_view text) {
    return Wirly::mrtMessageTypeFromName(valueFromStrep<std::string>(text));
  }
};

namespace Wirly {

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

  KIV_REFLECT_BEGIN(MrtMessage, "Wirly::MrtMessage")

  // Alert switches of the networking library's own users; the upcall
  // parsers neither read nor write them.
  bool wrongVifAlert() const { return wrongVifAlert_; }
  void wrongVifAlertIs(bool v) {
    if (Kiv::changed(wrongVifAlert_, v)) notify(&NotifieeConst::onWrongVifAlert);
  }
  KIV_REFLECT_SCALAR(wrongVifAlert)
  bool noCacheAlert() const { return noCacheAlert_; }
  void noCacheAlertIs(bool v) {
    if (Kiv::changed(noCacheAlert_, v)) notify(&NotifieeConst::onNoCacheAlert);
  }
  KIV_REFLECT_SCALAR(noCacheAlert)
  bool wholePktAlert() const { return wholePktAlert_; }
  void wholePktAlertIs(bool v) {
    if (Kiv::changed(wholePktAlert_, v)) notify(&NotifieeConst::onWholePktAlert);
  }
  KIV_REFLECT_SCALAR(wholePktAlert)

  MrtMessageType msgType() const { return msgType_; }
  KIV_REFLECT_SCALAR_RO(msgType)

  IpGenAddr const& source() const { return source_; }
  void sourceIs(IpGenAddr const& a) {
    if (Kiv::changed(source_, a)) notify(&NotifieeConst::onSource);
  }
  KIV_REFLECT_SCALAR(source)
  IpGenAddr const& group() const { return group_; }
  void groupIs(IpGenAddr const& a) {
    if (Kiv::changed(group_, a)) notify(&NotifieeConst::onGroup);
  }
  KIV_REFLECT_SCALAR(group)
  IntfId intfId() const { return intfId_; }
  void intfIdIs(IntfId id) {
    if (Kiv::changed(intfId_, id)) notify(&NotifieeConst::onIntfId);
  }
  KIV_REFLECT_SCALAR(intfId)
  KIV_REFLECT_END

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
