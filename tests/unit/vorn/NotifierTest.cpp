// The notification rules every state machine relies on.
#include <gtest/gtest.h>

#include <functional>

#include "tests/support/TestEntities.h"

using IntfsmTest::Gadget;
using IntfsmTest::Widget;
using IntfsmTest::WidgetRecorder;
using Vorn::Ptr;

namespace {

// A notifiee whose reaction is supplied by the test.
class Hook : public Widget::NotifieeConst {
 public:
  explicit Hook(Ptr<Widget const> const & w, std::function<void(Hook *)> onLevelFn = {})
      : fn(std::move(onLevelFn)) {
    notifierIs(w);
  }
  void onLevel() override {
    ++calls;
    if (fn) fn(this);
  }
  std::function<void(Hook *)> fn;
  int calls = 0;
};

TEST(Notifier, StoringTheCurrentValueNotifiesNobody) {
  auto w = Widget::widgetNew("w");
  Ptr<WidgetRecorder> r = new WidgetRecorder(w);
  r->log.clear();
  w->levelIs(0);
  w->itemIs("a", 0);  // absent key set to the zero value is still an insertion
  w->itemIs("a", 0);
  EXPECT_EQ(r->log, (std::vector<std::string>{"item:a"}));
  w->levelIs(3);
  w->levelIs(3);
  EXPECT_EQ(r->log, (std::vector<std::string>{"item:a", "level=3"}));
}

TEST(Notifier, DeliveryIsSynchronousAndSeesTheNewValue) {
  auto w = Widget::widgetNew("w");
  int seen = -1;
  Ptr<Hook> h = new Hook(w, [&](Hook * self) { seen = self->notifier()->level(); });
  w->levelIs(7);
  EXPECT_EQ(seen, 7);  // already delivered when the mutator returns
}

TEST(Notifier, BindingDeliversTheWholeCollectionNotificationOnce) {
  auto w = Widget::widgetNew("w");
  w->itemIs("x", 1);
  Ptr<WidgetRecorder> r = new WidgetRecorder(w);
  EXPECT_EQ(r->log, (std::vector<std::string>{"items*"}));
  r->notifierIs(w);  // same notifier: no rebinding, no second pass
  EXPECT_EQ(r->log.size(), 1u);

  auto other = Widget::widgetNew("other");
  r->notifierIs(other);  // rebinding replaces the binding
  w->levelIs(1);
  other->levelIs(2);
  EXPECT_EQ(r->log, (std::vector<std::string>{"items*", "items*", "level=2"}));
  EXPECT_EQ(w->notifiees(), 0u);
}

TEST(Notifier, InactiveUnregisteredAndMarkedNotifieesAreSkipped) {
  auto w = Widget::widgetNew("w");
  Ptr<Hook> h = new Hook(w);
  EXPECT_TRUE(h->hasNotificationActive());  // created active

  h->hasNotificationActiveIs(false);
  w->levelIs(1);
  h->hasNotificationActiveIs(true);
  w->levelIs(2);
  EXPECT_EQ(h->calls, 1);

  h->isRegisteredNotifieeIs(false);
  EXPECT_EQ(w->notifiees(), 0u);
  w->levelIs(3);
  h->isRegisteredNotifieeIs(true);
  w->levelIs(4);
  EXPECT_EQ(h->calls, 2);

  h->vornMarkedForDeletionIs(true);
  w->levelIs(5);
  EXPECT_EQ(h->calls, 2);
}

TEST(Notifier, ZombieUnregistersAndMarksAndCanBeUndone) {
  auto w = Widget::widgetNew("w");
  Ptr<Hook> h = new Hook(w);
  h->vornZombieIs(true);
  EXPECT_TRUE(h->vornMarkedForDeletion());
  EXPECT_FALSE(h->isRegisteredNotifiee());
  EXPECT_EQ(w->notifiees(), 0u);
  w->levelIs(1);
  EXPECT_EQ(h->calls, 0);

  h->vornZombieIs(false);
  EXPECT_FALSE(h->vornMarkedForDeletion());
  EXPECT_TRUE(h->isRegisteredNotifiee());
  w->levelIs(2);
  EXPECT_EQ(h->calls, 1);
}

TEST(Notifier, NotifieeDeletedDuringDispatchIsNotCalledAgain) {
  auto w = Widget::widgetNew("w");
  Ptr<Hook> second;
  Ptr<Hook> first = new Hook(w, [&](Hook *) { second = nullptr; });
  second = new Hook(w);
  Hook * raw = second.ptr();
  (void)raw;
  w->levelIs(1);
  EXPECT_EQ(first->calls, 1);
  EXPECT_FALSE(second);
  EXPECT_EQ(w->notifiees(), 1u);
  w->levelIs(2);  // the list was compacted: no hole, no stale pointer
  EXPECT_EQ(first->calls, 2);
}

TEST(Notifier, NotifieeDeletingItselfDuringItsOwnCall) {
  auto w = Widget::widgetNew("w");
  Ptr<Hook> self;
  Ptr<Hook> after;
  self = new Hook(w, [&](Hook *) { self = nullptr; });
  after = new Hook(w);
  w->levelIs(1);
  EXPECT_FALSE(self);
  EXPECT_EQ(after->calls, 1);  // the one after it is still reached
}

TEST(Notifier, NotifieeAddedDuringDispatchWaitsForTheNextOne) {
  auto w = Widget::widgetNew("w");
  Ptr<Hook> added;
  Ptr<Hook> adder = new Hook(w, [&](Hook *) {
    if (!added) added = new Hook(w);
  });
  w->levelIs(1);
  ASSERT_TRUE(added);
  EXPECT_EQ(added->calls, 0);
  w->levelIs(2);
  EXPECT_EQ(added->calls, 1);
}

TEST(Notifier, NestedChangeDuringDispatchIsDeliveredInsideIt) {
  auto w = Widget::widgetNew("w");
  std::vector<int> seen;
  Ptr<Hook> h = new Hook(w, [&](Hook * self) {
    int level = self->notifier()->level();
    seen.push_back(level);
    if (level < 3) w->levelIs(level + 1);
  });
  w->levelIs(1);
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 3}));
}

