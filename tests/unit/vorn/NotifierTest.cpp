// The notification rules every state machine relies on.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

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
  w->levelIs(3);
  w->levelIs(3);
  EXPECT_EQ(r->log, (std::vector<std::string>{"item:a", "level=3"}));
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

// Inactive, unregistered, marked or zombie notifiees are skipped; each state can be undone.
TEST(Notifier, InactiveUnregisteredMarkedAndZombieNotifieesAreSkipped) {
  auto w = Widget::widgetNew("w");
  Ptr<Hook> h = new Hook(w);
  EXPECT_TRUE(h->hasNotificationActive());  // created active
  h->hasNotificationActiveIs(false);
  w->levelIs(1);
  h->hasNotificationActiveIs(true);
  w->levelIs(2);
  h->isRegisteredNotifieeIs(false);
  EXPECT_EQ(w->notifiees(), 0u);
  w->levelIs(3);
  h->isRegisteredNotifieeIs(true);
  w->levelIs(4);
  EXPECT_EQ(h->calls, 2);

  h->vornZombieIs(true);
  EXPECT_EQ(std::tuple(h->vornMarkedForDeletion(), h->isRegisteredNotifiee(), w->notifiees()), std::tuple(true, false, 0u));
  w->levelIs(5);
  h->vornZombieIs(false);
  EXPECT_FALSE(h->vornMarkedForDeletion());
  w->levelIs(6);
  EXPECT_EQ(h->calls, 3);
  h->vornMarkedForDeletionIs(true);
  w->levelIs(7);
  EXPECT_EQ(h->calls, 3);
}

// During a dispatch a notifiee may delete another, itself, or add one: the deleted are not called,
// the rest still are, the added one waits for the next dispatch, and the list is compacted.
TEST(Notifier, NotifieesDeletedOrAddedDuringADispatch) {
  auto w = Widget::widgetNew("w");
  Ptr<Hook> second, self, added;
  Ptr<Hook> first = new Hook(w, [&](Hook *) {
    second = nullptr;
    if (!added) added = new Hook(w);
  });
  second = new Hook(w);
  self = new Hook(w, [&](Hook *) { self = nullptr; });
  Ptr<Hook> after = new Hook(w);
  w->levelIs(1);
  // The one after the self-deleting one is still reached; the added one is not yet.
  EXPECT_EQ(std::tuple(bool(second), bool(self), after->calls, added->calls, w->notifiees()), std::tuple(false, false, 1, 0, 3u));
  w->levelIs(2);  // no hole, no stale pointer
  EXPECT_EQ(first->calls + after->calls + added->calls, 5);
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

// A notifiee keeps its notifier alive, and may drop that last reference inside the dispatch.
TEST(Notifier, HandlerMayDropTheLastReferenceToItsNotifier) {
  auto w = Widget::widgetNew("w");
  Ptr<Hook> h;
  h = new Hook(w, [&](Hook * self) { self->notifierIs(nullptr); });
  EXPECT_EQ(w->references(), 2u);
  Widget * raw = w.ptr();
  w = nullptr;  // the hook holds the only reference now
  EXPECT_EQ(h->notifier()->name(), "w");
  raw->levelIs(1);  // the widget must survive until the dispatch ends
  EXPECT_EQ(std::tuple(h->calls, bool(h->notifier())), std::tuple(1, false));
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
  EXPECT_EQ(std::tuple(bool(h->notifier()), h->isRegisteredNotifiee()), std::tuple(false, true));
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
  EXPECT_EQ(std::tuple(asGadget->colours, asGadget->levels), std::tuple(1, 1));
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
  EXPECT_EQ(std::tuple(d->keys, w->items()), std::tuple(std::vector<std::string>{"gone", "gone"}, 0u));
}

// A throwing handler: the exception reaches the mutator's caller, the rest of that dispatch is
// skipped, and the list keeps working (entries removed meanwhile are still compacted).
// Unbinds `victim` during its call, then throws while `throwing` is set.
struct Thrower : Widget::NotifieeConst {
  void onLevel() override {
    if (victim) victim->notifierIs(nullptr);
    if (throwing) throw std::runtime_error("handler failed");
  }
  Vorn::Ptr<WidgetRecorder> victim;
  bool throwing = true;
};

TEST(NotifierFault, AThrowingHandlerEndsItsDispatchAndTheListStillCompacts) {
  auto widget = Widget::widgetNew("w");
  Vorn::Ptr<Thrower> thrower = new Thrower;
  thrower->notifierIs(widget);  // called first
  Vorn::Ptr<WidgetRecorder> removed = new WidgetRecorder(widget);
  Vorn::Ptr<WidgetRecorder> later = new WidgetRecorder(widget);
  thrower->victim = removed;
  later->log.clear();  // the whole-collection call of binding
  ASSERT_EQ(widget->notifieeSlots(), 3u);

  EXPECT_THROW(widget->levelIs(1), std::runtime_error);
  // Stored before the notification; nobody called after the thrower; the entry removed meanwhile compacted.
  EXPECT_EQ(std::tuple(widget->level(), later->log.size(), widget->notifieeSlots()), std::tuple(1, 0u, 2u));

  // The next dispatch runs normally and compacts what its handlers remove.
  thrower->throwing = false;
  thrower->victim = later;
  widget->levelIs(2);
  EXPECT_EQ(std::tuple(later->log.size(), widget->notifieeSlots(), widget->notifiees()), std::tuple(0u, 1u, 1u));

  // And a notifiee bound afterwards is called.
  thrower->victim = nullptr;
  Vorn::Ptr<WidgetRecorder> fresh = new WidgetRecorder(widget);
  widget->levelIs(3);
  EXPECT_EQ(fresh->log, (std::vector<std::string>{"items*", "level=3"}));
}

}  // namespace
