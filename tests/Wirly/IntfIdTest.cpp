#include "Wirly/IntfId.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <unordered_set>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/ValueText.h"

namespace {

using Wirly::IntfId;

std::vector<std::string> const names = {
    "Ethernet1",       "Ethernet3/1",   "Ethernet3/1/2", "Ethernet3",
    "Ethernet3/0",     "Ethernet3/0/0", "Ethernet0",     "Ethernet65535/65535/65535",
    "Vlan1",           "Vlan100",       "Vlan4094",      "Port-Channel10",
    "Loopback0",       "Tunnel5",       "Register0",     "Management1",
    "Management1/1",   "Cpu",           "Null0",         "Vxlan1",
    "Recirc-Channel1",
};

// The range error's message for name, or "" when the name is accepted.
std::string rangeError(std::string const& name) {
  try {
    IntfId id(name);
  } catch (Kiv::RangeException const& e) {
    return e.what();
  }
  return "";
}

TEST(IntfIdTest, NamesRoundTripAndAreDistinct) {
  std::unordered_set<std::uint64_t> values;
  for (auto const& n : names) {
    IntfId id(n);
    EXPECT_EQ(id.name(), n);
    EXPECT_TRUE(id.valid()) << n;
    EXPECT_FALSE(id.empty()) << n;
    values.insert(id.value());
  }
  EXPECT_EQ(values.size(), names.size());
}

TEST(IntfIdTest, EmptyNameIsTheEmptyId) {
  EXPECT_EQ(IntfId(""), IntfId());
  EXPECT_EQ(IntfId().value(), 0u);
  EXPECT_EQ(IntfId().name(), "");
  EXPECT_TRUE(IntfId().empty());
}

// The numbers are stored in shared memory and sent in messages: a change of
// encoding breaks every other process, so the format is pinned here.
TEST(IntfIdTest, EncodingIsFixed) {
  EXPECT_EQ(IntfId("Ethernet1").value(), 0x0101000100000000ull);
  EXPECT_EQ(IntfId("Ethernet3/1/2").value(), 0x0103000300010002ull);
  EXPECT_EQ(IntfId("Vlan100").value(), 0x0201006400000000ull);
  EXPECT_EQ(IntfId("Cpu").value(), 0x0800000000000000ull);
  EXPECT_EQ(IntfId("Recirc-Channel1").value(), 0x0b01000100000000ull);
  EXPECT_EQ(IntfId(0x0102000300010000ull).name(), "Ethernet3/1");
}

TEST(IntfIdTest, SameIdsInAnotherProcess) {
  // The child names the interfaces in the opposite order: an id handed out
  // in order of first use would differ.
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    close(fds[0]);
    std::vector<std::uint64_t> values;
    for (auto it = names.rbegin(); it != names.rend(); ++it) values.push_back(IntfId(*it).value());
    std::reverse(values.begin(), values.end());
    ssize_t n = write(fds[1], values.data(), values.size() * sizeof values[0]);
    _exit(n == ssize_t(values.size() * sizeof values[0]) ? 0 : 1);
  }
  close(fds[1]);
  std::vector<std::uint64_t> child(names.size());
  std::size_t got = 0;
  while (got < child.size() * sizeof child[0]) {
    ssize_t n = read(fds[0], reinterpret_cast<char*>(child.data()) + got, child.size() * sizeof child[0] - got);
    if (n <= 0) break;
    got += std::size_t(n);
  }
  close(fds[0]);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ASSERT_EQ(got, child.size() * sizeof child[0]);
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(child[i], IntfId(names[i]).value()) << names[i];
  }
}

TEST(IntfIdTest, OrdersByKindThenNumerically) {
  EXPECT_LT(IntfId("Ethernet2"), IntfId("Ethernet10"));
  EXPECT_LT(IntfId("Ethernet3/2"), IntfId("Ethernet3/10"));
  EXPECT_LT(IntfId("Ethernet3/1"), IntfId("Ethernet3/1/0"));
  EXPECT_LT(IntfId("Ethernet65535"), IntfId("Vlan1"));
  EXPECT_LT(IntfId(), IntfId("Ethernet0"));
}

