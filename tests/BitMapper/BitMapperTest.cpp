#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "BitMapper/BitMapper.h"
#include "BitMapperTestUtil.h"

using namespace BitMapper;
using BitMapperTest::key;

namespace {

class ConfigRecorder : public Config::NotifieeConst {
 public:
  using Config::NotifieeConst::NotifieeConst;
  void onAllocRequestKey() override { ++keys; }
  void onAllocRequestCount() override { ++counts; }
  int keys = 0, counts = 0;
};

TEST(BitMapperConfig, CountsNotifyOnlyWhenTheyMoveAndWrap) {
  auto c = configFactory(8, 0x100);  // only the low 8 bits count
  EXPECT_FALSE(c->enableRefCount());
  EXPECT_TRUE(configFactory(8, 0x101)->enableRefCount());
  ConfigRecorder r(c);
  EXPECT_EQ(c->allocRequestCountInc(0), 0u);
  c->allocRequestCountIs(0);
  EXPECT_EQ(r.counts, 0);
  c->allocRequestCountIs(0xFFFFFFFFu);
  EXPECT_EQ(c->allocRequestCountInc(1), 0u);
  EXPECT_EQ(r.counts, 2);
  c->allocRequestKeyIs(key(1));
  c->allocRequestKeyIs(key(1));
  EXPECT_EQ(r.keys, 1);
}

class StatusRecorder : public Status::NotifieeConst {
 public:
  using Status::NotifieeConst::NotifieeConst;
  void onBitIndex(BitMapperKey k) override { keys.push_back(k); }
  void onBitIndex() override { ++all; }
  std::vector<BitMapperKey> keys;
  int all = 0;
};

TEST(BitMapperStatus, EditsNotifyOnlyRealChanges) {
  auto s = statusFactory();
  StatusRecorder r(s);
  s->bitIndexIs(key(1), BitIndex(3));
  s->bitIndexIs(key(1), BitIndex(3));
  EXPECT_EQ(s->bitIndexDel(key(2)), BitIndex::null());
  EXPECT_EQ(r.keys.size(), 1u);
  s->bitIndexIs(key(1), BitIndex(4));
  EXPECT_EQ(s->bitIndexDel(key(1)), BitIndex(4));
  EXPECT_EQ(r.keys.size(), 3u);
  s->bitIndexIs(key(5), BitIndex(5));
  s->bitIndexDelAll();
  s->bitIndexDelAll();
  EXPECT_EQ(r.all, 1);
  EXPECT_EQ(s->bitIndex(key(5)), BitIndex::null());
}

TEST(BitMapperValues, IndexValidityKeyOrderAndTextForms) {
  EXPECT_TRUE(BitIndex(0).isValid());
  EXPECT_TRUE(BitIndex(65533).isValid());
  EXPECT_FALSE(BitIndex(65534).isValid());
  EXPECT_FALSE(BitIndex::null().isValid());
  EXPECT_EQ(BitIndex(0x1000A), BitIndex(10));  // low 16 bits
  std::ostringstream os;
  os << BitIndex(42);
  EXPECT_EQ(os.str(), "42");

  EXPECT_LT(key(1), key(2));
  EXPECT_EQ(key(1).hash(), key(1).hash());
  EXPECT_NE(key(1).hash(), key(2).hash());
  EXPECT_EQ(BitMapperKey::fromStrep(key(7).valueToStrep()), key(7));
  EXPECT_TRUE(BitMapperKey() < key(0));

  EXPECT_EQ(BitIndexMap(), BitIndexMap(BitIndex::null(), BitMapperKey(), 0, true));
  EXPECT_NE(BitIndexMap(BitIndex(1), key(1), 1, true).valueToStrep().find("'firstAlloc': True"), std::string::npos);
}

std::vector<std::string> attrNames(Kiv::Entity const& e) {
  std::vector<std::string> out;
  for (Kiv::Attr const& a : Kiv::typeInfo(e).attrs()) out.push_back(a.name);
  return out;
}

TEST(BitMapperReflect, ConfigAndStatusListTheirAttributesInOrderAndGuardTheFixedOnes) {
  Kiv::Ptr<Config> c = configFactory(8, 1);
  EXPECT_EQ(attrNames(*c),
            (std::vector<std::string>{"bitMapSize", "bitMapMinIndex", "enableRefCount", "allocRequestKey",
                                      "allocRequestCount", "deallocRequestKey", "deallocRequestCount"}));
  EXPECT_THROW(Kiv::attrSet(*c, "bitMapSize", "9"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrSet(*c, "enableRefCount", "False"), Kiv::RangeException);
  EXPECT_EQ(Kiv::attrGet(*c, "enableRefCount"), "True");

  // A request filed by name is heard like one filed through the setters.
  ConfigRecorder r(c);
  std::string const k = key(3).valueToStrep();
  Kiv::attrSet(*c, "allocRequestKey", k);
  Kiv::attrSet(*c, "allocRequestCount", "1");
  Kiv::attrSet(*c, "allocRequestKey", k);
  EXPECT_EQ(c->allocRequestKey(), key(3));
  EXPECT_EQ(r.keys, 1);
  EXPECT_EQ(r.counts, 1);
  EXPECT_EQ(Kiv::attrGet(*c, "allocRequestKey"), k);
  EXPECT_THROW(Kiv::attrSet(*c, "allocRequestKey", "Value('BitMapper::BitMapperKey', ** {})"), Kiv::ParseException);
  EXPECT_EQ(c->allocRequestKey(), key(3));

  Kiv::Ptr<Status> s = statusFactory();
  EXPECT_EQ(attrNames(*s), (std::vector<std::string>{"bitIndex", "waitlistChangeCount"}));
}

// Status's open-addressed collection against a std::map through a long
// mix of inserts, replacements and removals in a table that grows from
// nothing: removal closes the gap in a run of neighbours, so every key
// must stay findable whatever was removed before it.
TEST(BitIndexColl, AgreesWithAMapThroughGrowthAndRemovals) {
  BitIndexColl c;
  std::map<BitMapperKey, BitIndex> m;
  std::uint32_t h = 99;
  auto check = [&] {
    ASSERT_EQ(c.size(), m.size());
    std::size_t walked = 0;
    for (auto const& [k, v] : c) {
      ++walked;
      auto it = m.find(k);
      ASSERT_NE(it, m.end());
      EXPECT_EQ(v, it->second);
    }
    EXPECT_EQ(walked, m.size());
  };
  for (unsigned step = 0; step < 20000; ++step) {
    h = h * 1103515245u + 12345u;
    // Few distinct keys while the table is small keep its runs long.
    BitMapperKey const k = key((h >> 8) % (step < 5000 ? 40 : 3000));
    BitIndex const v(std::uint16_t((h >> 4) % 1000));
    if ((h >> 20) % 3 == 0) {
      auto const removed = c.erase(k);
      auto it = m.find(k);
      ASSERT_EQ(removed.has_value(), it != m.end());
      if (it != m.end()) {
        EXPECT_EQ(*removed, it->second);
        m.erase(it);
      }
      EXPECT_EQ(c.find(k), nullptr);
    } else {
      auto [held, added] = c.tryEmplace(k, v);
      auto [it, mAdded] = m.try_emplace(k, v);
      ASSERT_EQ(added, mAdded);
      EXPECT_EQ(*held, it->second);
    }
    if (step % 997 == 0) check();
  }
  check();
  for (auto const& [k, v] : m) {
    ASSERT_NE(c.find(k), nullptr);
    EXPECT_EQ(c.find(k)->second, v);
  }
  c.clear();
  EXPECT_TRUE(c.empty());
  EXPECT_EQ(c.begin(), c.end());
  EXPECT_FALSE(c.erase(key(1)).has_value());
}

TEST(BitMapperReflect, StatusBitIndexWalkedByNameEqualsTheTypedWalk) {
  Kiv::Ptr<Status> s = statusFactory();
  for (unsigned i = 0; i < 5; ++i) s->bitIndexIs(key(i), BitIndex(10 + i));
  Kiv::attrEntryIs(*s, "bitIndex", key(7).valueToStrep(), "65534");
  EXPECT_EQ(s->bitIndex(key(7)), BitIndex::waitlist());
  Kiv::attrEntryDel(*s, "bitIndex", key(0).valueToStrep());
  EXPECT_EQ(Kiv::attrCount(*s, "bitIndex"), s->bitIndexs());
  EXPECT_FALSE(Kiv::attrHas(*s, "bitIndex", key(0).valueToStrep()));
  EXPECT_EQ(Kiv::attrLookup(*s, "bitIndex", key(0).valueToStrep()), "65535");  // null when absent
  std::vector<std::pair<std::string, std::string>> typed;
  for (auto const& [k, v] : s->bitIndexMap()) typed.emplace_back(k.valueToStrep(), std::to_string(v.value()));
  EXPECT_EQ(Kiv::attrEntries(*s, "bitIndex"), typed);
}

}  // namespace
