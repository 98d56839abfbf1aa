#include "intfsm/foundation/vorn/ActivityManager.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <string>

#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Descriptors.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/System.h"

namespace Vorn {

ActivityManager::ActivityManager() : events_(new epoll_event[maxEvents]) {
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_ < 0) {
    int const e = errno;
    throw ErrnoException(e, std::string("ActivityManager: epoll_create1 failed: ") + std::strerror(e));
  }
  descriptorOpened(epoll_, "event loop epoll descriptor", "event loop");
  clock_ = new Clock("clock");
}

ActivityManager::~ActivityManager() {
  for (auto & [id, fd] : watches_) {
    fd->manager_ = nullptr;
    fd->watchId_ = 0;
  }
  for (auto & a : activities_) a->managerDel();
  descriptorClosed(epoll_);
  close(epoll_);
}

Ptr<Activity> ActivityManager::activityIs(Name const & name, unsigned budget) {
  auto it = activityByName_.find(name);
  if (it != activityByName_.end()) {
    Activity * a = it->second;
    if (a->budget() != budget) {
      throw NameInUseException(reinstantiationText("_budget", std::to_string(budget), std::to_string(a->budget())));
    }
    return Ptr<Activity>(a);
  }
  Ptr<Activity> a = new Activity(name, budget, this);
  activities_.push_back(a);
  activityByName_.emplace(name, a.ptr());
  return a;
}

Ptr<Activity> ActivityManager::activity(Name const & name) const {
  auto it = activityByName_.find(name);
  return it == activityByName_.end() ? nullptr : Ptr<Activity>(it->second);
}

void ActivityManager::run() {
  while (!stopRequested_) runOnce(-1);
  stopRequested_ = false;
}

bool ActivityManager::runUntil(std::function<bool()> const & done, double timeoutSeconds) {
  double const deadline = System::monotonicTime() + timeoutSeconds;
  for (bool first = true;; first = false) {
    if (done()) return true;
    double const left = deadline - System::monotonicTime();
    if (left <= 0 && !first) return false;
    runOnce(left > 0 ? left : 0);
  }
}

bool ActivityManager::runOnce(double timeoutSeconds) {
  VORN_ASSERT(!inPass_);
  struct PassGuard {
    bool & flag;
    explicit PassGuard(bool & f) : flag(f) { flag = true; }
    ~PassGuard() { flag = false; }
  } guard(inPass_);
  ++passes_;
  bool ran = false;

  // Deferred calls: only those waiting when the pass began, whichever activity queues during it.
  // Activities are never removed; one created by a handler starts with the next pass. Indexed, as
  // a handler may grow the vector.
  size_t const activities = activities_.size();
  for (size_t i = 0; i < activities; ++i) activities_[i]->passBegin();
  for (size_t i = 0; i < activities; ++i) ran |= activities_[i]->passRun() > 0;

  // A pass that ran deferred calls does not block: what they did may be what the caller waits for.
  int const ready = epollWait(ran ? 0 : waitNanoseconds(timeoutSeconds));
  if (ready < 0 && errno != EINTR) {
    int const e = errno;
    throw ErrnoException(e, std::string("ActivityManager: epoll_wait failed: ") + std::strerror(e));
  }
  if (ready > 0) ran |= readinessDispatch(ready);

  ran |= clock_->timeMinFire(System::currentTime()) > 0;
  return ran;
}

int ActivityManager::epollWait(int64_t nanoseconds) {
  // To the nanosecond where the kernel can (a timer a few tens of microseconds away is what receive
  // moderation runs on); to the millisecond, rounded up, where it cannot.
  if (nanoseconds > 0 && nanoseconds % 1000000 != 0 && precise_) {
    timespec const ts{static_cast<time_t>(nanoseconds / 1000000000), static_cast<long>(nanoseconds % 1000000000)};
    int const ready = epoll_pwait2(epoll_, events_.get(), maxEvents, &ts, nullptr);
    if (ready >= 0 || errno != ENOSYS) return ready;
    precise_ = false;
  }
  int64_t const ms = nanoseconds < 0 ? -1 : (nanoseconds + 999999) / 1000000;
  return epoll_wait(epoll_, events_.get(), maxEvents, ms > INT_MAX ? INT_MAX : static_cast<int>(ms));
}

