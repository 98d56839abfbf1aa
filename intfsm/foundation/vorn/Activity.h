// A named activity of the event loop: where deferred notifications wait and run.
//
// A reactor bound to an activity does not run inside the mutator that changed the attribute it
// watches; the call waits on the activity and runs on a later pass of the loop:
//
//   Vorn::Ptr<Vorn::Activity> act = Vorn::activityManager().activityIs("edpBundleActivity", 99);
//   reactor->activityIs(Vorn::vornActivitySmFor(act).ptr());
//   bundle->schedPktDeliveryIs(n);   // reactor->onSchedPktDelivery() is queued, not called
//   ...                              // it runs on the loop's next pass
//
// Rules:
// - Calls run in the order they were queued, on a pass that starts after they were queued: never
//   nested in the mutator that queued them, nor in the pass in which they were queued.
// - A call that is the same as one already waiting (same notifiee, callback and arguments:
//   DeferredCall::sameAs) is dropped. The handler reads the attribute when it runs, so it sees the
//   latest value either way.
// - A call whose notifiee is destroyed, or has moved to another activity, before it runs is dropped.
//   One whose notifiee cannot take notifications when the call's turn comes (notification
//   inactive, marked for deletion, unregistered) is dropped too, uncalled.
// - The budget (the number given with the name) is the most calls the activity runs in one loop
//   pass; the rest wait for the next pass, which then does not block. A handler that keeps
//   rescheduling itself therefore cannot starve descriptors and timers. 0 means no limit.
//
// Activities live as long as their activity manager (the process's one is never destroyed), which
// is what lets notifiees keep a plain pointer to the activity they are bound to.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>
#include <unordered_set>

#include "intfsm/foundation/vorn/Clock.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Vorn {

class ActivityManager;

class Activity : public Entity, public NotificationQueue {
 public:
  // The clock of the activity's loop; null once the loop is gone.
  Ptr<Clock> clock() const;
  // The most calls run per loop pass; 0 = no limit.
  unsigned budget() const { return budget_; }
  // Calls waiting to run.
  uint32_t pendingCalls() const { return pendingCalls_; }
  // Calls run so far (dropped ones are not counted).
  uint64_t callsRun() const { return callsRun_; }

  // NotificationQueue
  void deferredCallIs(std::unique_ptr<DeferredCall> call) override;
  void notifieeDel(BaseNotifiee * notifiee) override;

 private:
  friend class ActivityManager;
  Activity(Name const & name, unsigned budget, ActivityManager * manager)
      : Entity(name), budget_(budget), manager_(manager) {}
  ~Activity() override = default;

  // Marks the calls waiting now as the ones that this pass may run.
  void passBegin() { passLimit_ = nextSeq_; }
  // Runs them, up to the budget; returns the number run.
  uint32_t passRun();
  void managerDel();

  struct Waiting {
    std::unique_ptr<DeferredCall> call;  // null once dropped
    uint64_t seq;
  };

  unsigned const budget_;
  ActivityManager * manager_;
  std::deque<Waiting> queue_;
  // Waiting calls by notifiee: coalescing compares only a notifiee's own calls, and dropping the
  // calls of a dying notifiee that has none costs one lookup.
  std::unordered_map<BaseNotifiee *, std::unordered_set<DeferredCall *>> byNotifiee_;
  uint32_t pendingCalls_ = 0;
  uint64_t callsRun_ = 0;
  uint64_t nextSeq_ = 0;
  uint64_t passLimit_ = 0;
};

using ActivityConfig = Activity;

// The activity on which an object configured with `config` runs its deferred work. Activities are
// their own state machines here, so this is `config` itself.
Ptr<Activity> vornActivitySmFor(Ptr<ActivityConfig> const & config);

}  // namespace Vorn
