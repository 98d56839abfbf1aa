// KernelNetInfo::Status against the real kernel, in a namespace the test makes: it follows device
// adds, deletes, renames, moves and up/down, and its namespace deleted and re-created under the same
// name. A real overrun is in the kernel interface status manager's kernel test; a missing namespace in
// the unit tests.
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include <algorithm>
#include <sstream>

#include "intfsm/KniIntfStatusManager/NetNsIntfStatusManagerRoot.h"
#include "intfsm/foundation/kernel/KernelNetNsManager.h"
#include "tests/support/KernelModuleTest.h"

namespace {

using KernelNetInfo::Status;

// Devices as "ifIndex name flags" rows, in ifindex order.
using Rows = std::vector<std::pair<uint32_t, std::string>>;
void add(Rows & rows, uint32_t ifIndex, std::string const & name, unsigned flags) {
  std::ostringstream s;
  s << ifIndex << " " << name << " 0x" << std::hex << flags;
  rows.emplace_back(ifIndex, s.str());
  std::sort(rows.begin(), rows.end());
}

class KernelNetInfoKernel : public IntfsmTest::KernelModuleTest {
 protected:
  void TearDown() override {
    status = nullptr;
    KernelModuleTest::TearDown();
  }
  void enable(std::string const & ns) {
    status = Status::statusNew("kni", Ovel::NamespaceName(Vorn::String(ns)), nullptr, loop());
    status->enabledIs(true);
  }
  Rows held() const {
    Rows rows;
    for (auto const & e : status->root()->interfaceByIfIndexIter()) {
      add(rows, e.key, e.value.deviceName().stdString(), e.value.flags());
    }
    return rows;
  }
  // What the kernel has, each device read over rtnetlink.
  Rows kernel(std::string const & ns) {
    IntfsmTest::CommandResult const list = netns().runIn(ns, "ls /sys/class/net");
    EXPECT_EQ(list.status, 0) << list.output;
    Rows rows;
    std::istringstream names(list.output);
    for (std::string name; names >> name;) {
      if (auto const state = netns().link(ns, name)) add(rows, state->ifindex, state->name, state->flags);
    }
    return rows;
  }
  KernelNetInfo::Interface device(char const * name) const { return status->root()->interfaceByDeviceName(name); }

  Vorn::Ptr<Status> status;
};

TEST_F(KernelNetInfoKernel, FollowsAddDeleteRenameMoveAndUpDown) {
  std::string const ns = netns().namespaceNew();
  std::string const other = netns().namespaceNew();
  enable(ns);
  EXPECT_EQ(held(), kernel(ns));
  EXPECT_TRUE(device("lo").isUp());

  netns().vethPairNew(ns, "va0", "vb0");
  ASSERT_TRUE(runUntil([&] { return device("va0") && device("vb0"); }));
  EXPECT_EQ(device("va0").ifIndex(), static_cast<uint32_t>(netns().link(ns, "va0")->ifindex));
  netns().linkUp(ns, "va0");
  ASSERT_TRUE(runUntil([&] { return device("va0").isUp(); }));
  EXPECT_FALSE(device("va0").isRunning());  // its peer is down
  netns().linkUp(ns, "vb0");
  ASSERT_TRUE(runUntil([&] { return device("va0").isRunning() && device("vb0").isRunning(); }));
  netns().linkDown(ns, "vb0");
  ASSERT_TRUE(runUntil([&] { return !device("vb0").isUp() && !device("va0").isRunning(); }));

  uint32_t const vb0 = device("vb0").ifIndex();
  netns().linkRename(ns, "vb0", "wan0");
  ASSERT_TRUE(runUntil([&] { return device("wan0").ifIndex() == vb0; }));
  EXPECT_EQ(std::tuple(bool(device("vb0")), status->root()->deviceNameCache(vb0)), std::tuple(false, "wan0"));
  netns().linkMove(ns, "wan0", other);
  ASSERT_TRUE(runUntil([&] { return !status->root()->interfaceByIfIndexHas(vb0); }));
  EXPECT_FALSE(device("wan0"));
  netns().linkDel(ns, "va0");
  ASSERT_TRUE(runUntil([&] { return !device("va0"); }));
  EXPECT_EQ(held(), kernel(ns));
  EXPECT_EQ(std::tuple(status->synced(), status->redumps()), std::tuple(true, 0u));
}

// The namespace of each of this process's sockets, by inode (SIOCGSKNS).
std::vector<ino_t> socketNamespaces() {
  std::vector<ino_t> found;
  for (auto const & entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    int const fd = std::stoi(entry.path().filename());
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode)) continue;
    int const nsFd = ::ioctl(fd, SIOCGSKNS);
    if (nsFd < 0) continue;
    if (::fstat(nsFd, &st) == 0) found.push_back(st.st_ino);
    ::close(nsFd);
  }
  return found;
}

