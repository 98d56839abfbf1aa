// The kernel link table by hand: the three collections stay consistent through adds, renames,
// flag changes, name takeovers and deletions, and only real changes notify.
#include "intfsm/foundation/kernel/KernelNetInfo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <sstream>

#include "tests/support/NotificationLog.h"
#include "tests/support/ThrownText.h"

namespace {

using IntfsmTest::NotificationLog;
using KernelNetInfo::Interface;
using KernelNetInfo::Root;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

struct Watcher : Root::NotifieeConst {
  explicit Watcher(NotificationLog & l) : log(l) {}
  void onInterfaceByDeviceName(Vorn::String const & name) override { log.add("byName", name); }
  void onInterfaceByDeviceNamevornImmediate() override { log.add("byNameImmediate"); }
  void onInterfaceByIfIndex(uint32_t ifIndex) override { log.add("byIfIndex", ifIndex); }
  void onInterfaceByIfIndexvornImmediate() override { log.add("byIfIndexImmediate"); }
  void onDeviceNameCache(KernelNetInfo::InterfaceKey key) override { log.add("cache", key); }
  void onDeviceNameCachevornImmediate() override { log.add("cacheImmediate"); }
  NotificationLog & log;
};

class KernelNetInfoRoot : public ::testing::Test {
 protected:
  KernelNetInfoRoot() {
    watcher->notifierIs(root);
    log.take();
  }
  // Every device, read through each of the three collections, as "ifIndex name flags".
  std::vector<std::string> byName() const {
    std::vector<std::string> out;
    for (auto const & e : root->interfaceByDeviceNameIter()) {
      EXPECT_EQ(e.key, e.value.deviceName());
      out.push_back(describe(e.value));
    }
    return out;
  }
  std::vector<std::string> byIfIndex() const {
    std::vector<std::string> out;
    for (auto const & e : root->interfaceByIfIndexIter()) {
      EXPECT_EQ(e.key, e.value.ifIndex());
      EXPECT_EQ(root->deviceNameCache(e.key), e.value.deviceName());
      out.push_back(describe(e.value));
    }
    EXPECT_EQ(root->deviceNameCaches(), root->interfaceByIfIndexs());
    return out;
  }
  static std::string describe(Interface const & i) {
    std::ostringstream s;
    s << i;
    return s.str();
  }

