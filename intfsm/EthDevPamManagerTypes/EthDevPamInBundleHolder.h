// Owns the Ovel::EthDevPamInBundle of one interface: the holder the packet-access manager keeps per
// interface. Same rules as EthDevPamHolder: the Pam is named after the kernel device, the same device
// name keeps the Pam, another one detaches the old Pam (no parent) and makes a new one.
//
//   auto h = Interface::ethDevPamInBundleHolderFactory(Ovel::IntfId("Ethernet1"));
//   Vorn::Ptr<Ovel::EthDevPamInBundle> pam = h->pamIs("et1");
#pragma once

#include "intfsm/foundation/ovel/EthDevPamInBundle.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Interface {

class EthDevPamInBundleHolder : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<EthDevPamInBundleHolder> {
   public:
    virtual void onPam() {}
  };

  char const * vornTypeName() const override { return "Interface::EthDevPamInBundleHolder"; }

  Ovel::IntfId const & intfId() const { return intfId_; }
  Vorn::Ptr<Ovel::EthDevPamInBundle> const & pam() const { return pam_; }
  Vorn::Ptr<Ovel::EthDevPamInBundle> pamIs(Vorn::String const & deviceName);
  void pamDel();

 protected:
  friend Vorn::Ptr<EthDevPamInBundleHolder> ethDevPamInBundleHolderFactory(Ovel::IntfId const & intfId);
  explicit EthDevPamInBundleHolder(Ovel::IntfId const & intfId)
      : Entity(Vorn::Name(intfId.name())), intfId_(intfId) {}
  ~EthDevPamInBundleHolder() override;

 private:
  Ovel::IntfId intfId_;
  Vorn::Ptr<Ovel::EthDevPamInBundle> pam_;
};

Vorn::Ptr<EthDevPamInBundleHolder> ethDevPamInBundleHolderFactory(Ovel::IntfId const & intfId);

}  // namespace Interface
