// Kernel interface status per namespace, over hand-filled kernel link tables: what is traced and
// refused. What is published under every sequence of changes is the model-based test's
// (DeviceIndexModelTest.cpp).
#include "intfsm/KniIntfStatusManager/KniIntfStatusManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <map>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ModuleTest.h"
#include "tests/support/ThrownText.h"

namespace {

using ::testing::ElementsAre;
using IntfsmTest::assertionFailed;
using Device = KernelNetInfo::Interface;
using Ovel::IntfId;
using Ovel::NamespaceName;

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

  Vorn::Ptr<Interface::AllIntfStatusDir> all = Interface::allIntfStatusDirFactory("all");
  Vorn::Ptr<Interface::AllIntfStatusLocalDir> locals = Interface::allIntfStatusLocalDirFactory("locals");
  std::map<std::string, Ns> namespaces;
  Vorn::Ptr<Interface::NetNsIntfStatusManagerRoot> root = Interface::netNsIntfStatusManagerRootFactory(all, locals, true);
};

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
  EXPECT_EQ(ns("default").kis->intfStatusAndDeviceNames(), 0u);
  trace.clear();
  manager->kernelIntfDir()->intfStatusIs("va0", Interface::intfStatusFactory(IntfId("Ethernet1")));
  EXPECT_EQ(ns("default").kis->intfStatusByIfIndex(5).deviceName, Vorn::String("va0"));
  EXPECT_THAT(trace.texts("KniIntfStatusManager", 7),
              ElementsAre("kernelIntfDir: va0 is Ethernet1", "kernelDevice: va0 va0",
                          "handleKernelIntf adding Ethernet1 with ifIndex 5 to kernelIntfStatusDir (va0) oldIfIndex: 0"));
}

TEST_F(KniIntfStatusManagerTest, KernelOnlyInterfacesAreCheckedAndTraced) {
  auto manager = manage("default");
  ns("default").kernel->interfaceIs(Device(7, running, "ma1"));
  EXPECT_THAT(IntfsmTest::thrownText<Vorn::RangeException>([&] { manager->kernelOnlyInterfaceIs("ma1", "Mgmt 1"); }),
              ::testing::StartsWith("IntfId::name"));
  EXPECT_EQ(manager->kernelOnlyInterfaces(), 0u);
  manager->kernelOnlyInterfaceIs("ma1", "Management1");
  EXPECT_FALSE(ns("default").kis->intfStatusAndDeviceName(IntfId("Management1")).intfStatus);
  manager->kernelOnlyInterfaceDel("ma1");
  EXPECT_TRUE(manager->deviceToName("ma1").empty());
  EXPECT_EQ(trace.count("handleKernelIntf removing Management1 from kernelIntfStatusDir (ma1 not in kernelIntfDir)"), 1u);
}

// Interfaces wait for a namespace that has no manager yet, and move with their netNsName.
TEST_F(KniIntfStatusManagerTest, NamespaceMovesAreTraced) {
  manage("default");
  manage("blue");
  status("Ethernet1", "et1");
  trace.clear();
  status("Ethernet1", "et1", "blue");
  EXPECT_THAT(trace.texts("KniIntfStatusManager", 0),
              ElementsAre("Removing intf Ethernet1 from prevDir default", "Adding intf et1->Ethernet1 in blue"));
  EXPECT_EQ(trace.count("void Interface::KniAllIntfDeviceNameReactor::handleDeviceName(Ovel::IntfId)interface "
                        "Ethernet1 prevNsName is \"default\" intfNsName is \"blue\""), 1u);
  status("Ethernet1", "et1", "green");
  EXPECT_EQ(trace.count("void Interface::KniAllIntfDeviceNameReactor::handleDeviceName(Ovel::IntfId) "
                        "no intfStatusDir created for green"), 1u);
  EXPECT_TRUE(manage("blue")->kernelIntfDir()->intfStatus("et1"));  // it stays where it was meanwhile
  manage("green");
  EXPECT_FALSE(manage("blue")->kernelIntfDir()->intfStatus("et1"));
  root->intfStatusManagerDel(NamespaceName("green"));
  EXPECT_FALSE(root->netNsIntfStatusIndexDir()->intfStatusIndexDir("green"));

  // A manager dropped while someone still holds it takes back what it published, both views.
  ns("blue").kernel->interfaceIs(Device(40, running, "et2"));
  status("Ethernet2", "et2", "blue");
  auto const blue = manage("blue");
  ASSERT_EQ(ns("blue").kis->intfStatusByIfIndexs(), 1u);
  root->intfStatusManagerDel(NamespaceName("blue"));
  EXPECT_EQ(ns("blue").kis->intfStatusAndDeviceNames() + ns("blue").kis->intfStatusByIfIndexs(), 0u);
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
  EXPECT_DEATH(manager->handleKernelIntf(), assertionFailed("kernelIntfDir() == 0 || kernelIntfDir()->intfStatuss() == 0"));
  // An interface whose published ifindex would change in place.
  Interface::IntfStatusAndDeviceName stale = ns("default").kis->intfStatusAndDeviceName(IntfId("Ethernet1"));
  stale.ifIndex = 4;
  ns("default").kis->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), stale);
  EXPECT_DEATH(manager->handleKernelIntf("va0"), assertionFailed("!oldIfIndex || oldIfIndex == newIfIndex"));

  auto unfiltered = Interface::netNsIntfStatusManagerRootFactory(all, locals, false);
  EXPECT_DEATH(unfiltered->intfStatusManagerIs(ns("blue").kis, ns("blue").kni, NamespaceName("blue")),
               assertionFailed("false && \"filterByNetNs must be set to be used for non-default namespaces\""));
}

}  // namespace
