// The directories of all interface statuses and local statuses, keyed by the entity's id.
#include "intfsm/foundation/interface/AllIntfStatusDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/NotificationLog.h"
#include "tests/support/ThrownText.h"

using IntfsmTest::NotificationLog;
using IntfsmTest::thrownText;
using Ovel::IntfId;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

struct DirWatcher : Interface::AllIntfStatusDir::NotifieeConst {
  void onIntfStatus(IntfId const & id) override {
    log.add("onIntfStatus", id);
    if (onKey) onKey(id);
  }
  // What a reactor reconciles against: the directory as it is when the call arrives.
  void onIntfStatusvornImmediate() override { log.add("onIntfStatusvornImmediate", notifier()->intfStatuss()); }
  NotificationLog log;
  std::function<void(IntfId const &)> onKey;
};

Vorn::Ptr<Interface::IntfStatus> status(char const * id) { return Interface::intfStatusFactory(IntfId(id)); }

class AllIntfStatusDirTest : public testing::Test {
 protected:
  AllIntfStatusDirTest() { watcher->notifierIs(dir); }
  Vorn::Ptr<Interface::AllIntfStatusDir> dir = Interface::allIntfStatusDirFactory("all");
  Vorn::Ptr<DirWatcher> watcher = new DirWatcher;
};

// Another entity with the same id replaces the first (which the directory lets go); absent keys may
// be notified too.
TEST_F(AllIntfStatusDirTest, KeyedByTheStatussIdAndNotifyingOnlyRealChanges) {
  auto first = status("Ethernet1"), second = status("Ethernet1");
  dir->intfStatusIs(first);
  dir->intfStatusIs(first);
  dir->intfStatusIs(second);
  EXPECT_EQ(dir->intfStatus(IntfId("Ethernet1")), second);
  EXPECT_EQ(first->references(), 1u);
  dir->intfStatusIs(status("Ethernet2"));
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { dir->intfStatusIs(nullptr); }),
            "null _intfStatus parameter to mutator for Interface::AllIntfStatusDir::intfStatus not allowed\"");
  dir->intfStatusDel(IntfId("Ethernet9"));
  dir->intfStatusDel(IntfId("Ethernet1"));
  EXPECT_EQ(second->references(), 1u);
  dir->intfStatusNotify(IntfId("Ethernet7"));
  EXPECT_EQ(dir->intfStatuss(), 1u);
  EXPECT_THAT(watcher->log.take(), ElementsAre("onIntfStatusvornImmediate(0)", "onIntfStatus(Ethernet1)",
                                               "onIntfStatus(Ethernet1)", "onIntfStatus(Ethernet2)",
                                               "onIntfStatus(Ethernet1)", "onIntfStatus(Ethernet7)"));
}

TEST_F(AllIntfStatusDirTest, DeleteAllNotifiesEachKeyOnceEvenWhenHandlersDeleteToo) {
  for (char const * id : {"Ethernet1", "Ethernet2", "Ethernet3", "Ethernet4"}) dir->intfStatusIs(status(id));
  watcher->log.take();
  watcher->onKey = [this](IntfId const & id) {  // removes a neighbour while the directory is being emptied
    if (id == IntfId("Ethernet1") || id == IntfId("Ethernet3")) dir->intfStatusDel(IntfId("Ethernet2"));
  };
  dir->intfStatusDelAll();
  EXPECT_THAT(watcher->log.take(), UnorderedElementsAre("onIntfStatus(Ethernet1)", "onIntfStatus(Ethernet2)",
                                                        "onIntfStatus(Ethernet3)", "onIntfStatus(Ethernet4)"));
  EXPECT_EQ(dir->intfStatuss(), 0u);
}

struct LocalDirWatcher : Interface::AllIntfStatusLocalDir::NotifieeConst {
  void onIntfStatusLocal(IntfId const & id) override { log.add("onIntfStatusLocal", id); }
  void onIntfStatusLocalvornImmediate() override { log.add("onIntfStatusLocalvornImmediate"); }
  NotificationLog log;
};

TEST(AllIntfStatusLocalDir, KeyedByTheEntitysIdWithItsOwnNotificationsAndNullText) {
  auto dir = Interface::allIntfStatusLocalDirFactory("allLocal");
  Vorn::Ptr<LocalDirWatcher> w = new LocalDirWatcher;
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
  EXPECT_THAT(w->log.take(), ElementsAre("onIntfStatusLocalvornImmediate", "onIntfStatusLocal(Ethernet1)",
                                         "onIntfStatusLocal(Ethernet1)", "onIntfStatusLocal(Ethernet1)",
                                         "onIntfStatusLocal(Ethernet1)"));
}

}  // namespace
