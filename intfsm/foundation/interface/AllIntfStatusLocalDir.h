// The directory of every interface's IntfStatusLocal (its network namespace), keyed by interface id
// (the key is the entity's own id). The agent fills it; state machines watch it for interfaces that
// come and go.
//
//   auto dir = Interface::allIntfStatusLocalDirFactory("allIntfStatusLocal");
//   dir->intfStatusLocalIs(Interface::intfStatusLocalFactory(Ovel::IntfId("Ethernet1")));
//   // watchers get onIntfStatusLocal(Ethernet1)
//   for (auto const & e : dir->intfStatusLocalIter()) use(e.key, e.value);
//
// Mutators notify onIntfStatusLocal(id) once per real change (insert, replace by another entity,
// delete) and not at all when nothing changes. A reactor bound with notifierIs first gets
// onIntfStatusLocalvornImmediate(), on which it reconciles with what the directory already holds.
#pragma once

#include <cstdint>

#include "intfsm/foundation/interface/IntfStatusLocal.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/Ptr.h"

namespace Interface {

class AllIntfStatusLocalDir : public Vorn::Entity {
 public:
  using IntfStatusLocalMap = Vorn::Collection<Ovel::IntfId, Vorn::Ptr<IntfStatusLocal>>;

  class NotifieeConst : public Vorn::Notifiee<AllIntfStatusLocalDir> {
   public:
    virtual void onIntfStatusLocal(Ovel::IntfId const &) {}
    virtual void onIntfStatusLocalvornImmediate() {}
  };

  explicit AllIntfStatusLocalDir(Vorn::Name const & name) : Vorn::Entity(name) {}

  char const * vornTypeName() const override { return "Interface::AllIntfStatusLocalDir"; }

  // Null when absent.
  Vorn::Ptr<IntfStatusLocal const> intfStatusLocal(Ovel::IntfId const & id) const {
    return intfStatusLocal_.get(id);
  }
  Vorn::Ptr<IntfStatusLocal> intfStatusLocal(Ovel::IntfId const & id) { return intfStatusLocal_.get(id); }
  IntfStatusLocalMap const & intfStatusLocalIter() const { return intfStatusLocal_; }
  uint32_t intfStatusLocals() const { return intfStatusLocal_.size(); }

  // Stores `local` under its own id, replacing another entity of that id. A null entity raises
  // Vorn::RangeException and changes nothing.
  void intfStatusLocalIs(Vorn::Ptr<IntfStatusLocal> const & local);
  void intfStatusLocalDel(Ovel::IntfId const & id);
  void intfStatusLocalDelAll();
  // Tells the watchers that `id` changed without changing anything (also when it is absent).
  void intfStatusLocalNotify(Ovel::IntfId const & id) const { notify(&NotifieeConst::onIntfStatusLocal, id); }

 protected:
  ~AllIntfStatusLocalDir() override = default;
  void vornImmediateNotify(Vorn::BaseNotifiee * notifiee) const override;

 private:
  IntfStatusLocalMap intfStatusLocal_;
};

Vorn::Ptr<AllIntfStatusLocalDir> allIntfStatusLocalDirFactory(Vorn::Name const & name);

}  // namespace Interface
