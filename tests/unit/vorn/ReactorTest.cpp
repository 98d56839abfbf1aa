#include "intfsm/foundation/vorn/Reactor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "intfsm/foundation/interface/AllIntfStatusDir.h"
#include "tests/support/TestEntities.h"

namespace {

using ::testing::ElementsAre;
using IntfsmTest::Widget;

// An owner with one reactor on a Widget and per-interface reactors on a status directory.
struct Owner {
  struct VornWidget : Vorn::Reactor<Owner, Widget> {
    using Reactor::Reactor;
    void onLevel() override { forward(&Owner::handleLevel); }
    void onItem(Vorn::String const & key) override { forward(&Owner::handleItem, key); }
    void onItemvornImmediate() override { forward(&Owner::handleItems); }
  };
  struct VornIntfStatus : Vorn::Reactor<Owner, Interface::IntfStatus> {
    VornIntfStatus(Owner * owner, Ovel::IntfId const & id) : Reactor(owner), id(id) {}
    void onDeviceName() override { run(&VornIntfStatus::handleDeviceName); }
    void handleDeviceName() { forward(&Owner::handleDeviceName, id); }
    Ovel::IntfId id;
  };
  using Collection = Vorn::ReactorCollection<Ovel::IntfId, VornIntfStatus>;

  void handleLevel() {
    log.push_back("level");
    if (dropOnLevel) widgetReactor = nullptr;  // the last reference, while its callback runs
  }
  void handleItem(Vorn::String const & key) { log.push_back("item " + key.stdString()); }
  void handleItems() { log.push_back("items"); }
  void handleDeviceName(Ovel::IntfId const & id) {
    log.push_back("deviceName " + id.name().stdString());
    if (deleteOnDeviceName) intfStatus.del(id);
  }

  std::vector<std::string> log;
  bool dropOnLevel = false;
  bool deleteOnDeviceName = false;
  Vorn::Ptr<VornWidget> widgetReactor;
  Collection intfStatus{&VornIntfStatus::handleDeviceName};
};

// Skipping zombies and the rest of the notification rules are the notifier's (NotifierTest.cpp).
TEST(Reactor, ForwardsToTheOwnerAndStaysAliveWhileItsHandlerDropsTheLastReference) {
  Owner owner;
  auto widget = Widget::widgetNew("w");
  owner.widgetReactor = Vorn::reactorNew<Owner::VornWidget>(&owner, widget);
  widget->itemIs("a", 1);
  EXPECT_THAT(owner.log, ElementsAre("items", "item a"));
  owner.dropOnLevel = true;
  widget->levelIs(1);  // ASan reports a use after free if the reactor died inside its own callback
  EXPECT_EQ(std::tuple(bool(owner.widgetReactor), widget->notifiees()), std::tuple(false, 0u));
}

TEST(ReactorCollection, CreatesRebindsAndRetiresReactorsAsTheDirectoryChanges) {
  using Change = Owner::Collection::Change;
  Owner owner;
  auto dir = Interface::allIntfStatusDirFactory("all");
  Ovel::IntfId const et1("Ethernet1");
  auto first = Interface::intfStatusFactory(et1);
  auto second = Interface::intfStatusFactory(et1);

  EXPECT_EQ(owner.intfStatus.reconcileKey(&owner, et1, first), Change::created);
  EXPECT_EQ(owner.intfStatus.reconcileKey(&owner, et1, first), Change::none);
  EXPECT_EQ(owner.intfStatus.reconcileKey(&owner, et1, second), Change::rebound);
  first->deviceNameIs("old");  // the rebound reactor no longer watches it
  second->deviceNameIs("et1");
  EXPECT_THAT(owner.log, ElementsAre("deviceName Ethernet1", "deviceName Ethernet1", "deviceName Ethernet1"));

  // Removed from the collection: an outside holder keeps a reactor that nothing calls any more.
  Vorn::Ptr<Owner::VornIntfStatus> held = owner.intfStatus.reactor(et1);
  EXPECT_EQ(owner.intfStatus.reconcileKey(&owner, et1, nullptr), Change::deleted);
  owner.log.clear();
  second->deviceNameIs("et2");
  EXPECT_EQ(std::tuple(owner.log.size(), bool(held->notifier()), second->notifiees()), std::tuple(0u, false, 0u));
}

TEST(ReactorCollection, ReconcilesWithTheWholeDirectoryAndSurvivesDeletionFromAHandler) {
  Owner owner;
  auto dir = Interface::allIntfStatusDirFactory("all");
  for (char const * id : {"Ethernet1", "Ethernet2", "Ethernet3"}) dir->intfStatusIs(Interface::intfStatusFactory(Ovel::IntfId(id)));
  owner.intfStatus.reconcile(&owner, dir->intfStatusIter());
  EXPECT_EQ(owner.intfStatus.size(), 3u);

  dir->intfStatusDel(Ovel::IntfId("Ethernet2"));
  owner.intfStatus.reconcile(&owner, dir->intfStatusIter());
  EXPECT_EQ(std::tuple(owner.intfStatus.size(), bool(owner.intfStatus.reactor(Ovel::IntfId("Ethernet2")))), std::tuple(2u, false));

  owner.deleteOnDeviceName = true;
  owner.log.clear();
  dir->intfStatus(Ovel::IntfId("Ethernet1"))->deviceNameIs("et1");
  EXPECT_THAT(owner.log, ElementsAre("deviceName Ethernet1"));
  EXPECT_EQ(owner.intfStatus.size(), 1u);

  owner.intfStatus.notificationActiveIs(false);
  owner.log.clear();
  dir->intfStatus(Ovel::IntfId("Ethernet3"))->deviceNameIs("et3");
  EXPECT_TRUE(owner.log.empty());
}

}  // namespace
