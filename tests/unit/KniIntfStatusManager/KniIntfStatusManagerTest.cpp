// Kernel interface status per namespace, over hand-filled kernel link tables: what each namespace's
// DeviceIntfStatusDir holds as interfaces, device names, namespaces and kernel devices change.
#include "intfsm/KniIntfStatusManager/KniIntfStatusManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <functional>
#include <map>
#include <regex>
#include <sstream>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ModuleTest.h"
#include "tests/support/ThrownText.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Device = KernelNetInfo::Interface;
using Ovel::IntfId;
using Ovel::NamespaceName;
using Published = std::vector<std::string>;

constexpr uint32_t running = IFF_UP | IFF_RUNNING;

class KniIntfStatusManagerTest : public IntfsmTest::ModuleTest {
 protected:
  KniIntfStatusManagerTest() : ModuleTest("KniIntfStatusManager") {}

  // What one namespace has: its kernel devices (filled by hand), its status and its output.
  struct Ns {
    Vorn::Ptr<KernelNetInfo::Root> kernel;
    Vorn::Ptr<KernelNetInfo::Status> kni;
    Vorn::Ptr<Interface::DeviceIntfStatusDir> kis;
  };
  Ns & ns(char const * name) {
    Ns & n = namespaces[name];
    if (!n.kernel) {
      n.kernel = KernelNetInfo::Root::rootNew(name);
      n.kni = KernelNetInfo::Status::statusNew(name, NamespaceName(name), n.kernel);
      n.kis = Interface::deviceIntfStatusDirFactory(name);
    }
    return n;
  }
  Vorn::Ptr<Interface::KniIntfStatusManager> manage(char const * name) {
    return root->intfStatusManagerIs(ns(name).kis, ns(name).kni, NamespaceName(name));
  }
  void status(char const * id, char const * device, char const * netNs = "") {
    if (!all->intfStatus(IntfId(id))) all->intfStatusIs(Interface::intfStatusFactory(IntfId(id)));
    all->intfStatus(IntfId(id))->deviceNameIs(device);
    if (!locals->intfStatusLocal(IntfId(id))) locals->intfStatusLocalIs(Interface::intfStatusLocalFactory(IntfId(id)));
    locals->intfStatusLocal(IntfId(id))->netNsNameIs(NamespaceName(netNs));
  }
  // "id device ifindex" per entry by id; each must have its twin by ifindex.
  Published published(char const * name) {
    Published out;
    for (auto const & e : ns(name).kis->intfStatusAndDeviceNameIter()) {
      std::ostringstream row;
      row << e.key << " " << e.value.deviceName << " " << e.value.ifIndex;
      out.push_back(row.str());
      EXPECT_EQ(ns(name).kis->intfStatusByIfIndex(e.value.ifIndex), e.value) << row.str();
    }
    std::sort(out.begin(), out.end());
    return out;
  }

  Vorn::Ptr<Interface::AllIntfStatusDir> all = Interface::allIntfStatusDirFactory("all");
  Vorn::Ptr<Interface::AllIntfStatusLocalDir> locals = Interface::allIntfStatusLocalDirFactory("locals");
  std::map<std::string, Ns> namespaces;
  Vorn::Ptr<Interface::NetNsIntfStatusManagerRoot> root = Interface::netNsIntfStatusManagerRootFactory(all, locals, true);
};

std::string quoted(std::string const & expression) {
  return "assertion \"" + std::regex_replace(expression, std::regex(R"([()|*.\[\]^$+?{}\\])"), R"(\$&)") + "\" failed";
}

TEST_F(KniIntfStatusManagerTest, StartUpPublishesNothingUntilTheIndexIsFilled) {
  ns("default").kernel->interfaceIs(Device(5, running, "va0"));
  trace.clear();
  auto manager = Interface::kniIntfStatusManagerFactory(ns("default").kis, ns("default").kni, NamespaceName("default"));
  EXPECT_THAT(traces(), ElementsAre("void Interface::KniIntfStatusManager::handleKernelIntf() myNs: default",
                                    "void Interface::KniIntfStatusManager::handleInitialized() myNs: default",
                                    "void Interface::KniIntfStatusManager::handleKernelIntf() myNs: default",
                                    "void Interface::KniIntfStatusManager::handleKernelDevice() myNs: default",
                                    "KniIntfStatusManager::handleKernelDevice(va0) myNs: default"));
  EXPECT_TRUE(manager->initialized());
  EXPECT_THAT(published("default"), IsEmpty());
  trace.clear();
  manager->kernelIntfDir()->intfStatusIs("va0", Interface::intfStatusFactory(IntfId("Ethernet1")));
  EXPECT_THAT(published("default"), ElementsAre("Ethernet1 va0 5"));
  EXPECT_THAT(trace.texts("KniIntfStatusManager", 7),
              ElementsAre("kernelIntfDir: va0 is Ethernet1", "kernelDevice: va0 va0",
                          "handleKernelIntf adding Ethernet1 with ifIndex 5 to kernelIntfStatusDir (va0) oldIfIndex: 0"));
}

