#include "intfsm/foundation/interface/AllIntfStatusDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/NotificationLog.h"
#include "tests/support/ThrownText.h"

using Interface::AllIntfStatusDir;
using Interface::AllIntfStatusLocalDir;
using IntfsmTest::NotificationLog;
using IntfsmTest::thrownText;
using Ovel::IntfId;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

struct DirWatcher : AllIntfStatusDir::NotifieeConst {
  explicit DirWatcher(NotificationLog & l) : log(l) {}
  void onIntfStatus(IntfId const & id) override {
    log.add("onIntfStatus", id);
    if (onKey) onKey(id);
  }
  // What a reactor reconciles against: the directory as it is when the call arrives.
  void onIntfStatusvornImmediate() override { log.add("onIntfStatusvornImmediate", notifier()->intfStatuss()); }
  NotificationLog & log;
  std::function<void(IntfId const &)> onKey;
};

Vorn::Ptr<Interface::IntfStatus> status(char const * id) { return Interface::intfStatusFactory(IntfId(id)); }

class AllIntfStatusDirTest : public testing::Test {
 protected:
  AllIntfStatusDirTest() { watcher->notifierIs(dir); }
  Vorn::Ptr<AllIntfStatusDir> dir = Interface::allIntfStatusDirFactory("all");
  NotificationLog log;
  Vorn::Ptr<DirWatcher> watcher = new DirWatcher(log);
};

TEST_F(AllIntfStatusDirTest, KeyedByTheStatussIdAndNotifyingOnlyRealChanges) {
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatusvornImmediate(0)"));
  auto first = status("Ethernet1");
  dir->intfStatusIs(first);
  dir->intfStatusIs(first);  // the same entity again: nothing
  auto second = status("Ethernet1");
  dir->intfStatusIs(second);  // another entity with the same id replaces the first
  EXPECT_EQ(dir->intfStatus(IntfId("Ethernet1")), second);
  EXPECT_EQ(first->references(), 1u);  // the directory let go of the replaced entity
  dir->intfStatusIs(status("Ethernet2"));
  EXPECT_EQ(dir->intfStatuss(), 2u);
  EXPECT_EQ(dir->intfStatus(IntfId("Ethernet3")), nullptr);
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatus(Ethernet1)", "onIntfStatus(Ethernet1)", "onIntfStatus(Ethernet2)"));

  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { dir->intfStatusIs(nullptr); }),
            "null _intfStatus parameter to mutator for Interface::AllIntfStatusDir::intfStatus not allowed\"");
  dir->intfStatusDel(IntfId("Ethernet9"));  // absent: nothing
  EXPECT_THAT(log.take(), IsEmpty());

  dir->intfStatusDel(IntfId("Ethernet1"));
  EXPECT_EQ(second->references(), 1u);
  dir->intfStatusNotify(IntfId("Ethernet7"));  // absent keys are notified too
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatus(Ethernet1)", "onIntfStatus(Ethernet7)"));
  EXPECT_EQ(dir->intfStatuss(), 1u);
}

TEST_F(AllIntfStatusDirTest, DeleteAllNotifiesEachKeyOnceEvenWhenHandlersDeleteToo) {
  for (char const * id : {"Ethernet1", "Ethernet2", "Ethernet3", "Ethernet4"}) dir->intfStatusIs(status(id));
  log.take();
  // A handler that removes a neighbour while the directory is being emptied.
  watcher->onKey = [this](IntfId const & id) {
    if (id == IntfId("Ethernet1") || id == IntfId("Ethernet3")) dir->intfStatusDel(IntfId("Ethernet2"));
  };
  dir->intfStatusDelAll();
  EXPECT_THAT(log.take(), UnorderedElementsAre("onIntfStatus(Ethernet1)", "onIntfStatus(Ethernet2)",
                                               "onIntfStatus(Ethernet3)", "onIntfStatus(Ethernet4)"));
  EXPECT_EQ(dir->intfStatuss(), 0u);
}

struct LocalDirWatcher : AllIntfStatusLocalDir::NotifieeConst {
  explicit LocalDirWatcher(NotificationLog & l) : log(l) {}
  void onIntfStatusLocal(IntfId const & id) override { log.add("onIntfStatusLocal", id); }
  void onIntfStatusLocalvornImmediate() override { log.add("onIntfStatusLocalvornImmediate"); }
  NotificationLog & log;
};

TEST(AllIntfStatusLocalDir, KeyedByTheEntitysIdWithItsOwnNotificationsAndNullText) {
  auto dir = Interface::allIntfStatusLocalDirFactory("allLocal");
  NotificationLog log;
  Vorn::Ptr<LocalDirWatcher> w = new LocalDirWatcher(log);
  w->notifierIs(dir);
  auto local = Interface::intfStatusLocalFactory(IntfId("Ethernet1"));
  dir->intfStatusLocalIs(local);
  dir->intfStatusLocalIs(local);
  EXPECT_EQ(dir->intfStatusLocal(IntfId("Ethernet1")), local);
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { dir->intfStatusLocalIs(nullptr); }),
            "null _intfStatusLocal parameter to mutator for Interface::AllIntfStatusLocalDir::intfStatusLocal not "
            "allowed\"");
  dir->intfStatusLocalDel(IntfId("Ethernet1"));
  dir->intfStatusLocalIs(local);
  dir->intfStatusLocalDelAll();
  EXPECT_EQ(dir->intfStatusLocals(), 0u);
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatusLocalvornImmediate", "onIntfStatusLocal(Ethernet1)",
                                      "onIntfStatusLocal(Ethernet1)", "onIntfStatusLocal(Ethernet1)",
                                      "onIntfStatusLocal(Ethernet1)"));
}

}  // namespace
