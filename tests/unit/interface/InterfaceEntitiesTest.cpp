// The interface-status entities and their directories: each attribute and key notifies its own
// callback, on real changes only; records, enums and the exact refusal texts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "intfsm/foundation/interface/AllIntfStatusDir.h"
#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"
#include "intfsm/foundation/interface/DeviceIntfStatusDir.h"
#include "intfsm/foundation/interface/ForwardingModel.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/NotificationLog.h"
#include "tests/support/ThrownText.h"

using namespace Interface;
using IntfsmTest::NotificationLog;
using IntfsmTest::printed;
using IntfsmTest::thrownText;
using Ovel::IntfId;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

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

// The change counters are the writer's to increment: changing the status itself leaves them alone.
TEST(IntfStatus, EachAttributeNotifiesItsOwnCallbackOnChangeOnly) {
  auto s = intfStatusFactory(IntfId("Ethernet3/1"));
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
  EXPECT_EQ(s->activeStatusChanges() + s->maxMtu() + s->mtu(), 2u + 9214u + 1500u);
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
}

struct DirWatcher : AllIntfStatusDir::NotifieeConst, NotificationLog {
  void onIntfStatus(IntfId const & id) override {
    add("onIntfStatus", id);
    if (onKey) onKey(id);
  }
  // What a reactor reconciles against: the directory as it is when the call arrives.
  void onIntfStatusvornImmediate() override { add("onIntfStatusvornImmediate", notifier()->intfStatuss()); }
  std::function<void(IntfId const &)> onKey;
};

// Another entity with the same id replaces the first (which the directory lets go); absent keys may be
// notified too; emptying notifies each key once even when handlers delete neighbours meanwhile.
TEST(AllIntfStatusDir, KeyedByTheStatussIdAndNotifyingOnlyRealChanges) {
  auto dir = allIntfStatusDirFactory("all");
  Vorn::Ptr<DirWatcher> w = new DirWatcher;
  w->notifierIs(dir);
  auto first = intfStatusFactory(IntfId("Ethernet1")), second = intfStatusFactory(IntfId("Ethernet1"));
  dir->intfStatusIs(first);
  dir->intfStatusIs(first);
  dir->intfStatusIs(second);
  EXPECT_EQ(dir->intfStatus(IntfId("Ethernet1")), second);
  EXPECT_EQ(first->references(), 1u);
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { dir->intfStatusIs(nullptr); }),
            "null _intfStatus parameter to mutator for Interface::AllIntfStatusDir::intfStatus not allowed\"");
  dir->intfStatusDel(IntfId("Ethernet9"));
  dir->intfStatusNotify(IntfId("Ethernet7"));
  EXPECT_THAT(w->take(), ElementsAre("onIntfStatusvornImmediate(0)", "onIntfStatus(Ethernet1)", "onIntfStatus(Ethernet1)",
                                     "onIntfStatus(Ethernet7)"));
  for (char const * id : {"Ethernet2", "Ethernet3", "Ethernet4"}) dir->intfStatusIs(intfStatusFactory(IntfId(id)));
  w->take();
  w->onKey = [&](IntfId const & id) {
    if (id == IntfId("Ethernet1") || id == IntfId("Ethernet3")) dir->intfStatusDel(IntfId("Ethernet2"));
  };
  dir->intfStatusDelAll();
  EXPECT_THAT(w->take(), UnorderedElementsAre("onIntfStatus(Ethernet1)", "onIntfStatus(Ethernet2)",
                                              "onIntfStatus(Ethernet3)", "onIntfStatus(Ethernet4)"));
  EXPECT_EQ(std::tuple(dir->intfStatuss(), second->references()), std::tuple(0u, 1u));
}

TEST(AllIntfStatusLocalDir, KeyedByTheEntitysIdAndTheLocalStatusNotifiesItsNamespace) {
  struct DirLog : AllIntfStatusLocalDir::NotifieeConst, NotificationLog {
    void onIntfStatusLocal(IntfId const & id) override { add("onIntfStatusLocal", id); }
    void onIntfStatusLocalvornImmediate() override { add("onIntfStatusLocalvornImmediate"); }
  };
  struct LocalLog : IntfStatusLocal::NotifieeConst, NotificationLog {
    void onNetNsName() override { add("onNetNsName", notifier()->netNsName()); }
  };
  auto dir = allIntfStatusLocalDirFactory("allLocal");
  auto local = intfStatusLocalFactory(IntfId("Ethernet1"));
  EXPECT_EQ(local->netNsName().orDefault(), Ovel::NamespaceName::defaultNamespace());
  Vorn::Ptr<DirLog> w = new DirLog;
  Vorn::Ptr<LocalLog> l = new LocalLog;
  w->notifierIs(dir);
  l->notifierIs(local);
  dir->intfStatusLocalIs(local);
  dir->intfStatusLocalIs(local);
  EXPECT_EQ(dir->intfStatusLocal(IntfId("Ethernet1")), local);
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { dir->intfStatusLocalIs(nullptr); }),
            "null _intfStatusLocal parameter to mutator for Interface::AllIntfStatusLocalDir::intfStatusLocal not "
            "allowed\"");
  dir->intfStatusLocalDelAll();
  EXPECT_THAT(w->take(), ElementsAre("onIntfStatusLocalvornImmediate", "onIntfStatusLocal(Ethernet1)",
                                     "onIntfStatusLocal(Ethernet1)"));
  for (char const * name : {"blue", "blue", ""}) local->netNsNameIs(Ovel::NamespaceName(name));
  EXPECT_THAT(l->take(), ElementsAre("onNetNsName(blue)", "onNetNsName()"));
}

