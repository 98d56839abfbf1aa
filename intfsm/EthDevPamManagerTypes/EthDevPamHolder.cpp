#include "intfsm/EthDevPamManagerTypes/EthDevPamHolder.h"

#include "intfsm/LibraryTypes.h"

namespace Interface {

namespace {
// Made by name from the registry: the name is the interface id's text.
// pam: made for a device name (set or call), and dropped by del.
Vorn::AttributeTableOf<EthDevPamHolder> const attributes("Interface::EthDevPamHolder", [](auto & t) {
  t.scalar("intfId", &EthDevPamHolder::intfId).instantiating("pam", &EthDevPamHolder::pam, &EthDevPamHolder::pamIs, &EthDevPamHolder::pamDel);
});
Intfsm::TypeRegistration registration(
    "Interface::EthDevPamHolder",
    [](Vorn::Name const & name) -> Vorn::Ptr<Vorn::Entity> { return ethDevPamHolderFactory(Ovel::IntfId(name)); },
    attributes);
}  // namespace

EthDevPamHolder::~EthDevPamHolder() = default;

Vorn::Ptr<Ovel::EthDevPam> EthDevPamHolder::pamIs(Vorn::String const & deviceName) {
  if (pam_ && pam_->name() == deviceName) return pam_;
  Vorn::Ptr<Ovel::EthDevPam> pam = new Ovel::EthDevPam(Vorn::Name(deviceName));
  pam->parentIs(this);
  if (pam_) pam_->parentIs(nullptr);
  pam_ = pam;
  notify(&NotifieeConst::onPam);
  return pam;
}

void EthDevPamHolder::pamDel() {
  if (!pam_) return;
  pam_->parentIs(nullptr);
  pam_ = nullptr;
  notify(&NotifieeConst::onPam);
}

Vorn::Ptr<EthDevPamHolder> ethDevPamHolderFactory(Ovel::IntfId const & intfId) { return new EthDevPamHolder(intfId); }

}  // namespace Interface
