// A small entity written the way every entity of the library is: attributes
// with setters that notify only on a real change, a keyed collection with
// Is/Del/DelAll, and a NotifieeConst with one hook per attribute.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Kiv/Entity.h"

namespace KivTest {

class Port : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Port> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onSpeed() {}
    virtual void onDescription() {}
    virtual void onVlan(std::uint16_t) {}
  };

  static Kiv::Ptr<Port> PortIs(Kiv::Name name) { return new Port(std::move(name)); }
  std::string_view typeName() const override { return "KivTest::Port"; }

  std::uint32_t speed() const { return speed_; }
  void speedIs(std::uint32_t s) {
    if (Kiv::changed(speed_, s)) notify(&NotifieeConst::onSpeed);
  }

  std::string const& description() const { return description_; }
  void descriptionIs(std::string const& d) {
    if (Kiv::changed(description_, d)) notify(&NotifieeConst::onDescription);
  }

  // VLAN to its tag mode; 0 is the absent value.
  std::uint8_t vlan(std::uint16_t v) const {
    auto it = vlan_.find(v);
    return it == vlan_.end() ? 0 : it->second;
  }
  void vlanIs(std::uint16_t v, std::uint8_t mode) {
    if (mode == 0) {
      vlanDel(v);
      return;
    }
    auto [it, added] = vlan_.try_emplace(v, mode);
    if (!added && !Kiv::changed(it->second, mode)) return;
    notify(&NotifieeConst::onVlan, v);
  }
  std::uint8_t vlanDel(std::uint16_t v) {
    auto it = vlan_.find(v);
    if (it == vlan_.end()) return 0;
    std::uint8_t old = it->second;
    vlan_.erase(it);
    notify(&NotifieeConst::onVlan, v);
    return old;
  }
  void vlanDelAll() {
    while (!vlan_.empty()) vlanDel(vlan_.begin()->first);
  }
  std::size_t vlans() const { return vlan_.size(); }

 private:
  explicit Port(Kiv::Name name) : Kiv::Entity(std::move(name)) {}

  std::uint32_t speed_ = 0;
  std::string description_;
  std::map<std::uint16_t, std::uint8_t> vlan_;
};

}  // namespace KivTest
