// Watches the platform's interface status and local status directories on behalf of a device-name
// reactor: one nested reactor per IntfStatus (its deviceName) and per IntfStatusLocal (its
// netNsName), kept in line with the two directories, and the owner's handlers called as they change.
// Both device-name reactors (one namespace's, every namespace's) are built on it.
//
// What the owner provides (its handlers, called on the loop thread):
//   void handleDeviceName(Ovel::IntfId const &);          // the interface's name or namespace changed
//   void handleIntfStatus();  void handleIntfStatus(Ovel::IntfId const &);            // directory
//   void handleIntfStatusLocal();  void handleIntfStatusLocal(Ovel::IntfId const &);  // changes
//   static Brisklog::Handle & vornTrace();                                    // its trace facility
//   static constexpr char const * vornIntfStatusText, * vornIntfStatusLocalText;  // function texts
//
//   class MyReactor : public Vorn::Entity {
//     Interface::IntfStatusWatcher<MyReactor> watcher_{this};
//     MyReactor(...) { ...; watcher_.start(allIntfStatusDir, allIntfStatusLocalDir); }
//     ~MyReactor() override { watcher_.retire(); }
//   };
//
// start() binds both directories before either fills anything, because each key-less handler insists
// on an empty index: bound inactive (binding then delivers nothing), the key-less handlers run, and
// only then does each interface get its reactors, which run handleDeviceName at once.
#pragma once

#include <cstdint>

#include "intfsm/foundation/brisklog/Brisklog.h"
#include "intfsm/foundation/interface/AllIntfStatusDir.h"
#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/Reactor.h"

namespace Interface {

template <class Owner>
class IntfStatusWatcher {
 public:
  // Watches one interface's deviceName.
  class VornIntfStatus : public Vorn::Reactor<IntfStatusWatcher, IntfStatus> {
   public:
    VornIntfStatus(IntfStatusWatcher * w, Ovel::IntfId const & id) : Vorn::Reactor<IntfStatusWatcher, IntfStatus>(w), intfId_(id) {}
    void onDeviceName() override { this->run(&VornIntfStatus::handleDeviceName); }
    void handleDeviceName() {
      BRISKLOG_TRACE(Owner::vornTrace(), 3, Owner::vornIntfStatusText << " notifier=" << intfId_);
      this->forward(&IntfStatusWatcher::notified, intfId_);
    }

   private:
    Ovel::IntfId intfId_;
  };

  // Watches one interface's netNsName.
  class VornIntfStatusLocal : public Vorn::Reactor<IntfStatusWatcher, IntfStatusLocal> {
   public:
    VornIntfStatusLocal(IntfStatusWatcher * w, Ovel::IntfId const & id)
        : Vorn::Reactor<IntfStatusWatcher, IntfStatusLocal>(w), intfId_(id) {}
    void onNetNsName() override { this->run(&VornIntfStatusLocal::handleDeviceNetNs); }
    void handleDeviceNetNs() {
      BRISKLOG_TRACE(Owner::vornTrace(), 3, Owner::vornIntfStatusLocalText << " notifier=" << intfId_);
      this->forward(&IntfStatusWatcher::notified, intfId_);
    }

   private:
    Ovel::IntfId intfId_;
  };

  explicit IntfStatusWatcher(Owner * owner) : owner_(owner) {}
  IntfStatusWatcher(IntfStatusWatcher const &) = delete;
  IntfStatusWatcher & operator=(IntfStatusWatcher const &) = delete;

  void start(Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
             Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir) {
    allIntfStatusDir_ = allIntfStatusDir;
    allIntfStatusLocalDir_ = allIntfStatusLocalDir;
    dirReactor_ = Vorn::reactorNew<VornAllIntfStatusDir>(this, nullptr);
    localDirReactor_ = Vorn::reactorNew<VornAllIntfStatusLocalDir>(this, nullptr);
    dirReactor_->hasNotificationActiveIs(false);
    localDirReactor_->hasNotificationActiveIs(false);
    dirReactor_->notifierIs(allIntfStatusDir_);
    localDirReactor_->notifierIs(allIntfStatusLocalDir_);
    owner_->handleIntfStatus();
    owner_->handleIntfStatusLocal();
    intfStatusReconcile(false);
    intfStatusLocalReconcile(false);
    dirReactor_->hasNotificationActiveIs(true);
    localDirReactor_->hasNotificationActiveIs(true);
  }

