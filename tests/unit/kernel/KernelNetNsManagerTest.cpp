// The namespace collection: its two keys with aliases, reconciling a scan, and the manager's watching
// of a directory of its own (no namespace mounts here: those are in the kernel tests).
#include "intfsm/foundation/kernel/KernelNetNsManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <tuple>
#include <utility>

#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FakePlatform.h"
#include "tests/support/NotificationLog.h"
#include "tests/support/ScopedLoop.h"
#include "tests/support/TempDir.h"
#include "tests/support/ThrownText.h"
#include "tests/support/TraceCapture.h"

namespace {

using KernelNetNsInfo::Manager;
using KernelNetNsInfo::Root;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

Ovel::NamespaceName ns(char const * name) { return Ovel::NamespaceName(Vorn::String(name)); }

// Both collections as "name=number" and "number=name".
std::vector<std::string> contents(Root const & root) {
  std::vector<std::string> out;
  for (auto const & e : root.netNsByNameIter()) out.push_back(e.key.name().stdString() + "=" + std::to_string(e.value));
  for (auto const & e : root.netNsIter()) out.push_back(std::to_string(e.key) + "=" + e.value.name().stdString());
  return out;
}

struct Watcher : Root::NotifieeConst {
  void onNetNs(uint32_t number) override { log.add("netNs", number); }
  void onNetNsByName(Ovel::NamespaceName const & name) override { log.add("netNsByName", name); }
  IntfsmTest::NotificationLog log;
};

TEST(KernelNetNsRoot, ReconcileAppliesRealChangesOnlyAndNamesShareANumber) {
  Vorn::Ptr<Root> root = Root::rootNew("netNs");
  Vorn::Ptr<Watcher> watcher = new Watcher;
  watcher->notifierIs(root);
  root->namespaceIs(ns("default"), 10);
  root->namespaceIs(ns("blue"), 11);
  root->namespaceIs(ns("red"), 12);
  watcher->log.take();
  for (int i = 0; i < 2; ++i) KernelNetNsInfo::reconcile(*root, {{ns("default"), 10}, {ns("red"), 15}, {ns("green"), 13}});
  EXPECT_THAT(watcher->log.take(), ElementsAre("netNs(11)", "netNsByName(blue)",                 // vanished
                                               "netNs(15)", "netNsByName(red)", "netNs(12)",   // re-created: new number
                                               "netNs(13)", "netNsByName(green)"));            // new
  EXPECT_THAT(contents(*root), UnorderedElementsAre("default=10", "red=15", "green=13", "10=default", "15=red", "13=green"));

  // Under two names, a namespace keeps its number until both go; the first name stays while bound.
  // The default namespace's name wins its number, whatever came first.
  std::vector<std::string> numbered;  // what 13, then 10, is bound to after each step
  for (auto const & step : std::vector<std::function<void()>>{
           [&] { root->namespaceIs(ns("alias"), 13); }, [&] { root->namespaceDel(ns("green")); },
           [&] { root->namespaceDel(ns("alias")); },
           [&] { root->namespaceIs(ns("host"), 10), root->namespaceDel(ns("default")), root->namespaceIs(ns("default"), 10),
                 root->namespaceIs(ns("host"), 10); },
           [&] { root->namespaceDel(ns("host")); }}) {
    step();
    numbered.push_back((root->netNsHas(13) ? root->netNs(13).name().stdString() : "-") + " " + root->netNs(10).name().stdString());
  }
  EXPECT_THAT(numbered, ElementsAre("green default", "alias default", "- default", "- default", "- default"));
}

// A manager of a directory under a temporary parent, on a private loop and test time.
class KernelNetNsManager : public ::testing::Test {
 protected:
  ~KernelNetNsManager() override { manager = nullptr; }
  void start(bool withDirectory = true) {
    if (withDirectory) {
      ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    }
    manager = KernelNetNsInfo::ManagerIs(root, Vorn::String(dir), loop);
    manager->hasNotificationActiveIs(true);
  }
  void touch(std::string const & name) { std::ofstream(dir + "/" + name).put('x'); }
  void pass() { loop.runOnce(0); }
  std::vector<std::string> defaultOnly() const {
    struct stat st {};
    EXPECT_EQ(::stat("/proc/thread-self/ns/net", &st), 0);
    std::string const number = std::to_string(st.st_ino);
    return {"default=" + number, number + "=default"};
  }