// One namespace's life, step by step: each row changes the kernel or the configuration and says what
// is published after it.
TEST_F(KniIntfStatusManagerTest, FollowsKernelDevicesAndTheRunningFlag) {
  auto manager = manage("default");
  Vorn::Ptr<KernelNetInfo::Root> const kernel = ns("default").kernel;
  status("Ethernet1", "va0");
  status("Ethernet2", "vb0");
  struct Step {
    char const * what;
    std::function<void()> change;
    Published expected;
  };
  std::vector<Step> const steps = {
      {"devices appear", [&] { kernel->interfaceIs(Device(5, running, "va0")); kernel->interfaceIs(Device(6, IFF_UP, "vb0")); },
       {"Ethernet1 va0 5", "Ethernet2 vb0 6"}},
      {"omit non-running", [&] { manager->omitNonRunningKernelDevicesIs(true); }, {"Ethernet1 va0 5"}},
      {"carrier comes", [&] { kernel->interfaceIs(Device(6, running, "vb0")); }, {"Ethernet1 va0 5", "Ethernet2 vb0 6"}},
      {"carrier goes", [&] { kernel->interfaceIs(Device(5, IFF_UP, "va0")); }, {"Ethernet2 vb0 6"}},
      {"stop omitting", [&] { manager->omitNonRunningKernelDevicesIs(false); }, {"Ethernet1 va0 5", "Ethernet2 vb0 6"}},
      {"device deleted", [&] { kernel->interfaceDel(5); }, {"Ethernet2 vb0 6"}},
      {"re-created", [&] { kernel->interfaceIs(Device(9, running, "va0")); }, {"Ethernet1 va0 9", "Ethernet2 vb0 6"}},
      // A deletion that never arrived: the name's new holder replaces the old one.
      {"re-created, deletion lost", [&] { kernel->interfaceIs(Device(12, running, "va0")); },
       {"Ethernet1 va0 12", "Ethernet2 vb0 6"}},
      {"renamed away", [&] { kernel->interfaceIs(Device(6, running, "wan0")); }, {"Ethernet1 va0 12"}},
  };
  for (Step const & step : steps) {
    SCOPED_TRACE(step.what);
    step.change();
    EXPECT_EQ(published("default"), step.expected);
  }
  EXPECT_EQ(ns("default").kis->intfStatusByIfIndexs(), 1u);
  EXPECT_EQ(manager->deviceToName("va0"), IntfId("Ethernet1"));
}

TEST_F(KniIntfStatusManagerTest, KernelOnlyInterfacesArePublishedWithoutStatus) {
  auto manager = manage("default");
  ns("default").kernel->interfaceIs(Device(7, running, "ma1"));
  EXPECT_THAT(IntfsmTest::thrownText<Vorn::RangeException>([&] { manager->kernelOnlyInterfaceIs("ma1", "Mgmt 1"); }),
              ::testing::StartsWith("IntfId::name"));
  EXPECT_EQ(manager->kernelOnlyInterfaces(), 0u);
  manager->kernelOnlyInterfaceIs("ma1", "Management1");
  EXPECT_THAT(published("default"), ElementsAre("Management1 ma1 7"));
  EXPECT_FALSE(ns("default").kis->intfStatusAndDeviceName(IntfId("Management1")).intfStatus);
  manager->kernelOnlyInterfaceDel("ma1");
  EXPECT_THAT(published("default"), IsEmpty());
  EXPECT_TRUE(manager->deviceToName("ma1").empty());
  EXPECT_EQ(trace.count("handleKernelIntf removing Management1 from kernelIntfStatusDir (ma1 not in kernelIntfDir)"), 1u);
}

