#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ExampleEntity.h"
#include "Kiv/Dir.h"
#include "Kiv/Exception.h"

using KivTest::Port;

namespace {

using Names = std::vector<std::string>;

class Recorder : public Kiv::Dir::NotifieeConst {
 public:
  explicit Recorder(Kiv::Ptr<Kiv::Dir const> const& d) : Kiv::Dir::NotifieeConst(d) {}
  void onEntityPtr(Kiv::Name name) override {
    heard.push_back(name.str());
    if (action) action(name);
  }
  Names heard;
  std::function<void(Kiv::Name const&)> action;
};

class DirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Kiv::Dir::typeIs("KivTest::Port", [](Kiv::Name const& n) { return Port::PortIs(n); });
  }
  void TearDown() override { Kiv::Dir::typeIs("KivTest::Port", nullptr); }

  Kiv::Dir::Ptr dir = Kiv::Dir::DirIs("root");
  Recorder rec{dir};
};

TEST_F(DirTest, NotifiesEveryRealAddReplaceAndRemoval) {
  Kiv::Ptr<Port> p1 = Port::PortIs("p1"), p2 = Port::PortIs("p2");
  dir->entryIs("a", p1);
  dir->entryIs("a", p1);
  dir->entryIs("a", p2);
  dir->entryIs("b", nullptr);  // an entry without an entity
  dir->entryIs("b", nullptr);
  EXPECT_EQ(p1->references(), 1u);
  EXPECT_EQ(dir->entryDel("a"), p2);
  EXPECT_EQ(dir->entryDel("a"), nullptr);
  EXPECT_TRUE(dir->has("b"));
  EXPECT_EQ(rec.heard, (Names{"a", "a", "b", "a"}));
}

TEST_F(DirTest, IteratesInNameOrder) {
  for (char const* n : {"red", "blue", "default", "Blue"}) dir->entryIs(n, nullptr);
  Names order;
  for (auto const& entry : *dir) order.push_back(entry.first.str());
  EXPECT_EQ(order, (Names{"Blue", "blue", "default", "red"}));
}

TEST_F(DirTest, CreatesByTypeNameOnceAndRefusesOtherTypesAndUnknownOnes) {
  Kiv::Ptr<Kiv::Entity> made = dir->entryIs("app1", "KivTest::Port");
  ASSERT_NE(Kiv::ptrCast<Port>(made), nullptr);
  EXPECT_EQ(made->name(), Kiv::Name("app1"));
  EXPECT_EQ(dir->entryIs("app1", "KivTest::Port"), made);  // a restarted writer finds its entry
  EXPECT_THROW(dir->entryIs("app1", "Kiv::Dir"), Kiv::NameInUseException);
  dir->entryIs("sub", nullptr);
  EXPECT_EQ(Kiv::ptrCast<Kiv::Dir>(dir->entryIs("sub", "Kiv::Dir"))->name(), Kiv::Name("sub"));
  EXPECT_EQ(rec.heard, (Names{"app1", "sub", "sub"}));

  try {
    dir->entryIs("app2", "KivTest::Missing");
    FAIL() << "an unregistered type made an entity";
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(), "no entity type 'KivTest::Missing' registered for Kiv::Dir entry 'app2'");
  }
  Kiv::Dir::typeIs("KivTest::Port", nullptr);
  EXPECT_THROW(dir->entryIs("app3", "KivTest::Port"), Kiv::RangeException);
  EXPECT_EQ(dir->entries(), 2u);
}

TEST_F(DirTest, NotifieesMayEditTheDirectoryDuringDelivery) {
  for (char const* n : {"a", "b", "c"}) dir->entryIs(n, nullptr);
  rec.heard.clear();
  Recorder other{dir};
  rec.action = [this](Kiv::Name const& n) {
    if (n == Kiv::Name("a")) dir->entryDel("b");
  };
  dir->entryDelAll();
  EXPECT_EQ(rec.heard, (Names{"a", "b", "c"}));
  EXPECT_EQ(other.heard, (Names{"b", "a", "c"}));  // the nested removal is delivered first
  EXPECT_EQ(dir->entries(), 0u);

  rec.heard.clear();
  rec.action = [this](Kiv::Name const& n) { dir->entryDel(n); };
  dir->entryIs("x", Port::PortIs("x"));
  EXPECT_EQ(rec.heard, (Names{"x", "x"}));
  EXPECT_FALSE(dir->has("x"));
}

TEST(DirDeathTest, EmptyNamesAreABrokenInvariant) {
  auto dir = Kiv::Dir::DirIs("root");
  EXPECT_DEATH(dir->entryIs(Kiv::Name(), nullptr), "name && \"Need a valid name supplied\"");
  EXPECT_DEATH(dir->entity(""), "name && \"Need a valid name supplied\"");
}

}  // namespace
