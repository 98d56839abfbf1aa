#include "intfsm/foundation/interface/IntfStatus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "intfsm/foundation/interface/IntfStatusLocal.h"
#include "tests/support/NotificationLog.h"

using Interface::IntfStatus;
using IntfsmTest::NotificationLog;
using testing::ElementsAre;

namespace {

struct StatusWatcher : IntfStatus::NotifieeConst {
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

TEST(IntfStatus, EachAttributeNotifiesItsOwnCallback) {
  auto s = Interface::intfStatusFactory(Ovel::IntfId("Ethernet3/1"));
  EXPECT_EQ(s->name(), "Ethernet3/1");
  EXPECT_EQ(s->operStatus(), Interface::intfOperNotPresent);  // nobody has reported on it yet
  NotificationLog log;
  Vorn::Ptr<StatusWatcher> w = new StatusWatcher(log);
  w->notifierIs(s);
  s->deviceNameIs("et1");
  s->operStatusIs(Interface::intfOperUp);
  s->forwardingModelIs(Interface::forwardingModelBridged);
  s->activeIs(true);
  s->activeStatusChangesInc();
  s->intfConfigIs("Ethernet1");
  s->maxMtuIs(9214);
  s->mtuIs(1500);
  s->operStatusChangeInc(5);
  EXPECT_THAT(log.take(), ElementsAre("onDeviceName", "onOperStatus", "onForwardingModel", "onActive",
                                      "onActiveStatusChanges", "onIntfConfig", "onMaxMtu", "onMtu",
                                      "onOperStatusChange"));
  EXPECT_EQ(s->mtu(), 1500u);
  EXPECT_EQ(s->maxMtu(), 9214u);
}

TEST(IntfStatus, ChangeCountersAreTheWritersToIncrement) {
  auto s = Interface::intfStatusFactory(Ovel::IntfId("Ethernet1"));
  s->activeStatusChangesInc();
  s->activeStatusChangesInc(2);
  s->operStatusIs(Interface::intfOperUp);  // changing the status itself leaves them alone
  s->activeIs(true);
  EXPECT_EQ(s->activeStatusChanges(), 3u);
  EXPECT_EQ(s->operStatusChange(), 0u);
}

struct LocalWatcher : Interface::IntfStatusLocal::NotifieeConst {
  explicit LocalWatcher(NotificationLog & l) : log(l) {}
  void onNetNsName() override { log.add("onNetNsName", notifier()->netNsName()); }
  NotificationLog & log;
};

TEST(IntfStatusLocal, NetNsNameNotifiesOnChangeOnlyAndEmptyMeansDefault) {
  auto local = Interface::intfStatusLocalFactory(Ovel::IntfId("Ethernet1"));
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
