// Notifiers and notifiees: how a change of an attribute reaches the reactors that watch it.
//
// A notifier (every entity, and a few plain framework objects) keeps a list of registered notifiees.
// Each notifier type T declares a nested `NotifieeConst` with one virtual `onX` per attribute that
// does nothing by default; a reactor derives from it, binds with `notifierIs` and overrides what it
// cares about:
//
//   class Dir : public Vorn::Entity {
//    public:
//     class NotifieeConst : public Vorn::Notifiee<Dir> {
//      public:
//       virtual void onCount() {}
//     };
//     void countIs(int c) { set(count_, c, &NotifieeConst::onCount); }   // compare, store, notify
//    ...
//   };
//
//   struct Watcher : Dir::NotifieeConst {
//     explicit Watcher(Vorn::Ptr<Dir const> d) { notifierIs(d); }
//     void onCount() override { ... }
//   };
//
// Delivery rules:
// - A mutator compares before it stores; storing the current value notifies nobody.
// - Delivery is synchronous, in registration order, to every registered notifiee whose notification is
//   active and which is not marked for deletion. A notifiee bound to an activity (`activityIs`) has its
//   calls queued there instead, coalesced per callback and key, and run on a later pass of the loop.
// - `notifierIs` delivers once, synchronously, each collection's whole-collection callback
//   (`onXvornImmediate`) so that a new reactor reconciles with what is already there.
// - Notifiees may be registered, unregistered or destroyed during a dispatch: one removed is not called
//   again; one added is first called by the next dispatch. The list is compacted when the outermost
//   dispatch ends.
// - A handler that throws ends the dispatch: the exception reaches the caller of the mutator (which has
//   already stored the new value), and the notifiees after the thrower are not called for that change.
//   The list stays sound: what was removed meanwhile is compacted as the outermost dispatch unwinds.
// - A bound notifiee holds a reference (Ptr) to its notifier: the notifier lives at least as long as
//   the binding, so an owner may drop its own reference while its reactors still watch.
// - A notifier that dies with notifiees registered detaches them; they see a null notifier afterwards.
//
// Threading: everything runs on the one thread of the event loop. Nothing here is locked: notifiers,
// notifiees and their lists are touched only from that thread (the reference count alone may be made
// atomic, see threadSafePointers).
#pragma once

#include <cstdint>
#include <memory>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "intfsm/foundation/vorn/Ptr.h"

namespace Vorn {

class BaseNotifiee;
class Notifier;

// Identifies a NotifieeConst class and the one it extends, so that a notifier can tell whether a
// registered notifiee has the callbacks of a given level of an entity hierarchy.
struct NotifieeKind {
  NotifieeKind const * base;
};

// A notification waiting on an activity.
class DeferredCall {
 public:
  explicit DeferredCall(BaseNotifiee * target) : target_(target) {}
  virtual ~DeferredCall() = default;
  BaseNotifiee * target() const { return target_; }
  void targetIs(BaseNotifiee * target) { target_ = target; }
  // Same callback with equal arguments on the same target: a second one adds nothing.
  virtual bool sameAs(DeferredCall const & other) const = 0;
  virtual void run() = 0;

 private:
  BaseNotifiee * target_;
};

// Where deferred notifications wait; the event loop's activities implement it.
class NotificationQueue {
 public:
  virtual void deferredCallIs(std::unique_ptr<DeferredCall> call) = 0;
  // The notifiee is going away: drop its waiting calls.
  virtual void notifieeDel(BaseNotifiee * notifiee) = 0;

 protected:
  ~NotificationQueue() = default;
};

class BaseNotifiee : public PtrInterface {
 public:
  static inline NotifieeKind const vornKind{nullptr};

  bool hasNotificationActive() const { return flag(notificationActiveBit); }
  void hasNotificationActiveIs(bool active) { flagIs(notificationActiveBit, active); }

  bool isRegisteredNotifiee() const { return registered_; }
  void isRegisteredNotifieeIs(bool registered);

  // Zombie: unregistered from its notifier and marked for deletion, so nothing reaches it any more.
  // Used by a state machine's destructor before it empties its reactor collections.
  void vornZombieIs(bool zombie);

