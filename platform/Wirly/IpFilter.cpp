#include "Wirly/IpFilter.h"

#include <ostream>

#include "Kiv/ValueText.h"

namespace Wirly {

std::ostream& operator<<(std::ostream& os, IpFilter const& f) {
  auto const flags = os.flags();
  os << "{ code=0x" << std::hex << f.code << std::dec << ", jt=" << unsigned(f.jt) << ", jf=" << unsigned(f.jf)
     << ", k=0x" << std::hex << f.k << " }";
  os.flags(flags);
  return os;
}

std::string IpFilter::valueToStrep() const {
  return Kiv::ValueWriter("Wirly::IpFilter").field("code", code).field("jt", jt).field("jf", jf).field("k", k).str();
}

IpFilter IpFilter::fromStrep(std::string_view text) {
  Kiv::ValueReader r(text, "Wirly::IpFilter");
  IpFilter f{r.get<std::uint16_t>("code"), r.get<std::uint8_t>("jt"), r.get<std::uint8_t>("jf"),
             r.get<std::uint32_t>("k")};
  r.done();
  return f;
}

}  // namespace Wirly
