// Sends an interface's operational state into the kernel: one IFLA_OPERSTATE request over a routing
// netlink socket that lives in the device's network namespace.
//
// The manager caches one netlink socket per namespace (`nsNetlinkSockFd`); the oper-status state
// machine fills and empties that cache as namespaces come and go, and closes what it removes. A
// request for a namespace without a cached socket opens, binds and closes a short-lived one.
//
// Threading: called from the loop's one thread only; the cache is not locked. A notifiee bound to the
// manager (the cache notifications) holds a reference (Ptr) to it and keeps it alive.
//
//   Vorn::Ptr<KernelOperStateManager> kosm = new KernelOperStateManager;
//   kosm->doSetOperStateInNs("veth0", Interface::IntfOperStatus::intfOperUp, Ovel::NamespaceName("blue"));
//
// Failures that leave no sane way on are fatal, as the owning agent expects: no socket in the default
// namespace, a bind that fails, or a request that cannot be sent (the socket is broken) end the process
// with exit status 1. A request the kernel refuses (a device not, or not yet, in that namespace) is
// traced and survived: the next change of the interface's status sends it again, and so does
// convergence, below, when the device appears.
//
// Convergence (`operStateConvergence`, off by default: off, the manager does what is said above and
// nothing else: it holds no state besides the cache and opens no socket besides the cached and the
// short-lived ones, and a request is sent only when a status changes). The kernel does not keep what was pushed: it recomputes a
// device's operational state on every carrier change, so a device set DORMANT comes back UP after its
// carrier drops and returns (and, under IFLA_LINKMODE dormant, one set UP comes back DORMANT); and a
// device deleted and re-created under its name starts from the kernel's own state. So the manager
// keeps, per namespace and device, the state it last decided to send (IF_OPER_UP or IF_OPER_DORMANT by
// the mapping below; a request with an unmapped status leaves the device with no decided state), and
// follows each namespace it holds a cached socket for with a link monitor. Whenever the monitor reports
// a device with a decided state (appeared, re-created, renamed to that name, carrier or state changed)
// and the kernel's state differs from the decided one, the decided state is sent again on the cached
// socket, traced at level 5 ("re-asserting operstate of et1 in namespace blue: kernel UP, decided
// DORMANT").
//
// When to send again: only when the kernel would apply it, that is after its own recomputation has
// settled. The kernel sets DORMANT only on a device that is operationally up (it reports UP or
// UNKNOWN), and UP only on one it reports DORMANT, TESTING or UNKNOWN; to any other (no carrier:
// LOWERLAYERDOWN; administratively down: DOWN) a request is acknowledged and changes nothing. So a
// report with such a state sends nothing, and the report that follows the carrier's return (which the
// kernel sends once it has recomputed the state) sends the decided state. Each report is looked at
// once, and a request that the kernel does not apply brings no report, so a report leads to one
// request at most and nothing loops. A report older than the latest decision (statuses changing faster
// than the loop reads) may send a request the kernel already satisfies: it changes nothing and brings
// no report. A refused request (the device went, or was renamed, meanwhile) waits for the next report
// of that device in the same way; nothing is retried on a timer.
//
// The monitor is the foundation's KernelNetInfo::Status on a device table of its own. It joins
// RTNLGRP_LINK before it dumps, dumps again after lost events, and applies what it read during a dump
// only after reconciling, so the table it reports from does not drift from the kernel's; a listener of
// our own would have to repeat all of that. It costs one more netlink socket per namespace and the
// table. A report is a change of a device's record (ifindex, flags, name, IFLA_OPERSTATE): a message
// that repeats what the table holds is none.
//
// Lifecycle: a namespace's monitor opens (and reads its first dump, which reports every device) when a
// non-negative socket is cached for it, unless one is open already; it closes when the cache entry is
// removed, and then the namespace's decided states are dropped too: that is how the oper-status state
// machine says the namespace is gone. A monitor that cannot be opened is traced at level 0 and the
// namespace goes without convergence until its socket is cached again. Decided states are kept only
// while convergence is on: turning it off closes every monitor and forgets them; turning it on opens
// the monitors, and the oper-status state machine then pushes every interface again, which decides
// their states afresh.
#pragma once

#include <cstdint>
#include <unordered_map>

#include "intfsm/foundation/interface/IntfStatus.h"
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Notifier.h"
#include "intfsm/foundation/vorn/Reactor.h"

namespace KernelOperState {

class KernelOperStateManager : public Vorn::Notifier {
 public:
  class NotifieeConst : public Vorn::Notifiee<KernelOperStateManager> {
   public:
    virtual void onNsNetlinkSockFd(Ovel::NamespaceName const &) {}
    virtual void onNsNetlinkSockFdvornImmediate() {}
    virtual void onOperStateConvergence() {}
  };

