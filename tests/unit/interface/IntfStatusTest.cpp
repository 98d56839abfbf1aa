// The interface-status entities: each attribute notifies its own callback, and the status enums'
// numbering and printing.
#include "intfsm/foundation/interface/IntfStatus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "intfsm/foundation/interface/ForwardingModel.h"
#include "intfsm/foundation/interface/IntfStatusLocal.h"
#include "tests/support/NotificationLog.h"

using namespace Interface;
using IntfsmTest::NotificationLog;
using testing::ElementsAre;

namespace {

struct StatusWatcher : IntfStatus::NotifieeConst {
  void onActive() override { log.add("onActive"); }
  void onActiveStatusChanges() override { log.add("onActiveStatusChanges"); }
  void onDeviceName() override { log.add("onDeviceName"); }
  void onForwardingModel() override { log.add("onForwardingModel"); }
  void onIntfConfig() override { log.add("onIntfConfig"); }
  void onMaxMtu() override { log.add("onMaxMtu"); }
  void onMtu() override { log.add("onMtu"); }
  void onOperStatus() override { log.add("onOperStatus"); }
  void onOperStatusChange() override { log.add("onOperStatusChange"); }
  NotificationLog log;
};

struct LocalWatcher : IntfStatusLocal::NotifieeConst {
  void onNetNsName() override { log.add("onNetNsName", notifier()->netNsName()); }
  NotificationLog log;
};

// The change counters are the writer's to increment: changing the status itself leaves them alone.
TEST(IntfStatus, EachAttributeNotifiesItsOwnCallbackOnChangeOnly) {
  auto s = intfStatusFactory(Ovel::IntfId("Ethernet3/1"));
  EXPECT_EQ(s->name(), "Ethernet3/1");
  EXPECT_EQ(s->operStatus(), intfOperNotPresent);  // nobody has reported on it yet
  Vorn::Ptr<StatusWatcher> w = new StatusWatcher;
  w->notifierIs(s);
  s->deviceNameIs("et1");
  s->operStatusIs(intfOperUp);
  s->operStatusIs(intfOperUp);
  s->forwardingModelIs(forwardingModelBridged);
  s->activeIs(true);
  s->activeStatusChangesInc(2);
  s->intfConfigIs("Ethernet1");
  s->maxMtuIs(9214);
  s->mtuIs(1500);
  s->operStatusChangeInc(5);
  EXPECT_THAT(w->log.take(), ElementsAre("onDeviceName", "onOperStatus", "onForwardingModel", "onActive",
                                         "onActiveStatusChanges", "onIntfConfig", "onMaxMtu", "onMtu",
                                         "onOperStatusChange"));
  EXPECT_EQ(s->activeStatusChanges(), 2u);
  EXPECT_EQ(s->mtu(), 1500u);
  EXPECT_EQ(s->maxMtu(), 9214u);
}

TEST(IntfStatusLocal, NetNsNameNotifiesOnChangeOnlyAndEmptyMeansDefault) {
  auto local = intfStatusLocalFactory(Ovel::IntfId("Ethernet1"));
  EXPECT_EQ(local->netNsName().orDefault(), Ovel::NamespaceName::defaultNamespace());
  Vorn::Ptr<LocalWatcher> w = new LocalWatcher;
  w->notifierIs(local);
  local->netNsNameIs(Ovel::NamespaceName("blue"));
  local->netNsNameIs(Ovel::NamespaceName("blue"));
  local->netNsNameIs(Ovel::NamespaceName());
  EXPECT_THAT(w->log.take(), ElementsAre("onNetNsName(blue)", "onNetNsName()"));
}

// RFC 2863 numbering, and the number for values outside the list, whatever base the stream was left in.
TEST(IntfOperStatus, NumberedAsRfc2863AndPrintedByNameOrNumber) {
  IntfOperStatus const inOrder[] = {intfOperUp,      intfOperDown,       intfOperTesting,       intfOperUnknown,
                                    intfOperDormant, intfOperNotPresent, intfOperLowerLayerDown};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(static_cast<int>(inOrder[i]), i + 1);
  std::ostringstream os;
  os << intfOperLowerLayerDown << ' ' << IntfOperStatus(0) << ' ' << std::hex << IntfOperStatus(42) << ' '
     << forwardingModelBridged << ' ' << ForwardingModel(9);
  EXPECT_EQ(os.str(), "intfOperLowerLayerDown 0 2a forwardingModelBridged 9");
  EXPECT_EQ(static_cast<int>(forwardingModelBridged), 4);
}

}  // namespace
