#include "Wirly/IpFilter.h"

#include <ostream>

namespace Wirly {

std::ostream& operator<<(std::ostream& os, IpFilter const& f) {
  auto const flags = os.flags();
  os << "{ code=0x" << std::hex << f.code << std::dec << ", jt=" << unsigned(f.jt)
     << ", jf=" << unsigned(f.jf) << ", k=0x" << std::hex << f.k << " }";
  os.flags(flags);
  return os;
}

}  // namespace Wirly