  IntfsmTest::TempDir tmp;
  std::string const dir = tmp.path() + "/netns";
  IntfsmTest::ScopedTestTime time;
  Vorn::ActivityManager loop;
  Vorn::Ptr<Root> root = Root::rootNew("netNs");
  Vorn::Ptr<Manager> manager;
};

// The default namespace is there from the start; the directory is watched whenever it exists, and
// what was found in it goes with it.
TEST_F(KernelNetNsManager, HasTheDefaultNamespaceAndWatchesTheDirectoryWhileItExists) {
  start(false);
  for (int round = 0; round < 2; ++round) {
    EXPECT_THAT(contents(*root), ::testing::UnorderedElementsAreArray(defaultOnly()));
    EXPECT_FALSE(manager->directoryWatched());
    ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    pass();
    EXPECT_TRUE(manager->directoryWatched());
    root->namespaceIs(ns("stale"), 99);  // as if found there before
    ASSERT_EQ(::rmdir(dir.c_str()), 0);
    pass();
  }
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([] { KernelNetNsInfo::ManagerIs(nullptr); }),
            "KernelNetNsInfo::ManagerIs: null root not allowed");
}

// `ip netns add` makes the file first and mounts the namespace on it afterwards: a plain file is
// looked at again until its mount is due, then left alone; one named "default" is skipped.
TEST_F(KernelNetNsManager, APlainFileIsLookedAtAgainUntilItsMountIsDueThenLeftAlone) {
  start();
  IntfsmTest::TraceCapture trace{{"KernelNetNsInfo", 1}};
  touch("blue");
  touch("default");
  pass();
  EXPECT_EQ(std::tuple(manager->pendingMounts(), root->netNsByNameHas(ns("blue"))), std::tuple(1u, false));
  time.advance(1.0);
  pass();
  EXPECT_EQ(manager->pendingMounts(), 1u);  // still within the wait
  time.advance(Manager::mountWaitLimit);
  pass();
  EXPECT_EQ(manager->pendingMounts(), 0u);
  EXPECT_THAT(trace.texts("KernelNetNsInfo", 0),
              ElementsAre("Skipping " + dir + "/default: that name is the default namespace's",
                          "KernelNetNsInfo::Manager " + dir + "/blue is not a namespace mount after 2 s; "
                          "ignored until it changes"));
  ASSERT_EQ(::unlink((dir + "/default").c_str()), 0);
  touch("red");
  pass();
  // The removal of "default" is not the default namespace's.
  EXPECT_EQ(std::tuple(root->netNsByNameHas(ns("default")), manager->pendingMounts()), std::tuple(true, 1u));
  ASSERT_EQ(::unlink((dir + "/red").c_str()), 0);  // removed while waiting: no longer waited for
  pass();
  EXPECT_EQ(manager->pendingMounts(), 0u);
}

// A directory watch the kernel refuses (no watches left) is traced once and tried again every second
// until it holds; the directory is then scanned again for what came meanwhile, and followed.
TEST_F(KernelNetNsManager, ARefusedDirectoryWatchIsTriedAgainUntilItHolds) {
  IntfsmTest::FakePlatform fake;
  IntfsmTest::TraceCapture trace{{"KernelNetNsInfo", 1}};
  fake.failNext(IntfsmTest::FakePlatform::Kind::inotify_add_watch, ENOSPC, 2,
                [&](IntfsmTest::FakePlatform::Call const & c) { return c.text == dir; });
  start();
  touch("blue");  // made while nothing watches the directory: only a scan finds it
  for (int second = 0; second < 2; ++second) {
    pass();
    EXPECT_EQ(std::tuple(manager->directoryWatched(), manager->pendingMounts()), std::tuple(false, 0u));
    time.advance(Manager::shortageRetryInterval);
    pass();
  }
  EXPECT_EQ(std::tuple(manager->directoryWatched(), manager->pendingMounts()), std::tuple(true, 1u));
  touch("red");  // followed now
  pass();
  EXPECT_EQ(manager->pendingMounts(), 2u);
  EXPECT_THAT(trace.texts("KernelNetNsInfo", 0), ElementsAre("KernelNetNsInfo::Manager cannot watch " + dir + ", errno: 28"));
}

