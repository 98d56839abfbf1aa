// The device-name index of one namespace: what the index holds, and what is traced, as interfaces
// are added, renamed, duplicated, moved between namespaces and filtered.
#include "intfsm/IntfByDevice/IntfByDevice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ModuleTest.h"
#include "tests/support/ThrownText.h"

namespace {

using ::testing::ElementsAre;
using IntfsmTest::assertionFailed;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using Ovel::IntfId;

class IntfByDeviceTest : public IntfsmTest::ModuleTest {
 protected:
  IntfByDeviceTest() : ModuleTest("IntfByDevice") {}

 public:  // for the cases' steps

  // Sets the interface's device name; a new status enters the directory with its name already set.
  void status(char const * id, char const * device) {
    auto s = all->intfStatus(IntfId(id));
    bool const added = !s;
    if (added) s = Interface::intfStatusFactory(IntfId(id));
    s->deviceNameIs(device);
    if (added) all->intfStatusIs(s);
  }
  void local(char const * id, char const * ns) {
    auto l = locals->intfStatusLocal(IntfId(id));
    bool const added = !l;
    if (added) l = Interface::intfStatusLocalFactory(IntfId(id));
    l->netNsNameIs(Ovel::NamespaceName(ns));
    if (added) locals->intfStatusLocalIs(l);
  }
  void start(char const * ns) {
    reactor = Interface::allIntfDeviceNameReactorFactory(all, locals, index, Ovel::NamespaceName(ns));
  }
  // The index as device -> id, in name order.
  std::map<std::string, std::string> indexed() const {
    std::map<std::string, std::string> out;
    for (auto const & e : index->intfStatusIter()) out[e.key.stdString()] = e.value->intfId().name().stdString();
    return out;
  }
  std::vector<std::string> anomalies() const { return trace.texts("IntfByDevice", 0); }
  size_t traced(std::string const & text) const { return trace.count(text); }