  KernelOperStateManager() = default;
  ~KernelOperStateManager() override;

  // Not an entity: always the empty name.
  Vorn::Name const & name() const;

  // The cached socket of a namespace; 0 when none is cached.
  int32_t nsNetlinkSockFd(Ovel::NamespaceName const & nsName) const { return nsNetlinkSockFd_.get(nsName); }
  bool nsNetlinkSockFdHas(Ovel::NamespaceName const & nsName) const { return nsNetlinkSockFd_.contains(nsName); }
  uint32_t nsNetlinkSockFds() const { return nsNetlinkSockFd_.size(); }
  Vorn::Collection<Ovel::NamespaceName, int32_t> const & nsNetlinkSockFdIter() const { return nsNetlinkSockFd_; }
  // Removing an entry never closes its descriptor: that is the caller's job. Caching a socket opens
  // the namespace's link monitor; removing the entry closes it and drops the namespace's decided states.
  void nsNetlinkSockFdIs(Ovel::NamespaceName const & nsName, int32_t sd);
  void nsNetlinkSockFdDel(Ovel::NamespaceName const & nsName);
  void nsNetlinkSockFdDelAll();
  void nsNetlinkSockFdNotify(Ovel::NamespaceName const &) {}

  // Sets the device's state in the default namespace.
  void doSetOperState(Vorn::String const & deviceName, Interface::IntfOperStatus operStatus);
  // Sets the device's state in `nsName`: status 1 (up) becomes IF_OPER_UP; 2, 5, 6 and 7 become
  // IF_OPER_DORMANT (never DOWN); any other status, and an empty device name, send nothing.
  void doSetOperStateInNs(Vorn::String const & deviceName, Interface::IntfOperStatus operStatus,
                          Ovel::NamespaceName const & nsName);

  bool operStateConvergence() const { return operStateConvergence_; }
  void operStateConvergenceIs(bool on);

  // The state last decided for `device` in `nsName`: IF_OPER_UP, IF_OPER_DORMANT, or -1 for none.
  int decidedOperState(Ovel::NamespaceName const & nsName, Vorn::String const & device) const;
  uint32_t decidedOperStates() const;
  // Forgets one decided state (no interface names that device there any more); nothing when absent.
  void decidedOperStateDel(Ovel::NamespaceName const & nsName, Vorn::String const & device);

  // The link monitor of a namespace; null when there is none.
  Vorn::Ptr<KernelNetInfo::Status const> linkMonitor(Ovel::NamespaceName const & nsName) const {
    return linkMonitor_.get(nsName);
  }
  // Requests sent again because a report differed from the decided state.
  uint64_t reassertions() const { return reassertions_; }

 protected:
  void vornImmediateNotify(Vorn::BaseNotifiee * n) const override {
    notifyOne(n, &NotifieeConst::onNsNetlinkSockFdvornImmediate);
  }

 private:
  // Reports of one namespace's monitor: each device record that changed, by its name.
  class VornLinkMonitor : public Vorn::Reactor<KernelOperStateManager, KernelNetInfo::Root> {
   public:
    VornLinkMonitor(KernelOperStateManager * owner, Ovel::NamespaceName const & nsName)
        : Reactor(owner), nsName_(nsName) {}
    void onInterfaceByDeviceName(Vorn::String const & device) override {
      forward(&KernelOperStateManager::handleLinkReport, nsName_, device);
    }

   private:
    Ovel::NamespaceName nsName_;
  };

  void linkMonitorOpen(Ovel::NamespaceName const & nsName);
  void linkMonitorClose(Ovel::NamespaceName const & nsName);
  void namespaceGone(Ovel::NamespaceName const & nsName);
  // A report of the device now called `device` (or of its going) in the namespace's monitor.
  void handleLinkReport(Ovel::NamespaceName const & nsName, Vorn::String const & device);

  Vorn::Collection<Ovel::NamespaceName, int32_t> nsNetlinkSockFd_;
  bool operStateConvergence_ = false;
  std::unordered_map<Ovel::NamespaceName, std::unordered_map<Vorn::String, uint8_t>> decided_;
  Vorn::Collection<Ovel::NamespaceName, Vorn::Ptr<KernelNetInfo::Status>> linkMonitor_;
  Vorn::ReactorCollection<Ovel::NamespaceName, VornLinkMonitor> linkMonitorReactor_;
  uint64_t reassertions_ = 0;
};

}  // namespace KernelOperState
