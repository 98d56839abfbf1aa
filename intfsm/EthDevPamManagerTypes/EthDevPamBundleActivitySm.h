// Runs a bundle's deferred packet delivery on an activity of its own, "edpBundleActivity", so that a
// reader that left frames in its Pam is served again on a later pass of the loop, never nested in
// the read that found it slow.
//
//   auto activity = Vorn::activityManager().activityIs("edpBundleActivity", 99);
//   Vorn::Ptr<EthDevPamBundleActivitySm> sm = new EthDevPamBundleActivitySm(activity, manager);
//   sm->ethDevPamBundleIs(bundle);
//   // bundle->schedPktDeliveryInc(1) -> later, on the activity: bundle->handleScheduledPktDelivery()
//
// The value 99 is the activity's budget: at most 99 deferred calls run per loop pass, so readers that
// keep rescheduling cannot starve descriptors and timers.
//
// The bundle is watched in place, not on the activity: a reactor bound to an activity has every
// notification of what it watches queued there, and the bundle notifies several times per frame
// (its packet, its slot flags, its counters). Only a reschedule reaches the activity, as one firing
// of a clock reactor bound to it.
//
// Threading: one loop thread, nothing locked. The nested reactor holds a reference to the bundle it
// watches (a bound notifiee keeps its notifier alive), and so does the ethDevPamBundle attribute.
#pragma once

#include "intfsm/EthDevPamManagerTypes/EthDevPamBundle.h"
#include "intfsm/foundation/vorn/Activity.h"
#include "intfsm/foundation/vorn/Notifier.h"

namespace Interface {

class EthDevPamManager;

class EthDevPamBundleActivitySm : public Vorn::Notifier {
 public:
  class NotifieeConst : public Vorn::Notifiee<EthDevPamBundleActivitySm> {
   public:
    virtual void onEthDevPamBundle() {}
  };

  EthDevPamBundleActivitySm(Vorn::Ptr<Vorn::ActivityConfig> const & activityConfig, EthDevPamManager * manager);
  ~EthDevPamBundleActivitySm() override;

  char const * vornTypeName() const { return "Interface::EthDevPamBundleActivitySm"; }
  // The activity configuration this state machine runs under.
  Vorn::Ptr<Vorn::ActivityConfig> const & vornFwkActivity() const { return activityConfig_; }
  EthDevPamManager * manager() const { return manager_; }

  Vorn::Ptr<EthDevPamBundle> const & ethDevPamBundle() const { return ethDevPamBundle_; }
  // Watches `bundle` from now on (null: nothing).
  void ethDevPamBundleIs(Vorn::Ptr<EthDevPamBundle> const & bundle);

  // The bundle rescheduled its readers: handleScheduledPktDelivery runs on the activity, later.
  void handleSchedPktDelivery();
  void handleScheduledPktDelivery();

 private:
  class VornEthDevPamBundle;
  class VornDeliveryClock;

  Vorn::Ptr<Vorn::ActivityConfig> activityConfig_;
  EthDevPamManager * manager_;
  Vorn::Ptr<EthDevPamBundle> ethDevPamBundle_;
  Vorn::Ptr<VornEthDevPamBundle> bundleReactor_;
  Vorn::Ptr<VornDeliveryClock> deliveryClock_;  // on the activity; armed by each reschedule
};

}  // namespace Interface