  Vorn::Ptr<Root> root = Root::rootNew("kni");
  NotificationLog log;
  Vorn::Ptr<Watcher> watcher = new Watcher(log);
};

TEST(KernelNetInfoInterface, ValueAndFlags) {
  Interface const empty;
  EXPECT_FALSE(empty);
  EXPECT_EQ(empty.ifIndex(), 0u);
  EXPECT_TRUE(empty.deviceName().empty());

  Interface const up(3, IFF_UP | IFF_BROADCAST, "va0");
  EXPECT_TRUE(up);
  EXPECT_TRUE(up.isUp());
  EXPECT_FALSE(up.isRunning());
  EXPECT_EQ(up.deviceName(), "va0");
  Interface const running(3, IFF_UP | IFF_RUNNING, "va0");
  EXPECT_TRUE(running.isRunning());
  EXPECT_NE(up, running);
  EXPECT_EQ(up, Interface(3, IFF_UP | IFF_BROADCAST, "va0"));
  EXPECT_NE(up, Interface(3, IFF_UP | IFF_BROADCAST, "va1"));

  std::ostringstream text;
  text << running << " / " << empty;
  EXPECT_EQ(text.str(), "va0 (ifIndex 3, flags 0x41) / none");
}

TEST(KernelNetInfoInterface, DeviceNameHoldsSixteenBytesAndRefusesSeventeen) {
  Interface const full(9, 0, "abcdefghijklmnop");
  EXPECT_EQ(full.deviceName(), "abcdefghijklmnop");
  EXPECT_EQ(full.deviceNameBytes().size(), 16u);

  std::string const text = IntfsmTest::thrownText<Vorn::RangeException>([] { Interface(9, 0, "abcdefghijklmnopq"); });
  EXPECT_THAT(text, ::testing::MatchesRegex("PodArray::set expected size <= 16, instead got 17\\. Buffer is at "
                                            "address: 0x[0-9a-f]+ with contents: abcdefghijklmnopq"));

  KernelNetInfo::DeviceName name;
  name.set("et1");
  EXPECT_THROW(name.set("abcdefghijklmnopq"), Vorn::RangeException);
  EXPECT_EQ(name.view(), "et1");  // a refused set keeps the old text
  name.set("x");
  EXPECT_EQ(name, [] { KernelNetInfo::DeviceName n; n.set("x"); return n; }());  // no leftover bytes
}

TEST_F(KernelNetInfoRoot, AddNotifiesEachCollectionOnceAndLooksUpBothWays) {
  root->interfaceIs(Interface(3, IFF_UP, "va0"));
  EXPECT_THAT(log.take(), ElementsAre("byName(va0)", "byIfIndex(3)", "cache(3)"));
  EXPECT_EQ(root->interfaceByDeviceName("va0"), Interface(3, IFF_UP, "va0"));
  EXPECT_EQ(root->interfaceByIfIndex(3), Interface(3, IFF_UP, "va0"));
  EXPECT_EQ(root->deviceNameCache(3), "va0");
  EXPECT_FALSE(root->interfaceByDeviceName("vb0"));
  EXPECT_FALSE(root->interfaceByIfIndex(4));
  EXPECT_TRUE(root->deviceNameCache(4).empty());

  root->interfaceIs(Interface(3, IFF_UP, "va0"));
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(KernelNetInfoRoot, FlagChangeLeavesTheNameCacheAlone) {
  root->interfaceIs(Interface(3, IFF_UP, "va0"));
  log.take();
  root->interfaceIs(Interface(3, IFF_UP | IFF_RUNNING, "va0"));
  EXPECT_THAT(log.take(), ElementsAre("byName(va0)", "byIfIndex(3)"));
  EXPECT_TRUE(root->interfaceByDeviceName("va0").isRunning());
}

TEST_F(KernelNetInfoRoot, RenameDropsTheOldNameAndNotifiesBoth) {
  root->interfaceIs(Interface(3, IFF_UP, "va0"));
  root->interfaceIs(Interface(4, 0, "vb0"));
  log.take();
  root->interfaceIs(Interface(3, IFF_UP, "wan0"));
  EXPECT_THAT(log.take(), ElementsAre("byName(va0)", "byName(wan0)", "byIfIndex(3)", "cache(3)"));
  EXPECT_FALSE(root->interfaceByDeviceNameHas("va0"));
  EXPECT_THAT(byName(), UnorderedElementsAre("wan0 (ifIndex 3, flags 0x1)", "vb0 (ifIndex 4, flags 0x0)"));
  EXPECT_THAT(byIfIndex(), UnorderedElementsAre("wan0 (ifIndex 3, flags 0x1)", "vb0 (ifIndex 4, flags 0x0)"));
}

TEST_F(KernelNetInfoRoot, NameTakenByAnotherIfIndexDropsThePreviousHolder) {
  root->interfaceIs(Interface(3, 0, "va0"));
  log.take();
  root->interfaceIs(Interface(8, IFF_UP, "va0"));
  EXPECT_THAT(log.take(), ElementsAre("byName(va0)", "byIfIndex(3)", "byIfIndex(8)", "cache(3)", "cache(8)"));
  EXPECT_FALSE(root->interfaceByIfIndexHas(3));
  EXPECT_THAT(byName(), ElementsAre("va0 (ifIndex 8, flags 0x1)"));
  EXPECT_THAT(byIfIndex(), ElementsAre("va0 (ifIndex 8, flags 0x1)"));
}

TEST_F(KernelNetInfoRoot, DeleteRemovesAllThreeAndAbsentDeleteIsSilent) {
  root->interfaceIs(Interface(3, 0, "va0"));
  root->interfaceIs(Interface(4, 0, "vb0"));
  log.take();
  root->interfaceDel(3);
  EXPECT_THAT(log.take(), ElementsAre("byName(va0)", "byIfIndex(3)", "cache(3)"));
  root->interfaceDel(3);
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_THAT(byIfIndex(), ElementsAre("vb0 (ifIndex 4, flags 0x0)"));
  root->interfaceDelAll();
  EXPECT_EQ(root->interfaceByDeviceNames(), 0u);
  EXPECT_EQ(root->interfaceByIfIndexs(), 0u);
  EXPECT_EQ(root->deviceNameCaches(), 0u);
}

TEST_F(KernelNetInfoRoot, BadRecordsAreRefusedWithoutChange) {
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([&] { root->interfaceIs(Interface()); }),
            "KernelNetInfo::Root::interfaceIs: ifIndex 0 not allowed");
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([&] { root->interfaceIs(Interface(5, 0, "")); }),
            "KernelNetInfo::Root::interfaceIs: empty deviceName not allowed");
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(root->interfaceByIfIndexs(), 0u);
}