int64_t ActivityManager::waitNanoseconds(double timeoutSeconds) const {
  if (stopRequested_) return 0;
  for (auto const & a : activities_) {
    if (a->pendingCalls()) return 0;
  }
  double wait = (timeoutSeconds < 0 || std::isnan(timeoutSeconds)) ? Clock::never : timeoutSeconds;
  double const next = clock_->timeMinNext();
  if (next != Clock::never) {
    double const now = System::currentTime();
    if (next <= now) return 0;
    if (!System::hasTestTime()) wait = std::min(wait, next - now);
  }
  if (wait == Clock::never) return -1;
  // Rounded up: waking before the timer is due would only mean another pass with nothing to do.
  double const ns = std::ceil(wait * 1e9);
  return ns >= 1e18 ? int64_t(1e18) : static_cast<int64_t>(ns);
}

bool ActivityManager::readinessDispatch(int ready) {
  bool any = false;
  for (int i = 0; i < ready; ++i) {
    uint64_t const id = events_[i].data.u64;
    uint32_t const ev = events_[i].events;
    // Looked up again before each count: a handler may clear, change or destroy any descriptor.
    if (ev & EPOLLIN) {
      if (FileDescriptor * fd = watched(id); fd && fd->readableWanted()) {
        fd->readableCountInc(1);
        any = true;
      }
    }
    if (ev & EPOLLOUT) {
      if (FileDescriptor * fd = watched(id); fd && fd->writableWanted()) {
        fd->writableCountInc(1);
        any = true;
      }
    }
    if (ev & (EPOLLERR | EPOLLHUP | EPOLLPRI)) {
      if (FileDescriptor * fd = watched(id)) {
        fd->exceptionPendingCountInc(1);
        any = true;
      }
    }
  }
  return any;
}

FileDescriptor * ActivityManager::watched(uint64_t id) const {
  auto it = watches_.find(id);
  return it == watches_.end() ? nullptr : it->second;
}

uint64_t ActivityManager::watchAdd(FileDescriptor * fd, int descriptor, uint32_t events) {
  uint64_t const id = nextWatchId_++;
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = id;  // an id, not the pointer: a late event for a dropped watch finds nothing
  if (epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &ev) != 0) {
    int const e = errno;
    std::string text = "FileDescriptor " + fd->name().stdString() + ": cannot watch descriptor " +
                       std::to_string(descriptor) + ": " + std::strerror(e);
    if (auto other = watchByDescriptor_.find(descriptor); e == EEXIST && other != watchByDescriptor_.end()) {
      if (FileDescriptor * owner = watched(other->second)) {
        text += " (watched by FileDescriptor " + owner->name().stdString() + ")";
      }
    }
    throw ErrnoException(e, text);
  }
  // A number still listed for another watch was closed behind that watch's back and reused; that
  // watch finds out when it is cleared.
  watchByDescriptor_[descriptor] = id;
  watches_.emplace(id, fd);
  return id;
}

bool ActivityManager::watchMod(uint64_t id, int descriptor, uint32_t events) {
  auto it = watchByDescriptor_.find(descriptor);
  if (it == watchByDescriptor_.end() || it->second != id) {
    watches_.erase(id);
    ++staleWatches_;
    return false;
  }
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = id;
  if (epoll_ctl(epoll_, EPOLL_CTL_MOD, descriptor, &ev) == 0) return true;
  int const e = errno;
  if (e == EBADF || e == ENOENT) {
    watchByDescriptor_.erase(it);
    watches_.erase(id);
    ++staleWatches_;
    return false;
  }
  throw ErrnoException(e, "FileDescriptor " + watched(id)->name().stdString() + ": cannot change the watch of descriptor " +
                              std::to_string(descriptor) + ": " + std::strerror(e));
}

void ActivityManager::watchDel(uint64_t id, int descriptor) {
  watches_.erase(id);
  auto it = watchByDescriptor_.find(descriptor);
  if (it == watchByDescriptor_.end() || it->second != id) {
    ++staleWatches_;  // the number now belongs to another watch: leave that one alone
    return;
  }
  watchByDescriptor_.erase(it);
  // EBADF or ENOENT: closed before it was cleared, and the kernel already forgot it.
  if (epoll_ctl(epoll_, EPOLL_CTL_DEL, descriptor, nullptr) != 0) ++staleWatches_;
}

namespace {
ActivityManager * loopInstead = nullptr;
}  // namespace

ActivityManager & activityManager() {
  if (loopInstead) return *loopInstead;
  // Never destroyed: activities must outlive every notifiee bound to one, whatever the order in
  // which static objects are torn down at exit.
  static ActivityManager * const manager = new ActivityManager();
  return *manager;
}

void activityManagerIs(ActivityManager * loop) { loopInstead = loop; }

}  // namespace Vorn
