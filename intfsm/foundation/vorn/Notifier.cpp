#include "intfsm/foundation/vorn/Notifier.h"

#include <algorithm>

namespace Vorn {

BaseNotifiee::BaseNotifiee() { hasNotificationActiveIs(true); }

BaseNotifiee::~BaseNotifiee() {
  if (queue_) queue_->notifieeDel(this);
  if (attached_) notifier_->detach(this);
}

void BaseNotifiee::notifierBaseIs(Ptr<Notifier const> const & notifier) {
  if (notifier_ == notifier) return;
  if (attached_) notifier_->detach(this);
  if (queue_) queue_->notifieeDel(this);  // calls waiting from the old notifier are not about the new one
  notifier_ = notifier;
  if (notifier_ && registered_) {
    notifier_->attach(this);
    if (deliverable()) notifier_->vornImmediateNotify(this);
  }
}

void BaseNotifiee::isRegisteredNotifieeIs(bool registered) {
  if (registered_ == registered) return;
  registered_ = registered;
  if (!notifier_) return;
  if (registered) notifier_->attach(this);
  else notifier_->detach(this);
}

void BaseNotifiee::vornZombieIs(bool zombie) {
  if (notifier_) isRegisteredNotifieeIs(!zombie);
  vornMarkedForDeletionIs(zombie);
}

void BaseNotifiee::activityIs(NotificationQueue * queue) {
  if (queue_ == queue) return;
  if (queue_) queue_->notifieeDel(this);
  queue_ = queue;
}

Notifier::~Notifier() {
  for (BaseNotifiee * n : notifiees_) {
    if (!n) continue;
    n->attached_ = false;
    if (n->queue_) n->queue_->notifieeDel(n);  // their calls would reach a dead notifier
    // The notifiee's reference to us is what is being torn down; forget it without counting.
    n->notifier_.release();
  }
}

uint32_t Notifier::notifiees() const {
  return static_cast<uint32_t>(std::count_if(notifiees_.begin(), notifiees_.end(), [](auto n) { return n; }));
}

void Notifier::attach(BaseNotifiee * notifiee) const {
  if (notifiee->attached_) return;
  notifiees_.push_back(notifiee);
  notifiee->attached_ = true;
}

void Notifier::detach(BaseNotifiee * notifiee) const {
  if (!notifiee->attached_) return;
  notifiee->attached_ = false;
  auto it = std::find(notifiees_.begin(), notifiees_.end(), notifiee);
  if (it == notifiees_.end()) return;
  if (dispatchDepth_) {
    *it = nullptr;  // a dispatch is walking the list by index
    holes_ = true;
  } else {
    notifiees_.erase(it);
  }
}

void Notifier::compact() const {
  notifiees_.erase(std::remove(notifiees_.begin(), notifiees_.end(), nullptr), notifiees_.end());
  holes_ = false;
}

}  // namespace Vorn