TEST_F(KernelNetInfoRoot, BindingDeliversEachImmediateNotification) {
  NotificationLog second;
  Vorn::Ptr<Watcher> late = new Watcher(second);
  late->notifierIs(root);
  EXPECT_THAT(second.take(), ElementsAre("byNameImmediate", "byIfIndexImmediate", "cacheImmediate"));
}

// A dump applied as a whole: what vanished goes, what changed is updated, what is new is added, and
// nothing else is notified.
TEST_F(KernelNetInfoRoot, ReconcileAppliesOnlyRealChanges) {
  root->interfaceIs(Interface(1, IFF_UP | IFF_RUNNING, "lo"));
  root->interfaceIs(Interface(3, 0, "va0"));
  root->interfaceIs(Interface(4, 0, "vb0"));
  root->interfaceIs(Interface(5, 0, "gone0"));
  log.take();

  KernelNetInfo::reconcile(*root, {Interface(1, IFF_UP | IFF_RUNNING, "lo"), Interface(3, IFF_UP, "va0"),
                                   Interface(4, 0, "wan0"), Interface(6, 0, "new0")});
  EXPECT_THAT(log.take(), ElementsAre("byName(gone0)", "byIfIndex(5)", "cache(5)",  // vanished
                                      "byName(va0)", "byIfIndex(3)",                 // flags changed
                                      "byName(vb0)", "byName(wan0)", "byIfIndex(4)", "cache(4)",  // renamed
                                      "byName(new0)", "byIfIndex(6)", "cache(6)"));  // new
  EXPECT_THAT(byIfIndex(), UnorderedElementsAre("lo (ifIndex 1, flags 0x41)", "va0 (ifIndex 3, flags 0x1)",
                                                "wan0 (ifIndex 4, flags 0x0)", "new0 (ifIndex 6, flags 0x0)"));

  KernelNetInfo::reconcile(*root, {Interface(1, IFF_UP | IFF_RUNNING, "lo"), Interface(3, IFF_UP, "va0"),
                                   Interface(4, 0, "wan0"), Interface(6, 0, "new0")});
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(KernelNetInfoRoot, ReconcileSwapsNames) {
  root->interfaceIs(Interface(3, 0, "va0"));
  root->interfaceIs(Interface(4, 0, "vb0"));
  KernelNetInfo::reconcile(*root, {Interface(3, 0, "vb0"), Interface(4, 0, "va0")});
  EXPECT_THAT(byName(), UnorderedElementsAre("vb0 (ifIndex 3, flags 0x0)", "va0 (ifIndex 4, flags 0x0)"));
  EXPECT_THAT(byIfIndex(), UnorderedElementsAre("vb0 (ifIndex 3, flags 0x0)", "va0 (ifIndex 4, flags 0x0)"));
}

}  // namespace
