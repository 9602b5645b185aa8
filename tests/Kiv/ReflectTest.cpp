#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Kiv/Dir.h"
#include "Kiv/Entity.h"
#include "Kiv/Reflect.h"

namespace {

// An entity that uses every form of declaration, in a mixed order, so that
// the reflective order is seen to follow the class and not the kind.
class Link : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Link> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onSpeed() {}
    virtual void onLabel() {}
    virtual void onVlan(std::uint16_t) {}
  };

  static Kiv::Ptr<Link> LinkIs(Kiv::Name name, std::uint32_t mtu) { return new Link(std::move(name), mtu); }

  KIV_REFLECT_BEGIN(Link, "KivTest::Link")
  KIV_ATTR(std::uint32_t, speed, onSpeed, 0)
  std::uint32_t mtu() const { return mtu_; }
  KIV_REFLECT_SCALAR_RO(mtu)
  KIV_REFLECT_OPERATION(handleReset)
  KIV_ATTR(std::string, label, onLabel, "")

  std::string vlan(std::uint16_t v) const {
    auto it = vlan_.find(v);
    return it == vlan_.end() ? std::string() : it->second;
  }
  void vlanIs(std::uint16_t v, std::string const& mode) {
    if (vlan_[v] == mode) return;
    vlan_[v] = mode;
    notify(&NotifieeConst::onVlan, v);
  }
  void vlanDel(std::uint16_t v) {
    if (vlan_.erase(v) != 0) notify(&NotifieeConst::onVlan, v);
  }
  std::size_t vlans() const { return vlan_.size(); }
  std::map<std::uint16_t, std::string> const& vlanMap() const { return vlan_; }
  KIV_REFLECT_COLLECTION(vlan, std::uint16_t, vlans(), vlan_)

  Kiv::Ptr<Link> peer() const { return peer_; }
  void peerIs(Kiv::Ptr<Link> const& p) { peer_ = p; }
  KIV_REFLECT_SCALAR(peer)

  std::uint32_t resets() const { return resets_; }
  KIV_REFLECT_COUNTER_RO(resets)

  std::uint32_t scale(std::uint32_t a, std::string const& why) {
    lastWhy = why;
    return a * speed();
  }
  KIV_REFLECT_OPERATION(scale)

  // A counter with a setter only: stepped by name through the setter.
  std::uint8_t drops() const { return drops_; }
  void dropsIs(std::uint8_t d) {
    if (Kiv::changed(drops_, d)) notify(&NotifieeConst::onSpeed);
  }
  KIV_REFLECT_COUNTER(drops)
  KIV_REFLECT_END

  void handleReset() { ++resets_; }
  std::string lastWhy;

 private:
  Link(Kiv::Name name, std::uint32_t mtu) : Kiv::Entity(std::move(name)), mtu_(mtu) {}
  std::uint32_t mtu_;
  std::map<std::uint16_t, std::string> vlan_;
  Kiv::Ptr<Link> peer_;
  std::uint32_t resets_ = 0;
  std::uint8_t drops_ = 0;
};

class Counting : public Link::NotifieeConst {
 public:
  using Link::NotifieeConst::NotifieeConst;
  void onSpeed() override { ++speeds; }
  void onVlan(std::uint16_t v) override { vlans.push_back(v); }
  int speeds = 0;
  std::vector<std::uint16_t> vlans;
};

std::vector<std::string> names(Kiv::Entity const& e) {
  std::vector<std::string> out;
  for (Kiv::Attr const& a : Kiv::typeInfo(e).attrs()) out.push_back(a.name);
  return out;
}

class Reflect : public ::testing::Test {
 protected:
  Kiv::Ptr<Link> link = Link::LinkIs("eth1", 9000);
  Counting heard{link};
};

TEST_F(Reflect, ListsAttributesInDeclarationOrderWithKindTypeAndWritability) {
  EXPECT_EQ(link->typeName(), "KivTest::Link");
  EXPECT_EQ(names(*link), (std::vector<std::string>{"speed", "mtu", "handleReset", "label", "vlan", "peer", "resets",
                                                    "scale", "drops"}));
  auto const& info = Kiv::typeInfo(*link);
  EXPECT_EQ(info.attr("speed")->valueType, "U32");
  EXPECT_TRUE(info.attr("speed")->writable);
  EXPECT_FALSE(info.attr("mtu")->writable);
  EXPECT_EQ(info.attr("vlan")->kind, Kiv::AttrKind::collection);
  EXPECT_EQ(info.attr("vlan")->keyType, "U16");
  EXPECT_EQ(info.attr("peer")->kind, Kiv::AttrKind::pointer);
  EXPECT_EQ(info.attr("resets")->kind, Kiv::AttrKind::counter);
  EXPECT_EQ(info.attr("scale")->valueType, "(U32, string) -> U32");
  // One description per type, shared by every entity of it.
  EXPECT_EQ(&info, &Kiv::typeInfo(*Link::LinkIs("eth2", 1500)));
}

