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
  void onIntfStatusvornImmediate() override {
    // What a reactor reconciles against: the directory as it is when the call arrives.
    std::string present;
    for (auto const & e : notifier()->intfStatusIter()) {
      present += std::string(present.empty() ? "" : " ") + e.key.charPtr();
    }
    log.add("onIntfStatusvornImmediate", present);
  }
  NotificationLog & log;
  std::function<void(IntfId const &)> onKey;
};

Vorn::Ptr<Interface::IntfStatus> status(char const * id) { return Interface::intfStatusFactory(IntfId(id)); }

class AllIntfStatusDirTest : public testing::Test {
 protected:
  AllIntfStatusDirTest() : dir(Interface::allIntfStatusDirFactory("all")), watcher(new DirWatcher(log)) {
    watcher->notifierIs(dir);
    log.take();
  }
  Vorn::Ptr<AllIntfStatusDir> dir;
  NotificationLog log;
  Vorn::Ptr<DirWatcher> watcher;
};

TEST_F(AllIntfStatusDirTest, InsertReplaceAndRepeatNotifyOnlyRealChanges) {
  auto first = status("Ethernet1");
  dir->intfStatusIs(first);
  dir->intfStatusIs(first);  // the same entity again: nothing
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatus(Ethernet1)"));
  EXPECT_EQ(dir->intfStatus(IntfId("Ethernet1")), first);

  auto second = status("Ethernet1");  // another entity with the same id replaces the first
  dir->intfStatusIs(second);
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatus(Ethernet1)"));
  EXPECT_EQ(dir->intfStatus(IntfId("Ethernet1")), second);
  EXPECT_EQ(dir->intfStatuss(), 1u);
  EXPECT_EQ(first->references(), 1u);  // the directory let go of the replaced entity

  dir->intfStatusIs(status("Ethernet2"));
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatus(Ethernet2)"));
  EXPECT_EQ(dir->intfStatuss(), 2u);
  EXPECT_EQ(dir->intfStatus(IntfId("Ethernet3")), nullptr);
}

TEST_F(AllIntfStatusDirTest, NullStatusIsRefusedWithTheFixedTextAndChangesNothing) {
  dir->intfStatusIs(status("Ethernet1"));
  log.take();
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { dir->intfStatusIs(nullptr); }),
            "null _intfStatus parameter to mutator for Interface::AllIntfStatusDir::intfStatus not allowed\"");
  EXPECT_EQ(dir->intfStatuss(), 1u);
  EXPECT_NE(dir->intfStatus(IntfId("Ethernet1")), nullptr);
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(AllIntfStatusDirTest, DeleteNotifiesPresentKeysAndReleasesTheEntity) {
  auto s = status("Ethernet1");
  dir->intfStatusIs(s);
  log.take();
  dir->intfStatusDel(IntfId("Ethernet9"));  // absent: nothing
  EXPECT_THAT(log.take(), IsEmpty());
  dir->intfStatusDel(IntfId("Ethernet1"));
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatus(Ethernet1)"));
  EXPECT_EQ(dir->intfStatuss(), 0u);
  EXPECT_EQ(s->references(), 1u);
}

TEST_F(AllIntfStatusDirTest, NotifyReportsAKeyWithoutChangingAnything) {
  dir->intfStatusIs(status("Ethernet1"));
  log.take();
  dir->intfStatusNotify(IntfId("Ethernet1"));
  dir->intfStatusNotify(IntfId("Ethernet7"));  // absent keys are notified too
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatus(Ethernet1)", "onIntfStatus(Ethernet7)"));
  EXPECT_EQ(dir->intfStatuss(), 1u);
}

TEST_F(AllIntfStatusDirTest, BindingAReactorDeliversTheWholeDirectoryOnce) {
  dir->intfStatusIs(status("Ethernet1"));
  log.take();
  NotificationLog lateLog;
  Vorn::Ptr<DirWatcher> late = new DirWatcher(lateLog);
  late->notifierIs(dir);
  EXPECT_THAT(lateLog.take(), ElementsAre("onIntfStatusvornImmediate(Ethernet1)"));
  late->notifierIs(dir);  // same binding: nothing new
  EXPECT_THAT(lateLog.take(), IsEmpty());

  auto other = Interface::allIntfStatusDirFactory("other");
  late->notifierIs(other);  // rebinding reconciles with the new directory
  EXPECT_THAT(lateLog.take(), ElementsAre("onIntfStatusvornImmediate()"));
  dir->intfStatusIs(status("Ethernet2"));
  EXPECT_THAT(lateLog.take(), IsEmpty());
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatus(Ethernet2)"));
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
  dir->intfStatusDelAll();
  EXPECT_THAT(log.take(), IsEmpty());
}

struct LocalDirWatcher : AllIntfStatusLocalDir::NotifieeConst {
  explicit LocalDirWatcher(NotificationLog & l) : log(l) {}
  void onIntfStatusLocal(IntfId const & id) override { log.add("onIntfStatusLocal", id); }
  void onIntfStatusLocalvornImmediate() override { log.add("onIntfStatusLocalvornImmediate"); }
  NotificationLog & log;
};

TEST(AllIntfStatusLocalDir, KeyedByTheEntitysIdWithItsOwnNotificationsAndNullText) {
  auto dir = Interface::allIntfStatusLocalDirFactory("allLocal");
  EXPECT_STREQ(dir->vornTypeName(), "Interface::AllIntfStatusLocalDir");
  NotificationLog log;
  Vorn::Ptr<LocalDirWatcher> w = new LocalDirWatcher(log);
  w->notifierIs(dir);
  auto local = Interface::intfStatusLocalFactory(IntfId("Ethernet1"));
  dir->intfStatusLocalIs(local);
  dir->intfStatusLocalIs(local);
  dir->intfStatusLocalNotify(IntfId("Ethernet5"));
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { dir->intfStatusLocalIs(nullptr); }),
            "null _intfStatusLocal parameter to mutator for Interface::AllIntfStatusLocalDir::intfStatusLocal not "
            "allowed\"");
  EXPECT_EQ(dir->intfStatusLocals(), 1u);
  EXPECT_EQ(dir->intfStatusLocal(IntfId("Ethernet1")), local);
  dir->intfStatusLocalIs(Interface::intfStatusLocalFactory(IntfId("Ethernet2")));
  dir->intfStatusLocalDel(IntfId("Ethernet1"));
  dir->intfStatusLocalDelAll();
  EXPECT_EQ(dir->intfStatusLocals(), 0u);
  EXPECT_THAT(log.take(), ElementsAre("onIntfStatusLocalvornImmediate", "onIntfStatusLocal(Ethernet1)",
                                      "onIntfStatusLocal(Ethernet5)", "onIntfStatusLocal(Ethernet2)",
                                      "onIntfStatusLocal(Ethernet1)", "onIntfStatusLocal(Ethernet2)"));
}

}  // namespace
