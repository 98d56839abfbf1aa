// Nested reactors: the small notifiees through which a state machine watches the entities it is fed.
//
// A nested reactor watches one notifier on behalf of its owner (the state machine) and forwards the
// callbacks it cares about to the owner's handlers. It is declared in a few lines:
//
//   class Sm::VornIntfStatusDir : public Vorn::Reactor<Sm, IntfStatusDir> {
//    public:
//     using Reactor::Reactor;
//     void onIntfStatus(Ovel::IntfId const & id) override { forward(&Sm::handleIntfStatus, id); }
//     void onIntfStatusvornImmediate() override { forward(&Sm::handleIntfStatus); }
//   };
//   dirReactor_ = Vorn::reactorNew<VornIntfStatusDir>(this, dir);   // bound: the immediate callbacks run now
//
// What the helper guarantees:
// - Binding happens after construction (reactorNew), so the reactor's own overrides receive the
//   whole-collection callbacks that binding delivers. A reactor constructed and bound in its base's
//   constructor would miss them.
// - A zombie (unregistered and marked for deletion, see BaseNotifiee::vornZombieIs) is never called:
//   the notifier skips it, and forward() does nothing for it either.
// - A reactor stays alive while the handler it forwards to runs, even when that handler drops the last
//   reference to it (an owner deleting the very key whose callback is running).
// - The owner outlives its reactors: its destructor zombies them before it empties its collections,
//   so the raw back pointer is never followed into a half-destroyed owner.
//
// Per-key reactors (one per entry of a watched directory) live in a ReactorCollection, which creates,
// rebinds and deletes them as the directory changes:
//
//   class Sm::VornIntfStatus : public Vorn::Reactor<Sm, Interface::IntfStatus> {
//    public:
//     VornIntfStatus(Sm * owner, Ovel::IntfId const & id) : Reactor(owner), intfId_(id) {}
//     void onOperStatus() override { handleOperStatus(); }
//     void handleOperStatus() { forward(&Sm::doSync, intfId_); }
//    private:
//     Ovel::IntfId intfId_;
//   };
//   Vorn::ReactorCollection<Ovel::IntfId, VornIntfStatus> intfStatus_{&VornIntfStatus::handleOperStatus};
//
//   void Sm::handleIntfStatus(Ovel::IntfId const & id) { intfStatus_.reconcileKey(this, id, dir_->intfStatus(id)); }
//   void Sm::handleIntfStatus() { intfStatus_.reconcile(this, dir_->intfStatusIter()); }
//   Sm::~Sm() { intfStatus_.zombieIs(true); /* ... every other reactor ... */ intfStatus_.delAll(); }
//
// Everything runs on the loop's one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>
#include <vector>

#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Notifier.h"

namespace Vorn {

template <class Owner, class Watched, class Base = typename Watched::NotifieeConst>
class Reactor : public Base {
 public:
  using OwnerType = Owner;
  using WatchedType = Watched;

  explicit Reactor(Owner * owner) : owner_(owner) {}

  Owner * owner() const { return owner_; }

 protected:
  // Calls the owner's `handler`; nothing for a zombie.
  //
  // A handler name that is overloaded (handleIntfStatus(id) beside handleIntfStatus()) is resolved by
  // the arguments: the second form picks the overload whose parameters are the arguments' types taken
  // by const reference, the usual shape of keyed handlers.
  template <class... P, class... A>
    requires std::is_invocable_v<void (Owner::*)(P...), Owner *, A...>
  void forward(void (Owner::*handler)(P...), A &&... args) {
    if (this->vornMarkedForDeletion()) return;
    Ptr<Reactor> keep(this->references() ? this : nullptr);
    (owner_->*handler)(std::forward<A>(args)...);
  }
  template <class... A>
    requires(sizeof...(A) > 0)
  void forward(void (Owner::*handler)(A const &...), A const &... args) {
    if (this->vornMarkedForDeletion()) return;
    Ptr<Reactor> keep(this->references() ? this : nullptr);
    (owner_->*handler)(args...);
  }

  // Calls a handler of the reactor's own (a member of the derived class); nothing for a zombie.
  template <class D, class... P, class... A>
  void run(void (D::*handler)(P...), A &&... args) {
    static_assert(std::is_base_of_v<Reactor, D>);
    if (this->vornMarkedForDeletion()) return;
    Ptr<Reactor> keep(this->references() ? this : nullptr);
    (static_cast<D *>(this)->*handler)(std::forward<A>(args)...);
  }