// Interfaces are filed under their own namespace, wait for a namespace that has no manager yet, and
// move with their netNsName, each published with the ifindex of its namespace's device.
TEST_F(KniIntfStatusManagerTest, InterfacesFollowTheirNamespace) {
  ns("default").kernel->interfaceIs(Device(5, running, "et1"));
  ns("blue").kernel->interfaceIs(Device(40, running, "et1"));
  manage("default");
  manage("blue");
  status("Ethernet1", "et1");
  EXPECT_THAT(published("default"), ElementsAre("Ethernet1 et1 5"));

  trace.clear();
  status("Ethernet1", "et1", "blue");
  EXPECT_THAT(trace.texts("KniIntfStatusManager", 0),
              ElementsAre("Removing intf Ethernet1 from prevDir default", "Adding intf et1->Ethernet1 in blue"));
  EXPECT_THAT(published("default"), IsEmpty());
  EXPECT_THAT(published("blue"), ElementsAre("Ethernet1 et1 40"));
  EXPECT_EQ(trace.count("void Interface::KniAllIntfDeviceNameReactor::handleDeviceName(Ovel::IntfId)interface "
                        "Ethernet1 prevNsName is \"default\" intfNsName is \"blue\""), 1u);

  // Into a namespace that has no manager: it stays where it was until the manager comes.
  ns("green").kernel->interfaceIs(Device(90, running, "et1"));
  status("Ethernet1", "et1", "green");
  EXPECT_EQ(trace.count("void Interface::KniAllIntfDeviceNameReactor::handleDeviceName(Ovel::IntfId) "
                        "no intfStatusDir created for green"), 1u);
  EXPECT_THAT(published("blue"), ElementsAre("Ethernet1 et1 40"));
  manage("green");
  EXPECT_THAT(published("blue"), IsEmpty());
  EXPECT_THAT(published("green"), ElementsAre("Ethernet1 et1 90"));

  root->intfStatusManagerDel(NamespaceName("green"));
  EXPECT_FALSE(root->netNsIntfStatusIndexDir()->intfStatusIndexDir("green"));
}

TEST_F(KniIntfStatusManagerTest, WithoutFilteringEverythingIsInTheDefaultNamespace) {
  root = Interface::netNsIntfStatusManagerRootFactory(all, locals, false);
  ns("default").kernel->interfaceIs(Device(5, running, "et1"));
  status("Ethernet1", "et1", "blue");
  manage("default");
  EXPECT_THAT(published("default"), ElementsAre("Ethernet1 et1 5"));
}

TEST_F(KniIntfStatusManagerTest, TheRootRefusesAnotherManagerUnderANameInUse) {
  auto manager = manage("blue");
  EXPECT_EQ(manage("blue"), manager);
  auto otherKis = Interface::deviceIntfStatusDirFactory("kis2");
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::NameInUseException>(
                [&] { root->intfStatusManagerIs(otherKis, ns("blue").kni, NamespaceName("blue")); }),
            "Reinstantiating the pointer interface where constructor parameter attribute _kernelIntfStatusDir has a "
            "different value of kis2 than the current value of blue not allowed");
  auto otherKni = KernelNetInfo::Status::statusNew("kni2", NamespaceName("blue"), ns("blue").kernel);
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::NameInUseException>(
                [&] { root->intfStatusManagerIs(ns("blue").kis, otherKni, NamespaceName("blue")); }),
            "Reinstantiating the pointer interface where constructor parameter attribute _kniStatus has a "
            "different value of kni2 than the current value of blue not allowed");
  EXPECT_EQ(root->intfStatusManager(NamespaceName("blue")), manager);
}

TEST_F(KniIntfStatusManagerTest, ProgramErrorsAbort) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto manager = manage("default");
  ns("default").kernel->interfaceIs(Device(5, running, "va0"));
  status("Ethernet1", "va0");
  EXPECT_DEATH(manager->handleKernelIntf(), quoted("kernelIntfDir() == 0 || kernelIntfDir()->intfStatuss() == 0"));
  // An interface whose published ifindex would change in place.
  Interface::IntfStatusAndDeviceName stale = ns("default").kis->intfStatusAndDeviceName(IntfId("Ethernet1"));
  stale.ifIndex = 4;
  ns("default").kis->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), stale);
  EXPECT_DEATH(manager->handleKernelIntf("va0"), quoted("!oldIfIndex || oldIfIndex == newIfIndex"));

  auto unfiltered = Interface::netNsIntfStatusManagerRootFactory(all, locals, false);
  EXPECT_DEATH(unfiltered->intfStatusManagerIs(ns("blue").kis, ns("blue").kni, NamespaceName("blue")),
               quoted("false && \"filterByNetNs must be set to be used for non-default namespaces\""));
}

}  // namespace