TEST(IntfIdTest, RefusesUnknownAndMalformedNames) {
  EXPECT_EQ(rangeError("Foo1"), "IntfId: 'Foo1' is not an interface name: unknown kind 'Foo'");
  EXPECT_EQ(rangeError("ethernet1"), "IntfId: 'ethernet1' is not an interface name: unknown kind 'ethernet'");
  EXPECT_EQ(rangeError("Ethernet"), "IntfId: 'Ethernet' is not an interface name: number missing");
  EXPECT_EQ(rangeError("Cpu1"), "IntfId: 'Cpu1' has more than 0 numbers");
  EXPECT_EQ(rangeError("Ethernet1/2/3/4"), "IntfId: 'Ethernet1/2/3/4' has more than 3 numbers");
  EXPECT_EQ(rangeError("Vlan2/1"), "IntfId: 'Vlan2/1' has more than 1 numbers");
  EXPECT_EQ(rangeError("Ethernet65536"), "IntfId: 'Ethernet65536' has number 65536 out of range 0..65535");
  EXPECT_EQ(rangeError("Ethernet1/99999999999999999999"),
            "IntfId: 'Ethernet1/99999999999999999999' has number 99999999999999999999 out of range "
            "0..65535");
  EXPECT_EQ(rangeError("Vlan0"), "IntfId: 'Vlan0' has number 0 out of range 1..4094");
  EXPECT_EQ(rangeError("Vlan4095"), "IntfId: 'Vlan4095' has number 4095 out of range 1..4094");
  for (char const* bad : {"Ethernet01", "Ethernet1/", "Ethernet1//2", "Ethernet1a", "Ethernet1 ", "Ethernet1-2",
                          "Ethernet1/02", "IntfId(0x)", "IntfId(0xzz)"}) {
    EXPECT_EQ(rangeError(bad), "IntfId: '" + std::string(bad) + "' is not an interface name") << bad;
  }
}

TEST(IntfIdTest, UndecodableRawValuesKeepTheirValue) {
  for (std::uint64_t raw :
       {0xff00000000000000ull, 0x0100000100000000ull /* no count */, 0x0101000100000005ull /* number past count */,
        0x0201000000000000ull /* Vlan0 */, 0x0141000100000000ull /* reserved bit */}) {
    IntfId id(raw);
    EXPECT_FALSE(id.valid()) << std::hex << raw;
    EXPECT_EQ(IntfId(id.name()), id) << id.name();
  }
  EXPECT_EQ(IntfId(0xff00000000000000ull).name(), "IntfId(0xff00000000000000)");
}

TEST(IntfIdTest, PrintsAndHasTextForm) {
  std::ostringstream os;
  os << IntfId("Port-Channel10") << "|" << IntfId();
  EXPECT_EQ(os.str(), "Port-Channel10|");
  EXPECT_EQ(Kiv::valueToStrep(IntfId("Ethernet3/1")), "Value('Wirly::IntfId', ** {'intfId': 'Ethernet3/1'})");
  for (auto const& n : names) {
    EXPECT_EQ(Kiv::valueFromStrep<IntfId>(Kiv::valueToStrep(IntfId(n))), IntfId(n));
  }
  EXPECT_EQ(Kiv::valueFromStrep<IntfId>(Kiv::valueToStrep(IntfId())), IntfId());
  EXPECT_THROW(Kiv::valueFromStrep<IntfId>("Value('Wirly::IntfId', ** {'intfId': 'Bogus1'})"), Kiv::RangeException);
  EXPECT_THROW(Kiv::valueFromStrep<IntfId>("Value('Wirly::IntfId', ** {'name': 'Ethernet1'})"), Kiv::ParseException);
}

}  // namespace
