#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ExampleEntity.h"
#include "Kiv/Entity.h"

using KivTest::Port;

namespace {

// Records every hook it hears, and runs an optional action from onSpeed.
class Recorder : public Port::NotifieeConst {
 public:
  Recorder(Kiv::Ptr<Port const> const& p, std::string tag, std::vector<std::string>* log)
      : Port::NotifieeConst(p), tag_(std::move(tag)), log_(log) {}
  void onSpeed() override {
    log_->push_back(tag_ + ":speed");
    if (onSpeedAction) onSpeedAction();
  }
  void onDescription() override { log_->push_back(tag_ + ":description"); }
  void onVlan(std::uint16_t v) override { log_->push_back(tag_ + ":vlan" + std::to_string(v)); }

  std::function<void()> onSpeedAction;

 private:
  std::string tag_;
  std::vector<std::string>* log_;
};

class EntityNotification : public ::testing::Test {
 protected:
  Kiv::Ptr<Port> port = Port::PortIs("Ethernet1");
  std::vector<std::string> log;
};

TEST_F(EntityNotification, RealChangesNotifyEveryNotifieeInRegistrationOrder) {
  Recorder a(port, "a", &log), b(port, "b", &log);
  port->speedIs(100);
  port->descriptionIs("uplink");
  EXPECT_EQ(log, (std::vector<std::string>{"a:speed", "b:speed", "a:description", "b:description"}));
  EXPECT_EQ(port->notifiees(), 2u);
}

TEST_F(EntityNotification, UnchangedValuesNotifyNobody) {
  Recorder a(port, "a", &log);
  port->speedIs(0);
  port->descriptionIs("");
  port->vlanIs(10, 0);  // absent and set to the absent value
  port->vlanDel(11);
  port->vlanIs(12, 1);
  port->vlanIs(12, 1);
  EXPECT_EQ(log, (std::vector<std::string>{"a:vlan12"}));
}

TEST_F(EntityNotification, CollectionEditsNotifyWithTheKey) {
  Recorder a(port, "a", &log);
  port->vlanIs(5, 1);
  port->vlanIs(5, 2);
  port->vlanIs(7, 1);
  port->vlanDelAll();
  EXPECT_EQ(log, (std::vector<std::string>{"a:vlan5", "a:vlan5", "a:vlan7", "a:vlan5", "a:vlan7"}));
  EXPECT_EQ(port->vlans(), 0u);
}

TEST_F(EntityNotification, InactiveAndZombieNotifieesHearNothing) {
  Recorder a(port, "a", &log), b(port, "b", &log);
  a.hasNotificationActiveIs(false);
  b.kivDoZombieReactors(true);
  port->speedIs(1);
  EXPECT_TRUE(log.empty());
  a.hasNotificationActiveIs(true);
  b.kivDoZombieReactors(false);
  port->speedIs(2);
  EXPECT_EQ(log, (std::vector<std::string>{"a:speed", "b:speed"}));
}

TEST_F(EntityNotification, NotifieeUnregistersOnDestructionAndOnNotifierChange) {
  auto other = Port::PortIs("Ethernet2");
  {
    Recorder a(port, "a", &log);
    EXPECT_EQ(port->notifiees(), 1u);
    a.notifierIs(other);
    EXPECT_EQ(port->notifiees(), 0u);
    EXPECT_EQ(other->notifiees(), 1u);
    port->speedIs(1);
    other->speedIs(1);
  }
  EXPECT_EQ(other->notifiees(), 0u);
  other->speedIs(2);
  EXPECT_EQ(log, (std::vector<std::string>{"a:speed"}));
}

TEST_F(EntityNotification, NotifieeThatUnregistersItselfDuringDeliveryLetsTheOthersHearIt) {
  Recorder a(port, "a", &log), b(port, "b", &log), c(port, "c", &log);
  b.onSpeedAction = [&] { b.notifierIs(nullptr); };
  port->speedIs(1);
  port->speedIs(2);
  EXPECT_EQ(log, (std::vector<std::string>{"a:speed", "b:speed", "c:speed", "a:speed", "c:speed"}));
  EXPECT_EQ(port->notifiees(), 2u);
}

TEST_F(EntityNotification, NotifieeDestroyedByAnotherDuringDeliveryHearsNoMore) {
  Recorder a(port, "a", &log);
  auto b = std::make_unique<Recorder>(port, "b", &log);
  a.onSpeedAction = [&] { b.reset(); };
  port->speedIs(1);
  EXPECT_EQ(log, (std::vector<std::string>{"a:speed"}));
  EXPECT_EQ(port->notifiees(), 1u);
}

TEST_F(EntityNotification, NotifieeAddedDuringDeliveryHearsFromTheNextNotification) {
  Recorder a(port, "a", &log);
  std::unique_ptr<Recorder> late;
  a.onSpeedAction = [&] {
    if (!late) late = std::make_unique<Recorder>(port, "late", &log);
  };
  port->speedIs(1);
  port->speedIs(2);
  EXPECT_EQ(log, (std::vector<std::string>{"a:speed", "a:speed", "late:speed"}));
}

TEST_F(EntityNotification, EntityReleasedByItsLastNotifieeDuringDeliverySurvivesTheDelivery) {
  Kiv::Ptr<Port> p = Port::PortIs("Ethernet9");
  Port* raw = p.ptr();
  auto a = std::make_unique<Recorder>(p, "a", &log);
  auto b = std::make_unique<Recorder>(p, "b", &log);
  p = nullptr;  // the notifiees hold the only references now
  a->onSpeedAction = [&] {
    b.reset();
    a->notifierIs(nullptr);
  };
  raw->speedIs(1);  // both references go during delivery; the entity outlives it
  EXPECT_EQ(log, (std::vector<std::string>{"a:speed"}));
  EXPECT_FALSE(a->notifier());
}

TEST(Ptr, CountsReferencesAndDeletesWithTheLast) {
  struct Probe : Kiv::PtrInterface {
    explicit Probe(bool* gone) : gone_(gone) {}
    ~Probe() override { *gone_ = true; }
    bool* gone_;
  };
  bool gone = false;
  {
    Kiv::Ptr<Probe> a = new Probe(&gone);
    Kiv::PtrConst<Probe> b = a;
    EXPECT_EQ(a->references(), 2u);
    Kiv::Ptr<Probe> c = std::move(a);
    EXPECT_FALSE(a);  // NOLINT(bugprone-use-after-move): a moved-from pointer is null
    EXPECT_EQ(c->references(), 2u);
    EXPECT_TRUE(b == c);
  }
  EXPECT_TRUE(gone);
}

TEST(Ptr, CastYieldsNullForAnotherType) {
  Kiv::Ptr<Kiv::Entity> e = Port::PortIs("Ethernet1");
  EXPECT_TRUE(Kiv::ptrCast<Port>(e));
  struct Other : Kiv::Entity {};
  EXPECT_FALSE(Kiv::ptrCast<Other>(e));
}

}  // namespace
