// KernelNetInfo::Status against the real kernel, in a namespace the test makes: it follows device
// adds, deletes, renames, moves and up/down, and recovers from a forced receive-buffer overrun.
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>
#include <sstream>

#include "tests/support/NetNs.h"
#include "tests/support/OpenDescriptors.h"

namespace {

using KernelNetInfo::Status;

// "ifIndex name flags" rows.
using Rows = std::vector<std::string>;

std::string row(int ifIndex, std::string const & name, unsigned flags) {
  std::ostringstream s;
  s << ifIndex << " " << name << " 0x" << std::hex << flags;
  return s.str();
}

class KernelNetInfoKernel : public IntfsmTest::NetNsTest {
 protected:
  // What the Status holds.
  Rows held(Status const & status) const {
    std::vector<std::pair<uint32_t, std::string>> rows;
    for (auto const & e : status.root()->interfaceByIfIndexIter()) {
      rows.emplace_back(e.key, row(static_cast<int>(e.key), e.value.deviceName().stdString(), e.value.flags()));
    }
    std::sort(rows.begin(), rows.end());
    Rows out;
    for (auto & r : rows) out.push_back(r.second);
    return out;
  }
  // What the kernel has: the names from `ip -o link`, each read again over rtnetlink.
  Rows kernel(std::string const & ns) {
    IntfsmTest::CommandResult const list = netns().runIn(ns, "ip -o link show");
    EXPECT_EQ(list.status, 0) << list.output;
    std::vector<std::pair<int, std::string>> rows;
    std::istringstream lines(list.output);
    for (std::string line; std::getline(lines, line);) {
      size_t const colon = line.find(": ");
      if (colon == std::string::npos) continue;
      size_t const end = line.find_first_of("@:", colon + 2);
      std::string const name = line.substr(colon + 2, end - colon - 2);
      auto const state = netns().link(ns, name);
      if (state) rows.emplace_back(state->ifindex, row(state->ifindex, state->name, state->flags));
    }
    std::sort(rows.begin(), rows.end());
    Rows out;
    for (auto & r : rows) out.push_back(r.second);
    return out;
  }
  bool runUntil(std::function<bool()> const & done) { return loop.runUntil(done, 10.0); }

