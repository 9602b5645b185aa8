// Lets Wirly's address values be arguments of BRISKLOG records: an address
// is stored as its raw bytes and printed by the decoder.
//
//   BRISKLOG("BitMapper", "allocated %u to %s", index, key.address());
#pragma once

#include <cstring>

#include "Brisklog/Brisklog.h"
#include "Wirly/IpGenAddr.h"

namespace Wirly {

// Found by argument-dependent lookup. The empty address prints as empty.
inline Brisklog::Addr brisklogArg(IpGenAddr const& a) {
  Brisklog::Addr out;
  std::size_t const n = a.byteLength();
  if (n == 4 || n == 16) {
    out.len = static_cast<std::uint8_t>(n);
    std::memcpy(out.bytes, a.bytes(), n);
  }
  return out;
}

}  // namespace Wirly
