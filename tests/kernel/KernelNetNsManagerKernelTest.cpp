// KernelNetNsInfo::Manager against real namespaces: a namespace mount that lands on an entry after the
// entry was created. Following `ip netns add` / `del` in /run/netns is in the oper-state root's kernel
// test (namespaces created and deleted after start-up).
#include "intfsm/foundation/kernel/KernelNetNsManager.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "tests/support/KernelModuleTest.h"
#include "tests/support/TempDir.h"

namespace {

using KernelNetNsInfo::Manager;

uint32_t inodeOf(std::string const & path) {
  struct stat st {};
  EXPECT_EQ(::stat(path.c_str(), &st), 0) << path << ": " << std::strerror(errno);
  return static_cast<uint32_t>(st.st_ino);
}

Ovel::NamespaceName nsName(std::string const & name) { return Ovel::NamespaceName(Vorn::String(name)); }

// Whatever a test did, the manager it made leaves no watch and no descriptor behind.
class KernelNetNsManagerKernel : public IntfsmTest::KernelModuleTest {
 protected:
  void TearDown() override {
    manager = nullptr;
    KernelModuleTest::TearDown();
  }
  void start(Vorn::String const & dir) {
    manager = KernelNetNsInfo::ManagerIs(root, dir, loop());
    manager->hasNotificationActiveIs(true);
  }

  Vorn::Ptr<KernelNetNsInfo::Root> root = KernelNetNsInfo::Root::rootNew("netNs");
  Vorn::Ptr<Manager> manager;
};

// The order `ip netns add` uses on a new directory: the directory, its bind mount onto itself, the
// file, and the namespace mount on the file afterwards, with no inotify event for either mount.
TEST_F(KernelNetNsManagerKernel, AMountThatFollowsTheFileIsPickedUp) {
  std::string const target = netns().namespaceNew();
  IntfsmTest::TempDir scratch;
  std::string const dir = scratch.path() + "/netns", entry = dir + "/late";
  struct Unmount {  // on every path out of the test, before the directory goes
    std::string dir, entry;
    ~Unmount() { ::umount2(entry.c_str(), MNT_DETACH), ::umount2(dir.c_str(), MNT_DETACH); }
  } unmount{dir, entry};
  start(Vorn::String(dir));
  EXPECT_EQ(root->netNsByName(nsName(Ovel::DEFAULT_NS)), inodeOf("/proc/thread-self/ns/net"));
  ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
  ASSERT_TRUE(runUntil([&] { return manager->directoryWatched(); }));
  // The watch is on the directory itself, so it keeps seeing entries made through the new mount.
  ASSERT_EQ(::mount(dir.c_str(), dir.c_str(), nullptr, MS_BIND, nullptr), 0) << std::strerror(errno);
  std::ofstream(entry).put('x');
  ASSERT_TRUE(runUntil([&] { return manager->pendingMounts() == 1; }));
  ASSERT_EQ(::mount(("/run/netns/" + target).c_str(), entry.c_str(), nullptr, MS_BIND, nullptr), 0)
      << std::strerror(errno);
  ASSERT_TRUE(runUntil([&] { return root->netNsByNameHas(nsName("late")); }));
  EXPECT_EQ(std::tuple(root->netNsByName(nsName("late")), manager->pendingMounts()), std::tuple(inodeOf("/run/netns/" + target), 0u));
  ASSERT_EQ(::umount2(entry.c_str(), MNT_DETACH), 0);
  ASSERT_EQ(::unlink(entry.c_str()), 0);
  ASSERT_TRUE(runUntil([&] { return !root->netNsByNameHas(nsName("late")); }));
}

}  // namespace
