#include "intfsm/foundation/interface/DeviceIntfStatusDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tests/support/NotificationLog.h"

using Interface::DeviceIntfStatusDir;
using Interface::IntfStatusAndDeviceName;
using IntfsmTest::NotificationLog;
using Ovel::IntfId;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

std::string printed(IntfStatusAndDeviceName const & r) {
  std::ostringstream os;
  os << r;
  return os.str();
}

TEST(IntfStatusAndDeviceName, ComparesFieldByFieldAndIsEmptyWithoutStatus) {
  auto s = Interface::intfStatusFactory(IntfId("Ethernet1"));
  auto sameId = Interface::intfStatusFactory(IntfId("Ethernet1"));
  IntfStatusAndDeviceName const r{s, "et1", 7};

  EXPECT_EQ(r, (IntfStatusAndDeviceName{s, "et1", 7}));
  EXPECT_NE(r, (IntfStatusAndDeviceName{sameId, "et1", 7}));  // another entity, even with the same id
  EXPECT_NE(r, (IntfStatusAndDeviceName{s, "et2", 7}));
  EXPECT_NE(r, (IntfStatusAndDeviceName{s, "et1", 8}));
  EXPECT_NE(r, (IntfStatusAndDeviceName{nullptr, "et1", 7}));

  EXPECT_FALSE(!r);
  EXPECT_TRUE(!IntfStatusAndDeviceName());
  // A kernel-only device: name and ifindex, but no status, counts as empty.
  EXPECT_TRUE(!(IntfStatusAndDeviceName{nullptr, "ma1", 3}));
}

TEST(IntfStatusAndDeviceName, PrintsStatusAsItsIdOrNone) {
  auto s = Interface::intfStatusFactory(IntfId("Ethernet1"));
  EXPECT_EQ(printed({s, "et1", 7}), "{ intfStatus: Ethernet1, deviceName: et1, ifIndex: 7 }");
  EXPECT_EQ(printed({nullptr, "ma1", 3}), "{ intfStatus: none, deviceName: ma1, ifIndex: 3 }");
  EXPECT_EQ(printed({}), "{ intfStatus: none, deviceName: , ifIndex: 0 }");
}

struct Watcher : DeviceIntfStatusDir::NotifieeConst {
  explicit Watcher(NotificationLog & l) : log(l) {}
  void onIntfStatusAndDeviceName(IntfId const & id) override { log.add("onIntfStatusAndDeviceName", id); }
  void onIntfStatusAndDeviceNamevornImmediate() override {
    log.add("onIntfStatusAndDeviceNamevornImmediate", notifier()->intfStatusAndDeviceNames());
  }
  void onIntfStatusByIfIndex(uint32_t ifIndex) override { log.add("onIntfStatusByIfIndex", ifIndex); }
  void onIntfStatusByIfIndexvornImmediate() override {
    log.add("onIntfStatusByIfIndexvornImmediate", notifier()->intfStatusByIfIndexs());
  }
  NotificationLog & log;
};

class DeviceIntfStatusDirTest : public testing::Test {
 protected:
  DeviceIntfStatusDirTest() : dir(Interface::deviceIntfStatusDirFactory("kernelIntfStatus")), w(new Watcher(log)) {
    w->notifierIs(dir);
    log.take();
  }
  Vorn::Ptr<DeviceIntfStatusDir> dir;
  NotificationLog log;
  Vorn::Ptr<Watcher> w;
  Vorn::Ptr<Interface::IntfStatus> et1 = Interface::intfStatusFactory(IntfId("Ethernet1"));
};

TEST_F(DeviceIntfStatusDirTest, NamedTypeAndEmptyReadsWhenAbsent) {
  EXPECT_STREQ(dir->vornTypeName(), "Interface::DeviceIntfStatusDir");
  EXPECT_EQ(dir->name(), "kernelIntfStatus");
  EXPECT_TRUE(!dir->intfStatusAndDeviceName(IntfId("Ethernet1")));
  EXPECT_EQ(dir->intfStatusByIfIndex(7), IntfStatusAndDeviceName());
}

