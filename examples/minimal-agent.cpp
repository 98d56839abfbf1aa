// The smallest agent: one interface, its operational status mirrored into the kernel, packet access
// on it, and a receiver that counts what arrives. Built against the installed package:
//
//   g++ -std=c++20 minimal-agent.cpp $(pkg-config --cflags --libs intfsm) -o minimal-agent
//   ./minimal-agent lo          # root for the packet socket; without it the agent only reports
#include <linux/if_ether.h>
#include <unistd.h>

#include <cstdio>

#include "intfsm/KernelOperState/KernelOperState.h"
#include "intfsm/SimpleTxRxPktManager/SimpleTxRxPktManager.h"
#include "intfsm/foundation/vorn/ActivityManager.h"

// The agent's own handling of frames: the library reads them, counts them (numRcvd) and hands them over.
class Receiver : public Interface::SimpleTxRxPktManager {
 public:
  using SimpleTxRxPktManager::SimpleTxRxPktManager;
  void handleRx(Vorn::Ptr<Ovel::Pam> const &, Ovel::IntfId const & id, Vorn::Ptr<Ovel::Pkt> const & pkt) override {
    std::printf("%s: frame of %u bytes\n", id.charPtr(), pkt->dataLen());
  }
};

int main(int argc, char ** argv) {
  char const * device = argc > 1 ? argv[1] : "lo";
  Ovel::IntfId const id("Ethernet1");

  // What the agent holds: the interface's status (and local status: its device is in our namespace).
  auto status = Interface::intfStatusFactory(id);
  status->deviceNameIs(device);
  auto local = Interface::intfStatusLocalFactory(id);
  auto all = Interface::allIntfStatusDirFactory("all");
  auto allLocal = Interface::allIntfStatusLocalDirFactory("allLocal");
  all->intfStatusIs(status);
  allLocal->intfStatusLocalIs(local);

  // Oper-state: the kernel follows status->operStatus().
  auto operState = KernelOperState::rootFactory("kos");
  operState->kosmIs();
  operState->intfStatusDirIs("intfStatus")->intfStatusIs(status);
  operState->intfStatusLocalDirIs("intfStatusLocal")->intfStatusLocalIs(local);
  operState->netNsCollectionIs("netNs");
  operState->netNsManagerIs(operState->netNsCollection());
  operState->intfStatusOperStatusSmIs(operState->intfStatusDir(), operState->intfStatusLocalDir(), operState->kosm(),
                                      operState->netNsCollection());

  // Packet access: the kernel's devices of this namespace, a manager, and our receiver on its Pams.
  auto kernel = KernelNetInfo::Status::statusNew("kernel", Ovel::NamespaceName(Ovel::DEFAULT_NS));
  kernel->enabledIs(true);
  auto packets = Interface::simpleEthDevPamManagerFactory(all, allLocal, kernel);
  packets->initializedIs(true);
  packets->ethDevPamManager()->ethProtocolIs(ETH_P_ALL);  // no EtherType chosen: the socket would receive nothing
  packets->ethDevPamManager()->handleInitialized();  // binds the manager to the loop's clock
  packets->ethDevPamManager()->enabledIs(true);
  Vorn::Ptr<Receiver> receiver = new Receiver(packets->deviceIntfStatusDir(), packets->pamCollection());
  receiver->desiredIntfDirIs(packets->desiredIntfDir());
  receiver->addIntfPam(id);

  // Run the loop a little (an agent runs it for good: Vorn::activityManager().run()).
  Vorn::activityManager().runUntil([] { return false; }, 0.5);
  auto const record = packets->deviceIntfStatusDir()->intfStatusAndDeviceName(id);
  std::printf("%s is kernel device %s (ifindex %u); packet access %s; %u frames received\n", id.charPtr(), device,
              record.ifIndex, packets->pamCollection()->intfPam(id) ? "open" : "not open (root needed)",
              receiver->numRcvd());
  return record.ifIndex ? 0 : 1;
}