 private:
  Owner * owner_;
};

// A new reactor of type R for `owner`, bound to `watched` when that is not null. The remaining
// arguments go to R's constructor after the owner.
template <class R, class... A>
Ptr<R> reactorNew(typename R::OwnerType * owner, Ptr<typename R::WatchedType const> const & watched, A &&... args) {
  Ptr<R> reactor = new R(owner, std::forward<A>(args)...);
  if (watched) reactor->notifierIs(watched);
  return reactor;
}

// Takes a reactor out of service at once: unregistered, marked for deletion, unbound. Whoever still
// holds a reference keeps a zombie that nothing calls.
template <class R>
void reactorRetire(R & reactor) {
  reactor.vornZombieIs(true);
  reactor.notifierIs(nullptr);
}

// What ReactorCollection::reconcileKey did to the reactor of a key. One type for every collection, so
// that an owner handles the changes of its collections alike.
enum class ReactorChange { none, created, rebound, deleted };

// Per-key reactors of one owner, kept in line with a watched directory: the reactor of a key watches the
// entity that the directory holds for that key. R is a Reactor constructed from (Owner *, Key const &),
// or from (Owner *) alone.
template <class Key, class R, class Hash = std::hash<Key>>
class ReactorCollection {
 public:
  using Owner = typename R::OwnerType;
  using Watched = typename R::WatchedType;
  using Map = Collection<Key, Ptr<R>, Hash>;

  using Change = ReactorChange;

  // `onBound`, a handler of R, runs at once whenever a reactor is created or rebound, so that it acts
  // on the entity it now watches without waiting for a change.
  explicit ReactorCollection(void (R::*onBound)() = nullptr) : onBound_(onBound) {}
  ~ReactorCollection() { delAll(); }
  ReactorCollection(ReactorCollection const &) = delete;
  ReactorCollection & operator=(ReactorCollection const &) = delete;

  // The reactor of `key`, or null.
  Ptr<R> reactor(Key const & key) const { return map_.get(key); }
  uint32_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }
  // Walks are stable under changes (see Collection).
  typename Map::Iterator begin() const { return map_.begin(); }
  typename Map::Iterator end() const { return map_.end(); }

  // Makes the reactor of `key` watch `entity`: created when there is none, rebound when it watches
  // another entity, deleted (retired at once) when `entity` is null.
  Change reconcileKey(Owner * owner, Key const & key, Ptr<Watched const> const & entity) {
    if (!entity) return del(key) ? Change::deleted : Change::none;
    if (Ptr<R> reactor = map_.get(key)) {
      if (reactor->notifier() == entity) return Change::none;
      reactor->notifierIs(entity);
      bound(*reactor);
      return Change::rebound;
    }
    Ptr<R> reactor = make(owner, key);
    reactor->hasNotificationActiveIs(active_);
    map_.set(key, reactor);
    reactor->notifierIs(entity);
    bound(*reactor);
    return Change::created;
  }

  // Reconciles every key with `entries` (a directory's collection: entries with .key and .value):
  // each entry whose projected entity is not null gets its reactor; every other key loses its reactor.
  // `changed(key, change)` is told of each key that changed.
  template <class Entries, class Project, class Changed>
  void reconcile(Owner * owner, Entries const & entries, Project && project, Changed && changed) {
    for (auto const & e : entries) {
      Change c = reconcileKey(owner, e.key, project(e.value));
      if (c != Change::none) changed(e.key, c);
    }
    std::vector<Key> gone;
    for (auto const & e : map_) {
      auto const * entry = entries.find(e.key);
      if (!entry || !project(*entry)) gone.push_back(e.key);
    }
    for (Key const & key : gone) {
      if (del(key)) changed(key, Change::deleted);
    }
  }
  template <class Entries>
  void reconcile(Owner * owner, Entries const & entries) {
    reconcile(owner, entries, [](auto const & v) { return Ptr<Watched const>(v); }, [](Key const &, Change) {});
  }

  // Retires the reactor of `key` at once and forgets it; false when there was none.
  bool del(Key const & key) {
    Ptr<R> reactor = map_.get(key);
    if (!reactor) return false;
    reactorRetire(*reactor);
    map_.del(key);
    return true;
  }
  void delAll() {
    while (Key const * key = map_.anyKey()) del(Key(*key));
  }

  // Zombies (or revives) every reactor: what an owner's destructor does first.
  void zombieIs(bool zombie) {
    for (auto const & e : map_) e.value->vornZombieIs(zombie);
  }
  // Turns delivery to every reactor, and to those created later, on or off.
  void notificationActiveIs(bool active) {
    active_ = active;
    for (auto const & e : map_) e.value->hasNotificationActiveIs(active);
  }

 private:
  static Ptr<R> make(Owner * owner, Key const & key) {
    if constexpr (std::is_constructible_v<R, Owner *, Key const &>) {
      return new R(owner, key);
    } else {
      return new R(owner);
    }
  }
  void bound(R & reactor) {
    if (!onBound_) return;
    Ptr<R> keep(&reactor);
    (reactor.*onBound_)();
  }

  Map map_;
  void (R::*onBound_)();
  bool active_ = true;
};

}  // namespace Vorn
