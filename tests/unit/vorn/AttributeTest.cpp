// Generic attribute access over the library's registered types: the registry's names come from each
// type's table, and every kind of attribute of one type per subsystem reads, sets, deletes and calls
// through Vorn::Value with exactly the typed members' results, errors and notifications.
#include "intfsm/foundation/vorn/Attribute.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "intfsm/EthDevPamManagerTypes/EthDevPamManager.h"
#include "intfsm/IntfByDevice/IntfStatusIndexDir.h"
#include "intfsm/KernelOperState/Root.h"
#include "intfsm/KniIntfStatusManager/NetNsIntfIdMap.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/ovel/SockFilterProgramValue.h"
#include "intfsm/SimpleTxRxPktManager/SimpleTxRxPktManager.h"
#include "tests/support/NotificationLog.h"

namespace {

using Vorn::Value;
using List = Value::List;

// The attribute texts of every registered type, in registry order.
constexpr char const * registered[][2] = {
    {"Interface::NetNsIntfStatusIndexDir", "intfStatusIndexDir"},
    {"Interface::IntfStatusIndexDir", "intfStatus"},
    {"Interface::AllIntfDeviceNameReactor",
     "intfStatus allIntfStatusDir allIntfStatusLocalDir intf netNs filterByNetNs intfStatusToDeviceName intfStatusLocal"},
    {"Interface::KniIntfStatusManager",
     "kernelIntfStatusDir kniStatus nsName interfaceInfo kniRoot omitNonRunningKernelDevices kernelIntfDir "
     "kernelOnlyInterface deviceToName initialized"},
    {"Interface::NetNsKernelIntfStatusDir", "nsName kernelIntfStatusDir kniStatus"},
    {"Interface::KniAllIntfDeviceNameReactor",
     "intfStatus allIntfStatusDir allIntfStatusLocalDir netNsIntfStatusIndexDir filterByNetNs netNsIntfIdMap intfToNs "
     "intfStatusToDeviceName intfStatusLocal initialized"},
    {"Interface::NetNsIntfIdMap", "intf"},
    {"Interface::NetNsIntfStatusManagerRoot",
     "allIntfStatusDir allIntfStatusLocalDir filterByNetNs intfStatusManager netNsIntfStatusIndexDir isbdn initialized"},
    {"Interface::EthDevPamBundleFdSm", "fileDesc bundle"},
    {"Interface::EthDevPamManagerBase",
     "desiredIntfDir pamCollection enabled ethProtocol listenAddr filterProgram maxRxPktData"},
    {"Interface::EthDevPamCollection", "intfPam"},
    {"Interface::PamDesiredIntfDir", "intfDesired"},
    {"Interface::EthDevPamInBundleHolder", "intfId pam"},
    {"Interface::EthDevPamBundleActivitySm", "ethDevPamBundle"},
    {"Interface::EthDevPamHolder", "intfId pam"},
    {"Interface::EthDevPamBundle",
     "netNs allMulticast sockRcvBuf sockPrio perIntfSockRcvBuf allocRcvBuf broadcast pktReuse savedPkt nonBlocking "
     "separateDot1QHdr sharedSockBufMax noPamDropCount pamNotReadyDropCount perIntfSocket perIntfRlimit enabled "
     "currActiveSd sd fileDesc sdRef sdTap fileDescTap sdTapRef enableBulkPamRead bulkReadQuota mmsgInitialized "
     "savedBulkPkt maxProcessedPkts schedPktDelivery rxRing rxRingBlockSize rxRingBlockCount rxRingFrameSize"},
    {"Interface::EthDevPamManager",
     "deviceIntfStatusDir netNs allMulticast sockRcvBuf sockPrio broadcast pktReuse createVornFileDescOnEnabled "
     "separateDot1QHdr enableBulkPamRead headDropPolicy perIntfSocket perIntfRlimit socketReadLimit edpBundle "
     "ethDevPamBundleActivitySm pam savedPacket defer ethDevPamEvent ethDevPamEventBookmark ethDevPamClock initialized "
     "rxRingSettings"},
    {"Interface::EthBridgeIntfFilter", "deviceIntfStatusDir desiredIntfDir intfStatus"},
    {"Interface::BaseSimpleEthDevPamManager",
     "allIntfStatusDir allIntfStatusLocalDir deviceIntfStatusDir desiredIntfDir pamCollection ethDevPamManager"},
    {"Interface::SimpleEthDevPamManager",
     "allIntfStatusDir allIntfStatusLocalDir deviceIntfStatusDir desiredIntfDir pamCollection ethDevPamManager "
     "kniStatus intfStatusManagerRoot initialized"},
    {"Interface::SimpleTxRxPktManager",
     "deviceIntfStatusDir desiredIntfDir pamCollection pam ethDevPamManager numSent numRcvd numBadRcvd bpfFilterLen "
     "bpfFilter initializedTxRx addIntfPam delIntfPam applyFilter"},
    {"KernelOperState::KernelOperStateManager", "nsNetlinkSockFd doSetOperState doSetOperStateInNs netlinkSocket operStatus"},
    {"KernelOperState::IntfStatusDir", "intfStatus"},
    {"KernelOperState::IntfStatusLocalDir", "intfStatusLocal"},
    {"KernelOperState::IntfStatusOperStatusSm",
     "intfStatusDir intfStatusLocalDir kosm netNsCollection intfStatus intfStatusLocal initialized handleNsByName "
     "doSyncIntfStatus"},
    {"KernelOperState::Root",
     "kosm intfStatusDir intfStatusLocalDir netNsCollection netNsManager intfStatusOperStatusSm operStateConvergence"},
};

TEST(TypeRegistry, EveryTypeHasItsTableAndEachListedNameAnEntryInOrder) {
  auto const & types = Intfsm::typeRegistry().types();
  ASSERT_EQ(types.size(), std::size(registered));
  for (size_t i = 0; i < types.size(); ++i) {
    SCOPED_TRACE(registered[i][0]);
    EXPECT_EQ(types[i].name(), registered[i][0]);
    Vorn::AttributeTable const * table = types[i].table();
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table, Vorn::AttributeTable::of(registered[i][0]));
    std::string names;
    for (Vorn::String const & name : types[i].attributes()) {
      names += (names.empty() ? "" : " ") + name.stdString();
      EXPECT_EQ(table->info(table->number(name.view())).name, name);
    }
    EXPECT_EQ(names, registered[i][1]);
  }
  EXPECT_FALSE(Intfsm::typeRegistry().newEntity("KernelOperState::Nope", "x"));
  EXPECT_TRUE(Intfsm::typeRegistry().newEntity("Interface::PamDesiredIntfDir", "d"));
}

