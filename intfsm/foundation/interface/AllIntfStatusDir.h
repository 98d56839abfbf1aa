// The directory of every interface's IntfStatus, keyed by interface id (the key is the status's own id).
// The agent fills it; state machines watch it for interfaces that come and go.
//
//   auto dir = Interface::allIntfStatusDirFactory("allIntfStatus");
//   dir->intfStatusIs(Interface::intfStatusFactory(Ovel::IntfId("Ethernet1")));  // onIntfStatus(Ethernet1)
//   for (auto const & e : dir->intfStatusIter()) use(e.key, e.value);
//
// Mutators notify onIntfStatus(id) once per real change (insert, replace by another entity, delete) and
// not at all when nothing changes. A reactor bound with notifierIs first gets
// onIntfStatusvornImmediate(), on which it reconciles with what the directory already holds.
#pragma once

#include <cstdint>

#include "intfsm/foundation/interface/IntfStatus.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/Ptr.h"

namespace Interface {

class AllIntfStatusDir : public Vorn::Entity {
 public:
  using IntfStatusMap = Vorn::Collection<Ovel::IntfId, Vorn::Ptr<IntfStatus>>;

  class NotifieeConst : public Vorn::Notifiee<AllIntfStatusDir> {
   public:
    virtual void onIntfStatus(Ovel::IntfId const &) {}
    virtual void onIntfStatusvornImmediate() {}
  };

  explicit AllIntfStatusDir(Vorn::Name const & name) : Vorn::Entity(name) {}

  char const * vornTypeName() const override { return "Interface::AllIntfStatusDir"; }

  // Null when absent.
  Vorn::Ptr<IntfStatus const> intfStatus(Ovel::IntfId const & id) const { return intfStatus_.get(id); }
  Vorn::Ptr<IntfStatus> intfStatus(Ovel::IntfId const & id) { return intfStatus_.get(id); }
  IntfStatusMap const & intfStatusIter() const { return intfStatus_; }
  uint32_t intfStatuss() const { return intfStatus_.size(); }

  // Stores `status` under its own id, replacing another entity of that id. A null status raises
  // Vorn::RangeException and changes nothing.
  void intfStatusIs(Vorn::Ptr<IntfStatus> const & status);
  void intfStatusDel(Ovel::IntfId const & id);
  void intfStatusDelAll();
  // Tells the watchers that `id` changed without changing anything (also when it is absent).
  void intfStatusNotify(Ovel::IntfId const & id) const { notify(&NotifieeConst::onIntfStatus, id); }

 protected:
  ~AllIntfStatusDir() override = default;
  void vornImmediateNotify(Vorn::BaseNotifiee * notifiee) const override;

 private:
  IntfStatusMap intfStatus_;
};

Vorn::Ptr<AllIntfStatusDir> allIntfStatusDirFactory(Vorn::Name const & name);

}  // namespace Interface
