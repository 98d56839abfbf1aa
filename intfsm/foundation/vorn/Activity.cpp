#include "intfsm/foundation/vorn/Activity.h"

#include "intfsm/foundation/vorn/ActivityManager.h"

namespace Vorn {

Ptr<Clock> Activity::clock() const { return manager_ ? manager_->clock() : nullptr; }

void Activity::deferredCallIs(std::unique_ptr<DeferredCall> call) {
  if (!call) return;
  auto & calls = byNotifiee_[call->target()];
  for (DeferredCall * waiting : calls) {
    if (waiting->sameAs(*call)) return;
  }
  calls.insert(call.get());
  queue_.push_back(Waiting{std::move(call), nextSeq_++});
  ++pendingCalls_;
}

void Activity::notifieeDel(BaseNotifiee * notifiee) {
  auto it = byNotifiee_.find(notifiee);
  if (it == byNotifiee_.end()) return;
  pendingCalls_ -= static_cast<uint32_t>(it->second.size());
  byNotifiee_.erase(it);
  for (Waiting & w : queue_) {
    if (w.call && w.call->target() == notifiee) w.call.reset();
  }
  while (!queue_.empty() && !queue_.front().call) queue_.pop_front();
}

uint32_t Activity::passRun() {
  Ptr<Activity> keep(this);
  uint32_t ran = 0;
  while (!queue_.empty() && queue_.front().seq < passLimit_ && (budget_ == 0 || ran < budget_)) {
    std::unique_ptr<DeferredCall> call = std::move(queue_.front().call);
    queue_.pop_front();
    if (!call) continue;
    BaseNotifiee * target = call->target();
    auto it = byNotifiee_.find(target);
    it->second.erase(call.get());
    if (it->second.empty()) byNotifiee_.erase(it);
    --pendingCalls_;
    if (!target->deliverable() || !target->isRegisteredNotifiee()) continue;
    ++ran;
    ++callsRun_;
    call->run();  // may queue more calls here, or destroy its own notifiee: `call` is ours alone
  }
  return ran;
}

void Activity::managerDel() {
  manager_ = nullptr;
  queue_.clear();
  byNotifiee_.clear();
  pendingCalls_ = 0;
}

Ptr<Activity> vornActivitySmFor(Ptr<ActivityConfig> const & config) { return config; }

}  // namespace Vorn
