// The kernel link table by hand: the three collections stay consistent through adds, renames,
// flag changes, name takeovers and deletions, and only real changes notify.
#include "intfsm/foundation/kernel/KernelNetInfo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <map>

#include "tests/support/NotificationLog.h"
#include "tests/support/ThrownText.h"

namespace {

using IntfsmTest::printed;
using KernelNetInfo::Interface;
using KernelNetInfo::Root;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Watcher : Root::NotifieeConst {
  void onInterfaceByDeviceName(Vorn::String const & name) override { log.add("byName", name); }
  void onInterfaceByDeviceNamevornImmediate() override { log.add("byNameImmediate"); }
  void onInterfaceByIfIndex(uint32_t ifIndex) override { log.add("byIfIndex", ifIndex); }
  void onInterfaceByIfIndexvornImmediate() override { log.add("byIfIndexImmediate"); }
  void onDeviceNameCache(KernelNetInfo::InterfaceKey key) override { log.add("cache", key); }
  void onDeviceNameCachevornImmediate() override { log.add("cacheImmediate"); }
  IntfsmTest::NotificationLog log;
};

class KernelNetInfoRoot : public ::testing::Test {
 protected:
  KernelNetInfoRoot() { watcher->notifierIs(root); }
  // Every device as "name (ifIndex n, flags f)", in ifindex order; the other two collections must
  // hold exactly the same.
  std::vector<std::string> devices() const {
    std::map<uint32_t, std::string> byIfIndex, byName;
    for (auto const & e : root->interfaceByIfIndexIter()) {
      byIfIndex[e.key] = printed(e.value);
      EXPECT_EQ(root->deviceNameCache(e.key), e.value.deviceName());
    }
    for (auto const & e : root->interfaceByDeviceNameIter()) byName[e.value.ifIndex()] = printed(e.value);
    EXPECT_EQ(byName, byIfIndex);
    EXPECT_EQ(root->deviceNameCaches(), byIfIndex.size());
    std::vector<std::string> out;
    for (auto const & [key, text] : byIfIndex) out.push_back(text);
    return out;
  }
  std::vector<std::string> notified() { return watcher->log.take(); }

