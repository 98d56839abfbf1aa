// Owns the per-interface Ovel::EthDevPam of one interface. The Pam's name is its kernel device name,
// so a device renamed under the interface gets a new Pam:
//
//   Vorn::Ptr<Interface::EthDevPamHolder> h = Interface::ethDevPamHolderFactory(Ovel::IntfId("Ethernet1"));
//   auto pam = h->pamIs("et1");     // a new EthDevPam "et1", child of the holder
//   h->pamIs("et1") == pam;         // the same device: the same Pam
//   h->pamIs("et1_1");              // another device: the old Pam is detached (no parent) and replaced
//   h->pamDel();                    // detached and forgotten
//
// EthDevPamInBundleHolder is the same for a Pam that receives through a bundle.
#pragma once

#include "intfsm/foundation/ovel/EthDevPam.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Interface {

class EthDevPamHolder : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<EthDevPamHolder> {
   public:
    virtual void onPam() {}
  };

  char const * vornTypeName() const override { return "Interface::EthDevPamHolder"; }

  Ovel::IntfId const & intfId() const { return intfId_; }
  Vorn::Ptr<Ovel::EthDevPam> const & pam() const { return pam_; }
  Vorn::Ptr<Ovel::EthDevPam> pamIs(Vorn::String const & deviceName);
  void pamDel();

 protected:
  friend Vorn::Ptr<EthDevPamHolder> ethDevPamHolderFactory(Ovel::IntfId const & intfId);
  explicit EthDevPamHolder(Ovel::IntfId const & intfId) : Entity(Vorn::Name(intfId.name())), intfId_(intfId) {}
  ~EthDevPamHolder() override;

 private:
  Ovel::IntfId intfId_;
  Vorn::Ptr<Ovel::EthDevPam> pam_;
};

Vorn::Ptr<EthDevPamHolder> ethDevPamHolderFactory(Ovel::IntfId const & intfId);

}  // namespace Interface
