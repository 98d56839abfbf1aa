// The device-name directory: two independently keyed collections of the same records.
#include "intfsm/foundation/interface/DeviceIntfStatusDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/NotificationLog.h"

using Interface::IntfStatusAndDeviceName;
using Ovel::IntfId;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// A record compares field by field; one without a status (a kernel-only device) counts as empty.
TEST(IntfStatusAndDeviceName, ComparesFieldByFieldIsEmptyWithoutStatusAndPrints) {
  auto s = Interface::intfStatusFactory(IntfId("Ethernet1"));
  IntfStatusAndDeviceName const r{s, "et1", 7};
  EXPECT_EQ(r, (IntfStatusAndDeviceName{s, "et1", 7}));
  EXPECT_NE(r, (IntfStatusAndDeviceName{Interface::intfStatusFactory(IntfId("Ethernet1")), "et1", 7}));
  EXPECT_NE(r, (IntfStatusAndDeviceName{s, "et2", 7}));
  EXPECT_NE(r, (IntfStatusAndDeviceName{s, "et1", 8}));
  EXPECT_FALSE(!r);
  EXPECT_TRUE(!(IntfStatusAndDeviceName{nullptr, "ma1", 3}));
  std::ostringstream os;
  os << r << ' ' << IntfStatusAndDeviceName{nullptr, "ma1", 3};
  EXPECT_EQ(os.str(), "{ intfStatus: Ethernet1, deviceName: et1, ifIndex: 7 } "
                      "{ intfStatus: none, deviceName: ma1, ifIndex: 3 }");
}

struct Watcher : Interface::DeviceIntfStatusDir::NotifieeConst {
  void onIntfStatusAndDeviceName(IntfId const & id) override { log.add("byId", id); }
  void onIntfStatusAndDeviceNamevornImmediate() override { log.add("byIdImmediate", notifier()->intfStatusAndDeviceNames()); }
  void onIntfStatusByIfIndex(uint32_t ifIndex) override { log.add("byIfIndex", ifIndex); }
  void onIntfStatusByIfIndexvornImmediate() override { log.add("byIfIndexImmediate", notifier()->intfStatusByIfIndexs()); }
  IntfsmTest::NotificationLog log;
};

// Each key notifies only on a real change; a delete returns what it removed (so a writer can remove
// the twin by its ifindex) and notifies only keys that were there.
TEST(DeviceIntfStatusDir, BothKeysStoreIndependentlyAndNotifyOnlyOnChange) {
  auto dir = Interface::deviceIntfStatusDirFactory("kernelIntfStatus");
  auto et1 = Interface::intfStatusFactory(IntfId("Ethernet1"));
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), {et1, "et1", 8});
  Vorn::Ptr<Watcher> w = new Watcher;
  w->notifierIs(dir);
  IntfStatusAndDeviceName const r{et1, "et1", 7};
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), r);  // any field that differs is a change
  dir->intfStatusByIfIndexIs(7, r);
  dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), IntfStatusAndDeviceName{et1, "et1", 7});  // equal: nothing
  dir->intfStatusByIfIndexIs(7, r);
  dir->intfStatusByIfIndexIs(3, {nullptr, "ma1", 3});  // a kernel-only record is stored as given
  EXPECT_THAT(w->log.take(), ElementsAre("byIdImmediate(1)", "byIfIndexImmediate(0)", "byId(Ethernet1)", "byIfIndex(7)",
                                         "byIfIndex(3)"));
  EXPECT_EQ(dir->intfStatusAndDeviceName(IntfId("Ethernet1")), r);
  EXPECT_EQ(dir->intfStatusByIfIndex(3).deviceName, "ma1");
  EXPECT_TRUE(!dir->intfStatusAndDeviceName(IntfId("Ethernet2")));

  IntfStatusAndDeviceName const removed = dir->intfStatusAndDeviceNameDel(IntfId("Ethernet1"));
  EXPECT_EQ(removed, r);
  EXPECT_EQ(dir->intfStatusByIfIndexDel(removed.ifIndex), r);
  EXPECT_TRUE(!dir->intfStatusAndDeviceNameDel(IntfId("Ethernet1")));
  EXPECT_EQ(dir->intfStatusByIfIndexDel(7), IntfStatusAndDeviceName());
  EXPECT_THAT(w->log.take(), ElementsAre("byId(Ethernet1)", "byIfIndex(7)"));
}

}  // namespace