// A record compares field by field; one without a status (a kernel-only device) counts as empty.
TEST(IntfStatusAndDeviceName, ComparesFieldByFieldIsEmptyWithoutStatusAndPrints) {
  auto s = intfStatusFactory(IntfId("Ethernet1"));
  IntfStatusAndDeviceName const r{s, "et1", 7};
  EXPECT_EQ(r, (IntfStatusAndDeviceName{s, "et1", 7}));
  for (IntfStatusAndDeviceName const & other : {IntfStatusAndDeviceName{intfStatusFactory(IntfId("Ethernet1")), "et1", 7},
                                                {s, "et2", 7}, {s, "et1", 8}}) {
    EXPECT_NE(r, other);
  }
  EXPECT_EQ(std::tuple(!r, !(IntfStatusAndDeviceName{nullptr, "ma1", 3})), std::tuple(false, true));
  EXPECT_EQ(printed(r) + " " + printed(IntfStatusAndDeviceName{nullptr, "ma1", 3}),
            "{ intfStatus: Ethernet1, deviceName: et1, ifIndex: 7 } { intfStatus: none, deviceName: ma1, ifIndex: 3 }");
}

struct DeviceDirWatcher : DeviceIntfStatusDir::NotifieeConst, NotificationLog {
  void onIntfStatusAndDeviceName(IntfId const & id) override { add("byId", id); }
  void onIntfStatusAndDeviceNamevornImmediate() override { add("byIdImmediate", notifier()->intfStatusAndDeviceNames()); }
  void onIntfStatusByIfIndex(uint32_t ifIndex) override { add("byIfIndex", ifIndex); }
  void onIntfStatusByIfIndexvornImmediate() override { add("byIfIndexImmediate", notifier()->intfStatusByIfIndexs()); }
};

// Two independently keyed collections of the same records. A delete returns what it removed (so a
// writer can remove the twin by its ifindex) and notifies only keys that were there.
TEST(DeviceIntfStatusDir, BothKeysStoreIndependentlyAndNotifyOnlyOnChange) {
  auto dir = deviceIntfStatusDirFactory("kernelIntfStatus");
  auto et1 = intfStatusFactory(IntfId("Ethernet1"));
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), {et1, "et1", 8});
  Vorn::Ptr<DeviceDirWatcher> w = new DeviceDirWatcher;
  w->notifierIs(dir);
  IntfStatusAndDeviceName const r{et1, "et1", 7};
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), r);  // any field differing: a change
  dir->intfStatusByIfIndexIs(7, r);
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), IntfStatusAndDeviceName{et1, "et1", 7});  // equal: nothing
  dir->intfStatusByIfIndexIs(7, r);
  dir->intfStatusByIfIndexIs(3, {nullptr, "ma1", 3});  // a kernel-only record is stored as given
  EXPECT_EQ(dir->intfStatusByIfIndex(3).deviceName, "ma1");
  IntfStatusAndDeviceName const removed = dir->intfStatusAndDeviceNameDel(IntfId("Ethernet1"));
  EXPECT_EQ(std::tuple(removed, dir->intfStatusByIfIndexDel(removed.ifIndex)), std::tuple(r, r));
  EXPECT_TRUE(!dir->intfStatusAndDeviceNameDel(IntfId("Ethernet1")));  // gone: nothing to return
  EXPECT_EQ(dir->intfStatusByIfIndexDel(7), IntfStatusAndDeviceName());
  EXPECT_THAT(w->take(), ElementsAre("byIdImmediate(1)", "byIfIndexImmediate(0)", "byId(Ethernet1)", "byIfIndex(7)",
                                     "byIfIndex(3)", "byId(Ethernet1)", "byIfIndex(7)"));
}

}  // namespace