  Vorn::ActivityManager loop;
};

TEST_F(KernelNetInfoKernel, FollowsAddDeleteRenameMoveAndUpDown) {
  int const descriptors = intfsmTest::openDescriptorCount();
  std::string const ns = netns().namespaceNew();
  std::string const other = netns().namespaceNew();
  {
    auto status = Status::statusNew("kni", Ovel::NamespaceName(Vorn::String(ns)), nullptr, loop);
    status->enabledIs(true);
    auto const root = status->root();
    EXPECT_EQ(held(*status), kernel(ns));
    EXPECT_TRUE(root->interfaceByDeviceName("lo").isUp());

    netns().vethPairNew(ns, "va0", "vb0");
    ASSERT_TRUE(runUntil([&] { return root->interfaceByDeviceNameHas("va0") && root->interfaceByDeviceNameHas("vb0"); }));
    EXPECT_EQ(root->interfaceByDeviceName("va0").ifIndex(), static_cast<uint32_t>(netns().link(ns, "va0")->ifindex));
    EXPECT_EQ(root->interfaceByDeviceName("vb0").ifIndex(), static_cast<uint32_t>(netns().link(ns, "vb0")->ifindex));
    EXPECT_FALSE(root->interfaceByDeviceName("va0").isUp());

    netns().linkUp(ns, "va0");
    ASSERT_TRUE(runUntil([&] { return root->interfaceByDeviceName("va0").isUp(); }));
    EXPECT_FALSE(root->interfaceByDeviceName("va0").isRunning());  // its peer is down
    netns().linkUp(ns, "vb0");
    ASSERT_TRUE(runUntil([&] {
      return root->interfaceByDeviceName("va0").isRunning() && root->interfaceByDeviceName("vb0").isRunning();
    }));
    netns().linkDown(ns, "vb0");
    ASSERT_TRUE(runUntil([&] {
      return !root->interfaceByDeviceName("vb0").isUp() && !root->interfaceByDeviceName("va0").isRunning();
    }));

    uint32_t const vb0 = root->interfaceByDeviceName("vb0").ifIndex();
    netns().linkRename(ns, "vb0", "wan0");
    ASSERT_TRUE(runUntil([&] { return root->interfaceByDeviceNameHas("wan0"); }));
    EXPECT_FALSE(root->interfaceByDeviceNameHas("vb0"));
    EXPECT_EQ(root->interfaceByDeviceName("wan0").ifIndex(), vb0);
    EXPECT_EQ(root->deviceNameCache(vb0), "wan0");

    netns().linkMove(ns, "wan0", other);
    ASSERT_TRUE(runUntil([&] { return !root->interfaceByIfIndexHas(vb0); }));
    EXPECT_FALSE(root->interfaceByDeviceNameHas("wan0"));

    netns().linkDel(ns, "va0");
    ASSERT_TRUE(runUntil([&] { return !root->interfaceByDeviceNameHas("va0"); }));
    EXPECT_EQ(held(*status), kernel(ns));
    EXPECT_TRUE(status->synced());
    EXPECT_EQ(status->redumps(), 0u);
    EXPECT_GE(status->events(), 7u);
  }
  EXPECT_EQ(loop.watches(), 0u);
  EXPECT_EQ(intfsmTest::openDescriptorCount(), descriptors);
}

TEST_F(KernelNetInfoKernel, RecoversFromAnOverrunAndEndsEqualToTheKernel) {
  int const descriptors = intfsmTest::openDescriptorCount();
  std::string const ns = netns().namespaceNew();
  {
    auto status = Status::statusNew("kni", Ovel::NamespaceName(Vorn::String(ns)), nullptr, loop);
    status->rcvBufBytesIs(1024);  // the kernel rounds it up to its minimum, a couple of messages
    status->enabledIs(true);
    ASSERT_TRUE(status->synced());

    // 50 veth pairs in one go, and the loop not run meanwhile: far more than the buffer holds.
    IntfsmTest::CommandResult const burst =
        netns().runIn(ns, "i=0; while [ $i -lt 50 ]; do echo link add vx$i type veth peer name vy$i; "
                          "echo link set vx$i up; i=$((i+1)); done | ip -batch -");
    ASSERT_EQ(burst.status, 0) << burst.output;

    ASSERT_TRUE(runUntil([&] { return status->redumps() >= 1 && status->synced(); }))
        << "overruns " << status->overruns() << " redumps " << status->redumps();
    EXPECT_GE(status->overruns(), 1u);
    Rows const expected = kernel(ns);
    EXPECT_EQ(expected.size(), 101u);
    EXPECT_EQ(held(*status), expected);

    // And it goes on following.
    netns().linkDel(ns, "vx7");
    ASSERT_TRUE(runUntil([&] { return !status->root()->interfaceByDeviceNameHas("vx7"); }));
    EXPECT_FALSE(status->root()->interfaceByDeviceNameHas("vy7"));
  }
  EXPECT_EQ(intfsmTest::openDescriptorCount(), descriptors);
}

TEST_F(KernelNetInfoKernel, MissingNamespaceFailsWithNothingOpen) {
  int const descriptors = intfsmTest::openDescriptorCount();
  auto status = Status::statusNew("kni", Ovel::NamespaceName(Vorn::String("intfsmt-no-such-ns")), nullptr, loop);
  try {
    status->enabledIs(true);
    FAIL() << "enabled in a namespace that does not exist";
  } catch (Vorn::ErrnoException const & e) {
    EXPECT_EQ(e.errorNumber(), ENOENT);
    EXPECT_STREQ(e.what(), "KernelNetInfo::Status socket failed in namespace intfsmt-no-such-ns, errno: 2");
  }
  EXPECT_FALSE(status->enabled());
  EXPECT_EQ(intfsmTest::openDescriptorCount(), descriptors);
}

}  // namespace
