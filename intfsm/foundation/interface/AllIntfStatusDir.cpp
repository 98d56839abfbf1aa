#include "intfsm/foundation/interface/AllIntfStatusDir.h"

#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

void AllIntfStatusDir::intfStatusIs(Vorn::Ptr<IntfStatus> const & status) {
  if (!status) throw Vorn::RangeException(Vorn::nullParameterText("intfStatus", "Interface::AllIntfStatusDir"));
  Ovel::IntfId const id = status->intfId();
  setEntry(intfStatus_, id, status, &NotifieeConst::onIntfStatus);
}

void AllIntfStatusDir::intfStatusDel(Ovel::IntfId const & id) {
  delEntry(intfStatus_, id, &NotifieeConst::onIntfStatus);
}

void AllIntfStatusDir::intfStatusDelAll() {
  delAllEntries(intfStatus_, &NotifieeConst::onIntfStatus);
}

void AllIntfStatusDir::vornImmediateNotify(Vorn::BaseNotifiee * notifiee) const {
  notifyOne(notifiee, &NotifieeConst::onIntfStatusvornImmediate);
}

Vorn::Ptr<AllIntfStatusDir> allIntfStatusDirFactory(Vorn::Name const & name) { return new AllIntfStatusDir(name); }

}  // namespace Interface