TEST(TypeRegistryDeathTest, RegisteringAnUnknownTypeIsAProgramError) {
  EXPECT_DEATH(Intfsm::typeRegistry().typeIs("Nowhere::Thing", nullptr,
                                             *Vorn::AttributeTable::of("KernelOperState::Root")),
               "assertion \"record != nullptr\" failed");
}

// One object of a type per subsystem, fresh for each case.
struct Objects {
  Vorn::Ptr<KernelOperState::Root> kos = KernelOperState::rootFactory("kos");
  Vorn::Ptr<KernelOperState::KernelOperStateManager> kosm = kos->kosmIs();
  Vorn::Ptr<KernelOperState::IntfStatusDir> statusDir = kos->intfStatusDirIs("st");
  Vorn::Ptr<Interface::IntfStatus> et1 = Interface::intfStatusFactory(Ovel::IntfId("Ethernet1"));
  Vorn::Ptr<Interface::IntfStatusIndexDir> index = Interface::intfStatusIndexDirFactory("idx");
  Vorn::Ptr<Interface::NetNsIntfIdMap> idMap = Interface::netNsIntfIdMapFactory("blue");
  Vorn::Ptr<Interface::DeviceIntfStatusDir> devices = Interface::deviceIntfStatusDirFactory("devices");
  Vorn::Ptr<Interface::EthDevPamManager> manager = Interface::ethDevPamManagerFactory(
      Interface::pamDesiredIntfDirFactory("desired"), Interface::ethDevPamCollectionFactory("pams"), devices);
  Vorn::Ptr<Interface::SimpleTxRxPktManager> txrx = Interface::simpleTxRxPktManagerFactory(devices, nullptr);
};

// What an action yields, or the most specific type and the text of what it raises.
std::string outcome(std::function<Value()> const & action) {
  try {
    return action().str();
  } catch (Vorn::Exception const & e) {
    return Vorn::typeNameOf(typeid(e)) + ": " + e.what();
  }
}

struct Case {
  char const * what;
  std::function<Vorn::Ptr<Vorn::Notifier>(Objects &)> object;
  std::function<Value(Objects &, Vorn::Attributes const &)> action;
  std::string expected;
};

void PrintTo(Case const & c, std::ostream * os) { *os << c.what; }