  Vorn::Ptr<Interface::AllIntfStatusDir> all = Interface::allIntfStatusDirFactory("all");
  Vorn::Ptr<Interface::AllIntfStatusLocalDir> locals = Interface::allIntfStatusLocalDirFactory("locals");
  Vorn::Ptr<Interface::IntfStatusIndexDir> index = Interface::intfStatusIndexDirFactory("default");
  Vorn::Ptr<Interface::AllIntfDeviceNameReactor> reactor;
};

using Index = std::map<std::string, std::string>;

struct Case {
  char const * what;
  char const * netNs;
  bool filter;
  std::function<void(IntfByDeviceTest &)> steps;
  Index index;
  std::vector<std::string> anomalies;  // level 0
};

TEST_F(IntfByDeviceTest, FollowsDeviceNamesDuplicatesAndNamespaces) {
  std::string const add1 = "Adding intf et1->Ethernet1", ignoring = "Ignoring notification about Ethernet1 device was  is ";
  std::vector<Case> const cases = {
      {"rename", "default", false, [](auto & t) { t.status("Ethernet1", "et1"); t.status("Ethernet1", "et2"); },
       {{"et2", "Ethernet1"}}, {add1, add1, "Deleting intf et1->Ethernet1", "Adding intf et2->Ethernet1"}},
      {"no device name, then one, then none", "default", false,
       [](auto & t) { t.status("Ethernet1", ""); t.status("Ethernet1", "et1"); t.status("Ethernet1", ""); },
       {}, {ignoring, ignoring, add1, "Deleting intf et1->Ethernet1"}},
      {"duplicate: the later holds the name; the other leaving leaves it", "default", false,
       [](auto & t) {
         t.status("Ethernet1", "et1");
         t.status("Ethernet2", "et1");
         EXPECT_EQ(t.indexed(), (Index{{"et1", "Ethernet2"}}));
         EXPECT_THAT(t.reactor->claimants("et1"), ElementsAre(IntfId("Ethernet1"), IntfId("Ethernet2")));
         t.all->intfStatusDel(IntfId("Ethernet1"));
       },
       {{"et1", "Ethernet2"}}, {add1, add1, "Adding intf et1->Ethernet2", "Adding intf et1->Ethernet2"}},
      {"duplicate: the holder moving on gives the name back", "default", false,
       [](auto & t) { t.status("Ethernet1", "et1"); t.status("Ethernet2", "et1"); t.status("Ethernet2", "et2"); },
       {{"et1", "Ethernet1"}, {"et2", "Ethernet2"}},
       {add1, add1, "Adding intf et1->Ethernet2", "Adding intf et1->Ethernet2", "Deleting intf et1->Ethernet2",
        "Adding intf et2->Ethernet2"}},
      {"filtered: empty netNsName is the default namespace", "blue", true,
       [](auto & t) { t.status("Ethernet1", "et1"); t.local("Ethernet1", ""); t.status("Ethernet2", "et2"); t.local("Ethernet2", "blue"); },
       {{"et2", "Ethernet2"}}, {"Adding intf et2->Ethernet2", "Adding intf et2->Ethernet2"}},
      // Turning the filter off brings nothing back until the interface is notified; the same value
      // again does nothing.
      {"filter on evicts, off restores nothing", "blue", false,
       [](auto & t) {
         t.status("Ethernet1", "et1");
         t.local("Ethernet1", "red");
         t.status("Ethernet2", "et2");
         t.reactor->filterByNetNsIs(true);
         EXPECT_THAT(t.indexed(), IsEmpty());
         EXPECT_EQ(t.traced("void Interface::AllIntfDeviceNameReactor::handleFilter() for Ethernet1"), 1u);
         t.reactor->filterByNetNsIs(false);
         size_t const before = t.traced("void Interface::AllIntfDeviceNameReactor::handleFilter() for Ethernet2");
         t.reactor->filterByNetNsIs(false);
         EXPECT_EQ(t.traced("void Interface::AllIntfDeviceNameReactor::handleFilter() for Ethernet2"), before);
         EXPECT_THAT(t.indexed(), IsEmpty());
         t.status("Ethernet2", "et2b");
       },
       {{"et2b", "Ethernet2"}},
       {add1, add1, add1, add1, "Adding intf et2->Ethernet2", "Adding intf et2->Ethernet2", "Adding intf et2b->Ethernet2"}},
      {"filtered, empty netNs: moving out evicts", "", true,
       [](auto & t) { t.status("Ethernet1", "et1"); t.local("Ethernet1", "blue"); }, {}, {add1, add1}},
  };
  for (Case const & c : cases) {
    SCOPED_TRACE(c.what);
    all->intfStatusDelAll();
    locals->intfStatusLocalDelAll();
    index = Interface::intfStatusIndexDirFactory(c.netNs);
    start(c.netNs);
    reactor->filterByNetNsIs(c.filter);
    trace.clear();
    c.steps(*this);
    EXPECT_EQ(indexed(), c.index);
    EXPECT_THAT(anomalies(), ElementsAreArray(c.anomalies)) << trace.dump();
  }
}

// The whole story of one namespace move, trace by trace, including the texts without a blank.
TEST_F(IntfByDeviceTest, TracesEachStepOfAMoveIntoItsNamespace) {
  status("Ethernet1", "et1");
  local("Ethernet1", "");
  start("blue");
  reactor->filterByNetNsIs(true);
  EXPECT_THAT(indexed(), IsEmpty());
  trace.clear();
  local("Ethernet1", "blue");
  EXPECT_EQ(trace.count("void Interface::AllIntfDeviceNameReactor::VornIntfStatusLocal::handleDeviceNetNs() notifier=Ethernet1"), 1u);
  EXPECT_EQ(indexed(), (Index{{"et1", "Ethernet1"}}));
  trace.clear();
  locals->intfStatusLocalDel(IntfId("Ethernet1"));
  EXPECT_THAT(traces(), ElementsAre("void Interface::AllIntfDeviceNameReactor::handleIntfStatusLocal(Ovel::IntfId) for Ethernet1",
                                    "Ethernet1 local status was removed",
                                    "void Interface::AllIntfDeviceNameReactor::handleDeviceName(Ovel::IntfId) for Ethernet1",
                                    "void Interface::AllIntfDeviceNameReactor::handleDeviceName(Ovel::IntfId) myNsName is "
                                    "\"blue\" intfNsName is \"default\"",
                                    "Ethernet1 was moved to another namespace"));
  EXPECT_THAT(indexed(), IsEmpty());
  trace.clear();
  local("Ethernet1", "blue");
  EXPECT_EQ(trace.count("Ethernet1local status was added"), 1u) << trace.dump();
  EXPECT_EQ(indexed(), (Index{{"et1", "Ethernet1"}}));
}

TEST_F(IntfByDeviceTest, KeylessHandlersInsistOnAnEmptyIndexAndNullsAreRefused) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  status("Ethernet1", "et1");
  start("default");
  EXPECT_DEATH(reactor->handleIntfStatus(), assertionFailed("intf()->intfStatuss() == 0"));
  EXPECT_DEATH(reactor->handleIntfStatusLocal(), assertionFailed("intf()->intfStatuss() == 0"));

  EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([&] { reactor->intfStatusIs(nullptr); }),
            "null _intfStatus parameter to mutator for Interface::AllIntfDeviceNameReactor::intfStatus not allowed\"");
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([&] { reactor->intfStatusLocalIs(nullptr); }),
            "null _intfStatusLocal parameter to mutator for Interface::AllIntfDeviceNameReactor::intfStatusLocal not allowed\"");
  auto nsisid = Interface::netNsIntfStatusIndexDirFactory("nsisid");
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([&] { nsisid->intfStatusIndexDirIs(nullptr); }),
            "null _intfStatusIndexDir parameter to mutator for Interface::NetNsIntfStatusIndexDir::intfStatusIndexDir not allowed\"");
  nsisid->intfStatusIndexDirIs(index);
  EXPECT_EQ(nsisid->intfStatusIndexDir("default"), index);
  EXPECT_EQ(nsisid->intfStatusIndexDirs(), 1u);
}

}  // namespace
