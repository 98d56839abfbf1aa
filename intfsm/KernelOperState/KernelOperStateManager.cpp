#include "intfsm/KernelOperState/KernelOperStateManager.h"

#include <linux/if.h>

#include <cstdlib>

#include "intfsm/KernelOperState/internal/NetlinkSocket.h"
#include "intfsm/KernelOperState/internal/Trace.h"
#include "intfsm/foundation/interface/NetlinkOperState.h"
#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/LibraryTypes.h"

namespace KernelOperState {

namespace {

// "netlinkSocket" reads the socket that a request into a namespace goes out on (0: a short-lived one);
// "operStatus" reads the state last decided for a device in a namespace (-1: none; see convergence).
Vorn::AttributeTableOf<KernelOperStateManager> const attributes(
    "KernelOperState::KernelOperStateManager", [](auto & t) {
      using M = KernelOperStateManager;
      t.collection("nsNetlinkSockFd", &M::nsNetlinkSockFdIter, &M::nsNetlinkSockFdIs, &M::nsNetlinkSockFdDel)
          .callable("doSetOperState", &M::doSetOperState)
          .callable("doSetOperStateInNs", &M::doSetOperStateInNs)
          .callable("netlinkSocket", &M::nsNetlinkSockFd)
          .callable("operStatus", &M::decidedOperState);
    });
Intfsm::TypeRegistration registration("KernelOperState::KernelOperStateManager", nullptr, attributes);

// Kernel operstate for a status, or -1 when the status is not one this library maps.
int kernelOperState(Interface::IntfOperStatus status) {
  switch (static_cast<int>(status)) {
    case 1:
      return IF_OPER_UP;
    case 2:
    case 5:
    case 6:
    case 7:
      return IF_OPER_DORMANT;
    default:
      return -1;
  }
}

char const * operStateText(int operState) {
  static char const * const texts[] = {"UNKNOWN", "NOTPRESENT", "DOWN", "LOWERLAYERDOWN", "TESTING", "DORMANT", "UP"};
  return operState >= 0 && operState < 7 ? texts[operState] : "?";
}

// Whether the kernel applies `decided` to a device in state `kernel` (see the header).
bool appliesTo(int decided, int kernel) {
  if (decided == IF_OPER_DORMANT) return kernel == IF_OPER_UP || kernel == IF_OPER_UNKNOWN;
  return kernel == IF_OPER_DORMANT || kernel == IF_OPER_TESTING || kernel == IF_OPER_UNKNOWN;
}

}  // namespace

KernelOperStateManager::~KernelOperStateManager() {
  linkMonitorReactor_.zombieIs(true);
  while (Ovel::NamespaceName const * nsName = linkMonitor_.anyKey()) linkMonitorClose(Ovel::NamespaceName(*nsName));
}

Vorn::Name const & KernelOperStateManager::name() const {
  static Vorn::Name const empty;
  return empty;
}

void KernelOperStateManager::nsNetlinkSockFdIs(Ovel::NamespaceName const & nsName, int32_t sd) {
  setEntry(nsNetlinkSockFd_, nsName, sd, &NotifieeConst::onNsNetlinkSockFd);
  if (sd >= 0) {
    linkMonitorOpen(nsName);
  } else {
    linkMonitorClose(nsName);
  }
}

void KernelOperStateManager::nsNetlinkSockFdDel(Ovel::NamespaceName const & nsName) {
  Ovel::NamespaceName const key = nsName;  // may be the key of the entry being removed
  if (delEntry(nsNetlinkSockFd_, key, &NotifieeConst::onNsNetlinkSockFd)) namespaceGone(key);
}

void KernelOperStateManager::nsNetlinkSockFdDelAll() {
  while (Ovel::NamespaceName const * key = nsNetlinkSockFd_.anyKey()) nsNetlinkSockFdDel(Ovel::NamespaceName(*key));
}

void KernelOperStateManager::operStateConvergenceIs(bool on) {
  if (on == operStateConvergence_) return;
  operStateConvergence_ = on;
  if (on) {
    for (auto const & e : nsNetlinkSockFd_) {
      if (e.value >= 0) linkMonitorOpen(e.key);
    }
  } else {
    while (Ovel::NamespaceName const * nsName = linkMonitor_.anyKey()) linkMonitorClose(Ovel::NamespaceName(*nsName));
    decided_.clear();
  }
  notify(&NotifieeConst::onOperStateConvergence);
}

int KernelOperStateManager::decidedOperState(Ovel::NamespaceName const & nsName, Vorn::String const & device) const {
  auto const ns = decided_.find(nsName);
  if (ns == decided_.end()) return -1;
  auto const d = ns->second.find(device);
  return d == ns->second.end() ? -1 : d->second;
}

uint32_t KernelOperStateManager::decidedOperStates() const {
  size_t n = 0;
  for (auto const & [nsName, devices] : decided_) n += devices.size();
  return static_cast<uint32_t>(n);
}

void KernelOperStateManager::decidedOperStateDel(Ovel::NamespaceName const & nsName, Vorn::String const & device) {
  auto const ns = decided_.find(nsName);
  if (ns == decided_.end()) return;
  ns->second.erase(device);
  if (ns->second.empty()) decided_.erase(ns);
}

void KernelOperStateManager::linkMonitorOpen(Ovel::NamespaceName const & nsName) {
  if (!operStateConvergence_ || linkMonitor_.contains(nsName)) return;
  Vorn::Ptr<KernelNetInfo::Status> monitor = KernelNetInfo::Status::statusNew("kosmLinkMonitor", nsName);
  linkMonitor_.set(nsName, monitor);
  // Bound before the first dump, so that every device it lists is a report.
  linkMonitorReactor_.reconcileKey(this, nsName, monitor->root());
  try {
    monitor->enabledIs(true);
  } catch (Vorn::ErrnoException const & e) {
    KOS_TRACE(0, "no link monitor in namespace " << nsName << ": " << e.what());
    linkMonitorClose(nsName);
  }
}

void KernelOperStateManager::linkMonitorClose(Ovel::NamespaceName const & nsName) {
  linkMonitorReactor_.del(nsName);
  if (Vorn::Ptr<KernelNetInfo::Status> monitor = linkMonitor_.get(nsName)) {
    linkMonitor_.del(nsName);
    monitor->enabledIs(false);
  }
}

void KernelOperStateManager::namespaceGone(Ovel::NamespaceName const & nsName) {
  linkMonitorClose(nsName);
  decided_.erase(nsName);
}

void KernelOperStateManager::handleLinkReport(Ovel::NamespaceName const & nsName, Vorn::String const & device) {
  int const decided = decidedOperState(nsName, device);
  if (decided < 0) return;
  Vorn::Ptr<KernelNetInfo::Status> const monitor = linkMonitor_.get(nsName);
  int32_t const * sd = nsNetlinkSockFd_.find(nsName);
  if (!monitor || !sd || *sd < 0) return;
  KernelNetInfo::Interface const link = monitor->root()->interfaceByDeviceName(device);
  if (!link || link.operState() == decided) return;  // gone: its return is the next report
  if (!appliesTo(decided, link.operState())) {
    KOS_TRACE(8, "operstate of " << device << " in namespace " << nsName << ": kernel "
                                 << operStateText(link.operState()) << ", decided " << operStateText(decided)
                                 << "; waiting for the next report");
    return;
  }
  KOS_TRACE(5, "re-asserting operstate of " << device << " in namespace " << nsName << ": kernel "
                                            << operStateText(link.operState()) << ", decided "
                                            << operStateText(decided));
  ++reassertions_;
  if (!Interface::doSetNetlinkOperState(*sd, device.charPtr(), 111, decided)) exit(1);
}

void KernelOperStateManager::doSetOperState(Vorn::String const & deviceName, Interface::IntfOperStatus operStatus) {
  KOS_TRACE(8, "doSetOperState" << "( " << deviceName << ", " << operStatus << " )");
  doSetOperStateInNs(deviceName, operStatus, Ovel::NamespaceName::defaultNamespace());
}

void KernelOperStateManager::doSetOperStateInNs(Vorn::String const & deviceName, Interface::IntfOperStatus operStatus,
                                                Ovel::NamespaceName const & nsName) {
  KOS_TRACE(8, "doSetOperStateInNs" << "( " << deviceName << ", " << operStatus << ", " << nsName << " )");
  int const kernelValue = kernelOperState(operStatus);
  if (operStateConvergence_ && !deviceName.empty()) {
    if (kernelValue < 0) {
      decidedOperStateDel(nsName, deviceName);
    } else {
      decided_[nsName][deviceName] = static_cast<uint8_t>(kernelValue);
    }
  }
  int sd;
  bool localSocket = false;
  if (int32_t const * cached = nsNetlinkSockFd_.find(nsName)) {
    sd = *cached;
    KOS_TRACE(8, "doSetOperStateInNs" << " sd: " << sd);
    if (sd < 0) VORN_ASSERT(localSocket == true);  // a cached negative descriptor is a program error
  } else {
    KOS_TRACE(5, "creating local netlink socket");
    localSocket = true;
    sd = netlinkSocketOpen(nsName, "doSetOperStateInNs" " sd: ", false);
    if (sd < 0) return;
  }
  if (deviceName.empty()) {
    KOS_TRACE(1, "not sending IFLA_OPERSTATE message because deviceName is empty");
  } else if (kernelValue < 0) {
    KOS_TRACE(0, "unknown operStatus: " << operStatus);
  } else if (!Interface::doSetNetlinkOperState(sd, deviceName.charPtr(), 111, kernelValue)) {
    exit(1);
  }
  if (localSocket) Platform::calls().close(sd);
}

}  // namespace KernelOperState