auto kos = [](Objects & o) -> Vorn::Ptr<Vorn::Notifier> { return o.kos; };
auto kosm = [](Objects & o) -> Vorn::Ptr<Vorn::Notifier> { return o.kosm; };
auto statusDir = [](Objects & o) -> Vorn::Ptr<Vorn::Notifier> { return o.statusDir; };
auto index = [](Objects & o) -> Vorn::Ptr<Vorn::Notifier> { return o.index; };
auto idMap = [](Objects & o) -> Vorn::Ptr<Vorn::Notifier> { return o.idMap; };
auto manager = [](Objects & o) -> Vorn::Ptr<Vorn::Notifier> { return o.manager; };
auto txrx = [](Objects & o) -> Vorn::Ptr<Vorn::Notifier> { return o.txrx; };

std::string const range = "Vorn::RangeException: ";
std::string const valueType = "Vorn::ValueTypeException: ";
std::string const noSuch = "Vorn::NoSuchAttributeException: ";

Case const cases[] = {
    // Oper-state: scalar, instantiating, keyed collection, callable, and the typed members' errors.
    {"scalar reaches the manager too", kos,
     [](Objects & o, auto const & a) {
       a.set("operStateConvergence", true);
       return List{a.get("operStateConvergence"), o.kosm->operStateConvergence()};
     },
     "[true, true]"},
    {"instantiating: made by call, dropped by del", kos,
     [](Objects &, auto const & a) {
       Value made = a.call("intfStatusLocalDir", {"loc"});
       a.del("intfStatusLocalDir");
       return List{made, a.get("intfStatusLocalDir")};
     },
     "[<KernelOperState::IntfStatusLocalDir loc>, none]"},
    {"instantiating by number, same name keeps the child", kos,
     [](Objects & o, auto const & a) {
       a.set(1, "st");
       return List{a.get(1) == Value(o.statusDir), a.info(1).name};
     },
     "[true, \"intfStatusDir\"]"},
    {"keyed collection", kosm,
     [](Objects &, auto const & a) {
       a.set("nsNetlinkSockFd", "blue", 7);
       a.set("nsNetlinkSockFd", "red", 8);
       a.del("nsNetlinkSockFd", "red");
       return List{a.get("nsNetlinkSockFd", "blue"), a.count("nsNetlinkSockFd"), a.contains("nsNetlinkSockFd", "red"),
                   Value(a.keys("nsNetlinkSockFd"))};
     },
     "[7, 1, false, [\"blue\"]]"},
    {"callable", kosm, [](Objects &, auto const & a) { return a.call("operStatus", {"default", "et1"}); }, "-1"},
    {"key out of the key type's range", kosm,
     [](Objects &, auto const & a) { a.set("nsNetlinkSockFd", std::string(151, 'n'), 7); return Value(); },
     range + "NamespaceName::bytes > 150 not allowed"},
    {"null entity to a collection mutator", statusDir,
     [](Objects &, auto const & a) { a.set("intfStatus", Value(), Value()); return Value(); },
     range + "null _intfStatus parameter to mutator for KernelOperState::IntfStatusDir::intfStatus not allowed\""},
    {"a key that is not the value's own", statusDir,
     [](Objects & o, auto const & a) { a.set("intfStatus", "Ethernet2", o.et1); return Value(); },
     valueType + "KernelOperState::IntfStatusDir::intfStatus: key \"Ethernet2\" is not the value's own key "
                 "\"Ethernet1\""},
    {"an object of another type", statusDir,
     [](Objects & o, auto const & a) { a.set("intfStatus", Value(), o.kos); return Value(); },
     valueType + "Interface::IntfStatus expected, got KernelOperState::Root"},
    // Device-name index and kernel interface status: keyed collections of objects and of flags.
    {"collection of objects", index,
     [](Objects & o, auto const & a) {
       a.set("intfStatus", "et1", o.et1);
       Value got = a.get("intfStatus", "et1");
       a.del("intfStatus", "et1");
       return List{got, a.count("intfStatus"), a.get("intfStatus", "et1")};
     },
     "[<Interface::IntfStatus Ethernet1>, 0, none]"},
    {"collection of flags", idMap,
     [](Objects &, auto const & a) {
       a.set("intf", "Ethernet1", true);
       return List{a.get("intf", "Ethernet1"), Value(a.keys("intf"))};
     },
     "[true, [\"Ethernet1\"]]"},
    {"a key that is no interface id", idMap, [](Objects &, auto const & a) { a.set("intf", "", true); return Value(); },
     range + "IntfId::name empty not allowed"},
    // Packet access: value types, the manager's range texts, attributes of the base type.
    {"range text of the typed mutator", manager,
     [](Objects &, auto const & a) { a.set("sockPrio", 16); return Value(); },
     range + "EthDevPamManager::sockPrio < 0 or > 15 not allowed"},
    {"address as text, inherited attribute", manager,
     [](Objects &, auto const & a) {
       a.set("listenAddr", "01:80:C2:00:00:0E");
       return a.get("listenAddr");
     },
     "\"01:80:c2:00:00:0e\""},
    {"filter program as a list", manager,
     [](Objects & o, auto const & a) {
       a.set("filterProgram", List{List{6, 0, 0, 0xffff}});
       return List{a.get("filterProgram"), o.manager->filterProgram().len()};
     },
     "[[[6, 0, 0, 65535]], 1]"},
    {"integer out of the C++ type's range", manager,
     [](Objects &, auto const & a) { a.set("ethProtocol", 70000); return Value(); },
     valueType + "70000 is out of the range of unsigned short"},
    {"read-only attribute", manager,
     [](Objects &, auto const & a) { a.set("deviceIntfStatusDir", Value()); return Value(); },
     noSuch + "Interface::EthDevPamManager::deviceIntfStatusDir (scalar) has no setter without a key"},
    // Simple managers: callable with a result, instantiating by name, counters.
    {"callable with a result", txrx,
     [](Objects &, auto const & a) {
       return List{a.call("applyFilter", {"{ 0x6, 0, 0, 0xffff }"}), a.get("bpfFilter"), a.get("bpfFilterLen")};
     },
     "[true, [[6, 0, 0, 65535]], 1]"},
    {"instantiating by name", txrx, [](Objects &, auto const & a) { return a.call("desiredIntfDir", {"d2"}); },
     "<Interface::PamDesiredIntfDir d2>"},
    {"wrong number of arguments", txrx, [](Objects &, auto const & a) { return a.call("applyFilter"); },
     noSuch + "Interface::SimpleTxRxPktManager::applyFilter takes 1 argument, 0 given"},
    // Bad names, numbers, operations and kinds.
    {"unknown name", kos, [](Objects &, auto const & a) { return a.get("nope"); },
     noSuch + "KernelOperState::Root has no attribute nope"},
    {"unknown number", kos, [](Objects &, auto const & a) { return a.get(7); },
     noSuch + "KernelOperState::Root has no attribute number 7"},
    {"operation the kind lacks", kos, [](Objects &, auto const & a) { return Value(a.count("operStateConvergence")); },
     noSuch + "KernelOperState::Root::operStateConvergence (scalar) has no count"},
    {"value of the wrong kind", kos,
     [](Objects &, auto const & a) { a.set("operStateConvergence", "yes"); return Value(); },
     valueType + "boolean expected, got text \"yes\""},
};