// `ip netns del` with the status open in the namespace (its socket pinned it), then a namespace of the
// same name with the device again, at another ifindex: the published interface goes with the old
// namespace and comes back with the new device.
TEST_F(KernelNetInfoKernel, ANamespaceDeletedAndRecreatedUnderItsNameIsFollowed) {
  std::string const ns = netns().namespaceNew();
  netns().vethPairNew(ns, "vx0", "vy0");  // so that va0's ifindex differs in the new namespace
  netns().vethPairNew(ns, "va0", "vb0");
  auto netNs = KernelNetNsInfo::Root::rootNew("netNs");
  auto netNsManager = KernelNetNsInfo::ManagerIs(netNs, KernelNetNsInfo::Manager::defaultDirectory, loop());
  netNsManager->hasNotificationActiveIs(true);
  enable(ns);
  status->netNsCollectionIs(netNs);
  auto all = Interface::allIntfStatusDirFactory("all");
  auto locals = Interface::allIntfStatusLocalDirFactory("locals");
  auto kniRoot = Interface::netNsIntfStatusManagerRootFactory(all, locals, true);
  auto const published = kniRoot->intfStatusManagerIs(Interface::deviceIntfStatusDirFactory(ns), status,
                                                       Ovel::NamespaceName(ns))->kernelIntfStatusDir();
  Ovel::IntfId const id("Ethernet1");
  all->intfStatusIs(Interface::intfStatusFactory(id));
  all->intfStatus(id)->deviceNameIs("va0");
  locals->intfStatusLocalIs(Interface::intfStatusLocalFactory(id));
  locals->intfStatusLocal(id)->netNsNameIs(Ovel::NamespaceName(ns));
  auto const ifIndex = [&] { return published->intfStatusAndDeviceName(id).ifIndex; };
  uint32_t const first = static_cast<uint32_t>(netns().link(ns, "va0")->ifindex);
  ASSERT_TRUE(runUntil([&] { return ifIndex() == first; }));
  struct stat old {};
  ASSERT_EQ(::stat(("/run/netns/" + ns).c_str(), &old), 0);

  ASSERT_EQ(IntfsmTest::runCommand({"ip", "netns", "del", ns}).status, 0);
  ASSERT_TRUE(runUntil([&] { return ifIndex() == 0; }));
  EXPECT_EQ(std::tuple(published->intfStatusByIfIndexs(), status->descriptor(), status->root()->interfaceByIfIndexs(),
                       status->enabled()),
            std::tuple(0u, -1, 0u, true));
  EXPECT_THAT(socketNamespaces(), ::testing::Not(::testing::Contains(old.st_ino)));

  ASSERT_EQ(IntfsmTest::runCommand({"ip", "netns", "add", ns}).status, 0);  // removed by the fixture
  netns().vethPairNew(ns, "va0", "vb0");
  uint32_t const second = static_cast<uint32_t>(netns().link(ns, "va0")->ifindex);
  ASSERT_NE(second, first);
  ASSERT_TRUE(runUntil([&] { return ifIndex() == second; }));
  EXPECT_EQ(std::tuple(published->intfStatusByIfIndex(second).deviceName, status->reopens()), std::tuple("va0", 1u));
  kniRoot = nullptr, status = nullptr, netNsManager = nullptr;
}

}  // namespace
