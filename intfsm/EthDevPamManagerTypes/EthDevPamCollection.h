// Where the packet-access manager publishes the Pams it has made, by interface; agents read it. A
// bundle keeps a second one (actPamCollection) of the Pams whose readers it still has to call.
//
//   auto pams = Interface::ethDevPamCollectionFactory("pams");
//   pams->intfPamIs(Ovel::IntfId("Ethernet1"), pam);       // onIntfPam(Ethernet1)
//   pams->intfPamIs(Ovel::IntfId("Ethernet1"), nullptr);   // a null Pam deletes the entry
//
// Setting the Pam an entry already holds stores and notifies nothing; deleting an absent entry does
// nothing either.
#pragma once

#include <cstdint>

#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/ovel/Pam.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Interface {

class EthDevPamCollection : public Vorn::Entity {
 public:
  using Map = Vorn::Collection<Ovel::IntfId, Vorn::Ptr<Ovel::Pam>>;

  class NotifieeConst : public Vorn::Notifiee<EthDevPamCollection> {
   public:
    virtual void onIntfPam(Ovel::IntfId const &) {}
    virtual void onIntfPamvornImmediate() {}
  };

  char const * vornTypeName() const override { return "Interface::EthDevPamCollection"; }

  // Null when absent.
  Vorn::Ptr<Ovel::Pam> intfPam(Ovel::IntfId const & id) const { return intfPam_.get(id); }
  Map const & intfPamIter() const { return intfPam_; }
  uint32_t intfPams() const { return intfPam_.size(); }
  bool empty() const { return intfPam_.empty(); }
  void intfPamIs(Ovel::IntfId const & id, Vorn::Ptr<Ovel::Pam> const & pam) {
    if (!pam) {
      intfPamDel(id);
      return;
    }
    setEntry(intfPam_, id, pam, &NotifieeConst::onIntfPam);
  }
  void intfPamDel(Ovel::IntfId const & id) { delEntry(intfPam_, id, &NotifieeConst::onIntfPam); }
  void intfPamDelAll() { delAllEntries(intfPam_, &NotifieeConst::onIntfPam); }
  void intfPamNotify(Ovel::IntfId const & id) const { notify(&NotifieeConst::onIntfPam, id); }

 protected:
  friend Vorn::Ptr<EthDevPamCollection> ethDevPamCollectionFactory(Vorn::Name const & name);
  explicit EthDevPamCollection(Vorn::Name const & name) : Entity(name) {}
  ~EthDevPamCollection() override = default;
  void vornImmediateNotify(Vorn::BaseNotifiee * n) const override { notifyOne(n, &NotifieeConst::onIntfPamvornImmediate); }

 private:
  Map intfPam_;
};

Vorn::Ptr<EthDevPamCollection> ethDevPamCollectionFactory(Vorn::Name const & name);

}  // namespace Interface
