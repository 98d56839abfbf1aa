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
// traced and survived: the next change of the interface's status sends it again.
#pragma once

#include <cstdint>

#include "intfsm/foundation/interface/IntfStatus.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Notifier.h"

namespace KernelOperState {

class KernelOperStateManager : public Vorn::Notifier {
 public:
  class NotifieeConst : public Vorn::Notifiee<KernelOperStateManager> {
   public:
    virtual void onNsNetlinkSockFd(Ovel::NamespaceName const &) {}
    virtual void onNsNetlinkSockFdvornImmediate() {}
  };

  KernelOperStateManager() = default;

  // Not an entity: always the empty name.
  Vorn::Name const & name() const;

  // The cached socket of a namespace; 0 when none is cached.
  int32_t nsNetlinkSockFd(Ovel::NamespaceName const & nsName) const { return nsNetlinkSockFd_.get(nsName); }
  bool nsNetlinkSockFdHas(Ovel::NamespaceName const & nsName) const { return nsNetlinkSockFd_.contains(nsName); }
  uint32_t nsNetlinkSockFds() const { return nsNetlinkSockFd_.size(); }
  Vorn::Collection<Ovel::NamespaceName, int32_t> const & nsNetlinkSockFdIter() const { return nsNetlinkSockFd_; }
  // Removing an entry never closes its descriptor: that is the caller's job.
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

 protected:
  void vornImmediateNotify(Vorn::BaseNotifiee * n) const override {
    notifyOne(n, &NotifieeConst::onNsNetlinkSockFdvornImmediate);
  }

 private:
  Vorn::Collection<Ovel::NamespaceName, int32_t> nsNetlinkSockFd_;
};

}  // namespace KernelOperState