  // Deferred delivery: calls for this notifiee wait on `queue` and run on a later loop pass.
  // Null restores synchronous delivery. The queue must outlive the notifiee (activities live as long
  // as the process's activity manager).
  NotificationQueue * activity() const { return queue_; }
  void activityIs(NotificationQueue * queue);

  // Whether a notification may be delivered now.
  bool deliverable() const { return flagBits() == notificationActiveBit; }
  bool isKind(NotifieeKind const * kind) const {
    if (kind_ == kind) return true;  // the usual case: the notifier's own NotifieeConst
    for (NotifieeKind const * k = kind_->base; k; k = k->base) {
      if (k == kind) return true;
    }
    return false;
  }

 protected:
  BaseNotifiee();
  ~BaseNotifiee() override;

  Notifier const * notifierBase() const { return notifier_.ptr(); }
  void notifierBaseIs(Ptr<Notifier const> const & notifier);
  void kindIs(NotifieeKind const * kind) { kind_ = kind; }

 private:
  friend class Notifier;
  Ptr<Notifier const> notifier_;
  NotifieeKind const * kind_ = &vornKind;
  NotificationQueue * queue_ = nullptr;
  bool registered_ = true;
  bool attached_ = false;  // in notifier_'s list
};

// Base of every `NotifieeConst`: typed access to the notifier. `Base` is the NotifieeConst of the
// entity that T extends, when T extends one that has notifications of its own.
template <class T, class Base = BaseNotifiee>
class Notifiee : public Base {
 public:
  static inline NotifieeKind const vornKind{&Base::vornKind};
  using NotifierType = T;

  Ptr<T const> notifier() const { return Ptr<T const>(static_cast<T const *>(this->notifierBase())); }
  // Rebinding replaces the previous binding; null unbinds.
  void notifierIs(Ptr<T const> const & notifier) { this->notifierBaseIs(notifier); }

 protected:
  Notifiee() { this->kindIs(&vornKind); }
};

class Notifier : public PtrInterface {
 public:
  // Registered notifiees, live ones only.
  uint32_t notifiees() const;
  // Entries of the list, counting those removed during a dispatch and not compacted yet (diagnostics).
  uint32_t notifieeSlots() const { return static_cast<uint32_t>(notifiees_.size()); }

 protected:
  Notifier() = default;
  ~Notifier() override;

  // Compare, store, notify: the one-line scalar mutator.
  template <class V, class N>
  bool set(V & field, V const & value, void (N::*callback)()) {
    if (field == value) return false;
    field = value;
    notify(callback);
    return true;
  }

  // The keyed forms: store or remove one entry of a collection and notify its key when that changed
  // something. The key is copied first: it may be the key of the entry being removed.
  template <class C, class K, class V, class N, class P>
  bool setEntry(C & collection, K const & key, V const & value, void (N::*callback)(P)) {
    if (!collection.set(key, value)) return false;
    notify(callback, key);
    return true;
  }
  template <class C, class K, class N, class P>
  bool delEntry(C & collection, K const & key, void (N::*callback)(P)) {
    K const copy = key;
    if (!collection.del(copy)) return false;
    notify(callback, copy);
    return true;
  }
  // Empties a collection one notified key at a time.
  template <class C, class N, class P>
  void delAllEntries(C & collection, void (N::*callback)(P)) {
    while (auto const * key = collection.anyKey()) delEntry(collection, *key, callback);
  }

  // Calls `callback(args...)` on every registered notifiee that can take it (see the rules above).
  template <class N, class... P, class... A>
  void notify(void (N::*callback)(P...), A const &... args) const {
    if (notifiees_.empty()) return;
    if (notifiees_.size() == 1) {
      // The common case, one watcher: nothing of this notifier is touched after the call, so it needs
      // no keep-alive, no depth and no compaction, whatever the handler does.
      // The call is made here rather than through deliver(): that one is not always inlined, and
      // an extra call is a good part of what a notification costs over a plain virtual call.
      if (BaseNotifiee * n = notifiees_.front(); n && n->deliverable() && n->isKind(&N::vornKind)) {
        if (!n->queue_) {
          (static_cast<N *>(n)->*callback)(args...);
        } else {
          deliver(n, callback, std::tuple<std::decay_t<P>...>(args...));
        }
      }
      return;
    }
    dispatch(callback, std::tuple<std::decay_t<P>...>(args...));
  }

