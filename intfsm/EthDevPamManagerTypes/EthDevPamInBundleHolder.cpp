#include "intfsm/EthDevPamManagerTypes/EthDevPamInBundleHolder.h"

#include "intfsm/LibraryTypes.h"

namespace Interface {

namespace {
// Made by name from the registry: the name is the interface id's text.
// pam: made for a device name (set or call), and dropped by del.
Vorn::AttributeTableOf<EthDevPamInBundleHolder> const attributes("Interface::EthDevPamInBundleHolder", [](auto & t) {
  t.scalar("intfId", &EthDevPamInBundleHolder::intfId).instantiating("pam", &EthDevPamInBundleHolder::pam, &EthDevPamInBundleHolder::pamIs, &EthDevPamInBundleHolder::pamDel);
});
Intfsm::TypeRegistration registration(
    "Interface::EthDevPamInBundleHolder",
    [](Vorn::Name const & name) -> Vorn::Ptr<Vorn::Entity> {
      return ethDevPamInBundleHolderFactory(Ovel::IntfId(name));
    },
    attributes);
}  // namespace

EthDevPamInBundleHolder::~EthDevPamInBundleHolder() = default;

Vorn::Ptr<Ovel::EthDevPamInBundle> EthDevPamInBundleHolder::pamIs(Vorn::String const & deviceName) {
  if (pam_ && pam_->name() == deviceName) return pam_;
  Vorn::Ptr<Ovel::EthDevPamInBundle> pam = new Ovel::EthDevPamInBundle(deviceName);
  pam->parentIs(this);
  if (pam_) pam_->parentIs(nullptr);
  pam_ = pam;
  notify(&NotifieeConst::onPam);
  return pam;
}

void EthDevPamInBundleHolder::pamDel() {
  if (!pam_) return;
  pam_->parentIs(nullptr);
  pam_ = nullptr;
  notify(&NotifieeConst::onPam);
}

Vorn::Ptr<EthDevPamInBundleHolder> ethDevPamInBundleHolderFactory(Ovel::IntfId const & intfId) {
  return new EthDevPamInBundleHolder(intfId);
}

}  // namespace Interface
