// Wirly::IpFilter: one classic BPF instruction (struct sock_filter): a
// 16-bit opcode, the two jump offsets taken when a test is true or false,
// and the 32-bit constant. Equal when all four fields are.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Wirly {

struct IpFilter {
  std::uint16_t code = 0;
  std::uint8_t jt = 0;
  std::uint8_t jf = 0;
  std::uint32_t k = 0;

  friend bool operator==(IpFilter const&, IpFilter const&) = default;

  // Value('Wirly::IpFilter', ** {'code': 21, 'jt': 1, 'jf': 0, 'k': 24576})
  std::string valueToStrep() const;
  static IpFilter fromStrep(std::string_view text);
};

// "{ code=0x15, jt=1, jf=0, k=0x6000 }"
std::ostream& operator<<(std::ostream& os, IpFilter const& f);

}  // namespace Wirly
