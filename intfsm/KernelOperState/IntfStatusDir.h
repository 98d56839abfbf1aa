// The directories through which an agent hands the oper-state subsystem its interface statuses:
// plain keyed references to the agent's own `Interface::IntfStatus` / `Interface::IntfStatusLocal`
// entities, keyed by each entity's own interface id.
//
//   dir->intfStatusIs(status);          // insert or replace under status->intfId()
//   dir->intfStatusDel(status->intfId());
#pragma once

#include "intfsm/foundation/interface/IntfStatus.h"
#include "intfsm/foundation/interface/IntfStatusLocal.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace KernelOperState {

class IntfStatusDir : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<IntfStatusDir> {
   public:
    virtual void onIntfStatus(Ovel::IntfId const &) {}
    virtual void onIntfStatusvornImmediate() {}
  };

  static Vorn::Ptr<IntfStatusDir> intfStatusDirNew(Vorn::Name const & name) { return new IntfStatusDir(name); }
  char const * vornTypeName() const override { return "KernelOperState::IntfStatusDir"; }

  Vorn::Ptr<Interface::IntfStatus const> intfStatus(Ovel::IntfId const & id) const { return intfStatus_.get(id); }
  uint32_t intfStatuss() const { return intfStatus_.size(); }
  Vorn::Collection<Ovel::IntfId, Vorn::Ptr<Interface::IntfStatus const>> const & intfStatusIter() const {
    return intfStatus_;
  }
  // Null raises Vorn::RangeException and changes nothing.
  void intfStatusIs(Vorn::Ptr<Interface::IntfStatus const> const & status);
  void intfStatusDel(Ovel::IntfId const & id);
  void intfStatusDelAll();
  // Notifies the key without changing anything, also for an absent key.
  void intfStatusNotify(Ovel::IntfId const & id) const { notify(&NotifieeConst::onIntfStatus, id); }

 protected:
  explicit IntfStatusDir(Vorn::Name const & name) : Entity(name) {}
  void vornImmediateNotify(Vorn::BaseNotifiee * n) const override {
    notifyOne(n, &NotifieeConst::onIntfStatusvornImmediate);
  }

 private:
  Vorn::Collection<Ovel::IntfId, Vorn::Ptr<Interface::IntfStatus const>> intfStatus_;
};

class IntfStatusLocalDir : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<IntfStatusLocalDir> {
   public:
    virtual void onIntfStatusLocal(Ovel::IntfId const &) {}
    virtual void onIntfStatusLocalvornImmediate() {}
  };

  static Vorn::Ptr<IntfStatusLocalDir> intfStatusLocalDirNew(Vorn::Name const & name) {
    return new IntfStatusLocalDir(name);
  }
  char const * vornTypeName() const override { return "KernelOperState::IntfStatusLocalDir"; }

  Vorn::Ptr<Interface::IntfStatusLocal const> intfStatusLocal(Ovel::IntfId const & id) const {
    return intfStatusLocal_.get(id);
  }
  uint32_t intfStatusLocals() const { return intfStatusLocal_.size(); }
  Vorn::Collection<Ovel::IntfId, Vorn::Ptr<Interface::IntfStatusLocal const>> const & intfStatusLocalIter() const {
    return intfStatusLocal_;
  }
  void intfStatusLocalIs(Vorn::Ptr<Interface::IntfStatusLocal const> const & status);
  void intfStatusLocalDel(Ovel::IntfId const & id);
  void intfStatusLocalDelAll();
  void intfStatusLocalNotify(Ovel::IntfId const & id) const { notify(&NotifieeConst::onIntfStatusLocal, id); }

 protected:
  explicit IntfStatusLocalDir(Vorn::Name const & name) : Entity(name) {}
  void vornImmediateNotify(Vorn::BaseNotifiee * n) const override {
    notifyOne(n, &NotifieeConst::onIntfStatusLocalvornImmediate);
  }

 private:
  Vorn::Collection<Ovel::IntfId, Vorn::Ptr<Interface::IntfStatusLocal const>> intfStatusLocal_;
};

}  // namespace KernelOperState
