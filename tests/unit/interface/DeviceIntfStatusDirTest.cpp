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

namespace {

TEST(IntfStatusAndDeviceName, ComparesFieldByFieldIsEmptyWithoutStatusAndPrints) {
  auto s = Interface::intfStatusFactory(IntfId("Ethernet1"));
  IntfStatusAndDeviceName const r{s, "et1", 7};
  EXPECT_EQ(r, (IntfStatusAndDeviceName{s, "et1", 7}));
  EXPECT_NE(r, (IntfStatusAndDeviceName{Interface::intfStatusFactory(IntfId("Ethernet1")), "et1", 7}));  // another entity
  EXPECT_NE(r, (IntfStatusAndDeviceName{s, "et2", 7}));
  EXPECT_NE(r, (IntfStatusAndDeviceName{s, "et1", 8}));
  EXPECT_FALSE(!r);
  // A kernel-only device: name and ifindex, but no status, counts as empty.
  EXPECT_TRUE(!(IntfStatusAndDeviceName{nullptr, "ma1", 3}));

  std::ostringstream os;
  os << r << ' ' << IntfStatusAndDeviceName{nullptr, "ma1", 3};
  EXPECT_EQ(os.str(), "{ intfStatus: Ethernet1, deviceName: et1, ifIndex: 7 } "
                      "{ intfStatus: none, deviceName: ma1, ifIndex: 3 }");
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
  DeviceIntfStatusDirTest() { w->notifierIs(dir); }
  Vorn::Ptr<DeviceIntfStatusDir> dir = Interface::deviceIntfStatusDirFactory("kernelIntfStatus");
  NotificationLog log;
  Vorn::Ptr<Watcher> w = new Watcher(log);
  Vorn::Ptr<Interface::IntfStatus> et1 = Interface::intfStatusFactory(IntfId("Ethernet1"));
};

TEST_F(DeviceIntfStatusDirTest, BothKeysStoreIndependentlyAndNotifyOnlyOnChange) {
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), {et1, "et1", 8});
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatusAndDeviceNamevornImmediate(0)",
                                      "onIntfStatusByIfIndexvornImmediate(0)", "onIntfStatusAndDeviceName(Ethernet1)"));
  IntfStatusAndDeviceName const r{et1, "et1", 7};
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), r);  // any field that differs is a change
  dir->intfStatusByIfIndexIs(7, r);
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), IntfStatusAndDeviceName{et1, "et1", 7});  // equal: nothing
  dir->intfStatusByIfIndexIs(7, r);
  // A kernel-only record is stored as given.
  dir->intfStatusByIfIndexIs(3, {nullptr, "ma1", 3});
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatusAndDeviceName(Ethernet1)", "onIntfStatusByIfIndex(7)",
                                      "onIntfStatusByIfIndex(3)"));
  EXPECT_EQ(dir->intfStatusAndDeviceName(IntfId("Ethernet1")), r);
  EXPECT_EQ(dir->intfStatusByIfIndex(7), r);
  EXPECT_EQ(dir->intfStatusByIfIndex(3).deviceName, "ma1");
  EXPECT_EQ(dir->intfStatusAndDeviceNames(), 1u);
  EXPECT_TRUE(!dir->intfStatusAndDeviceName(IntfId("Ethernet2")));
}

TEST_F(DeviceIntfStatusDirTest, DeleteReturnsWhatItRemovedAndNotifiesPresentKeysOnly) {
  IntfStatusAndDeviceName const r{et1, "et1", 7};
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), r);
  dir->intfStatusByIfIndexIs(7, r);
  log.take();

  IntfStatusAndDeviceName const removed = dir->intfStatusAndDeviceNameDel(IntfId("Ethernet1"));
  EXPECT_EQ(removed, r);
  // What a writer does next: remove the twin by the removed record's ifindex.
  EXPECT_EQ(dir->intfStatusByIfIndexDel(removed.ifIndex), r);
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatusAndDeviceName(Ethernet1)", "onIntfStatusByIfIndex(7)"));

  EXPECT_TRUE(!dir->intfStatusAndDeviceNameDel(IntfId("Ethernet1")));
  EXPECT_EQ(dir->intfStatusByIfIndexDel(7), IntfStatusAndDeviceName());
  EXPECT_THAT(log.take(), IsEmpty());
}

}  // namespace
