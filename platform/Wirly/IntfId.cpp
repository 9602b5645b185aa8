#include "Wirly/IntfId.h"

#include <charconv>
#include <cstdio>
#include <ostream>

#include "Kiv/Exception.h"
#include "Kiv/Hash.h"
#include "Kiv/ValuePlain.h"
#include "Kiv/ValueText.h"

namespace Wirly {

namespace {

struct Kind {
  std::uint8_t code;
  std::string_view prefix;
  unsigned minNumbers;
  unsigned maxNumbers;
  std::uint32_t firstLo;  // range of the first number
  std::uint32_t firstHi;
};

// The codes are stored in shared memory and sent between processes: append,
// never renumber or reuse.
constexpr Kind kinds[] = {
    {1, "Ethernet", 1, 3, 0, 65535},
    {2, "Vlan", 1, 1, 1, 4094},
    {3, "Port-Channel", 1, 1, 0, 65535},
    {4, "Loopback", 1, 1, 0, 65535},
    {5, "Tunnel", 1, 1, 0, 65535},
    {6, "Register", 1, 1, 0, 65535},
    {7, "Management", 1, 2, 0, 65535},
    {8, "Cpu", 0, 0, 0, 0},
    {9, "Null", 1, 1, 0, 65535},
    {10, "Vxlan", 1, 1, 0, 65535},
    {11, "Recirc-Channel", 1, 1, 0, 65535},
};

constexpr int kindShift = 56;
constexpr int countShift = 48;
constexpr std::uint64_t numberMask = 0xffff;
// Bits that no valid id sets.
constexpr std::uint64_t reservedMask = 0x00fc000000000000ull;
constexpr std::string_view rawPrefix = "IntfId(0x";

Kind const* kindByCode(unsigned code) {
  for (Kind const& k : kinds) {
    if (k.code == code) return &k;
  }
  return nullptr;
}

Kind const* kindByPrefix(std::string_view prefix) {
  for (Kind const& k : kinds) {
    if (k.prefix == prefix) return &k;
  }
  return nullptr;
}

int numberShift(unsigned position) { return 32 - 16 * static_cast<int>(position); }

[[noreturn]] void notAName(std::string_view name, std::string const& why) {
  throw Kiv::RangeException("IntfId: '" + std::string(name) + "' " + why);
}

std::uint64_t encode(std::string_view name) {
  if (name.empty()) return 0;
  if (name.substr(0, rawPrefix.size()) == rawPrefix && name.back() == ')') {
    std::uint64_t raw = 0;
    char const* first = name.data() + rawPrefix.size();
    char const* last = name.data() + name.size() - 1;
    auto res = std::from_chars(first, last, raw, 16);
    if (res.ec == std::errc() && res.ptr == last && first != last) return raw;
    notAName(name, "is not an interface name");
  }
  std::size_t digitsAt = name.find_first_of("0123456789");
  std::string_view prefix = name.substr(0, digitsAt);
  Kind const* kind = kindByPrefix(prefix);
  if (!kind) notAName(name, "is not an interface name: unknown kind '" + std::string(prefix) + "'");

  std::uint64_t value = std::uint64_t(kind->code) << kindShift;
  unsigned count = 0;
  std::string_view rest = digitsAt == std::string_view::npos ? std::string_view() : name.substr(digitsAt);
  while (!rest.empty()) {
    std::size_t slash = rest.find('/');
    std::string_view digits = rest.substr(0, slash);
    bool allDigits = !digits.empty() && digits.find_first_not_of("0123456789") == std::string_view::npos;
    if (!allDigits || (digits.size() > 1 && digits[0] == '0') ||
        (slash != std::string_view::npos && slash + 1 == rest.size())) {
      notAName(name, "is not an interface name");
    }
    if (count == kind->maxNumbers) {
      notAName(name, "has more than " + std::to_string(kind->maxNumbers) + " numbers");
    }
    std::uint32_t lo = count == 0 ? kind->firstLo : 0;
    std::uint32_t hi = count == 0 ? kind->firstHi : 65535;
    std::uint64_t n = 0;
    auto res = std::from_chars(digits.data(), digits.data() + digits.size(), n);
    if (res.ec != std::errc() || n < lo || n > hi) {
      notAName(name,
               "has number " + std::string(digits) + " out of range " + std::to_string(lo) + ".." + std::to_string(hi));
    }
    value |= n << numberShift(count);
    ++count;
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
  }
  if (count < kind->minNumbers) notAName(name, "is not an interface name: number missing");
  return value | (std::uint64_t(count) << countShift);
}

}  // namespace

IntfId::IntfId(std::string_view name) : value_(encode(name)) {}

bool IntfId::valid() const {
  if (value_ == 0) return true;
  Kind const* kind = kindByCode(unsigned(value_ >> kindShift));
  if (!kind || (value_ & reservedMask)) return false;
  unsigned count = unsigned(value_ >> countShift) & 3;
  if (count < kind->minNumbers || count > kind->maxNumbers) return false;
  for (unsigned i = 0; i < 3; ++i) {
    std::uint64_t n = (value_ >> numberShift(i)) & numberMask;
    if (i >= count && n != 0) return false;
    if (i == 0 && count > 0 && (n < kind->firstLo || n > kind->firstHi)) return false;
  }
  return true;
}

std::string IntfId::name() const {
  if (value_ == 0) return std::string();
  if (!valid()) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "IntfId(0x%llx)", static_cast<unsigned long long>(value_));
    return buf;
  }
  Kind const* kind = kindByCode(unsigned(value_ >> kindShift));
  std::string s(kind->prefix);
  unsigned count = unsigned(value_ >> countShift) & 3;
  for (unsigned i = 0; i < count; ++i) {
    if (i) s += '/';
    s += std::to_string((value_ >> numberShift(i)) & numberMask);
  }
  return s;
}

std::uint64_t IntfId::hash() const {
  Kiv::HashAccumulator h;
  h.mix64(value_);
  return h.result();
}

std::string IntfId::valueToStrep() const { return Kiv::ValueWriter("Wirly::IntfId").field("intfId", name()).str(); }

IntfId IntfId::fromStrep(std::string_view text) {
  Kiv::ValueReader r(text, "Wirly::IntfId");
  std::string name = r.get<std::string>("intfId");
  r.done();
  return IntfId(name);
}

std::ostream& operator<<(std::ostream& os, IntfId id) { return os << id.name(); }

namespace {
// Shown by its name; no interface is none.
Kiv::PlainForm const intfIdPlainForm("Wirly::IntfId", [](Kiv::ValueReader const& r) {
  std::string s = r.get<std::string>("intfId");
  return s.empty() ? Kiv::Plain::none() : Kiv::Plain::string(std::move(s));
});
}  // namespace

}  // namespace Wirly
