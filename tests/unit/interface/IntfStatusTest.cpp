#include "intfsm/foundation/interface/IntfStatus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "intfsm/foundation/interface/IntfStatusLocal.h"
#include "tests/support/NotificationLog.h"

using IntfsmTest::NotificationLog;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct StatusWatcher : Interface::IntfStatus::NotifieeConst {
  explicit StatusWatcher(NotificationLog & l) : log(l) {}
  void onActive() override { log.add("onActive"); }
  void onActiveStatusChanges() override { log.add("onActiveStatusChanges"); }
  void onDeviceName() override { log.add("onDeviceName"); }
  void onForwardingModel() override { log.add("onForwardingModel"); }
  void onIntfConfig() override { log.add("onIntfConfig"); }
  void onMaxMtu() override { log.add("onMaxMtu"); }
  void onMtu() override { log.add("onMtu"); }
  void onOperStatus() override { log.add("onOperStatus"); }
  void onOperStatusChange() override { log.add("onOperStatusChange"); }
  NotificationLog & log;
};

TEST(IntfStatus, IsNamedAfterItsIdAndStartsWithDocumentedDefaults) {
  auto s = Interface::intfStatusFactory(Ovel::IntfId("Ethernet3/1"));
  EXPECT_EQ(s->intfId(), Ovel::IntfId("Ethernet3/1"));
  EXPECT_EQ(s->name(), "Ethernet3/1");
  EXPECT_STREQ(s->vornTypeName(), "Interface::IntfStatus");
  EXPECT_TRUE(s->deviceName().empty());
  EXPECT_EQ(s->operStatus(), Interface::intfOperNotPresent);
  EXPECT_EQ(s->forwardingModel(), Interface::forwardingModelUnknown);
  EXPECT_FALSE(s->active());
  EXPECT_EQ(s->activeStatusChanges(), 0u);
  EXPECT_TRUE(s->intfConfig().empty());
  EXPECT_EQ(s->maxMtu(), 0u);
  EXPECT_EQ(s->mtu(), 0u);
  EXPECT_EQ(s->operStatusChange(), 0u);
}

// Each mutator: a new value is stored and notifies its own callback once; the same value again
// notifies nobody.
TEST(IntfStatus, EveryMutatorNotifiesItsOwnCallbackOnlyOnChange) {
  using Interface::IntfStatus;
  struct Case {
    char const * callback;
    std::function<void(IntfStatus &)> change;
    std::function<bool(IntfStatus const &)> stored;
  };
  Case const cases[] = {
      {"onDeviceName", [](IntfStatus & s) { s.deviceNameIs("et1"); },
       [](IntfStatus const & s) { return s.deviceName() == "et1"; }},
      {"onOperStatus", [](IntfStatus & s) { s.operStatusIs(Interface::intfOperUp); },
       [](IntfStatus const & s) { return s.operStatus() == Interface::intfOperUp; }},
      {"onForwardingModel", [](IntfStatus & s) { s.forwardingModelIs(Interface::forwardingModelBridged); },
       [](IntfStatus const & s) { return s.forwardingModel() == Interface::forwardingModelBridged; }},
      {"onActive", [](IntfStatus & s) { s.activeIs(true); }, [](IntfStatus const & s) { return s.active(); }},
      {"onActiveStatusChanges", [](IntfStatus & s) { s.activeStatusChangesIs(3); },
       [](IntfStatus const & s) { return s.activeStatusChanges() == 3; }},
      {"onIntfConfig", [](IntfStatus & s) { s.intfConfigIs("Ethernet1"); },
       [](IntfStatus const & s) { return s.intfConfig() == "Ethernet1"; }},
      {"onMaxMtu", [](IntfStatus & s) { s.maxMtuIs(9214); }, [](IntfStatus const & s) { return s.maxMtu() == 9214; }},
      {"onMtu", [](IntfStatus & s) { s.mtuIs(1500); }, [](IntfStatus const & s) { return s.mtu() == 1500; }},
      {"onOperStatusChange", [](IntfStatus & s) { s.operStatusChangeIs(1ull << 40); },
       [](IntfStatus const & s) { return s.operStatusChange() == 1ull << 40; }},
  };
  for (Case const & c : cases) {
    SCOPED_TRACE(c.callback);
    auto s = Interface::intfStatusFactory(Ovel::IntfId("Ethernet1"));
    NotificationLog log;
    Vorn::Ptr<StatusWatcher> w = new StatusWatcher(log);
    w->notifierIs(s);
    c.change(*s);
    EXPECT_TRUE(c.stored(*s));
    EXPECT_THAT(log.take(), ElementsAre(c.callback));
    c.change(*s);
    EXPECT_THAT(log.take(), IsEmpty());
  }
}

TEST(IntfStatus, CountersIncrementAndIgnoreZero) {
  auto s = Interface::intfStatusFactory(Ovel::IntfId("Ethernet1"));
  NotificationLog log;
  Vorn::Ptr<StatusWatcher> w = new StatusWatcher(log);
  w->notifierIs(s);
  s->activeStatusChangesInc();
  s->activeStatusChangesInc(2);
  s->activeStatusChangesInc(0);
  s->operStatusChangeInc(5);
  s->operStatusChangeInc(0);
  EXPECT_EQ(s->activeStatusChanges(), 3u);
  EXPECT_EQ(s->operStatusChange(), 5u);
  EXPECT_THAT(log.take(), ElementsAre("onActiveStatusChanges", "onActiveStatusChanges", "onOperStatusChange"));
  // The change counters are the writer's: changing the status itself leaves them alone.
  s->operStatusIs(Interface::intfOperUp);
  s->activeIs(true);
  EXPECT_EQ(s->operStatusChange(), 5u);
  EXPECT_EQ(s->activeStatusChanges(), 3u);
}

struct LocalWatcher : Interface::IntfStatusLocal::NotifieeConst {
  explicit LocalWatcher(NotificationLog & l) : log(l) {}
  void onNetNsName() override { log.add("onNetNsName", notifier()->netNsName()); }
  NotificationLog & log;
};

TEST(IntfStatusLocal, NetNsNameNotifiesOnChangeOnlyAndEmptyMeansDefault) {
  auto local = Interface::intfStatusLocalFactory(Ovel::IntfId("Ethernet1"));
  EXPECT_EQ(local->name(), "Ethernet1");
  EXPECT_EQ(local->intfId(), Ovel::IntfId("Ethernet1"));
  EXPECT_TRUE(local->netNsName().empty());
  EXPECT_EQ(local->netNsName().orDefault(), Ovel::NamespaceName::defaultNamespace());

  NotificationLog log;
  Vorn::Ptr<LocalWatcher> w = new LocalWatcher(log);
  w->notifierIs(local);
  local->netNsNameIs(Ovel::NamespaceName("blue"));
  local->netNsNameIs(Ovel::NamespaceName("blue"));
  local->netNsNameIs(Ovel::NamespaceName());
  EXPECT_THAT(log.take(), ElementsAre("onNetNsName(blue)", "onNetNsName()"));
}

}  // namespace
