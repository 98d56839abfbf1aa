#include "intfsm/foundation/vorn/Clock.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "intfsm/foundation/vorn/Exception.h"

namespace Vorn {

namespace {

// onTimeMin() of a reactor bound to an activity, waiting there.
class TimeMinCall final : public DeferredCall {
 public:
  explicit TimeMinCall(Clock::NotifieeConst * reactor) : DeferredCall(reactor) {}
  bool sameAs(DeferredCall const & other) const override {
    return dynamic_cast<TimeMinCall const *>(&other) && other.target() == target();
  }
  void run() override { static_cast<Clock::NotifieeConst *>(target())->onTimeMin(); }
};

}  // namespace

Clock::NotifieeConst::~NotifieeConst() { disarm(); }

void Clock::NotifieeConst::timeMinIs(double seconds) {
  if (std::isnan(seconds)) throw RangeException("Clock::NotifieeConst::timeMin NaN not allowed");
  if (seconds == timeMin_) return;
  disarm();
  timeMin_ = seconds;
  armIfBound();
}

void Clock::NotifieeConst::notifierIs(Ptr<Clock const> const & clock) {
  if (notifier() == clock) return;
  disarm();
  Notifiee<Clock>::notifierIs(clock);
  armIfBound();
}

void Clock::NotifieeConst::armIfBound() {
  if (timeMin_ == never) return;
  Ptr<Clock const> clock = notifier();
  if (!clock) return;
  armSeq_ = clock->nextSeq_++;
  clock->heapInsert(this);
  armedOn_ = std::move(clock);
}

void Clock::NotifieeConst::disarm() {
  if (!armedOn_) return;
  Clock const * clock = armedOn_.ptr();
  if (heapIndex_ == parked) {
    std::erase(clock->parked_, this);
  } else {
    clock->heapRemove(this);
  }
  heapIndex_ = notArmed;
  armedOn_ = nullptr;  // may be the clock's last reference: nothing of it is touched afterwards
}

Clock::~Clock() {
  // Armed reactors hold the clock, so nothing should be left; never leave one pointing here.
  for (NotifieeConst * r : heap_) r->heapIndex_ = NotifieeConst::notArmed;
  for (NotifieeConst * r : parked_) r->heapIndex_ = NotifieeConst::notArmed;
}

double Clock::timeMinNext() const {
  double next = heap_.empty() ? never : heap_.front()->timeMin_;
  for (NotifieeConst const * r : parked_) next = std::min(next, r->timeMin_);
  return next;
}

uint32_t Clock::timeMinFire(double now) {
  Ptr<Clock const> keep(this);  // a handler may drop the last outside reference
  uint64_t const limit = nextSeq_;
  uint32_t fired = 0;
  while (!heap_.empty() && heap_.front()->timeMin_ <= now) {
    NotifieeConst * r = heap_.front();
    if (r->armSeq_ >= limit) {
      // Armed by a handler of this firing: its turn is the next pass. Set it aside so that the
      // due timers behind it still fire now.
      heapRemove(r);
      r->heapIndex_ = NotifieeConst::parked;
      parked_.push_back(r);
      continue;
    }
    r->disarm();
    r->timeMin_ = never;
    if (!r->deliverable() || !r->isRegisteredNotifiee() || r->notifier().ptr() != this) continue;
    ++fired;
    if (NotificationQueue * queue = r->activity()) {
      queue->deferredCallIs(std::make_unique<TimeMinCall>(r));
    } else {
      r->onTimeMin();
    }
  }
  for (NotifieeConst * r : parked_) heapInsert(r);
  parked_.clear();
  return fired;
}

void Clock::heapInsert(NotifieeConst * r) const {
  heap_.push_back(r);
  r->heapIndex_ = heap_.size() - 1;
  heapUp(heap_.size() - 1);
}

void Clock::heapRemove(NotifieeConst * r) const {
  size_t i = r->heapIndex_;
  NotifieeConst * last = heap_.back();
  heap_.pop_back();
  r->heapIndex_ = NotifieeConst::notArmed;
  if (last == r) return;
  heapPlace(i, last);
  heapUp(i);
  heapDown(last->heapIndex_);
}

void Clock::heapUp(size_t i) const {
  NotifieeConst * r = heap_[i];
  while (i > 0) {
    size_t parent = (i - 1) / 2;
    if (!earlier(r, heap_[parent])) break;
    heapPlace(i, heap_[parent]);
    i = parent;
  }
  heapPlace(i, r);
}

void Clock::heapDown(size_t i) const {
  NotifieeConst * r = heap_[i];
  size_t const n = heap_.size();
  for (;;) {
    size_t child = 2 * i + 1;
    if (child >= n) break;
    if (child + 1 < n && earlier(heap_[child + 1], heap_[child])) ++child;
    if (!earlier(heap_[child], r)) break;
    heapPlace(i, heap_[child]);
    i = child;
  }
  heapPlace(i, r);
}

}  // namespace Vorn