// Turned off, it closes its descriptor and stops waiting; turned on again, it reconciles what
// happened meanwhile. Dropping it stops it.
TEST_F(KernelNetNsManager, TurningOffClosesAndTurningOnAgainReconciles) {
  int const descriptors = IntfsmTest::openDescriptorCount();
  start();
  touch("blue");
  pass();
  manager->hasNotificationActiveIs(false);
  EXPECT_EQ(std::tuple(manager->pendingMounts(), loop.watches(), IntfsmTest::openDescriptorCount()), std::tuple(0u, 0u, descriptors));
  root->namespaceIs(ns("ghost"), 77);
  manager->hasNotificationActiveIs(true);
  // Ghost is gone; blue is looked at again.
  EXPECT_EQ(std::tuple(root->netNsByNameHas(ns("ghost")), manager->pendingMounts()), std::tuple(false, 1u));
  manager = nullptr;
  EXPECT_EQ(std::tuple(loop.watches(), IntfsmTest::openDescriptorCount()), std::tuple(0u, descriptors));
}

// What a read returns is walked only as far as whole events lie in it: bytes that are not a whole
// event end the walk with a trace and a rescan (events may be lost), and a name is read only within
// its own length. The bytes come through the platform's read.
TEST_F(KernelNetNsManager, InotifyEventsAreCheckedAgainstTheBytesRead) {
  start();
  auto event = [](uint32_t mask, std::string const & name, uint32_t len) {
    std::string bytes(sizeof(inotify_event), '\0');
    inotify_event const header{2, mask, 0, len};  // 2: the directory's watch, after its parent's
    std::memcpy(bytes.data(), &header, sizeof header);
    return bytes + name;
  };
  std::string const ghostGone = event(IN_DELETE, std::string("ghost\0\0\0", 8), 8);
  struct Row {
    char const * what;
    std::string bytes;
    bool ghostStays, malformed;
  } const rows[] = {
      {"a whole event", ghostGone, false, false},
      {"a name without its NUL, within its length", event(IN_DELETE, "ghost", 5), false, false},
      {"a header cut short", ghostGone.substr(0, 10), false, true},  // the rescan drops ghost too
      {"a length past the end", event(IN_DELETE, "ghost", 64), false, true},
      {"an event for another watch", event(IN_DELETE, "ghost", 5).replace(0, 1, 1, '\7'), true, false},
  };
  Platform::Calls & calls = Platform::calls();
  auto const read = calls.read;
  for (Row const & row : rows) {
    SCOPED_TRACE(row.what);
    IntfsmTest::TraceCapture trace{{"KernelNetNsInfo", 1}};
    root->namespaceIs(ns("ghost"), 77);
    uint64_t const malformed = manager->malformedReads();
    bool given = false;
    calls.read = [&](int, void * data, size_t length) -> ssize_t {
      if (std::exchange(given, true)) return errno = EAGAIN, -1;
      std::memcpy(data, row.bytes.data(), std::min(length, row.bytes.size()));
      return static_cast<ssize_t>(row.bytes.size());
    };
    manager->handleReadable();
    calls.read = read;
    EXPECT_EQ(std::tuple(root->netNsByNameHas(ns("ghost")), manager->malformedReads() - malformed,
                         trace.countContaining("bytes that are not a whole inotify event; scanning " + dir + " again")),
              std::tuple(row.ghostStays, row.malformed ? 1u : 0u, row.malformed ? 1u : 0u));
  }
}

}  // namespace
