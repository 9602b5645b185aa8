#include <gtest/gtest.h>

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

}  // namespace