  Vorn::Ptr<Root> root = Root::rootNew("kni");
  Vorn::Ptr<Watcher> watcher = new Watcher;
};

TEST(KernelNetInfoInterface, FlagsTextAndDeviceNameOfUpToSixteenBytes) {
  Interface const running(3, IFF_UP | IFF_RUNNING, "va0");
  EXPECT_EQ(std::tuple(running.isUp(), running.isRunning(), Interface(3, IFF_UP, "va0").isRunning(),
                       printed(running) + " / " + printed(Interface()), Interface(9, 0, "abcdefghijklmnop").deviceName()),
            std::tuple(true, true, false, "va0 (ifIndex 3, flags 0x41) / none", "abcdefghijklmnop"));
  EXPECT_THAT(IntfsmTest::thrownText<Vorn::RangeException>([] { Interface(9, 0, "abcdefghijklmnopq"); }),
              ::testing::MatchesRegex("PodArray::set expected size <= 16, instead got 17\\. Buffer is at "
                                      "address: 0x[0-9a-f]+ with contents: abcdefghijklmnopq"));
  KernelNetInfo::DeviceName name;
  name.set("et1");
  EXPECT_THROW(name.set("abcdefghijklmnopq"), Vorn::RangeException);
  EXPECT_EQ(name.view(), "et1");  // a refused set keeps the old text
  KernelNetInfo::DeviceName x;
  name.set("x");
  x.set("x");
  EXPECT_EQ(name, x);  // no leftover bytes
}

// Each change notifies each collection that changed once, with the old and the new key.
TEST_F(KernelNetInfoRoot, EachChangeNotifiesWhatChangedAndKeepsTheCollectionsConsistent) {
  EXPECT_THAT(notified(), ElementsAre("byNameImmediate", "byIfIndexImmediate", "cacheImmediate"));  // on binding
  root->interfaceIs(Interface(3, IFF_UP, "va0"));
  root->interfaceIs(Interface(3, IFF_UP, "va0"));
  EXPECT_THAT(notified(), ElementsAre("byName(va0)", "byIfIndex(3)", "cache(3)"));
  EXPECT_EQ(root->interfaceByDeviceName("va0"), Interface(3, IFF_UP, "va0"));
  root->interfaceIs(Interface(3, IFF_UP | IFF_RUNNING, "va0"));  // the name cache is left alone
  EXPECT_THAT(notified(), ElementsAre("byName(va0)", "byIfIndex(3)"));
  root->interfaceIs(Interface(4, 0, "vb0"));
  notified();
  root->interfaceIs(Interface(3, IFF_UP, "wan0"));  // renamed
  EXPECT_THAT(notified(), ElementsAre("byName(va0)", "byName(wan0)", "byIfIndex(3)", "cache(3)"));
  EXPECT_THAT(devices(), ElementsAre("wan0 (ifIndex 3, flags 0x1)", "vb0 (ifIndex 4, flags 0x0)"));
  root->interfaceIs(Interface(8, IFF_UP, "wan0"));  // the name's previous holder goes first, on its own
  EXPECT_THAT(notified(), ElementsAre("byName(wan0)", "byIfIndex(3)", "cache(3)",  //
                                      "byName(wan0)", "byIfIndex(8)", "cache(8)"));
  EXPECT_THAT(devices(), ElementsAre("vb0 (ifIndex 4, flags 0x0)", "wan0 (ifIndex 8, flags 0x1)"));
  root->interfaceDel(8);
  root->interfaceDel(8);
  EXPECT_THAT(notified(), ElementsAre("byName(wan0)", "byIfIndex(8)", "cache(8)"));
  for (auto [refused, why] : {std::pair(Interface(), "ifIndex 0"), {Interface(5, 0, ""), "empty deviceName"}}) {
    EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([&] { root->interfaceIs(refused); }),
              std::string("KernelNetInfo::Root::interfaceIs: ") + why + " not allowed");
  }
  EXPECT_THAT(notified(), IsEmpty());
  root->interfaceDelAll();
  EXPECT_THAT(devices(), IsEmpty());
}

// A dump applied as a whole: what vanished goes, what changed is updated, what is new is added, and
// nothing else is notified.
TEST_F(KernelNetInfoRoot, ReconcileAppliesOnlyRealChanges) {
  for (Interface const & i : {Interface(1, IFF_UP | IFF_RUNNING, "lo"), Interface(3, 0, "va0"), Interface(4, 0, "vb0"),
                              Interface(5, 0, "gone0")}) {
    root->interfaceIs(i);
  }
  notified();
  std::vector<Interface> const dump = {Interface(1, IFF_UP | IFF_RUNNING, "lo"), Interface(3, IFF_UP, "va0"),
                                       Interface(4, 0, "wan0"), Interface(6, 0, "new0")};
  KernelNetInfo::reconcile(*root, dump);
  EXPECT_THAT(notified(), ElementsAre("byName(gone0)", "byIfIndex(5)", "cache(5)",                 // vanished
                                      "byName(va0)", "byIfIndex(3)",                                // flags changed
                                      "byName(vb0)", "byName(wan0)", "byIfIndex(4)", "cache(4)",    // renamed
                                      "byName(new0)", "byIfIndex(6)", "cache(6)"));                 // new
  EXPECT_THAT(devices(), ElementsAre("lo (ifIndex 1, flags 0x41)", "va0 (ifIndex 3, flags 0x1)",
                                     "wan0 (ifIndex 4, flags 0x0)", "new0 (ifIndex 6, flags 0x0)"));
  KernelNetInfo::reconcile(*root, dump);
  EXPECT_THAT(notified(), IsEmpty());
  KernelNetInfo::reconcile(*root, {Interface(3, 0, "wan0"), Interface(4, 0, "va0")});  // names swapped
  EXPECT_THAT(devices(), ElementsAre("wan0 (ifIndex 3, flags 0x0)", "va0 (ifIndex 4, flags 0x0)"));
}

}  // namespace