class GenericAccess : public testing::TestWithParam<Case> {
 protected:
  GenericAccess() { setenv("ETHDEVPAMMANAGER_TESTING", "1", 1); }
  ~GenericAccess() override { unsetenv("ETHDEVPAMMANAGER_TESTING"); }
};

TEST_P(GenericAccess, DoesWhatTheTypedMemberDoes) {
  Objects o;
  Vorn::Attributes a(GetParam().object(o));
  EXPECT_EQ(outcome([&] { return GetParam().action(o, a); }), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(OnePerSubsystem, GenericAccess, testing::ValuesIn(cases),
                         [](auto const & info) {
                           std::string name = info.param.what;
                           for (char & c : name) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                           return name;
                         });

// A generic set notifies as the typed mutator does: once per change, never for the value already there.
TEST(GenericAccessNotification, OncePerChangeAndNeverForTheSameValue) {
  struct Watcher : Interface::PamDesiredIntfDir::NotifieeConst {
    IntfsmTest::NotificationLog log;
    void onIntfDesired(Ovel::IntfId const & id) override { log.add("onIntfDesired", id); }
  };
  auto dir = Interface::pamDesiredIntfDirFactory("desired");
  Vorn::Ptr<Watcher> watcher = new Watcher;
  watcher->notifierIs(dir);
  Vorn::Attributes a(dir);
  a.set("intfDesired", "Ethernet1", true);
  a.set(0, "Ethernet1", true);
  a.del("intfDesired", "Ethernet1");
  a.del("intfDesired", "Ethernet1");
  EXPECT_THAT(watcher->log.take(), testing::ElementsAre("onIntfDesired(Ethernet1)", "onIntfDesired(Ethernet1)"));
  EXPECT_EQ(outcome([] { return Value(Vorn::Attributes(Vorn::Ptr<Vorn::Notifier>()).table().size()); }),
            noSuch + "no attributes of a null object");
}

}  // namespace
