// The clock of an event loop: a notifier of time.
//
// A clock reactor asks for one call-back at an absolute time, in seconds on the scale of
// System::currentTime(), and may re-arm itself from inside that call-back:
//
//   struct Poller : Vorn::Clock::NotifieeConst {
//     void onTimeMin() override {
//       pollOnce();
//       timeMinIs(Vorn::System::currentTime() + 1.0);   // again in a second
//     }
//   };
//   Vorn::Ptr<Poller> p = new Poller;
//   p->notifierIs(Vorn::activityManager().clock());
//   p->timeMinIs(Vorn::System::currentTime());          // first call on the next loop pass
//
// Rules:
// - A reactor holds at most one timer. It is armed while the reactor is bound to a clock and its
//   timeMin is finite; arming an unbound reactor keeps the time until the reactor is bound, and
//   rebinding moves the timer to the new clock. timeMinIs(+infinity) disarms.
// - Due timers fire in order of time (equal times in order of arming), once per arming. timeMin is
//   back at +infinity when onTimeMin() runs, so the handler may re-arm.
// - A timer armed during a loop pass fires on a later pass at the earliest, even when its time has
//   already come: a reactor that re-arms at "now" gets one call per pass and lets I/O run between.
// - A reactor that cannot take notifications when its time comes (notification inactive, marked for
//   deletion, unregistered: a zombie) loses that firing: timeMin returns to +infinity and nothing is
//   called. A destroyed reactor is never called.
// - A reactor bound to an activity (`activityIs`) has its onTimeMin() queued on that activity.
//
// The event loop computes its epoll timeout from the earliest armed time (no timer descriptor):
// rounded up to the nanosecond (to the millisecond on a kernel without epoll_pwait2), so the loop
// never wakes before a timer is due and never spins.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "intfsm/foundation/vorn/Entity.h"

namespace Vorn {

class ActivityManager;

class Clock : public Entity {
 public:
  static constexpr double never = std::numeric_limits<double>::infinity();

  class NotifieeConst : public Notifiee<Clock> {
   public:
    NotifieeConst() = default;
    ~NotifieeConst() override;

    // Absolute time of the next call-back; +infinity when none is wanted.
    double timeMin() const { return timeMin_; }
    // Arms, re-arms or moves the call-back; +infinity disarms. NaN is refused with a range error.
    void timeMinIs(double seconds);

    // Binding (hides Notifiee<Clock>::notifierIs) carries an armed timer to the new clock.
    void notifierIs(Ptr<Clock const> const & clock);

    // Called once when System::currentTime() >= timeMin().
    virtual void onTimeMin() {}

   private:
    friend class Clock;
    void disarm();
    void armIfBound();

    double timeMin_ = never;
    uint64_t armSeq_ = 0;
    size_t heapIndex_ = notArmed;
    Ptr<Clock const> armedOn_;  // the clock whose heap holds us; keeps it alive while armed
    static constexpr size_t notArmed = static_cast<size_t>(-1);
    static constexpr size_t parked = static_cast<size_t>(-2);
  };

  // Reactors armed on this clock.
  uint32_t armedReactors() const { return static_cast<uint32_t>(heap_.size() + parked_.size()); }
  // The earliest armed time, or +infinity.
  double timeMinNext() const;

 private:
  friend class ActivityManager;
  explicit Clock(Name const & name) : Entity(name) {}
  ~Clock() override;

  // Fires what is due at `now` and was armed before this call; returns the number of call-backs
  // made or queued.
  uint32_t timeMinFire(double now);

  static bool earlier(NotifieeConst const * a, NotifieeConst const * b) {
    return a->timeMin_ < b->timeMin_ || (a->timeMin_ == b->timeMin_ && a->armSeq_ < b->armSeq_);
  }
  void heapInsert(NotifieeConst * r) const;
  void heapRemove(NotifieeConst * r) const;
  void heapUp(size_t i) const;
  void heapDown(size_t i) const;
  void heapPlace(size_t i, NotifieeConst * r) const {
    heap_[i] = r;
    r->heapIndex_ = i;
  }

  mutable std::vector<NotifieeConst *> heap_;
  // Due timers armed during the firing in progress: set aside so that older due ones still fire.
  mutable std::vector<NotifieeConst *> parked_;
  mutable uint64_t nextSeq_ = 1;
};

}  // namespace Vorn
