// The event loop: one epoll instance, the clock, the watched descriptors and the named activities.
//
// An agent runs the process's loop until something stops it:
//
//   Vorn::ActivityManager & loop = Vorn::activityManager();
//   ... create state machines, FileDescriptors, clock reactors ...
//   loop.run();                       // returns after a handler calls loop.stop()
//
// Tests drive it one pass at a time instead of sleeping:
//
//   loop.runOnce(0);                                   // one pass, no waiting
//   loop.runUntil([&] { return got == 3; }, 1.0);      // passes until done, at most a second
//
// A pass, in order:
// 1. deferred calls: each activity runs, up to its budget, the calls that were waiting when the
//    pass began (calls queued during the pass wait for the next one);
// 2. poll: epoll_wait, for no longer than the caller's timeout nor than the time to the earliest
//    timer (to the nanosecond with epoll_pwait2, to the millisecond, rounded up, without), and not at all when calls are still waiting, deferred
//    calls ran in this pass, a timer is due or stop() was called. With a test time set
//    (System::testTimeIs) timers never shorten the wait: only the test moves that time;
// 3. readiness: each ready descriptor's counters (see FileDescriptor);
// 4. timers: reactors whose time has come, armed before this step began (see Clock).
// So an idle loop blocks in epoll_wait and never spins. Handlers run on the loop's thread, one at a
// time; one that throws ends the pass there and the exception leaves runOnce (level-triggered
// readiness not dispatched yet is reported again next pass). runOnce is not re-entered from a
// handler (assertion).
//
// The process's manager is created on first use and never destroyed, so activities outlive every
// notifiee that is bound to one; its epoll descriptor is close-on-exec. Private managers (tests)
// must outlive the descriptors, activities' notifiees and clock reactors that use them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

#include "intfsm/foundation/vorn/Activity.h"
#include "intfsm/foundation/vorn/Clock.h"
#include "intfsm/foundation/vorn/FileDescriptor.h"

struct epoll_event;

namespace Vorn {

class ActivityManager {
 public:
  ActivityManager();
  ~ActivityManager();
  ActivityManager(ActivityManager const &) = delete;
  ActivityManager & operator=(ActivityManager const &) = delete;

  // Creates or returns the named activity: the same name gives the same object. Asking again with
  // another budget raises NameInUseException and changes nothing.
  Ptr<Activity> activityIs(Name const & name, unsigned budget);
  // The named activity, or null.
  Ptr<Activity> activity(Name const & name) const;
  uint32_t activities() const { return static_cast<uint32_t>(activities_.size()); }

  Ptr<Clock> clock() const { return clock_; }

  // Passes until stop(); a stop() before run() makes it return at once. Each run() consumes the
  // stop request that ends it.
  void run();
  // Ends run() after the pass in progress (which then does not block).
  void stop() { stopRequested_ = true; }
  // One pass (see above); `timeoutSeconds` < 0 or infinite waits without limit. True if anything
  // ran: a deferred call, a readiness count, a timer.
  bool runOnce(double timeoutSeconds);
  // Passes until done() is true or `timeoutSeconds` of real time have gone (at least one pass);
  // returns done().
  bool runUntil(std::function<bool()> const & done, double timeoutSeconds);

  int epollDescriptor() const { return epoll_; }
  // Descriptors watched now.
  uint32_t watches() const { return static_cast<uint32_t>(watches_.size()); }
  // Watches found already gone from epoll (their descriptor was closed before it was cleared).
  uint64_t staleWatches() const { return staleWatches_; }
  // Passes run so far.
  uint64_t passes() const { return passes_; }

 private:
  friend class FileDescriptor;
  uint64_t watchAdd(FileDescriptor * fd, int descriptor, uint32_t events);
  bool watchMod(uint64_t id, int descriptor, uint32_t events);
  void watchDel(uint64_t id, int descriptor);
  FileDescriptor * watched(uint64_t id) const;
  // How long the next poll may block: -1 for ever, else nanoseconds.
  int64_t waitNanoseconds(double timeoutSeconds) const;
  // The poll itself.
  int epollWait(int64_t nanoseconds);
  bool readinessDispatch(int ready);

  static constexpr int maxEvents = 64;

  int epoll_ = -1;
  bool precise_ = true;  // false once epoll_pwait2 turned out missing (a kernel before 5.11)
  Ptr<Clock> clock_;
  std::vector<Ptr<Activity>> activities_;  // in creation order: the order they run in a pass
  std::unordered_map<Name, Activity *> activityByName_;
  std::unordered_map<uint64_t, FileDescriptor *> watches_;
  std::unordered_map<int, uint64_t> watchByDescriptor_;
  uint64_t nextWatchId_ = 1;
  uint64_t staleWatches_ = 0;
  uint64_t passes_ = 0;
  std::unique_ptr<epoll_event[]> events_;
  bool stopRequested_ = false;
  bool inPass_ = false;
};

using ActivityManagerConfig = ActivityManager;

// The process's one loop, created on first use.
ActivityManager & activityManager();

// Tests: makes `loop` what activityManager() returns, so that state machines written against the
// process's loop run on a private one; null gives the process's own back. Objects bound to the
// private loop must be gone before it is.
void activityManagerIs(ActivityManager * loop);

}  // namespace Vorn