  // The same callback to one notifiee only (used for the immediate notifications on bind).
  template <class N, class... P, class... A>
  static void notifyOne(BaseNotifiee * notifiee, void (N::*callback)(P...), A const &... args) {
    if (!notifiee->deliverable() || !notifiee->isKind(&N::vornKind)) return;
    (static_cast<N *>(notifiee)->*callback)(args...);
  }

  // Delivers each collection's whole-collection callback to a notifiee that has just been bound.
  virtual void vornImmediateNotify(BaseNotifiee *) const {}

 private:
  friend class BaseNotifiee;

  template <class N, class... P>
  class Deferred final : public DeferredCall {
   public:
    using Callback = void (N::*)(P...);
    Deferred(BaseNotifiee * target, Callback callback, std::tuple<std::decay_t<P>...> const & args)
        : DeferredCall(target), callback_(callback), args_(args) {}
    bool sameAs(DeferredCall const & other) const override {
      auto o = dynamic_cast<Deferred const *>(&other);
      return o && o->target() == target() && o->callback_ == callback_ && o->args_ == args_;
    }
    void run() override {
      std::apply([this](auto const &... a) { (static_cast<N *>(target())->*callback_)(a...); }, args_);
    }

   private:
    Callback callback_;
    std::tuple<std::decay_t<P>...> args_;
  };

  template <class N, class... P>
  void dispatch(void (N::*callback)(P...), std::tuple<std::decay_t<P>...> const & args) const;
  // One call to one notifiee that can take it: queued on its activity, or made now.
  template <class N, class... P>
  static void deliver(BaseNotifiee * n, void (N::*callback)(P...), std::tuple<std::decay_t<P>...> const & args);

  void attach(BaseNotifiee * notifiee) const;
  void detach(BaseNotifiee * notifiee) const;
  // One dispatch in progress, for as long as it lives: the depth comes down also when a handler throws.
  class DispatchScope {
   public:
    explicit DispatchScope(Notifier const & notifier) : notifier_(notifier) { ++notifier_.dispatchDepth_; }
    ~DispatchScope() {
      if (--notifier_.dispatchDepth_ == 0 && notifier_.holes_) notifier_.compact();
    }
    DispatchScope(DispatchScope const &) = delete;
    DispatchScope & operator=(DispatchScope const &) = delete;

   private:
    Notifier const & notifier_;
  };
  void compact() const;

  mutable std::vector<BaseNotifiee *> notifiees_;
  mutable uint32_t dispatchDepth_ = 0;
  mutable bool holes_ = false;
};

template <class N, class... P>
void Notifier::dispatch(void (N::*callback)(P...), std::tuple<std::decay_t<P>...> const & args) const {
  // Keep this notifier alive through the dispatch: a handler may drop the last outside reference.
  Ptr<Notifier const> keep(references() ? this : nullptr);
  DispatchScope const scope(*this);  // ends before `keep` lets go
  size_t const count = notifiees_.size();  // entries added during the dispatch wait for the next one
  for (size_t i = 0; i < count; ++i) {
    BaseNotifiee * n = notifiees_[i];
    if (n && n->deliverable() && n->isKind(&N::vornKind)) deliver(n, callback, args);
  }
}

template <class N, class... P>
void Notifier::deliver(BaseNotifiee * n, void (N::*callback)(P...), std::tuple<std::decay_t<P>...> const & args) {
  if (n->queue_) {
    n->queue_->deferredCallIs(std::make_unique<Deferred<N, P...>>(n, callback, args));
    return;
  }
  std::apply([n, callback](auto const &... a) { (static_cast<N *>(n)->*callback)(a...); }, args);
}

}  // namespace Vorn