  // Nothing is called any more: the reactors are zombies, the per-interface ones are gone.
  void retire() {
    zombieIs(true);
    intfStatus_.delAll();
    intfStatusLocal_.delAll();
    if (dirReactor_) Vorn::reactorRetire(*dirReactor_);
    if (localDirReactor_) Vorn::reactorRetire(*localDirReactor_);
  }
  void zombieIs(bool zombie) {
    intfStatus_.zombieIs(zombie);
    intfStatusLocal_.zombieIs(zombie);
    if (dirReactor_) dirReactor_->vornZombieIs(zombie);
    if (localDirReactor_) localDirReactor_->vornZombieIs(zombie);
  }

  Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir() const { return allIntfStatusDir_; }
  Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir() const { return allIntfStatusLocalDir_; }
  // The interface's status and local status, or null.
  Vorn::Ptr<IntfStatus const> status(Ovel::IntfId const & id) const {
    return allIntfStatusDir_ ? allIntfStatusDir_->intfStatus(id) : nullptr;
  }
  Vorn::Ptr<IntfStatusLocal const> local(Ovel::IntfId const & id) const {
    return allIntfStatusLocalDir_ ? allIntfStatusLocalDir_->intfStatusLocal(id) : nullptr;
  }

  Vorn::Ptr<VornIntfStatus> intfStatus(Ovel::IntfId const & id) const { return intfStatus_.reactor(id); }
  uint32_t intfStatuss() const { return intfStatus_.size(); }
  void intfStatusIs(Vorn::Ptr<IntfStatus const> const & status) {
    if (!status) throw Vorn::RangeException(Vorn::nullParameterText("intfStatus", owner_->vornTypeName()));
    intfStatus_.reconcileKey(this, status->intfId(), status);
  }
  void intfStatusDel(Ovel::IntfId const & id) { intfStatus_.del(id); }

  Vorn::Ptr<VornIntfStatusLocal> intfStatusLocal(Ovel::IntfId const & id) const { return intfStatusLocal_.reactor(id); }
  uint32_t intfStatusLocals() const { return intfStatusLocal_.size(); }
  void intfStatusLocalIs(Vorn::Ptr<IntfStatusLocal const> const & local) {
    if (!local) throw Vorn::RangeException(Vorn::nullParameterText("intfStatusLocal", owner_->vornTypeName()));
    intfStatusLocal_.reconcileKey(this, local->intfId(), local);
  }
  void intfStatusLocalDel(Ovel::IntfId const & id) { intfStatusLocal_.del(id); }
  auto const & intfStatusIter() const { return intfStatus_; }
  auto const & intfStatusLocalIter() const { return intfStatusLocal_; }

 private:
  class VornAllIntfStatusDir : public Vorn::Reactor<IntfStatusWatcher, AllIntfStatusDir> {
   public:
    using Vorn::Reactor<IntfStatusWatcher, AllIntfStatusDir>::Reactor;
    void onIntfStatus(Ovel::IntfId const & id) override { this->forward(&IntfStatusWatcher::intfStatusChange, id); }
    void onIntfStatusvornImmediate() override { this->forward(&IntfStatusWatcher::intfStatusReconcile, true); }
  };
  class VornAllIntfStatusLocalDir : public Vorn::Reactor<IntfStatusWatcher, AllIntfStatusLocalDir> {
   public:
    using Vorn::Reactor<IntfStatusWatcher, AllIntfStatusLocalDir>::Reactor;
    void onIntfStatusLocal(Ovel::IntfId const & id) override {
      this->forward(&IntfStatusWatcher::intfStatusLocalChange, id);
    }
    void onIntfStatusLocalvornImmediate() override {
      this->forward(&IntfStatusWatcher::intfStatusLocalReconcile, true);
    }
  };

  void notified(Ovel::IntfId const & id) { owner_->handleDeviceName(id); }
  void intfStatusChange(Ovel::IntfId const & id) {
    intfStatus_.reconcileKey(this, id, status(id));
    owner_->handleIntfStatus(id);
  }
  void intfStatusReconcile(bool keyless) {
    if (keyless) owner_->handleIntfStatus();
    if (allIntfStatusDir_) intfStatus_.reconcile(this, allIntfStatusDir_->intfStatusIter());
  }
  void intfStatusLocalChange(Ovel::IntfId const & id) {
    intfStatusLocal_.reconcileKey(this, id, local(id));
    owner_->handleIntfStatusLocal(id);
  }
  void intfStatusLocalReconcile(bool keyless) {
    if (keyless) owner_->handleIntfStatusLocal();
    if (allIntfStatusLocalDir_) intfStatusLocal_.reconcile(this, allIntfStatusLocalDir_->intfStatusLocalIter());
  }

  Owner * owner_;
  Vorn::Ptr<AllIntfStatusDir const> allIntfStatusDir_;
  Vorn::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir_;
  Vorn::ReactorCollection<Ovel::IntfId, VornIntfStatus> intfStatus_{&VornIntfStatus::handleDeviceName};
  Vorn::ReactorCollection<Ovel::IntfId, VornIntfStatusLocal> intfStatusLocal_{&VornIntfStatusLocal::handleDeviceNetNs};
  Vorn::Ptr<VornAllIntfStatusDir> dirReactor_;
  Vorn::Ptr<VornAllIntfStatusLocalDir> localDirReactor_;
};

}  // namespace Interface