TEST_F(DeviceIntfStatusDirTest, BothKeysStoreAndNotifyOnlyOnChange) {
  IntfStatusAndDeviceName const r{et1, "et1", 7};
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), r);
  dir->intfStatusByIfIndexIs(7, r);
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), IntfStatusAndDeviceName{et1, "et1", 7});  // equal: nothing
  dir->intfStatusByIfIndexIs(7, r);
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatusAndDeviceName(Ethernet1)", "onIntfStatusByIfIndex(7)"));
  EXPECT_EQ(dir->intfStatusAndDeviceName(IntfId("Ethernet1")), r);
  EXPECT_EQ(dir->intfStatusByIfIndex(7), r);
  EXPECT_EQ(dir->intfStatusAndDeviceNames(), 1u);
  EXPECT_EQ(dir->intfStatusByIfIndexs(), 1u);

  // Any field that differs is a change.
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), IntfStatusAndDeviceName{et1, "et1", 8});
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), IntfStatusAndDeviceName{et1, "eth1", 8});
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), IntfStatusAndDeviceName{nullptr, "eth1", 8});
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatusAndDeviceName(Ethernet1)", "onIntfStatusAndDeviceName(Ethernet1)",
                                      "onIntfStatusAndDeviceName(Ethernet1)"));
  // The two collections are independent.
  EXPECT_EQ(dir->intfStatusByIfIndex(7), r);
}

TEST_F(DeviceIntfStatusDirTest, DeleteReturnsWhatItRemovedAndNotifiesPresentKeysOnly) {
  IntfStatusAndDeviceName const r{et1, "et1", 7};
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), r);
  dir->intfStatusByIfIndexIs(7, r);
  log.take();

  IntfStatusAndDeviceName const removed = dir->intfStatusAndDeviceNameDel(IntfId("Ethernet1"));
  EXPECT_EQ(removed, r);
  // What a writer does next: remove the twin by the removed record's ifindex.
  ASSERT_FALSE(!removed);
  EXPECT_EQ(dir->intfStatusByIfIndexDel(removed.ifIndex), r);
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatusAndDeviceName(Ethernet1)", "onIntfStatusByIfIndex(7)"));

  EXPECT_TRUE(!dir->intfStatusAndDeviceNameDel(IntfId("Ethernet1")));
  EXPECT_EQ(dir->intfStatusByIfIndexDel(7), IntfStatusAndDeviceName());
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(dir->intfStatusAndDeviceNames() + dir->intfStatusByIfIndexs(), 0u);
}

TEST_F(DeviceIntfStatusDirTest, KernelOnlyRecordsAreStoredAsGiven) {
  IntfStatusAndDeviceName const kernelOnly{nullptr, "ma1", 3};
  dir->intfStatusAndDeviceNameIs(IntfId("Management1"), kernelOnly);
  dir->intfStatusByIfIndexIs(3, kernelOnly);
  EXPECT_EQ(dir->intfStatusAndDeviceNames(), 1u);
  EXPECT_EQ(dir->intfStatusByIfIndex(3).deviceName, "ma1");
  EXPECT_EQ(dir->intfStatusAndDeviceNameDel(IntfId("Management1")), kernelOnly);
}

TEST_F(DeviceIntfStatusDirTest, NotifyAndDeleteAllPerKey) {
  dir->intfStatusAndDeviceNameNotify(IntfId("Ethernet9"));
  dir->intfStatusByIfIndexNotify(99);
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatusAndDeviceName(Ethernet9)", "onIntfStatusByIfIndex(99)"));
  EXPECT_EQ(dir->intfStatusAndDeviceNames() + dir->intfStatusByIfIndexs(), 0u);

  for (uint32_t i = 1; i <= 3; ++i) {
    auto s = Interface::intfStatusFactory(IntfId(Vorn::String("Ethernet" + std::to_string(i))));
    IntfStatusAndDeviceName const r{s, Vorn::String("et" + std::to_string(i)), i + 10};
    dir->intfStatusAndDeviceNameIs(s->intfId(), r);
    dir->intfStatusByIfIndexIs(r.ifIndex, r);
  }
  log.take();
  dir->intfStatusAndDeviceNameDelAll();
  EXPECT_THAT(log.take(), UnorderedElementsAre("onIntfStatusAndDeviceName(Ethernet1)",
                                               "onIntfStatusAndDeviceName(Ethernet2)",
                                               "onIntfStatusAndDeviceName(Ethernet3)"));
  EXPECT_EQ(dir->intfStatusByIfIndexs(), 3u);
  dir->intfStatusByIfIndexDelAll();
  EXPECT_THAT(log.take(), UnorderedElementsAre("onIntfStatusByIfIndex(11)", "onIntfStatusByIfIndex(12)",
                                               "onIntfStatusByIfIndex(13)"));
  EXPECT_EQ(dir->intfStatusByIfIndexs(), 0u);
}

TEST_F(DeviceIntfStatusDirTest, BindingDeliversBothWholeCollectionCalls) {
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), {et1, "et1", 7});
  NotificationLog lateLog;
  Vorn::Ptr<Watcher> late = new Watcher(lateLog);
  late->notifierIs(dir);
  EXPECT_THAT(lateLog.take(),
              ElementsAre("onIntfStatusAndDeviceNamevornImmediate(1)", "onIntfStatusByIfIndexvornImmediate(0)"));
}

}  // namespace