TEST_F(Reflect, SetGoesThroughTheTypedSetterAndNotifiesOnlyRealChanges) {
  Kiv::attrSet(*link, "speed", "100");
  EXPECT_EQ(link->speed(), 100u);
  Kiv::attrSet(*link, "speed", " 100 ");
  EXPECT_EQ(heard.speeds, 1);
  EXPECT_EQ(Kiv::attrGet(*link, "speed"), "100");
  Kiv::attrSet(*link, "label", "'it\\'s up'");
  EXPECT_EQ(link->label(), "it's up");
  EXPECT_EQ(Kiv::attrGet(*link, "label"), "'it\\'s up'");
}

TEST_F(Reflect, RefusesReadOnlyUnknownAndMalformedWithTheTypeAndAttributeNamed) {
  try {
    Kiv::attrSet(*link, "mtu", "1500");
    FAIL();
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(), "KivTest::Link::mtu is read-only");
  }
  EXPECT_EQ(link->mtu(), 9000u);
  EXPECT_THROW(Kiv::attrSet(*link, "resets", "3"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrGet(*link, "nosuch"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrGet(*link, "vlan"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrCount(*link, "speed"), Kiv::RangeException);
  for (char const* bad : {"-1", "4294967296", "ten", "'10'", ""}) {
    EXPECT_THROW(Kiv::attrSet(*link, "speed", bad), Kiv::ParseException) << bad;
  }
  EXPECT_EQ(heard.speeds, 0);
  try {
    Kiv::attrSet(*link, "speed", "ten");
  } catch (Kiv::ParseException const& e) {
    EXPECT_EQ(std::string(e.what()).rfind("KivTest::Link::speed: ", 0), 0u) << e.what();
  }
  // A plain entity has nothing to list.
  class Plain : public Kiv::Entity {};
  Kiv::Ptr<Plain> plain = new Plain();
  EXPECT_THROW(Kiv::typeInfo(*plain), Kiv::RangeException);
}

TEST_F(Reflect, CollectionLookupEditCountAndWalkMatchTheTypedView) {
  Kiv::attrEntryIs(*link, "vlan", "10", "'tagged'");
  Kiv::attrEntryIs(*link, "vlan", "20", "'untagged'");
  Kiv::attrEntryIs(*link, "vlan", "10", "'tagged'");
  EXPECT_EQ(heard.vlans, (std::vector<std::uint16_t>{10, 20}));
  EXPECT_EQ(Kiv::attrCount(*link, "vlan"), 2u);
  EXPECT_TRUE(Kiv::attrHas(*link, "vlan", "20"));
  EXPECT_FALSE(Kiv::attrHas(*link, "vlan", "30"));
  EXPECT_EQ(Kiv::attrLookup(*link, "vlan", "20"), "'untagged'");
  EXPECT_EQ(Kiv::attrLookup(*link, "vlan", "30"), "''");  // the absent value
  std::vector<std::pair<std::string, std::string>> typed;
  for (auto const& [k, v] : link->vlanMap()) typed.emplace_back(std::to_string(k), "'" + v + "'");
  EXPECT_EQ(Kiv::attrEntries(*link, "vlan"), typed);
  Kiv::attrEntryDel(*link, "vlan", "10");
  Kiv::attrEntryDel(*link, "vlan", "10");
  EXPECT_EQ(link->vlans(), 1u);
  EXPECT_EQ(heard.vlans.size(), 3u);
  EXPECT_THROW(Kiv::attrEntryIs(*link, "vlan", "70000", "'x'"), Kiv::ParseException);
}

TEST_F(Reflect, PointersPrintTheEntityAndLeadToIt) {
  EXPECT_EQ(Kiv::attrGet(*link, "peer"), "None");
  Kiv::Ptr<Link> other = Link::LinkIs("eth2", 1500);
  link->peerIs(other);
  EXPECT_EQ(Kiv::attrGet(*link, "peer"), "Entity('KivTest::Link', 'eth2')");
  EXPECT_EQ(Kiv::attrOf(*link, "peer").entity(*link).ptr(), other.ptr());
  // An entity has no text form; None is the one pointer text, and removes.
  EXPECT_THROW(Kiv::attrSet(*link, "peer", "Entity('KivTest::Link', 'eth2')"), Kiv::ParseException);
  EXPECT_EQ(link->peer().ptr(), other.ptr());
  Kiv::attrSet(*link, "peer", "None");
  EXPECT_EQ(link->peer().ptr(), nullptr);
}

TEST_F(Reflect, OperationsParseTheirArgumentsAndPrintTheirResult) {
  EXPECT_EQ(Kiv::attrInvoke(*link, "handleReset", ""), "");
  EXPECT_EQ(Kiv::attrGet(*link, "resets"), "1");
  link->speedIs(3);
  EXPECT_EQ(Kiv::attrInvoke(*link, "scale", "7, 'a, b'"), "21");
  EXPECT_EQ(link->lastWhy, "a, b");
  EXPECT_THROW(Kiv::attrInvoke(*link, "scale", "7"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrInvoke(*link, "handleReset", "1"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrInvoke(*link, "scale", "7, 'open"), Kiv::ParseException);
  EXPECT_THROW(Kiv::attrInvoke(*link, "speed", ""), Kiv::RangeException);
  EXPECT_EQ(Kiv::attrGet(*link, "resets"), "1");
}

TEST_F(Reflect, DelAllAndCounterStepsAreOperationsByNameOfWritableEntriesOnly) {
  link->vlanIs(10, "trunk");
  link->vlanIs(20, "access");
  // Without a vlanDelAll of its own, every key present goes through vlanDel.
  EXPECT_EQ(Kiv::attrInvoke(*link, "vlanDelAll", ""), "");
  EXPECT_EQ(link->vlans(), 0u);
  EXPECT_EQ(heard.vlans, (std::vector<std::uint16_t>{10, 20, 10, 20}));
  Kiv::attrDelAll(*link, "vlan");

  // Steps wrap at the counter's width and notify only a real change.
  EXPECT_EQ(Kiv::attrInvoke(*link, "dropsDec", ""), "255");
  EXPECT_EQ(Kiv::attrInvoke(*link, "dropsInc", "3"), "2");
  EXPECT_EQ(Kiv::attrInc(*link, "drops", "0"), "2");
  EXPECT_EQ(heard.speeds, 2);
  EXPECT_THROW(Kiv::attrInc(*link, "drops", "256"), Kiv::ParseException);
  EXPECT_EQ(link->drops(), 2u);

  // Read-only counters, scalars and unknown bases have no derived names.
  EXPECT_THROW(Kiv::attrInvoke(*link, "resetsInc", ""), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrInvoke(*link, "speedInc", ""), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrInc(*link, "speed", "1"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrInvoke(*link, "nosuchDelAll", ""), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrDelAll(*link, "speed"), Kiv::RangeException);
  EXPECT_EQ(Kiv::derivedOperation(*link, "vlanDelAll").attr, Kiv::typeInfo(*link).attr("vlan"));
  EXPECT_EQ(Kiv::derivedOperation(*link, "dropsDec").suffix, "Dec");
  EXPECT_EQ(Kiv::derivedOperation(*link, "resetsInc").attr, nullptr);
}

TEST(ReflectDir, EntriesAreThePathCollection) {
  auto dir = Kiv::Dir::DirIs("root");
  auto a = Link::LinkIs("a", 1500);
  dir->entryIs("a", a);
  Kiv::TypeInfo const& info = Kiv::typeInfo(*dir);
  ASSERT_NE(info.pathCollection(), nullptr);
  EXPECT_EQ(info.pathCollection()->name, "entry");
  EXPECT_EQ(Kiv::attrLookup(*dir, "entry", "a"), "Entity('KivTest::Link', 'a')");
  EXPECT_EQ(info.pathCollection()->lookupEntity(*dir, "'a'").ptr(), a.ptr());
  Kiv::attrEntryIs(*dir, "entry", "'b/c'", "None");
  EXPECT_TRUE(dir->has("b/c"));
  EXPECT_FALSE(dir->entity("b/c"));
  EXPECT_THROW(Kiv::attrEntryIs(*dir, "entry", "d", "Entity('KivTest::Link', 'a')"), Kiv::ParseException);
  Kiv::attrInvoke(*dir, "entryDelAll", "");
  EXPECT_EQ(dir->entries(), 0u);
}

TEST(ReflectArgs, SplitsAtTopLevelCommasOnly) {
  EXPECT_EQ(Kiv::splitArgs(""), std::vector<std::string>{});
  EXPECT_EQ(Kiv::splitArgs(" 1 , 'x,\\'y' ,Value('A', ** {'a': 1, 'b': [2, 3]})"),
            (std::vector<std::string>{"1", "'x,\\'y'", "Value('A', ** {'a': 1, 'b': [2, 3]})"}));
  EXPECT_EQ(Kiv::splitArgs("1,"), (std::vector<std::string>{"1", ""}));
  EXPECT_THROW(Kiv::splitArgs("(1, 2"), Kiv::ParseException);
}

}  // namespace
