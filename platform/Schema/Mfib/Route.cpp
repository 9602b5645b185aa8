#include "Schema/Mfib/Route.h"

#include <bit>
#include <sstream>

#include "Kiv/Exception.h"
#include "Kiv/ValuePlain.h"
#include "Kiv/ValueText.h"
#include "Schema/Mfib/RoutePlain.h"

namespace Vorn::Multicast::Fib {

static_assert(std::is_trivially_copyable_v<Route>);
static_assert(sizeof(IpGenRouteKey) == 36, "the route key's layout is shared by every process");

void Route::oifIs(OifIndex i, bool member) {
  if (i.isEnd()) throw Kiv::RangeException("OifIndex " + std::to_string(i.value()) + " outside 0..511");
  std::uint64_t const bit = std::uint64_t(1) << (i.value() % 64);
  if (member) {
    oifs_[i.value() / 64] |= bit;
    if (lastOif_.isEnd() || lastOif_ < i) lastOif_ = i;
  } else {
    oifs_[i.value() / 64] &= ~bit;
    if (lastOif_ == i) {
      lastOif_ = OifIndex::end();
      for (unsigned w = 8; w-- > 0;) {
        if (oifs_[w]) {
          lastOif_ = OifIndex(static_cast<std::uint16_t>(w * 64 + 63 - std::countl_zero(oifs_[w])));
          break;
        }
      }
    }
  }
}

void Route::oifDelAll() {
  for (auto& w : oifs_) w = 0;
  lastOif_ = OifIndex::end();
}

std::uint32_t Route::oifs() const {
  std::uint32_t n = 0;
  for (auto w : oifs_) n += static_cast<std::uint32_t>(std::popcount(w));
  return n;
}

OifIndex Route::nextMember(unsigned from) const {
  if (from >= OifIndex::endValue) return OifIndex::end();
  unsigned w = from / 64;
  std::uint64_t bits = oifs_[w] & (~std::uint64_t(0) << (from % 64));
  for (;;) {
    if (bits) return OifIndex(static_cast<std::uint16_t>(w * 64 + std::countr_zero(bits)));
    if (++w == 8) return OifIndex::end();
    bits = oifs_[w];
  }
}

OifIndex OifIndex::fromStrep(std::string_view text) { return OifIndex(Kiv::valueFromStrep<std::uint16_t>(text)); }

RpaIndex RpaIndex::fromStrep(std::string_view text) { return RpaIndex(Kiv::valueFromStrep<std::uint32_t>(text)); }

std::string OifIndexIntf::valueToStrep() const {
  Kiv::ValueWriter w("Vorn::Multicast::Fib::OifIndexIntf");
  w.field("oifIndex", oifIndex_).field("intfId", intfId_);
  return w.str();
}

std::ostream& operator<<(std::ostream& os, OifIndexIntf const& e) {
  return os << "oifIndex " << e.oifIndex() << " intf " << e.intfId();
}

namespace {
std::string oifText(Route const& r) {
  std::ostringstream os;
  os << "{";
  char const* sep = "";
  for (OifIndex i = r.firstOif(); !i.isEnd(); i = r.nextOif(i)) {
    os << sep << i;
    sep = ", ";
  }
  os << "}";
  return os.str();
}
}  // namespace

std::string Route::valueToStrep() const {
  Kiv::ValueWriter w("Vorn::Multicast::Fib::Route");
  w.fieldRaw("key", key_.valueToStrep())
      .fieldRaw("specialIntf1", specialIntf1_.valueToStrep())
      .fieldRaw("specialIntf2", specialIntf2_.valueToStrep())
      .fieldRaw("specialIntf3", specialIntf3_.valueToStrep())
      .fieldRaw("specialIntf4", specialIntf4_.valueToStrep())
      .field("flags", flags_)
      .field("priority", unsigned(priority_.value()))
      .field("version", version_)
      .field("rpaIndex", rpaIndex_.value())
      .field("oif", oifText(*this));
  return w.str();
}

std::ostream& operator<<(std::ostream& os, Route const& r) {
  return printRoute(os, r, [](std::ostream& o, OifIndex i) { o << i; });
}

std::ostream& printRoute(std::ostream& os, Route const& r,
                         std::function<void(std::ostream&, OifIndex)> const& printOif) {
  os << r.key() << " priority " << r.priority() << " version " << r.version();
  if (r.specialIntf1() != Wirly::IntfId()) os << " intf1 " << r.specialIntf1();
  if (r.specialIntf2() != Wirly::IntfId()) os << " intf2 " << r.specialIntf2();
  if (r.specialIntf3() != Wirly::IntfId()) os << " intf3 " << r.specialIntf3();
  if (r.specialIntf4() != Wirly::IntfId()) os << " intf4 " << r.specialIntf4();
  if (r.flags()) os << " flags 0x" << std::hex << r.flags() << std::dec;
  os << " oif {";
  char const* sep = "";
  for (OifIndex i = r.firstOif(); !i.isEnd(); i = r.nextOif(i)) {
    os << sep;
    printOif(os, i);
    sep = ", ";
  }
  return os << "}";
}

Kiv::Plain routePlain(Route const& r, std::function<Kiv::Plain(OifIndex)> const& oif) {
  Kiv::Plain const key = routeKeyPlain(r.key());
  Kiv::Plain p = Kiv::Plain::object();
  p.field("key", key);
  std::string text =
      key.text() + " priority " + std::to_string(r.priority().value()) + " version " + std::to_string(r.version());
  Wirly::IntfId const intfs[] = {r.specialIntf1(), r.specialIntf2(), r.specialIntf3(), r.specialIntf4()};
  for (int i = 0; i < 4; ++i) {
    std::string const name = "intf" + std::to_string(i + 1);
    p.field(name, intfs[i].empty() ? Kiv::Plain::none() : Kiv::Plain::string(intfs[i].name()));
    if (!intfs[i].empty()) text += " " + name + " " + intfs[i].name();
  }
  p.field("flags", Kiv::Plain::number(r.flags()))
      .field("priority", Kiv::Plain::number(unsigned(r.priority().value())))
      .field("version", Kiv::Plain::number(r.version()))
      .field("rpaIndex", Kiv::Plain::number(r.rpaIndex().value()));
  if (r.flags()) {
    std::ostringstream hex;
    hex << std::hex << r.flags();
    text += " flags 0x" + hex.str();
  }
  Kiv::Plain oifs = Kiv::Plain::list();
  text += " oif {";
  for (OifIndex i = r.firstOif(); !i.isEnd(); i = r.nextOif(i)) {
    Kiv::Plain o = oif(i);
    text += (oifs.elements().empty() ? "" : ", ") + o.text();
    oifs.add(std::move(o));
  }
  p.field("oifs", std::move(oifs));
  return p.textIs(text + "}");
}

namespace {

// The indices of the text form's "{1, 2}".
void oifsFromText(Route& r, std::string_view t) {
  std::size_t i = 0;
  while (i < t.size()) {
    if (t[i] < '0' || t[i] > '9') {
      ++i;
      continue;
    }
    std::size_t j = i;
    while (j < t.size() && t[j] >= '0' && t[j] <= '9') ++j;
    r.oifIs(OifIndex::fromStrep(t.substr(i, j - i)), true);
    i = j;
  }
}

Kiv::PlainForm const routePlainForm("Vorn::Multicast::Fib::Route", [](Kiv::ValueReader const& f) {
  Route r(IpGenRouteKey::fromStrep(f.raw("key")));
  r.specialIntf1Is(f.get<Wirly::IntfId>("specialIntf1"));
  r.specialIntf2Is(f.get<Wirly::IntfId>("specialIntf2"));
  r.specialIntf3Is(f.get<Wirly::IntfId>("specialIntf3"));
  r.specialIntf4Is(f.get<Wirly::IntfId>("specialIntf4"));
  r.flagsIs(f.get<std::uint32_t>("flags"));
  r.priorityIs(RoutePriority(f.get<std::uint8_t>("priority")));
  r.versionIs(f.get<std::uint32_t>("version"));
  r.rpaIndexIs(RpaIndex(f.get<std::uint32_t>("rpaIndex")));
  oifsFromText(r, f.get<std::string>("oif"));
  return routePlain(r, [](OifIndex i) { return Kiv::Plain::number(i.value()); });
});

}  // namespace

}  // namespace Vorn::Multicast::Fib