TEST(Notifier, HandlerMayDropTheLastReferenceToItsNotifier) {
  auto w = Widget::widgetNew("w");
  Ptr<Hook> h;
  h = new Hook(w, [&](Hook * self) { self->notifierIs(nullptr); });
  Widget * raw = w.ptr();
  w = nullptr;  // the hook holds the only reference now
  raw->levelIs(1);  // the hook unbinds inside the dispatch; the widget must survive until it ends
  EXPECT_EQ(h->calls, 1);
  EXPECT_FALSE(h->notifier());
}

TEST(Notifier, NotifieeKeepsItsNotifierAlive) {
  Ptr<Hook> h;
  {
    auto w = Widget::widgetNew("w");
    h = new Hook(w);
    EXPECT_EQ(w->references(), 2u);
  }
  ASSERT_TRUE(h->notifier());
  EXPECT_EQ(h->notifier()->name(), "w");
}

TEST(Notifier, NotifierDestroyedWithNotifieesRegisteredDetachesThem) {
  class Local : public Widget {
   public:
    Local() : Widget("local") {}

   protected:
    void onZeroReferences() const override {}  // lives on the stack, not by its count
  };
  Ptr<Hook> h;
  {
    Local stackWidget;  // not reference-managed: dies at scope end whatever is bound to it
    h = new Hook(Ptr<Widget const>(&stackWidget));
    stackWidget.levelIs(1);
    EXPECT_EQ(h->calls, 1);
  }
  EXPECT_FALSE(h->notifier());
  EXPECT_TRUE(h->isRegisteredNotifiee());
}

TEST(Notifier, BaseNotifieeOnDerivedEntityGetsOnlyTheBaseCallbacks) {
  auto g = Gadget::gadgetNew("g");
  Ptr<WidgetRecorder> asWidget = new WidgetRecorder(g);

  struct GadgetWatcher : Gadget::NotifieeConst {
    void onColour() override { ++colours; }
    void onLevel() override { ++levels; }
    int colours = 0, levels = 0;
  };
  Ptr<GadgetWatcher> asGadget = new GadgetWatcher;
  asGadget->notifierIs(g);

  g->colourIs(5);  // must not reach the Widget-only notifiee through a wrong cast
  g->levelIs(2);
  EXPECT_EQ(asWidget->log, (std::vector<std::string>{"items*", "level=2"}));
  EXPECT_EQ(asGadget->colours, 1);
  EXPECT_EQ(asGadget->levels, 1);
}

TEST(Notifier, KeyNotificationCarriesACopyOfTheKey) {
  auto w = Widget::widgetNew("w");
  w->itemIs("gone", 1);
  struct Deleter : Widget::NotifieeConst {
    void onItem(Vorn::String const & key) override {
      Widget * w = const_cast<Widget *>(notifier().ptr());
      w->itemDel("gone");  // frees the entry whose key may back the argument
      keys.push_back(key.stdString());
    }
    std::vector<std::string> keys;
  };
  Ptr<Deleter> d = new Deleter;
  d->notifierIs(w);
  w->itemNotify("gone");
  EXPECT_EQ(d->keys, (std::vector<std::string>{"gone", "gone"}));
  EXPECT_EQ(w->items(), 0u);
}

}  // namespace
