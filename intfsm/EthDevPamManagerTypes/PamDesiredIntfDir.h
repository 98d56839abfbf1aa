// Which interfaces an agent wants a packet-access endpoint (Pam) for. The agent, or the bridge filter,
// writes it; the packet-access manager only reads it.
//
//   auto desired = Interface::pamDesiredIntfDirFactory("desired");
//   desired->intfDesiredIs(Ovel::IntfId("Ethernet1"), true);    // onIntfDesired(Ethernet1)
//   desired->intfDesiredIs(Ovel::IntfId("Ethernet2"), false);   // kept: false is stored, not absent
//
// A value is stored as given: an entry holding false is distinct from an absent one, although both
// mean that no Pam is wanted. Setting the value an entry already holds stores and notifies nothing.
#pragma once

#include <cstdint>

#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Interface {

class PamDesiredIntfDir : public Vorn::Entity {
 public:
  using Map = Vorn::Collection<Ovel::IntfId, bool>;

  class NotifieeConst : public Vorn::Notifiee<PamDesiredIntfDir> {
   public:
    virtual void onIntfDesired(Ovel::IntfId const &) {}
    virtual void onIntfDesiredvornImmediate() {}
  };

  char const * vornTypeName() const override { return "Interface::PamDesiredIntfDir"; }

  // False when absent.
  bool intfDesired(Ovel::IntfId const & id) const { return intfDesired_.get(id); }
  Map const & intfDesiredIter() const { return intfDesired_; }
  uint32_t intfDesireds() const { return intfDesired_.size(); }
  void intfDesiredIs(Ovel::IntfId const & id, bool desired) {
    setEntry(intfDesired_, id, desired, &NotifieeConst::onIntfDesired);
  }
  void intfDesiredDel(Ovel::IntfId const & id) { delEntry(intfDesired_, id, &NotifieeConst::onIntfDesired); }
  void intfDesiredDelAll() { delAllEntries(intfDesired_, &NotifieeConst::onIntfDesired); }
  void intfDesiredNotify(Ovel::IntfId const & id) const { notify(&NotifieeConst::onIntfDesired, id); }

 protected:
  friend Vorn::Ptr<PamDesiredIntfDir> pamDesiredIntfDirFactory(Vorn::Name const & name);
  explicit PamDesiredIntfDir(Vorn::Name const & name) : Entity(name) {}
  ~PamDesiredIntfDir() override = default;
  void vornImmediateNotify(Vorn::BaseNotifiee * n) const override {
    notifyOne(n, &NotifieeConst::onIntfDesiredvornImmediate);
  }

 private:
  Map intfDesired_;
};

Vorn::Ptr<PamDesiredIntfDir> pamDesiredIntfDirFactory(Vorn::Name const & name);

}  // namespace Interface
