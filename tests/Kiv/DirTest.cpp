#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ExampleEntity.h"
#include "Kiv/Dir.h"
#include "Kiv/Exception.h"

using KivTest::Port;

namespace {

class Recorder : public Kiv::Dir::NotifieeConst {
 public:
  explicit Recorder(Kiv::Ptr<Kiv::Dir const> const& d) : Kiv::Dir::NotifieeConst(d) {}
  void onEntityPtr(Kiv::Name name) override {
    heard.push_back(name.str());
    if (action) action(name);
  }
  std::vector<std::string> heard;
  std::function<void(Kiv::Name const&)> action;
};

using Names = std::vector<std::string>;

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
  dir->entryIs("a", p1);  // the very same pointer
  dir->entryIs("a", p2);
  dir->entryIs("b", nullptr);  // an entry without an entity
  dir->entryIs("b", nullptr);
  EXPECT_EQ(rec.heard, (Names{"a", "a", "b"}));
  EXPECT_TRUE(dir->has("b"));
  EXPECT_EQ(dir->entity("b"), nullptr);
  EXPECT_EQ(dir->entity("a"), p2);
  EXPECT_EQ(p1->references(), 1u);

  EXPECT_EQ(dir->entryDel("a"), p2);
  EXPECT_EQ(dir->entryDel("a"), nullptr);
  EXPECT_EQ(dir->entryDel("b"), nullptr);
  EXPECT_EQ(rec.heard, (Names{"a", "a", "b", "a", "b"}));
  EXPECT_EQ(dir->entries(), 0u);
}

TEST_F(DirTest, IteratesInNameOrder) {
  for (char const* n : {"red", "blue", "default", "Blue", "blue2"}) dir->entryIs(n, nullptr);
  Names order;
  for (auto const& [name, entity] : *dir) order.push_back(name.str());
  EXPECT_EQ(order, (Names{"Blue", "blue", "blue2", "default", "red"}));
}

TEST_F(DirTest, CreatesEntitiesByRegisteredTypeName) {
  Kiv::Ptr<Kiv::Entity> made = dir->entryIs("app1", "KivTest::Port");
  ASSERT_NE(Kiv::ptrCast<Port>(made), nullptr);
  EXPECT_EQ(made->name(), Kiv::Name("app1"));
  EXPECT_EQ(dir->entity("app1"), made);

  // Asking again for the same type hands back the entry as it is.
  EXPECT_EQ(dir->entryIs("app1", "KivTest::Port"), made);
  EXPECT_EQ(rec.heard, (Names{"app1"}));

  // An entry without an entity is filled.
  dir->entryIs("app2", nullptr);
  EXPECT_NE(dir->entryIs("app2", "KivTest::Port"), nullptr);
  EXPECT_EQ(rec.heard, (Names{"app1", "app2", "app2"}));

  auto sub = Kiv::ptrCast<Kiv::Dir>(dir->entryIs("sub", "Kiv::Dir"));
  ASSERT_NE(sub, nullptr);
  EXPECT_EQ(sub->name(), Kiv::Name("sub"));
}

TEST_F(DirTest, RefusesUnknownTypesAndNamesHeldByAnotherType) {
  dir->entryIs("app1", "KivTest::Port");
  try {
    dir->entryIs("app2", "KivTest::Missing");
    FAIL() << "an unregistered type made an entity";
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(), "no entity type 'KivTest::Missing' registered for Kiv::Dir entry 'app2'");
  }
  EXPECT_THROW(dir->entryIs("app1", "Kiv::Dir"), Kiv::NameInUseException);
  EXPECT_EQ(dir->entryIs("app1", "KivTest::Port")->typeName(), "KivTest::Port");
  EXPECT_FALSE(dir->has("app2"));
  EXPECT_EQ(rec.heard, (Names{"app1"}));

  Kiv::Dir::typeIs("KivTest::Port", nullptr);
  EXPECT_FALSE(Kiv::Dir::type("KivTest::Port"));
  EXPECT_THROW(dir->entryIs("app3", "KivTest::Port"), Kiv::RangeException);
}

TEST_F(DirTest, NotifieesMayEditTheDirectoryDuringDelivery) {
  for (char const* n : {"a", "b", "c", "d"}) dir->entryIs(n, nullptr);
  rec.heard.clear();

  // Removing "a" takes "b" with it; a second notifiee sees both removals.
  Recorder other{dir};
  rec.action = [this](Kiv::Name const& n) {
    if (n == Kiv::Name("a")) dir->entryDel("b");
  };
  dir->entryDelAll();
  EXPECT_EQ(rec.heard, (Names{"a", "b", "c", "d"}));
  EXPECT_EQ(other.heard, (Names{"b", "a", "c", "d"}));
  EXPECT_EQ(dir->entries(), 0u);

  // An entry removed by a notifiee of its own arrival is announced twice.
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
  EXPECT_DEATH(dir->entryDel(Kiv::Name()), "name && \"Need a valid name supplied\"");
}

}  // namespace
