#include "MrouteLib/OifSet.h"

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "MrouteLib/Trace.h"

namespace MrouteLib {

OifSet::OifSet(MrouteTableColl* mrouteTable, PortVlanSet const& portVlanSet)
    : mrouteTable_(mrouteTable), portVlanSet_(portVlanSet) {
  handleInitialized();
}

OifSet::~OifSet() { handleDel(); }

void OifSet::handleInitialized() {
  KIV_TRACE(trace(), 9,
            "void MrouteLib::OifSet::handleInitialized()"
                << " " << portVlanSet_);
  KIV_ASSERT(!initialized());
  initialized_ = true;
  notify(&NotifieeConst::onInitialized);
  if (!mrouteTable_) return;
  // The assertion's text is what operators grep for: keep its spelling.
  // clang-format off
  KIV_ASSERT(!mrouteTable_->oifSetHas( portVlanSet() ));
  // clang-format on
  mrouteTable_->oifSetIs(portVlanSet_, OifSetPtr(this));
}

void OifSet::handleDel() {
  KIV_TRACE(trace(), 9,
            "void MrouteLib::OifSet::handleDel()"
                << " " << portVlanSet_);
  if (!mrouteTable_ || mrouteTable_->oifSetMap().empty()) return;
  // Only its own entry: a set that never got registered must not take a
  // live set's entry with it.
  if (mrouteTable_->oifSet(portVlanSet_).ptr() != this) return;
  mrouteTable_->oifSetDel(portVlanSet_);
}

OifSetPtr OifSetPtr::fromStrep(std::string_view text) {
  if (text.find("Value(") == std::string_view::npos) return OifSetPtr(Kiv::valueFromStrep<OifSet*>(text));
  Kiv::ValueReader r(text, "MrouteLib::OifSetPtr");
  OifSetPtr p(r.isNone("ptr") ? nullptr : r.get<OifSet*>("ptr"));
  r.done();
  return p;
}

}  // namespace MrouteLib
